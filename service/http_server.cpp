// SPDX-License-Identifier: MIT
#include "http_server.h"

#include "spare_descriptor.h"

#include "free_memory.h"
#include "tls_session.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <list>
#include <cstdio>
#include <sstream>
#include <thread>

namespace norva::service {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using beast::error_code;

namespace {

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

// A target in absolute form ("http://host/path") is taken as its path.
std::string originForm(const std::string& target)
{
    const std::string lower = lowered(target.substr(0, 8));
    if (lower.rfind("http://", 0) != 0 && lower.rfind("https://", 0) != 0)
        return target;
    const std::size_t path = target.find_first_of("/?", target.find("://") + 3);
    if (path == std::string::npos)
        return "/";
    return target[path] == '?' ? "/" + target.substr(path) : target.substr(path);
}

// What is wrong with a request's head where HTTP/1.1 is strict about it
// (RFC 9112): one Host field, only the chunked transfer coding and only as the
// last one, and no expectation but 100-continue. None when it is right.
std::optional<HttpResponse> wrongHead(const HttpRequest& request)
{
    int hosts = 0;
    std::vector<std::string> codings;
    for (const auto& [name, value] : request.headers) {
        const std::string field = lowered(name);
        if (field == "host")
            ++hosts;
        if (field != "transfer-encoding")
            continue;
        std::size_t at = 0;
        while (at <= value.size()) {
            const std::size_t comma = std::min(value.find(',', at), value.size());
            std::string coding = lowered(value.substr(at, comma - at));
            coding.erase(0, coding.find_first_not_of(" \t"));
            coding.erase(coding.find_last_not_of(" \t") + 1);
            if (!coding.empty())
                codings.push_back(coding);
            at = comma + 1;
        }
    }
    if (hosts != 1)
        return HttpResponse::text(400, "a request needs one Host field\n");
    for (std::size_t i = 0; i < codings.size(); ++i) {
        if (codings[i] != "chunked")
            return HttpResponse::text(501, "no transfer coding but chunked is taken\n");
        if (i + 1 != codings.size())
            return HttpResponse::text(400, "chunked must be the last transfer coding, and only once\n");
    }
    const std::string expect = lowered(request.header("Expect"));
    if (!expect.empty() && expect != "100-continue")
        return HttpResponse::text(417, "no expectation but 100-continue is met\n");
    return std::nullopt;
}

void splitTarget(HttpRequest& request)
{
    const auto question = request.target.find('?');
    request.path = percentDecode(request.target.substr(0, question), false);
    if (question == std::string::npos)
        return;
    const std::string query = request.target.substr(question + 1);
    std::size_t at = 0;
    while (at <= query.size()) {
        const auto amp = std::min(query.find('&', at), query.size());
        const std::string pair = query.substr(at, amp - at);
        if (!pair.empty()) {
            const auto eq = pair.find('=');
            request.query.emplace(percentDecode(pair.substr(0, eq), true),
                                  eq == std::string::npos ? std::string() : percentDecode(pair.substr(eq + 1), true));
        }
        at = amp + 1;
    }
}

// A broken message, as opposed to a peer that went away or went quiet.
bool isMalformed(const error_code& ec)
{
    return ec.category() == make_error_code(http::error::bad_version).category() && ec != http::error::end_of_stream
           && ec != http::error::partial_message;
}

// The answer to a request the parser could not read: 431 for a head too
// large, 413 for a body too large, 400 for a broken message; 0 (no answer)
// when the peer went away or went quiet.
int refusalStatus(const error_code& ec)
{
    return ec == http::error::header_limit ? 431 : ec == http::error::body_limit ? 413 : isMalformed(ec) ? 400 : 0;
}

// An answer's status line, fields and keep-alive, on Beast's message.
template <class Body> void describe(http::response<Body>& message, const HttpResponse& response, bool keepAlive)
{
    message.version(11);
    message.result(unsigned(response.status));
    for (const auto& header : response.headers)
        message.insert(header.first, header.second);
    message.keep_alive(keepAlive);
}

class Connection;

// What Beast's synchronous algorithms read and write through: every call is one
// awaited operation under the idle limit, and what is read may be kept raw.
class TimedStream
{
public:
    explicit TimedStream(Connection& connection, std::string* raw = nullptr) : connection(connection), raw(raw) {}

    template <class Buffers> std::size_t read_some(const Buffers& buffers, error_code& ec);
    template <class Buffers> std::size_t write_some(const Buffers& buffers, error_code& ec);
    template <class Buffers> std::size_t read_some(const Buffers& buffers) { return orThrow(read_some(buffers, lastError)); }
    template <class Buffers> std::size_t write_some(const Buffers& buffers) { return orThrow(write_some(buffers, lastError)); }

private:
    Connection& connection;
    std::string* const raw;

    std::size_t orThrow(std::size_t count)
    {
        if (lastError)
            throw beast::system_error(lastError);
        return count;
    }
    error_code lastError;
};

// After answering early (from a head alone, or before a body's end), the
// connection reads and drops what still comes before it closes, as nginx's
// lingering close does: closing with unread bytes would reset the connection,
// and a client still sending would lose the answer with it. Bounded: at most
// this long in all, this long without a byte (or the idle limit, if shorter),
// and this many bytes.
constexpr std::chrono::milliseconds lingerAtMost(30000);
constexpr std::chrono::milliseconds lingerGap(5000);
constexpr std::uint64_t lingerBytes = std::uint64_t(1) << 30;

// What one TLS session holds (OpenSSL's state and buffers, and Asio's), as
// measured on a service that held thousands of unfinished handshakes.
constexpr std::uint64_t tlsSessionBytes = 88 << 10;

class Connection final : public HttpConnection, public std::enable_shared_from_this<Connection>
{
public:
    // A connection served on a thread of its own, with a context of its own.
    Connection(const HttpLimits& limits, const std::atomic<bool>& stopping)
        : limits(limits), stopping(stopping), ownContext(std::in_place), stream(ownContext->get_executor()),
          held(limits.bodyMemory), silence(stream.get_executor())
    {
    }
    // A connection on the server's pool of threads: its operations run in a
    // strand of the pool, and a request's handler on a worker (`Pooled` below).
    Connection(const HttpLimits& limits, const std::atomic<bool>& stopping, net::io_context& pool)
        : limits(limits), stopping(stopping), stream(net::make_strand(pool)), held(limits.bodyMemory),
          silence(stream.get_executor())
    {
    }

