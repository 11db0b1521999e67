// SPDX-License-Identifier: MIT
// Inside the service's HTTP layer, not for its users: one connection as both
// ways of serving read and write it, the server's shared state, and what the
// two share. http_server.cpp accepts for both and serves a connection on a
// thread of its own (run()); pooled_connections.cpp serves every connection
// asynchronously on a pool of threads (serve()).
#pragma once

#include "http_server.h"
#include "spare_descriptor.h"
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
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace norva::service {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using beast::error_code;

namespace detail {

std::string lowered(std::string text);

// A target in absolute form ("http://host/path") is taken as its path.
std::string originForm(const std::string& target);

// What is wrong with a request's head where HTTP/1.1 is strict about it
// (RFC 9112): one Host field, only the chunked transfer coding and only as the
// last one, and no expectation but 100-continue. None when it is right.
std::optional<HttpResponse> wrongHead(const HttpRequest& request);

void splitTarget(HttpRequest& request);

// A broken message, as opposed to a peer that went away or went quiet.
bool isMalformed(const error_code& ec);

// The answer to a request the parser could not read: 431 for a head too
// large, 413 for a body too large, 400 for a broken message; 0 (no answer)
// when the peer went away or went quiet.
int refusalStatus(const error_code& ec);

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
    // strand of the pool, and a request's handler on a worker (pooled_connections.cpp).
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
void acknowledgeAtOnce([[maybe_unused]] tcp::socket& socket);

// Keeps at most 64 KiB of an answer waiting in the kernel for a client to
// take it (a file goes in pieces of that size too). Without a bound, the
// kernel takes up to its send buffer's limit (4 MiB here) from every write:
// 300 downloads that are never read hold 900 MB of kernel memory, and copying
// it in keeps the service's threads from everyone else for a second. Bytes in
// flight are not counted, so a client that reads still gets the whole window.
// Linux and BSD; elsewhere nothing is bound.
void boundUnsentBytes([[maybe_unused]] tcp::socket& socket);

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

// The handler's answer to a whole request, whatever the handler throws; the
// request's body, part files and share of the memory bound are gone after.
HttpResponse respond(const HttpHandler& handler, HttpRequest& request);

} // namespace detail

struct HttpServer::Context {
    net::io_context context;
    std::function<void()> keepRunning; // serve(): lets the pool end once stopped
    tcp::acceptor acceptor{context};
    net::signal_set signals{context};
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::condition_variable ended;
    std::set<detail::Connection*> open;
    std::size_t mostOpen = 0; // connections open at once since memory was last given back
    SpareDescriptor spare;      // for a connection to turn away when none is left
    bool acceptFailing = false; // the last accept failed (logged once a run)
    bool tls = false;           // a turned-away connection gets no plain answer
};

namespace detail {

// A connection that has ended leaves the open ones.
void forget(HttpServer::Context& c, Connection* connection);

// An accept that failed does not end the loop. Out of descriptors, the spare
// one makes room to take the waiting connection, answer it 503 and close it
// (else the loop would wake for it again at once); then, as after any other
// failure, the loop waits a moment and goes on. The first failure of a run of
// them is logged.
void acceptFailed(HttpServer::Context& c, const error_code& ec, std::function<void()> again);

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

} // namespace detail

} // namespace norva::service
