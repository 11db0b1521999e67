// A small HTTP/1.1 server: a thread per connection, keep-alive, bodies by
// Content-Length or chunked, limits on sizes so that a bad client can't take the
// service down.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace norva::service {

struct HttpRequest {
    std::string method;
    std::string target; // as sent
    std::string path;   // percent-decoded, without the query
    std::multimap<std::string, std::string> query; // decoded
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first header of that name, case-insensitive; empty when absent.
    std::string header(const std::string& name) const;
    // The first query value of that name; `fallback` when absent.
    std::string queryValue(const std::string& name, const std::string& fallback = std::string()) const;
};

struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // Close the connection without sending anything (fault injection).
    bool dropConnection = false;

    static HttpResponse json(const std::string& body, int status = 200);
    static HttpResponse text(int status, const std::string& body);
};

using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

class HttpServer
{
public:
    static constexpr std::uint64_t maxBodyBytes = 512ull << 20;
    static constexpr std::size_t maxHeadBytes = 64 << 10;

    explicit HttpServer(HttpHandler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds host:port (port 0 picks a free one); false with `error` set on failure.
    bool listen(const std::string& host, int port, std::string& error);
    int port() const { return boundPort; }
    // Serves until stop() is called from another thread or a signal handler.
    void run();
    void stop();

private:
    void serve(int connection);

    HttpHandler handler;
    int listener = -1;
    int boundPort = 0;
    std::atomic<bool> stopping{false};
    std::atomic<int> connections{0};
};

std::string percentDecode(const std::string& text, bool plusIsSpace);
std::string percentEncode(const std::string& text);

} // namespace norva::service