    // Runs one asynchronous operation and waits for it: Beast's deadlines
    // apply to asynchronous operations only. On a context of its own, the
    // waiting thread runs it; on the pool, the operation starts in the
    // connection's strand and the waiting thread sleeps until it is over.
    template <class Start> std::size_t await(Start start, error_code& ec, std::chrono::milliseconds limit)
    {
        if (stopping) {
            ec = net::error::operation_aborted;
            return 0;
        }
        std::size_t count = 0;
        if (ownContext) {
            stream.expires_after(limit);
            bool done = false;
            start([&](error_code result, std::size_t n) {
                ec = result;
                count = n;
                done = true;
            });
            ownContext->restart();
            while (!done && ownContext->run_one() > 0) {
            }
            if (!done)
                ec = net::error::operation_aborted;
            return count;
        }
        std::mutex mutex;
        std::condition_variable over;
        bool done = false;
        net::post(stream.get_executor(), [&] {
            stream.expires_after(limit);
            start([&](error_code result, std::size_t n) {
                const std::lock_guard<std::mutex> lock(mutex);
                ec = result;
                count = n;
                done = true;
                over.notify_one(); // under the lock: the waiter can't be gone yet
            });
        });
        std::unique_lock<std::mutex> lock(mutex);
        over.wait(lock, [&done] { return done; });
        return count;
    }

    Read readRequest(HttpRequest& request, std::string* raw) override
    {
        TimedStream timed(*this, raw);
        startParser();
        error_code ec;
        http::read_header(timed, buffer, *parser, ec);
        if (ec)
            return refused(ec);
        return readAfterHead(request, timed);
    }

    // A new parser for the next request, on what is left in the buffer.
    void startParser()
    {
        answeringHead = false;
        // Bytes held unparsed stay bounded: a head, a chunk's size line with
        // its extensions, or a trailer larger than this is refused (400), not
        // buffered whole (a 128 MiB chunk extension once was).
        buffer.max_size(limits.headBytes + (32 << 10));
        parser.emplace();
        parser->header_limit(std::uint32_t(std::min<std::size_t>(limits.headBytes, UINT32_MAX)));
        parser->body_limit(limits.bodyBytes);
    }

    // The request the parser's head describes.
    void takeHead(HttpRequest& request)
    {
        const auto& head = parser->get();
        request.method = std::string(head.method_string());
        request.target = originForm(std::string(head.target()));
        splitTarget(request);
        for (const auto& field : head)
            request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        request.keepAlive = parser->keep_alive();
        answeringHead = request.method == "HEAD";
    }

    // How a request's body is taken, once its head passed.
    struct BodyPlan {
        bool split = false; // a form, into its parts as it comes
        std::uint64_t memoryPerByte = 1;
    };

    // Plans the body as the head's verdict allows: a form the verdict has a
    // plan for is split into its parts as it comes; other bodies stay in
    // memory, under a smaller limit, and count against the server's bound from
    // the head when it says its length, else as they come. Beast checks the
    // limit for chunked bodies as they come; a Content-Length is checked here,
    // before any of the body. The answer when the body is not to be read.
    std::optional<HttpResponse> planBody(HttpRequest& request, HeadVerdict& verdict, BodyPlan& plan)
    {
        const std::string contentType = request.header("Content-Type");
        plan.split = !limits.spoolFolder.empty() && verdict.form
                     && lowered(contentType).rfind("multipart/form-data", 0) == 0;
        plan.memoryPerByte = std::max<std::uint64_t>(1, verdict.memoryPerBodyByte);
        const std::uint64_t cap = std::min(verdict.bodyLimit, plan.split ? limits.bodyBytes
                                                                          : std::min<std::uint64_t>(limits.bodyBytes, limits.memoryBodyBytes));
        if (parser->content_length() && *parser->content_length() > cap)
            return HttpResponse::text(413, std::string());
        parser->body_limit(cap);
        if (plan.split) {
            request.form = std::make_shared<FormSplitter>(formBoundary(contentType), *verdict.form, limits.spoolFolder);
            return std::nullopt;
        }
        request.bodyMemory = std::make_shared<HeldBodyMemory>(limits.bodyMemory);
        if (parser->content_length() && !request.bodyMemory->grow(*parser->content_length() * plan.memoryPerByte))
            return busyAnswer();
        return std::nullopt;
    }

    // Takes `count` bytes of the body as planned; the answer when they can't
    // be taken (no room for a part file, or the memory bound reached).
    std::optional<HttpResponse> takeBody(HttpRequest& request, const BodyPlan& plan, const char* bytes, std::size_t count)
    {
        if (plan.split) {
            if (!request.form->feed(bytes, count))
                return HttpResponse::text(lastWriteFoundNoRoom() ? 507 : 500, std::string());
            return std::nullopt;
        }
        const std::uint64_t needed = (request.body.size() + count) * plan.memoryPerByte;
        if (needed > request.bodyMemory->size() && !request.bodyMemory->grow(needed - request.bodyMemory->size()))
            return busyAnswer();
        request.body.append(bytes, count);
        return std::nullopt;
    }

    static HttpResponse busyAnswer() { return HttpResponse::text(503, "too much request data held at once; try again\n"); }

    // The request whose head the parser has read: the head checked, then the
    // body read as the head allows.
    Read readAfterHead(HttpRequest& request, TimedStream& timed)
    {
        takeHead(request);
        if (std::optional<HttpResponse> wrong = wrongHead(request))
            return answerEarly(*wrong);
        // The head first: a request refused by it is answered before any of its
        // body is read, and the body is never kept.
        HeadVerdict verdict;
        if (limits.checkHead)
            verdict = limits.checkHead(request);
        if (verdict.refusal)
            return answerEarly(*verdict.refusal);
        BodyPlan plan;
        if (std::optional<HttpResponse> refusal = planBody(request, verdict, plan))
            return answerEarly(*refusal);
        // The head passed: a client that waits to be asked for its body is.
        if (lowered(request.header("Expect")) == "100-continue" && !parser->is_done())
            writeRaw("HTTP/1.1 100 Continue\r\n\r\n");
        char chunk[64 << 10];
        error_code ec;
        while (!parser->is_done()) {
            parser->get().body().data = chunk;
            parser->get().body().size = sizeof chunk;
            http::read(timed, buffer, *parser, ec);
            if (ec == http::error::need_buffer)
                ec = {};
            if (std::optional<HttpResponse> refusal = takeBody(request, plan, chunk, sizeof chunk - parser->get().body().size))
                return answerEarly(*refusal);
            if (ec)
                return isMalformed(ec) ? refused(ec) : Read::Partial;
        }
        return Read::Request;
    }

    // Answers without reading the rest, then drops what still comes.
    Read answerEarly(const HttpResponse& answer)
    {
        write(answer, false);
        linger();
        return Read::None;
    }

