// SPDX-License-Identifier: MIT
// serve(): every connection read and written asynchronously on a pool of
// threads, with only requests' handlers on worker threads.
#include "http_connection.h"

#include "free_memory.h"

#include <cstdio>
#include <deque>
#include <sstream>
#include <thread>

namespace norva::service {

using namespace detail;

namespace {

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
        // A thread more when the jobs waiting outnumber the threads waiting
        // for them. (Not "when none waits": a waiting thread counts as idle
        // until it has woken, so a burst of jobs once queued behind one.)
        if (jobs.size() > idle && threads.size() < most)
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
        awaitReadable(connection, firstByte, [this, connection] {
            connection->stream.expires_after(limits.headDeadline);
            readSome(connection, [this, connection] { parseHead(connection); });
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
        // Most requests have come with their connection, or right behind the
        // last answer: read them at once, without a round through the reactor.
        error_code ignored;
        if (connection->stream.socket().available(ignored) > 0) {
            next();
            return;
        }
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

} // namespace

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
