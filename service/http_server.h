// SPDX-License-Identifier: MIT
// The service's HTTP/1.1 layer. Boost.Beast parses and writes the messages;
// around it this layer keeps what a local service needs: connections read and
// written asynchronously under deadlines, handlers on worker threads (they
// block on SQLite or on an injected delay), an idle limit on every read and write,
// limits on head and body size, form bodies split into their parts as they
// arrive, answers streamed from a file, and a clean stop.
// The tests' scripted service serves its connections with the same layer.
#pragma once

#include "form_reader.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace norva::service {

class TlsContext;

// The bound on request-body bytes held in memory by all connections of a
// server at once.
class BodyMemory
{
public:
    explicit BodyMemory(std::uint64_t most) : most(most) {}
    // False, taking nothing, when `bytes` more would pass the bound.
    bool take(std::uint64_t bytes);
    void give(std::uint64_t bytes) { held -= bytes; }

private:
    const std::uint64_t most;
    std::atomic<std::uint64_t> held{0};
};

// What one request holds of that bound, given back when the request goes.
class HeldBodyMemory
{
public:
    explicit HeldBodyMemory(std::shared_ptr<BodyMemory> memory) : memory(std::move(memory)) {}
    ~HeldBodyMemory() { memory->give(bytes); }
    HeldBodyMemory(const HeldBodyMemory&) = delete;
    HeldBodyMemory& operator=(const HeldBodyMemory&) = delete;

    bool grow(std::uint64_t more)
    {
        if (!memory->take(more))
            return false;
        bytes += more;
        return true;
    }
    // Holds `total` from now on: gives back what is beyond it, or takes what
    // is missing; false, holding as before, when the bound has no room.
    bool hold(std::uint64_t total)
    {
        if (total > bytes)
            return grow(total - bytes);
        memory->give(bytes - total);
        bytes = total;
        return true;
    }
    std::uint64_t size() const { return bytes; }

private:
    const std::shared_ptr<BodyMemory> memory;
    std::uint64_t bytes = 0;
};

struct HttpRequest {
    std::string method;
    std::string target; // as sent
    std::string path;   // percent-decoded, without the query
    std::multimap<std::string, std::string> query; // decoded
    std::vector<std::pair<std::string, std::string>> headers; // in the order sent
    std::string body; // the decoded body, unless it went to `form`
    // A form body split into its parts as it came, when the head's verdict
    // gave a plan for it; its part files go when the request is done.
    std::shared_ptr<FormSplitter> form;
    bool keepAlive = true;
    // What `body`, and what its handler took for it, hold of the server's bound.
    std::shared_ptr<HeldBodyMemory> bodyMemory;

    // The first header of that name, case-insensitive; empty when absent.
    std::string header(const std::string& name) const;
    // The first query value of that name; `fallback` when absent.
    std::string queryValue(const std::string& name, const std::string& fallback = std::string()) const;
};

struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string bodyFile; // when set, the body is this file's content, streamed
    // Close the connection without sending anything (fault injection).
    bool dropConnection = false;
    // Sent only after this long; meanwhile nothing of the service waits on it.
    std::chrono::milliseconds delay{0};

    static HttpResponse json(const std::string& body, int status = 200);
    static HttpResponse text(int status, const std::string& body);
};

using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

// Thrown by a handler that could not store something for want of room: the
// request is answered 507. Any other exception is answered 500. Neither
// answer carries the exception's text, which goes to standard error.
class StorageFull : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Whether the last failed write of this thread failed for want of room.
bool lastWriteFoundNoRoom();

// What a request's head alone decides, before any of its body is read.
struct HeadVerdict {
    std::optional<HttpResponse> refusal; // answered at once; the body is never read
    std::uint64_t bodyLimit = UINT64_MAX; // the largest body the request may have
    // What a body held in memory takes of the server's bound, per byte: more
    // than one when its handler makes more of it (parses it).
    std::uint64_t memoryPerBodyByte = 1;
    // For a multipart/form-data body: which parts to keep, in the spool
    // folder. Without a plan, a form is a body like any other.
    std::optional<FormPlan> form;
};