    bool write(const HttpResponse& response, bool keepAlive) override
    {
        if (response.bodyFile.empty()) {
            http::response<http::string_body> message;
            // 204 and 304 carry no body in HTTP; Beast would refuse to send one.
            const bool bodiless = response.status == 204 || response.status == 304;
            message.body() = bodiless ? std::string() : response.body;
            return send(message, response, keepAlive);
        }
        return sendFile(response, keepAlive);
    }

    bool writeRaw(const std::string& bytes) override
    {
        TimedStream timed(*this);
        error_code ec;
        net::write(timed, net::buffer(bytes), ec);
        return !ec;
    }

    void waitForPeerToClose(std::chrono::milliseconds limit) override
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        char ignored[512];
        error_code ec;
        while (!ec) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return;
            readSome(net::buffer(ignored), ec, left);
        }
    }

    // Starts TLS on the connection when the server has it; false when its
    // handshake did not succeed within `limit`.
    bool startTls(TlsContext* context, std::chrono::milliseconds limit)
    {
        if (!context)
            return true;
        tls = startTlsSession(*context, stream);
        error_code ec;
        await([&](auto done) { tls->asyncHandshake(net::const_buffer(), done); }, ec, limit);
        return !ec;
    }

    std::size_t readSome(net::mutable_buffer into, error_code& ec, std::chrono::milliseconds limit)
    {
        if (tls)
            return await([&](auto done) { tls->asyncReadSome(into, done); }, ec, limit);
        return await([&](auto done) { stream.async_read_some(into, done); }, ec, limit);
    }

    template <class Buffers> std::size_t writeSome(const Buffers& buffers, error_code& ec)
    {
        if (!tls)
            return await([&](auto done) { stream.async_write_some(buffers, done); }, ec, limits.idle);
        // Up to one TLS record at a time, gathered from Beast's buffers.
        record.resize(16 << 10);
        const std::size_t size = net::buffer_copy(net::buffer(record), buffers);
        return await([&](auto done) { tls->asyncWriteSome(net::buffer(record.data(), size), done); }, ec,
                     limits.idle);
    }

    // The peer sees the end of the stream once everything sent has gone. What
    // the connection held of the memory bound is free before the peer can
    // tell that it has ended.
    void finish()
    {
        buffer = beast::flat_buffer();
        held.hold(0);
        error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream.socket().close(ignored);
    }

    std::chrono::milliseconds idle() const { return limits.idle; }

    const HttpLimits& limits;
    const std::atomic<bool>& stopping;
    std::optional<net::io_context> ownContext;
    beast::tcp_stream stream;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::buffer_body>> parser;
    std::unique_ptr<TlsSession> tls; // on `stream`, when the server speaks TLS
    bool answeringHead = false;      // the request being answered is a HEAD
    // What the connection itself takes of the server's memory bound: its read
    // buffer's room and its TLS session. A client that holds a connection
    // with half a head (or half a handshake) holds this much, and no more
    // of it than the bound allows.
    HeldBodyMemory held;
    net::steady_timer silence; // ends a wait for a first byte that does not come
    // Its place among the TLS handshakes under way (PooledConnections'),
    // while its handshake is; guarded by their lock.
    std::optional<std::list<std::weak_ptr<Connection>>::iterator> handshaking;

    bool holdWhatItUses() { return held.hold(buffer.capacity() + (tls ? tlsSessionBytes : 0)); }

    // Room in the buffer for the next read. A head (or a TLS hello) is read
    // into what is left, the buffer doubling from 1 KiB when full: most heads
    // are under 1 KiB, and a client may hold thousands of half ones. A body is
    // read at least 16 KiB at a time.
    net::mutable_buffer roomToRead(bool forBody)
    {
        const std::size_t free = buffer.max_size() - buffer.size();
        const std::size_t left = buffer.capacity() - buffer.size();
        const std::size_t wanted = forBody   ? std::max<std::size_t>(16 << 10, left)
                                   : left > 0 ? left
                                              : std::max<std::size_t>(1 << 10, buffer.size());
        return buffer.prepare(std::min(free, wanted));
    }

    // Answers a request that can't be read, when there is anybody to answer.
    Read refused(const error_code& ec)
    {
        if (const int status = refusalStatus(ec))
            return answerEarly(HttpResponse::text(status, std::string()));
        return Read::None;
    }

    // Reads and drops what the peer still sends, within the bounds above.
    void linger()
    {
        const auto end = std::chrono::steady_clock::now() + lingerAtMost;
        std::array<char, 16 << 10> dropped;
        std::uint64_t bytes = 0;
        error_code ec;
        while (!ec && bytes < lingerBytes && !stopping) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return;
            bytes += readSome(net::buffer(dropped), ec, std::min({left, lingerGap, limits.idle}));
        }
    }

private:
    template <class Body> bool send(http::response<Body>& message, const HttpResponse& response, bool keepAlive)
    {
        describe(message, response, keepAlive);
        message.prepare_payload();
        TimedStream timed(*this);
        error_code ec;
        if (answeringHead) { // the head GET's answer would have, its length among it
            http::response_serializer<Body> serializer(message);
            http::write_header(timed, serializer, ec);
        } else {
            http::write(timed, message, ec);
        }
        return !ec;
    }

    // Beast's file body reads a file 4 KiB at a time, and each write here is
    // one awaited operation (80 MB/s): the file goes in larger pieces instead.
    bool sendFile(const HttpResponse& response, bool keepAlive)
    {
        beast::file file;
        error_code ec;
        file.open(response.bodyFile.c_str(), beast::file_mode::scan, ec);
        const std::uint64_t size = ec ? 0 : file.size(ec);
        if (ec)
            return write(HttpResponse::text(500, "cannot read the file\n"), false);
        http::response<http::empty_body> message;
        describe(message, response, keepAlive);
        message.content_length(size);
        TimedStream timed(*this);
        http::response_serializer<http::empty_body> head(message);
        http::write_header(timed, head, ec);
        if (answeringHead)
            return !ec;
        std::vector<char> piece(256 << 10);
        for (std::uint64_t left = size; !ec && left > 0;) {
            const std::size_t count = file.read(piece.data(), std::size_t(std::min<std::uint64_t>(left, piece.size())), ec);
            if (!ec && count == 0)
                return false; // the file became shorter meanwhile: the answer cannot be whole
            net::write(timed, net::buffer(piece.data(), count), ec);
            left -= count;
        }
        return !ec;
    }



    std::vector<char> record; // a TLS record on its way (the thread-per-connection path)
};

