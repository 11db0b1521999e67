#include "support/test_service.h"

#include <algorithm>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace testing_support {

namespace {

bool sameName(const QByteArray& a, const QByteArray& b)
{
    return a.compare(b, Qt::CaseInsensitive) == 0;
}

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 402: return "Payment Required";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
    }
}

void writeAll(int fd, const QByteArray& bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + done, size_t(bytes.size() - done), MSG_NOSIGNAL);
        if (n <= 0)
            return;
        done += n;
    }
}

// Reads from `fd` into `buffer` until it holds `wanted` bytes or the peer stops.
bool readUntil(int fd, QByteArray& buffer, qint64 wanted)
{
    char chunk[65536];
    while (buffer.size() < wanted) {
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return false;
        buffer.append(chunk, int(n));
    }
    return true;
}

bool readHead(int fd, QByteArray& buffer, int& headEnd)
{
    char chunk[65536];
    while ((headEnd = buffer.indexOf("\r\n\r\n")) < 0) {
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return false;
        buffer.append(chunk, int(n));
    }
    headEnd += 4;
    return true;
}

// Decodes a chunked body that starts at `from`; reads more as needed.
bool readChunked(int fd, QByteArray& buffer, int from, QByteArray& body)
{
    int at = from;
    for (;;) {
        int lineEnd;
        while ((lineEnd = buffer.indexOf("\r\n", at)) < 0) {
            if (!readUntil(fd, buffer, buffer.size() + 1))
                return false;
        }
        const int size = buffer.mid(at, lineEnd - at).split(';').first().trimmed().toInt(nullptr, 16);
        at = lineEnd + 2;
        if (!readUntil(fd, buffer, qint64(at) + size + 2))
            return false;
        if (size == 0)
            return true;
        body.append(buffer.mid(at, size));
        at += size + 2;
    }
}

} // namespace

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (sameName(h.first, name))
            return true;
    }
    return false;
}

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (sameName(h.first, name))
            return h.second;
    }
    return QByteArray();
}

QByteArray RecordedRequest::path() const
{
    const int q = target.indexOf('?');
    return q < 0 ? target : target.left(q);
}

QByteArray RecordedRequest::query() const
{
    const int q = target.indexOf('?');
    return q < 0 ? QByteArray() : target.mid(q + 1);
}

ScriptedReply ScriptedReply::json(const QByteArray& body, int status)
{
    ScriptedReply reply;
    reply.status = status;
    reply.headers = {{"Content-Type", "application/json"}};
    reply.body = body;
    return reply;
}

ScriptedReply ScriptedReply::withStatus(int status, const QByteArray& body)
{
    ScriptedReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

ScriptedReply ScriptedReply::file(const QByteArray& bytes, const QByteArray& contentDisposition)
{
    ScriptedReply reply;
    reply.headers = {{"Content-Type", "application/octet-stream"}};
    if (!contentDisposition.isNull())
        reply.headers.append({"Content-Disposition", contentDisposition});
    reply.body = bytes;
    return reply;
}

ScriptedReply ScriptedReply::raw(const QByteArray& bytes)
{
    ScriptedReply reply;
    reply.kind = Kind::Raw;
    reply.body = bytes;
    return reply;
}

ScriptedReply ScriptedReply::closeWithoutAnswer()
{
    ScriptedReply reply;
    reply.kind = Kind::CloseWithoutAnswer;
    return reply;
}

ScriptedReply ScriptedReply::stall()
{
    ScriptedReply reply;
    reply.kind = Kind::Stall;
    return reply;
}

TestService::TestService()
{
    defaultReply = ScriptedReply::json(R"({"code":200,"msg":"ok","data":null})");
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::listen(listener, 64) != 0 || ::pipe2(wakePipe, O_CLOEXEC) != 0)
        throw std::runtime_error("test service: cannot listen on loopback");
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    boundPort = ntohs(address.sin_port);
    acceptor = std::thread([this] { acceptLoop(); });
}

TestService::~TestService()
{
    stopping = true;
    stopped.notify_all();
    const char wake = 'x';
    (void)::write(wakePipe[1], &wake, 1);
    acceptor.join();
    {
        std::unique_lock<std::mutex> lock(mutex);
        stopped.wait(lock, [this] { return activeWorkers == 0; });
    }
    ::close(listener);
    ::close(wakePipe[0]);
    ::close(wakePipe[1]);
}

QString TestService::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(boundPort);
}

void TestService::script(const ScriptedReply& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    scripted.push_back(reply);
}

void TestService::setDefaultReply(const ScriptedReply& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    defaultReply = reply;
}

std::vector<RecordedRequest> TestService::requests() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

