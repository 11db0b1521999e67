// SPDX-License-Identifier: MIT
#include "http_server.h"

#include "free_memory.h"
#include "http_connection.h"

#include <cerrno>
#include <cstdio>
#include <thread>

namespace norva::service {

using namespace detail;

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

namespace detail {

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

} // namespace detail

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

} // namespace norva::service