// Acknowledges what arrives at once. A client that keeps its connection and
// writes a request in two pieces (Qt's manager writes head and body apart, with
// Nagle's wait on) would otherwise wait for the delayed ACK, 40 ms a request.
// Linux only: elsewhere the option does not exist, and the wait stays.
void acknowledgeAtOnce([[maybe_unused]] tcp::socket& socket)
{
#ifdef TCP_QUICKACK
    error_code ignored;
    socket.set_option(net::detail::socket_option::boolean<IPPROTO_TCP, TCP_QUICKACK>(true), ignored);
#endif
}

// Keeps at most 64 KiB of an answer waiting in the kernel for a client to
// take it (a file goes in pieces of that size too). Without a bound, the
// kernel takes up to its send buffer's limit (4 MiB here) from every write:
// 300 downloads that are never read hold 900 MB of kernel memory, and copying
// it in keeps the service's threads from everyone else for a second. Bytes in
// flight are not counted, so a client that reads still gets the whole window.
// Linux and BSD; elsewhere nothing is bound.
void boundUnsentBytes([[maybe_unused]] tcp::socket& socket)
{
#ifdef TCP_NOTSENT_LOWAT
    error_code ignored;
    socket.set_option(net::detail::socket_option::integer<IPPROTO_TCP, TCP_NOTSENT_LOWAT>(64 << 10), ignored);
#endif
}

template <class Buffers> std::size_t TimedStream::read_some(const Buffers& buffers, error_code& ec)
{
    acknowledgeAtOnce(connection.stream.socket());
    // Beast reads into one buffer (its flat buffer's free room).
    const net::mutable_buffer into = beast::buffers_front(buffers);
    const std::size_t count = connection.readSome(into, ec, connection.idle());
    if (raw && count > 0)
        raw->append(static_cast<const char*>(into.data()), count);
    return count;
}

template <class Buffers> std::size_t TimedStream::write_some(const Buffers& buffers, error_code& ec)
{
    return connection.writeSome(buffers, ec);
}

} // namespace

bool lastWriteFoundNoRoom()
{
    return errno == ENOSPC;
}

std::string HttpRequest::header(const std::string& name) const
{
    const std::string wanted = lowered(name);
    for (const auto& h : headers) {
        if (lowered(h.first) == wanted)
            return h.second;
    }
    return std::string();
}

std::string HttpRequest::queryValue(const std::string& name, const std::string& fallback) const
{
    const auto it = query.find(name);
    return it == query.end() ? fallback : it->second;
}

HttpResponse HttpResponse::json(const std::string& body, int status)
{
    HttpResponse response;
    response.status = status;
    response.headers = {{"Content-Type", "application/json;charset=UTF-8"}};
    response.body = body;
    return response;
}

HttpResponse HttpResponse::text(int status, const std::string& body)
{
    HttpResponse response;
    response.status = status;
    response.headers = {{"Content-Type", "text/plain;charset=UTF-8"}};
    response.body = body;
    return response;
}

std::string percentDecode(const std::string& text, bool plusIsSpace)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1]))
            && std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            decoded += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else if (plusIsSpace && text[i] == '+') {
            decoded += ' ';
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

std::string percentEncode(const std::string& text)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            encoded += char(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 15];
        }
    }
    return encoded;
}

struct HttpServer::Context {
    net::io_context context;
    std::function<void()> keepRunning; // serve(): lets the pool end once stopped
    tcp::acceptor acceptor{context};
    net::signal_set signals{context};
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::condition_variable ended;
    std::set<Connection*> open;
    std::size_t mostOpen = 0; // connections open at once since memory was last given back
    SpareDescriptor spare;      // for a connection to turn away when none is left
    bool acceptFailing = false; // the last accept failed (logged once a run)
    bool tls = false;           // a turned-away connection gets no plain answer
};

HttpServer::HttpServer(HttpLimits limits) : context(std::make_unique<Context>()), limits(std::move(limits))
{
    this->limits.bodyMemory = std::make_shared<BodyMemory>(this->limits.memoryBodiesBytes);
    context->tls = bool(this->limits.tls);
}

bool BodyMemory::take(std::uint64_t bytes)
{
    std::uint64_t now = held.load();
    do {
        if (bytes > most || now > most - bytes)
            return false;
    } while (!held.compare_exchange_weak(now, now + bytes));
    return true;
}

HttpServer::~HttpServer() = default;

bool HttpServer::listen(const std::string& host, int port, std::string& error)
{
    error_code ec;
    tcp::resolver resolver(context->context);
    const auto found = resolver.resolve(host, std::to_string(port), tcp::resolver::numeric_service, ec);
    if (ec || found.empty()) {
        error = "cannot resolve " + host;
        return false;
    }
    const tcp::endpoint endpoint = found.begin()->endpoint();
    tcp::acceptor& acceptor = context->acceptor;
    if (!acceptor.open(endpoint.protocol(), ec) && !acceptor.set_option(net::socket_base::reuse_address(true), ec)
        && !acceptor.bind(endpoint, ec) && !acceptor.listen(net::socket_base::max_listen_connections, ec)) {
        const tcp::endpoint bound = acceptor.local_endpoint();
        boundPort = bound.port();
        const std::string ip = bound.address().to_string();
        boundAddress = (bound.address().is_v6() ? "[" + ip + "]" : ip) + ":" + std::to_string(boundPort);
        loopback = bound.address().is_loopback();
        return true;
    }
    error = "cannot listen on " + host + ":" + std::to_string(port) + ": " + ec.message();
    return false;
}