int TestService::requestCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return requestsSeen;
}

void TestService::setKeepingRequests(bool keep)
{
    std::lock_guard<std::mutex> lock(mutex);
    keepingRequests = keep;
}

RecordedRequest TestService::lastRequest() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return recorded.empty() ? RecordedRequest() : recorded.back();
}

void TestService::reset()
{
    std::unique_lock<std::mutex> lock(mutex);
    // A connection of the last call that is still being read (a resend Qt broke
    // off) must not be recorded as a request of the next one.
    stopped.wait_for(lock, std::chrono::seconds(2), [this] { return activeWorkers == 0; });
    recorded.clear();
    requestsSeen = 0;
    keepingRequests = true;
    scripted.clear();
    pathReplies.clear();
    defaultReply = ScriptedReply::json(R"({"code":200,"msg":"ok","data":null})");
}

void TestService::setReplyForPath(const QByteArray& path, const ScriptedReply& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    pathReplies.emplace_back(path, reply);
}

ScriptedReply TestService::nextReply(const QByteArray& path)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (scripted.empty()) {
        for (const auto& pathReply : pathReplies) {
            if (pathReply.first == path)
                return pathReply.second;
        }
        return defaultReply;
    }
    ScriptedReply reply = scripted.front();
    scripted.pop_front();
    return reply;
}

void TestService::acceptLoop()
{
    while (!stopping) {
        pollfd fds[2] = {{listener, POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0 || (fds[1].revents & POLLIN))
            continue;
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            continue;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++activeWorkers;
        }
        std::thread([this, connection] {
            serve(connection);
            std::lock_guard<std::mutex> lock(mutex);
            --activeWorkers;
            stopped.notify_all();
        }).detach();
    }
}

// Silent until the client gives up (or the service stops, or 30 s pass).
void TestService::waitForPeerToClose(int connection)
{
    for (int waited = 0; waited < 30000 && !stopping; waited += 50) {
        pollfd fd{connection, POLLIN, 0};
        char byte;
        if (::poll(&fd, 1, 50) > 0 && ::recv(connection, &byte, 1, MSG_PEEK) <= 0)
            return;
    }
}

void TestService::serve(int connection)
{
    QByteArray buffer;
    int headEnd = 0;
    if (!readHead(connection, buffer, headEnd)) {
        ::close(connection);
        return;
    }
    RecordedRequest request;
    const QList<QByteArray> lines = buffer.left(headEnd - 4).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    request.method = requestLine.value(0);
    request.target = requestLine.value(1);
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).endsWith('\r') ? lines.at(i).chopped(1) : lines.at(i);
        const int colon = line.indexOf(':');
        if (colon > 0)
            request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    bool complete = true;
    if (request.header("Transfer-Encoding").toLower() == "chunked") {
        complete = readChunked(connection, buffer, headEnd, request.body);
    } else {
        const qint64 length = request.header("Content-Length").toLongLong();
        complete = readUntil(connection, buffer, headEnd + length);
        request.body = buffer.mid(headEnd, int(length));
    }
    request.raw = buffer;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++requestsSeen;
        if (keepingRequests)
            recorded.push_back(request);
    }
    const ScriptedReply reply = nextReply(request.path());
    if (reply.delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
    if (complete) {
        switch (reply.kind) {
        case ScriptedReply::Kind::Answer: {
            QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' '
                              + reasonPhrase(reply.status) + "\r\n";
            for (const auto& h : reply.headers)
                head += h.first + ": " + h.second + "\r\n";
            if (reply.status != 204)
                head += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
            head += "Connection: close\r\n\r\n";
            writeAll(connection, head + (reply.status == 204 ? QByteArray() : reply.body));
            break;
        }
        case ScriptedReply::Kind::Raw:
            writeAll(connection, reply.body);
            if (reply.stallAfterwards)
                waitForPeerToClose(connection);
            break;
        case ScriptedReply::Kind::CloseWithoutAnswer:
            break;
        case ScriptedReply::Kind::Stall:
            waitForPeerToClose(connection);
            break;
        }
    }
    ::shutdown(connection, SHUT_WR);
    ::close(connection);
}

RecordedRequest TestService::fullestRequest() const
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto longest = std::max_element(recorded.begin(), recorded.end(), [](const RecordedRequest& a, const RecordedRequest& b) {
        return a.raw.size() < b.raw.size();
    });
    return longest == recorded.end() ? RecordedRequest() : *longest;
}

QString refusedAddress()
{
    // Bind a port, then close it without listening: nothing answers there.
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return QStringLiteral("127.0.0.1:%1").arg(ntohs(address.sin_port));
}

} // namespace testing_support
