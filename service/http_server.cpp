#include "http_server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace norva::service {

namespace {

constexpr int maxConnections = 256;
constexpr int idleTimeoutMs = 30 * 1000;

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

const char* reason(int status)
{
    switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 400: return "Bad Request";
    case 402: return "Payment Required";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Status";
    }
}

// Reads from a connection into a buffer, with an idle limit.
class Connection
{
public:
    explicit Connection(int fd) : fd(fd) {}

    bool fill()
    {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, idleTimeoutMs) <= 0)
            return false;
        char chunk[64 << 10];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return false;
        buffer.append(chunk, size_t(n));
        return true;
    }

    bool need(std::size_t bytes)
    {
        while (buffer.size() < bytes) {
            if (!fill())
                return false;
        }
        return true;
    }

    bool send(const std::string& bytes)
    {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            done += std::size_t(n);
        }
        return true;
    }

    int fd;
    std::string buffer;
};

bool parseHead(const std::string& head, HttpRequest& request)
{
    std::size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const auto firstSpace = requestLine.find(' ');
    const auto secondSpace = requestLine.find(' ', firstSpace + 1);
    if (firstSpace == std::string::npos || secondSpace == std::string::npos)
        return false;
    request.method = requestLine.substr(0, firstSpace);
    request.target = requestLine.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    const auto question = request.target.find('?');
    request.path = percentDecode(request.target.substr(0, question), false);
    if (question != std::string::npos) {
        std::string query = request.target.substr(question + 1);
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
    while (lineEnd != std::string::npos && lineEnd + 2 < head.size()) {
        const std::size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line = head.substr(lineEnd + 2, next == std::string::npos ? std::string::npos : next - lineEnd - 2);
        const auto colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
            return false;
        request.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
        lineEnd = next;
    }
    return true;
}

// Reads a chunked body; false on a malformed or oversized one.
bool readChunked(Connection& connection, std::size_t from, std::string& body, std::size_t& end)
{
    std::size_t at = from;
    for (;;) {
        std::size_t lineEnd;
        while ((lineEnd = connection.buffer.find("\r\n", at)) == std::string::npos) {
            if (connection.buffer.size() - at > 1024 || !connection.fill())
                return false;
        }
        char* stop = nullptr;
        const std::string sizeText = connection.buffer.substr(at, lineEnd - at);
        const unsigned long long size = std::strtoull(sizeText.c_str(), &stop, 16);
        if (stop == sizeText.c_str() || body.size() + size > HttpServer::maxBodyBytes)
            return false;
        at = lineEnd + 2;
        if (!connection.need(at + size + 2))
            return false;
        if (size == 0) {
            end = at + 2;
            return true;
        }
        body.append(connection.buffer, at, size);
        at += size + 2;
    }
}

} // namespace

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

HttpServer::HttpServer(HttpHandler handler) : handler(std::move(handler)) {}

HttpServer::~HttpServer()
{
    stop();
    while (connections.load() > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (listener >= 0)
        ::close(listener);
}

bool HttpServer::listen(const std::string& host, int port, std::string& error)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || !found) {
        error = "cannot resolve " + host;
        return false;
    }
    listener = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool bound = ::bind(listener, found->ai_addr, found->ai_addrlen) == 0 && ::listen(listener, 128) == 0;
    ::freeaddrinfo(found);
    if (!bound) {
        error = std::string("cannot listen on ") + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
        return false;
    }
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    boundPort = ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                                    : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    return true;
}

void HttpServer::run()
{
    while (!stopping) {
        pollfd p{listener, POLLIN, 0};
        if (::poll(&p, 1, 200) <= 0)
            continue;
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        if (connections.load() >= maxConnections) {
            Connection(fd).send("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            ::close(fd);
            continue;
        }
        ++connections;
        std::thread([this, fd] {
            serve(fd);
            --connections;
        }).detach();
    }
}

void HttpServer::stop()
{
    stopping = true;
}

void HttpServer::serve(int fd)
{
    Connection connection(fd);
    const auto refuse = [&connection](int status) {
        connection.send("HTTP/1.1 " + std::to_string(status) + " " + reason(status)
                        + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    };
    while (!stopping) {
        std::size_t headEnd;
        while ((headEnd = connection.buffer.find("\r\n\r\n")) == std::string::npos) {
            if (connection.buffer.size() > maxHeadBytes) {
                refuse(431);
                ::close(fd);
                return;
            }
            if (!connection.fill()) {
                ::close(fd);
                return;
            }
        }
        HttpRequest request;
        if (!parseHead(connection.buffer.substr(0, headEnd), request)) {
            refuse(400);
            break;
        }
        std::size_t bodyStart = headEnd + 4;
        std::size_t end = bodyStart;
        if (lowered(request.header("Transfer-Encoding")) == "chunked") {
            if (!readChunked(connection, bodyStart, request.body, end)) {
                refuse(400);
                break;
            }
        } else {
            const std::string lengthText = request.header("Content-Length");
            char* stop = nullptr;
            const unsigned long long length = lengthText.empty() ? 0 : std::strtoull(lengthText.c_str(), &stop, 10);
            if (!lengthText.empty() && (stop == lengthText.c_str() || *stop != '\0')) {
                refuse(400);
                break;
            }
            if (length > maxBodyBytes) {
                refuse(413);
                break;
            }
            if (!connection.need(bodyStart + length))
                break;
            request.body = connection.buffer.substr(bodyStart, length);
            end = bodyStart + length;
        }
        connection.buffer.erase(0, end);

        HttpResponse response;
        try {
            response = handler(request);
        } catch (const std::exception& e) {
            response = HttpResponse::text(500, e.what());
        }
        if (response.dropConnection)
            break;
        const bool close = lowered(request.header("Connection")) == "close";
        std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + reason(response.status) + "\r\n";
        for (const auto& h : response.headers)
            head += h.first + ": " + h.second + "\r\n";
        if (response.status != 204)
            head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
        head += close ? "Connection: close\r\n\r\n" : "\r\n";
        if (!connection.send(head + (response.status == 204 ? std::string() : response.body)) || close)
            break;
    }
    ::close(fd);
}

} // namespace norva::service