namespace {

// After this many connections have ended since the most that were open at
// once, the memory they held goes back to the system: the allocator would
// keep it for connections that may never come again.
constexpr std::size_t waveOfConnections = 1000;

// A connection that has ended leaves the open ones.
void forget(HttpServer::Context& c, Connection* connection)
{
    connection->finish();
    bool waveEnded = false;
    {
        const std::lock_guard<std::mutex> lock(c.mutex);
        c.open.erase(connection);
        waveEnded = c.mostOpen >= c.open.size() + waveOfConnections;
        if (waveEnded)
            c.mostOpen = c.open.size();
        c.ended.notify_all();
    }
    // A moment later: the wave's last connections (and their TLS sessions)
    // are still being taken apart on the pool's other threads.
    if (waveEnded) {
        auto later = std::make_shared<net::steady_timer>(c.context, std::chrono::milliseconds(100));
        later->async_wait([later](const error_code&) { returnFreeMemory(); });
    }
}

// An accept that failed does not end the loop. Out of descriptors, the spare
// one makes room to take the waiting connection, answer it 503 and close it
// (else the loop would wake for it again at once); then, as after any other
// failure, the loop waits a moment and goes on. The first failure of a run of
// them is logged.
void acceptFailed(HttpServer::Context& c, const error_code& ec, std::function<void()> again)
{
    if (!c.acceptFailing)
        std::fprintf(stderr, "norva-records-service: accepting a connection failed (%s); going on\n", ec.message().c_str());
    c.acceptFailing = true;
    if (outOfDescriptors(ec.value())) {
        c.spare.release();
        error_code ignored;
        tcp::socket turnedAway(c.context);
        c.acceptor.accept(turnedAway, ignored);
        if (!ignored && !c.tls) {
            static const char answer[] = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\n"
                                         "Content-Length: 21\r\nConnection: close\r\n\r\ntoo many connections\n";
            net::write(turnedAway, net::buffer(answer, sizeof answer - 1), ignored);
        }
        turnedAway.close(ignored);
        c.spare.take();
    }
    auto pause = std::make_shared<net::steady_timer>(c.context, std::chrono::milliseconds(50));
    pause->async_wait([pause, again = std::move(again)](const error_code&) { again(); });
}

// Accepts connections until the acceptor closes, each made by `make` and
// counted among the open ones, then hands each to `take` with whether it is
// one more than `most`.
template <class Make, class Take> void acceptEach(HttpServer::Context& c, int most, Make make, Take take)
{
    auto connection = make();
    c.acceptor.async_accept(connection->stream.socket(), [&c, most, make, take, connection](const error_code& ec) {
        if (ec == net::error::operation_aborted || !c.acceptor.is_open())
            return; // the acceptor was closed
        if (ec) {
            acceptFailed(c, ec, [&c, most, make, take] { acceptEach(c, most, make, take); });
            return;
        }
        c.acceptFailing = false;
        // An answer goes out as it is written: with Nagle's wait, a client
        // that keeps its connection and acknowledges late (delayed ACK) gets
        // the second piece of each answer 40 ms after the first.
        error_code ignored;
        connection->stream.socket().set_option(net::ip::tcp::no_delay(true), ignored);
        boundUnsentBytes(connection->stream.socket());
        bool tooMany;
        {
            std::lock_guard<std::mutex> lock(c.mutex);
            tooMany = int(c.open.size()) >= most;
            c.open.insert(connection.get());
            c.mostOpen = std::max(c.mostOpen, c.open.size());
        }
        take(connection, tooMany);
        acceptEach(c, most, make, take);
    });
}

} // namespace

void HttpServer::watchSignals()
{
    if (!handleSignals)
        return;
    Context& c = *context;
    c.signals.add(SIGINT);
    c.signals.add(SIGTERM);
    c.signals.async_wait([this](const error_code& ec, int) {
        if (!ec)
            stop();
    });
}

void HttpServer::run(ConnectionHandler serve)
{
    Context& c = *context;
    watchSignals();
    const auto make = [this, &c] { return std::make_shared<Connection>(limits, c.stopping); };
    acceptEach(c, limits.connections, make, [this, &c, serve](std::shared_ptr<Connection> connection, bool tooMany) {
        std::thread([this, &c, connection, serve, tooMany] {
            try {
                if (!connection->startTls(limits.tls.get(), limits.handshake))
                    ; // nothing to answer on: no TLS, no HTTP
                else if (tooMany)
                    connection->write(HttpResponse::text(503, "too many connections\n"), false);
                else
                    serve(*connection);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "connection ended: %s\n", e.what());
            }
            forget(c, connection.get());
        }).detach();
    });
    c.context.run();
    std::unique_lock<std::mutex> lock(c.mutex);
    c.ended.wait(lock, [&c] { return c.open.empty(); });
}

void HttpServer::stop()
{
    Context& c = *context;
    c.stopping = true;
    net::post(c.context, [&c] {
        error_code ignored;
        c.acceptor.close(ignored);
        c.signals.cancel(ignored);
        if (c.keepRunning)
            c.keepRunning();
    });
    // An open connection ends at its next read, or now if it is waiting for one;
    // one that ends meanwhile may be gone by then.
    std::lock_guard<std::mutex> lock(c.mutex);
    for (Connection* connection : c.open) {
        const std::weak_ptr<Connection> weak = connection->weak_from_this();
        net::post(connection->stream.get_executor(), [weak] {
            if (const std::shared_ptr<Connection> alive = weak.lock())
                alive->stream.close();
        });
    }
}

namespace {

// A request that held this much of the memory bound (its body, and what its
// handler took for it) leaves enough freed memory behind to give it back.
constexpr std::uint64_t largeBodyBytes = 1 << 20;

// The handler's answer to a whole request. The request's part files go before
// the answer: once a client has its answer, nothing of its request is left in
// the data folder, nor held in memory.
HttpResponse respond(const HttpHandler& handler, HttpRequest& request)
{
    HttpResponse response;
    try {
        response = handler(request);
    } catch (const StorageFull& e) {
        std::fprintf(stderr, "%s %s: %s\n", request.method.c_str(), request.path.c_str(), e.what());
        response = HttpResponse::text(507, "the service's disk is full\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s %s: %s\n", request.method.c_str(), request.path.c_str(), e.what());
        response = HttpResponse::text(500, "the service failed; its log says why\n");
    } catch (...) {
        response = HttpResponse::text(500, "the service failed; its log says why\n");
    }
    request.form.reset();
    // So is the body held in memory, and its share of the server's bound;
    // after a large one, the memory freed goes back to the system.
    std::string().swap(request.body);
    const bool large = request.bodyMemory && request.bodyMemory->size() >= largeBodyBytes;
    request.bodyMemory.reset();
    if (large)
        returnFreeMemory();
    return response;
}

} // namespace

void serveRequests(HttpConnection& connection, const HttpHandler& handler)
{
    for (;;) {
        HttpRequest request;
        if (connection.readRequest(request) != HttpConnection::Read::Request)
            return;
        const HttpResponse response = respond(handler, request);
        // A connection of its own: its thread may wait.
        std::this_thread::sleep_for(response.delay);
        if (response.dropConnection || !connection.write(response, request.keepAlive) || !request.keepAlive)
            return;
    }
}

// Threads that serve requests whose heads have come, made as they are needed
// up to a limit and kept for the next ones; requests beyond wait their turn.
class WorkerPool
{
public:
    explicit WorkerPool(int most) : most(std::size_t(std::max(1, most))) {}
    ~WorkerPool()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        ready.notify_all();
        for (std::thread& thread : threads)
            thread.join();
    }

    void submit(std::function<void()> job)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back(std::move(job));
        if (idle == 0 && threads.size() < most)
            threads.emplace_back([this] { work(); });
        ready.notify_one();
    }