struct HttpLimits {
    std::size_t headBytes = 64 << 10;
    std::uint64_t bodyBytes = 4ull << 30;
    // Bodies that are not forms are held in memory, up to this size each, and
    // up to `memoryBodiesBytes` for all requests at once; a body beyond that
    // is answered 503 (from its head, when it says its length).
    std::size_t memoryBodyBytes = 16 << 20;
    std::uint64_t memoryBodiesBytes = 256ull << 20;
    std::shared_ptr<BodyMemory> bodyMemory; // made by the server from memoryBodiesBytes
    // No byte moving for this long ends the connection.
    std::chrono::milliseconds idle{30000};
    // run(): connections served at once (a thread each); serve(): requests
    // served at once (a worker each), those beyond waiting their turn.
    int connections = 256;
    // serve(): connections open at once; one beyond is closed at once. A new
    // connection's request head, and a kept connection's from its first
    // byte, must come whole within `headDeadline`.
    int openConnections = 20000;
    std::chrono::milliseconds headDeadline{10000};
    // Where the parts of form bodies go as they arrive (see HeadVerdict::form);
    // empty keeps every body in memory.
    std::string spoolFolder;
    // Looks at each request's head first; none takes every request.
    std::function<HeadVerdict(const HttpRequest& head)> checkHead;
    // When set, every connection speaks TLS (tls_session.h), and its handshake
    // must be over within `handshake` of the connection's start.
    std::shared_ptr<TlsContext> tls;
    std::chrono::milliseconds handshake{10000};
    // TLS handshakes under way at once; past them, the oldest is ended for a
    // new one (serve() only).
    std::size_t handshakesAtOnce = 1024;
};

// One accepted connection, served on a thread of its own.
class HttpConnection
{
public:
    enum class Read {
        Request, // a whole request
        Partial, // the head, and the body up to where the peer stopped sending
        None,    // the peer closed, went idle or sent no valid request (which was refused)
    };

    virtual ~HttpConnection() = default;
    // Reads the next request. `raw`, when given, receives every byte read.
    virtual Read readRequest(HttpRequest& request, std::string* raw = nullptr) = 0;
    virtual bool write(const HttpResponse& response, bool keepAlive) = 0;
    // Bytes as they are, for answers no valid HTTP writer would make.
    virtual bool writeRaw(const std::string& bytes) = 0;
    // Silent until the peer closes, the server stops or `limit` passes.
    virtual void waitForPeerToClose(std::chrono::milliseconds limit) = 0;
};

class HttpServer
{
public:
    using ConnectionHandler = std::function<void(HttpConnection&)>;

    explicit HttpServer(HttpLimits limits = HttpLimits());
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds host:port (port 0 picks a free one); false with `error` set on failure.
    bool listen(const std::string& host, int port, std::string& error);
    int port() const { return boundPort; }
    // The address bound, as a client writes it ("127.0.0.1:8765", "[::1]:8765").
    std::string address() const { return boundAddress; }
    // Whether only this machine can reach it.
    bool loopbackOnly() const { return loopback; }
    // SIGINT and SIGTERM stop run().
    void stopOnSignals() { handleSignals = true; }
    // Serves every connection with `serve` on a thread of its own until stop();
    // returns when the last connection has ended.
    void run(ConnectionHandler serve);
    // Serves every request with `handler` until stop(): whatever a connection
    // reads or writes (heads, bodies, answers, lingering closes) goes
    // asynchronously on a few threads, under deadlines, so that idle and slow
    // connections hold no thread; the head's checks and the handler run on a
    // worker thread. Returns when the last connection has ended.
    void serve(const HttpHandler& handler);
    // From any thread: no more connections, and those open end at their next read.
    void stop();

    struct Context;

private:
    // SIGINT and SIGTERM call stop(), when asked for.
    void watchSignals();

    std::unique_ptr<Context> context;
    HttpLimits limits;
    int boundPort = 0;
    std::string boundAddress;
    bool loopback = false;
    bool handleSignals = false;
};

// The usual connection: each request to `handler`, its answer back, as long as
// the client keeps the connection.
void serveRequests(HttpConnection& connection, const HttpHandler& handler);

std::string percentDecode(const std::string& text, bool plusIsSpace);
std::string percentEncode(const std::string& text);

} // namespace norva::service