private:
    void work()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            ++idle;
            ready.wait(lock, [this] { return stopping || !jobs.empty(); });
            --idle;
            if (jobs.empty())
                return;
            std::function<void()> job = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const std::size_t most;
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::function<void()>> jobs;
    std::vector<std::thread> threads;
    std::size_t idle = 0;
    bool stopping = false;
};

// The connections of serve(): everything a connection reads or writes goes
// asynchronously on the pool, under deadlines, so that an idle, slow or
// hostile client holds no thread: heads, bodies (form parts spooled as they
// come), answers (files in pieces), and the lingering close after an early
// answer. Only the head's checks and the handler run on a worker, since they
// may wait on SQLite or on a password hash.
class PooledConnections
{
public:
    PooledConnections(HttpServer::Context& c, const HttpLimits& limits, const HttpHandler& handler)
        : c(c), limits(limits), handler(handler), workers(std::in_place, limits.connections)
    {
    }

    // Waits for the requests being answered, once the pool has stopped.
    void endWorkers() { workers.reset(); }

    // In the connection's strand.
    void start(const std::shared_ptr<Connection>& connection)
    {
        if (!limits.tls) {
            awaitHead(connection, limits.headDeadline);
            return;
        }
        const auto end = net::steady_timer::clock_type::now() + limits.handshake;
        awaitReadable(connection, limits.handshake, [this, connection, end] { readHello(connection, end); });
    }

private:
    // One request, from its head to its answer.
    struct Exchange {
        explicit Exchange(std::shared_ptr<Connection> connection) : connection(std::move(connection)) {}
        const std::shared_ptr<Connection> connection;
        HttpRequest request;
        Connection::BodyPlan plan;
        std::vector<char> chunk; // a body's bytes on their way to the request, made for a body
        // An answer on its way: its bytes, or the file it streams.
        std::string bytes;
        std::shared_ptr<beast::file> file;
        std::uint64_t fileLeft = 0;
    };
    using ExchangePtr = std::shared_ptr<Exchange>;

    // Waits up to `firstByte` for the next request's first byte; from then on
    // its head must come whole within the head deadline.
    void awaitHead(const std::shared_ptr<Connection>& connection, std::chrono::milliseconds firstByte)
    {
        connection->startParser();
        if (connection->buffer.size() > 0) { // the next request came with the last one
            connection->stream.expires_after(limits.headDeadline);
            parseHead(connection);
            return;
        }
        // Nothing is held while nothing comes: the buffer goes, and is made
        // again for the first byte.
        connection->buffer.shrink_to_fit();
        connection->holdWhatItUses();
        const auto headStarted = [this, connection] {
            connection->stream.expires_after(limits.headDeadline);
            parseHead(connection);
        };
        if (connection->tls) { // the session may hold the next request already: read it
            connection->stream.expires_after(firstByte);
            readSome(connection, headStarted);
            return;
        }
        awaitReadable(connection, firstByte, [this, connection, headStarted] {
            connection->stream.expires_after(limits.headDeadline);
            readSome(connection, headStarted);
        });
    }

    // Reads the client's first TLS record (its hello) before a session is made
    // for it: a session holds about 88 KiB, and a client that sends nothing,
    // or part of a hello, should hold no more than what it sent.
    void readHello(const std::shared_ptr<Connection>& connection, net::steady_timer::time_point end)
    {
        beast::flat_buffer& buffer = connection->buffer;
        const auto* const bytes = static_cast<const unsigned char*>(buffer.data().data());
        // A record: its type (22, a handshake), version (2 bytes), length (2), then the bytes;
        // anything else, or a record longer than TLS allows, is for OpenSSL to refuse.
        constexpr std::size_t recordHead = 5, mostRecord = recordHead + (18 << 10);
        const bool whole = buffer.size() >= recordHead
                           && (bytes[0] != 22 || buffer.size() >= recordHead + (std::size_t(bytes[3]) << 8 | bytes[4])
                               || buffer.size() >= mostRecord);
        if (whole) {
            startSession(connection, end);
            return;
        }
        const net::mutable_buffer room = connection->roomToRead(false);
        if (!connection->holdWhatItUses()) {
            close(connection);
            return;
        }
        connection->stream.expires_at(end);
        connection->stream.async_read_some(room, [this, connection, end](error_code ec, std::size_t count) {
            connection->buffer.commit(count);
            if (ec || c.stopping)
                close(connection);
            else
                readHello(connection, end);
        });
    }

    void startSession(const std::shared_ptr<Connection>& connection, net::steady_timer::time_point end)
    {
        connection->tls = startTlsSession(*limits.tls, connection->stream);
        if (!connection->holdWhatItUses()) { // no room: nobody to answer before the handshake
            close(connection);
            return;
        }
        beginHandshake(connection);
        connection->stream.expires_at(end);
        connection->tls->asyncHandshake(connection->buffer.data(), [this, connection](error_code ec, std::size_t) {
            endHandshake(*connection);
            connection->buffer.consume(connection->buffer.size());
            if (ec)
                close(connection);
            else
                awaitHead(connection, limits.headDeadline);
        });
    }

    // A client that sends a whole hello and then nothing holds a session until
    // the handshake deadline. Past `handshakesAtOnce` under way, the oldest is
    // ended for the new one: a real handshake takes milliseconds, so such
    // clients can't crowd out the others (nor, by default, hold over 88 MiB).
    void beginHandshake(const std::shared_ptr<Connection>& connection)
    {
        std::shared_ptr<Connection> oldest;
        {
            const std::lock_guard<std::mutex> lock(handshakesLock);
            if (handshakes.size() >= std::max<std::size_t>(1, limits.handshakesAtOnce)) {
                oldest = handshakes.front().lock();
                if (oldest)
                    oldest->handshaking.reset();
                handshakes.pop_front();
            }
            connection->handshaking = handshakes.insert(handshakes.end(), connection);
        }
        if (oldest)
            net::post(oldest->stream.get_executor(), [oldest] { oldest->stream.close(); });
    }

    void endHandshake(Connection& connection)
    {
        const std::lock_guard<std::mutex> lock(handshakesLock);
        if (connection.handshaking) {
            handshakes.erase(*connection.handshaking);
            connection.handshaking.reset();
        }
    }

    // Waits until the peer sends (or closes), with no buffer; `limit` of
    // silence ends the connection.
    template <class Next>
    void awaitReadable(const std::shared_ptr<Connection>& connection, std::chrono::milliseconds limit, Next next)
    {
        connection->silence.expires_after(limit);
        connection->silence.async_wait([connection](error_code ec) {
            // A wait that ended meanwhile has moved the expiry out of reach.
            if (!ec && connection->silence.expiry() <= net::steady_timer::clock_type::now()) {
                error_code ignored;
                connection->stream.socket().cancel(ignored);
            }
        });
        connection->stream.socket().async_wait(tcp::socket::wait_read, [this, connection, next](error_code ec) {
            connection->silence.expires_at(net::steady_timer::time_point::max());
            if (ec || c.stopping)
                close(connection);
            else
                next();
        });
    }

    void parseHead(const std::shared_ptr<Connection>& connection)
    {
        auto& parser = *connection->parser;
        while (connection->buffer.size() > 0) {
            error_code ec;
            const std::size_t used = parser.put(connection->buffer.data(), ec);
            connection->buffer.consume(used);
            if (ec == http::error::need_more)
                break;
            if (ec) {
                refuse(connection, ec);
                return;
            }
            if (parser.is_header_done()) {
                headArrived(std::make_shared<Exchange>(connection));
                return;
            }
        }
        readSome(connection, [this, connection] { parseHead(connection); });
    }

    // Reads what comes into the connection's buffer, then `next`; a close, an
    // error or the deadline ends the connection. More unparsed bytes than any
    // head, chunk-size line or trailer may be is refused.
    template <class Next> void readSome(const std::shared_ptr<Connection>& connection, Next next)
    {
        const auto arrived = [this, connection, next](error_code ec, std::size_t count) {
            connection->buffer.commit(count);
            if (ec || c.stopping)
                close(connection);
            else
                next();
        };
        const std::size_t free = connection->buffer.max_size() - connection->buffer.size();
        if (free == 0) {
            refuse(connection, connection->parser->is_header_done() ? http::error::bad_chunk : http::error::header_limit);
            return;
        }
        acknowledgeAtOnce(connection->stream.socket());
        const net::mutable_buffer room = connection->roomToRead(connection->parser->is_header_done());
        if (!connection->holdWhatItUses()) {
            answerEarly(std::make_shared<Exchange>(connection), Connection::busyAnswer());
            return;
        }
        if (connection->tls)
            connection->tls->asyncReadSome(room, arrived);
        else
            connection->stream.async_read_some(room, arrived);
    }

    // The head's own checks, then its verdict (on a worker: it may look up a
    // token), then the body.
    void headArrived(const ExchangePtr& x)
    {
        Connection& connection = *x->connection;
        connection.takeHead(x->request);
        if (std::optional<HttpResponse> wrong = wrongHead(x->request)) {
            answerEarly(x, *wrong);
            return;
        }
        if (!limits.checkHead) {
            HeadVerdict any;
            headJudged(x, any);
            return;
        }
        workers->submit([this, x] {
            HeadVerdict verdict = limits.checkHead(x->request);
            net::post(x->connection->stream.get_executor(),
                      [this, x, verdict = std::move(verdict)]() mutable { headJudged(x, verdict); });
        });
    }

    void headJudged(const ExchangePtr& x, HeadVerdict& verdict)
    {
        Connection& connection = *x->connection;
        if (verdict.refusal) {
            answerEarly(x, *verdict.refusal);
            return;
        }
        if (std::optional<HttpResponse> refusal = connection.planBody(x->request, verdict, x->plan)) {
            answerEarly(x, *refusal);
            return;
        }
        // The head passed: a client that waits to be asked for its body is.
        if (lowered(x->request.header("Expect")) == "100-continue" && !connection.parser->is_done()) {
            x->bytes = "HTTP/1.1 100 Continue\r\n\r\n";
            writeAll(x, [this, x] { readBody(x); });
            return;
        }
        readBody(x);
    }

    // Takes what the buffer holds of the body, and reads on until it is whole;
    // no more than the idle limit may pass between two of its bytes.
    void readBody(const ExchangePtr& x)
    {
        Connection& connection = *x->connection;
        auto& parser = *connection.parser;
        if (x->chunk.empty() && !parser.is_done())
            x->chunk.resize(std::size_t(std::min<std::uint64_t>(64 << 10, parser.content_length().value_or(64 << 10))));
        while (!parser.is_done() && connection.buffer.size() > 0) {
            parser.get().body().data = x->chunk.data();
            parser.get().body().size = x->chunk.size();
            error_code ec;
            const std::size_t used = parser.put(connection.buffer.data(), ec);
            connection.buffer.consume(used);
            const std::size_t count = x->chunk.size() - parser.get().body().size;
            if (count > 0) {
                if (std::optional<HttpResponse> refusal = connection.takeBody(x->request, x->plan, x->chunk.data(), count)) {
                    answerEarly(x, *refusal);
                    return;
                }
            }
            if (ec == http::error::need_more)
                break;
            if (ec && ec != http::error::need_buffer) {
                refuse(x->connection, ec);
                return;
            }
        }
        if (parser.is_done()) {
            respondOnWorker(x);
            return;
        }
        connection.stream.expires_after(limits.idle);
        readSome(x->connection, [this, x] { readBody(x); });
    }

    // The handler on a worker; its answer back on the connection.
    void respondOnWorker(const ExchangePtr& x)
    {
        workers->submit([this, x] {
            auto response = std::make_shared<const HttpResponse>(respond(handler, x->request));
            net::post(x->connection->stream.get_executor(), [this, x, response] { answer(x, *response); });
        });
    }

    // Sends `response`; then the connection waits for its next request, or ends.
    void answer(const ExchangePtr& x, const HttpResponse& response)
    {
        if (response.dropConnection) {
            close(x->connection);
            return;
        }
        const bool keepAlive = x->request.keepAlive;
        const auto then = [this, x, keepAlive] {
            if (keepAlive)
                awaitHead(x->connection, limits.idle);
            else
                close(x->connection);
        };
        if (response.delay.count() > 0) { // said later, without holding anything but a timer
            auto timer = std::make_shared<net::steady_timer>(x->connection->stream.get_executor(), response.delay);
            HttpResponse now = response;
            now.delay = std::chrono::milliseconds(0);
            timer->async_wait([this, x, timer, now](const error_code&) { answer(x, now); });
            return;
        }
        if (!response.bodyFile.empty()) {
            sendFile(x, response, keepAlive, then);
            return;
        }
        x->bytes = serialized(*x->connection, response, keepAlive);
        writeAll(x, then);
    }

    // The answer's bytes as Beast writes them: the head alone for a HEAD.
    static std::string serialized(const Connection& connection, const HttpResponse& response, bool keepAlive,
                                  std::optional<std::uint64_t> fileSize = std::nullopt)
    {
        http::response<http::string_body> message;
        describe(message, response, keepAlive);
        // 204 and 304 carry no body in HTTP.
        const bool bodiless = response.status == 204 || response.status == 304;
        if (fileSize) {
            message.content_length(*fileSize);
        } else {
            message.body() = bodiless ? std::string() : response.body;
            message.prepare_payload();
        }
        std::ostringstream out;
        if (connection.answeringHead || fileSize)
            out << message.base();
        else
            out << message;
        return out.str();
    }

    // A file in pieces, each read when the last has gone (and no larger than
    // what the kernel keeps unsent).
    template <class Then> void sendFile(const ExchangePtr& x, const HttpResponse& response, bool keepAlive, Then then)
    {
        x->file = std::make_shared<beast::file>();
        error_code ec;
        x->file->open(response.bodyFile.c_str(), beast::file_mode::scan, ec);
        const std::uint64_t size = ec ? 0 : x->file->size(ec);
        if (ec) {
            x->file.reset();
            answer(x, HttpResponse::text(500, "cannot read the file\n"));
            return;
        }
        x->fileLeft = x->connection->answeringHead ? 0 : size;
        x->bytes = serialized(*x->connection, response, keepAlive, size);
        writeAll(x, [this, x, then] { sendFilePiece(x, then); });
    }

    template <class Then> void sendFilePiece(const ExchangePtr& x, Then then)
    {
        if (x->fileLeft == 0) {
            x->file.reset();
            then();
            return;
        }
        x->bytes.resize(std::size_t(std::min<std::uint64_t>(x->fileLeft, 64 << 10)));
        error_code ec;
        const std::size_t count = x->file->read(x->bytes.data(), x->bytes.size(), ec);
        if (ec || count == 0) { // the file became shorter meanwhile: the answer cannot be whole
            close(x->connection);
            return;
        }
        x->bytes.resize(count);
        x->fileLeft -= count;
        writeAll(x, [this, x, then] { sendFilePiece(x, then); });
    }

    // Writes all of `x->bytes`, then `next`; each write may take the idle limit.
    template <class Next> void writeAll(const ExchangePtr& x, Next next, std::size_t from = 0)
    {
        if (from == x->bytes.size()) {
            next();
            return;
        }
        Connection& connection = *x->connection;
        const auto written = [this, x, next, from](error_code ec, std::size_t count) {
            if (ec || c.stopping)
                close(x->connection);
            else
                writeAll(x, next, from + count);
        };
        connection.stream.expires_after(limits.idle);
        // Up to one TLS record at a time.
        const std::size_t most = connection.tls ? std::size_t(16 << 10) : x->bytes.size() - from;
        const net::const_buffer piece(x->bytes.data() + from, std::min(most, x->bytes.size() - from));
        if (connection.tls)
            connection.tls->asyncWriteSome(piece, written);
        else
            connection.stream.async_write_some(piece, written);
    }

    // A request that can't be read: answered as the parser's error says.
    void refuse(const std::shared_ptr<Connection>& connection, const error_code& ec)
    {
        const int status = refusalStatus(ec);
        if (status == 0) {
            close(connection);
            return;
        }
        answerEarly(std::make_shared<Exchange>(connection), HttpResponse::text(status, std::string()));
    }

    // Answers before the body's end, then reads and drops what still comes
    // (the lingering close), so that a client still sending gets the answer
    // rather than a reset.
    void answerEarly(const ExchangePtr& x, const HttpResponse& response)
    {
        x->bytes = serialized(*x->connection, response, false);
        x->request.form.reset();
        x->request.bodyMemory.reset();
        writeAll(x, [this, x] {
            error_code ignored;
            x->connection->stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
            linger(x, std::chrono::steady_clock::now() + lingerAtMost, 0);
        });
    }

    void linger(const ExchangePtr& x, std::chrono::steady_clock::time_point end, std::uint64_t dropped)
    {
        Connection& connection = *x->connection;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || dropped >= lingerBytes || c.stopping) {
            close(x->connection);
            return;
        }
        connection.stream.expires_after(std::min({left, lingerGap, limits.idle}));
        x->chunk.resize(16 << 10);
        const auto arrived = [this, x, end, dropped](error_code ec, std::size_t count) {
            if (ec)
                close(x->connection);
            else
                linger(x, end, dropped + count);
        };
        const net::mutable_buffer into(x->chunk.data(), x->chunk.size());
        if (connection.tls)
            connection.tls->asyncReadSome(into, arrived);
        else
            connection.stream.async_read_some(into, arrived);
    }

    void close(const std::shared_ptr<Connection>& connection)
    {
        net::post(connection->stream.get_executor(), [this, connection] { forget(c, connection.get()); });
    }

    HttpServer::Context& c;
    const HttpLimits& limits;
    const HttpHandler& handler;
    std::optional<WorkerPool> workers;
    std::mutex handshakesLock;
    std::list<std::weak_ptr<Connection>> handshakes; // under way, oldest first
};

void HttpServer::serve(const HttpHandler& handler)
{
    Context& c = *context;
    watchSignals();
    // Declared before the pool's threads, so it outlives them; its workers
    // end with it, after the last connection.
    PooledConnections connections(c, limits, handler);
    const auto make = [this, &c] { return std::make_shared<Connection>(limits, c.stopping, c.context); };
    acceptEach(c, limits.openConnections, make, [&c, &connections](std::shared_ptr<Connection> connection, bool tooMany) {
        if (tooMany)
            forget(c, connection.get()); // nothing read, nothing answered: no thread may wait on it
        else
            net::post(connection->stream.get_executor(), [&connections, connection] { connections.start(connection); });
    });
    {
        // Work stays until stop(): between a worker's request and the next wait
        // for a head, the pool may have nothing else to run.
        auto work = net::make_work_guard(c.context);
        c.keepRunning = [&work] { work.reset(); };
        std::vector<std::thread> pool;
        const unsigned threads = std::max(2u, std::min(8u, std::thread::hardware_concurrency()));
        for (unsigned i = 1; i < threads; ++i)
            pool.emplace_back([&c] { c.context.run(); });
        c.context.run();
        for (std::thread& thread : pool)
            thread.join();
        c.keepRunning = nullptr; // the guard goes; nothing runs the context now
    }
    // Workers still answering finish their requests; what they hand back to
    // the pool meanwhile (closes) runs after them.
    connections.endWorkers();
    c.context.restart();
    c.context.run();
    std::unique_lock<std::mutex> lock(c.mutex);
    c.ended.wait(lock, [&c] { return c.open.empty(); });
}

} // namespace norva::service
