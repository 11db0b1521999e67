#include "support/test_service.h"

#include "support/loopback_socket.h"

#include <algorithm>
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

// One accepted connection; closes it, the peer seeing the end of the stream.
class Connection
{
public:
    explicit Connection(net::Handle socket) : socket(socket) {}
    ~Connection()
    {
        net::shutdownSending(socket);
        net::close(socket);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void writeAll(const QByteArray& bytes)
    {
        long done = 0;
        while (done < bytes.size()) {
            const long n = net::sendSome(socket, bytes.constData() + done, long(bytes.size()) - done);
            if (n <= 0)
                return;
            done += n;
        }
    }

    // Reads into `buffer` until it holds `wanted` bytes or the peer stops.
    bool readUntil(QByteArray& buffer, qint64 wanted)
    {
        while (buffer.size() < wanted) {
            if (!readMore(buffer))
                return false;
        }
        return true;
    }

    bool readHead(QByteArray& buffer, int& headEnd)
    {
        while ((headEnd = buffer.indexOf("\r\n\r\n")) < 0) {
            if (!readMore(buffer))
                return false;
        }
        headEnd += 4;
        return true;
    }

    // Decodes a chunked body that starts at `from`; reads more as needed.
    bool readChunked(QByteArray& buffer, int from, QByteArray& body)
    {
        int at = from;
        for (;;) {
            int lineEnd;
            while ((lineEnd = buffer.indexOf("\r\n", at)) < 0) {
                if (!readMore(buffer))
                    return false;
            }
            const int size = buffer.mid(at, lineEnd - at).split(';').first().trimmed().toInt(nullptr, 16);
            at = lineEnd + 2;
            if (!readUntil(buffer, qint64(at) + size + 2))
                return false;
            if (size == 0)
                return true;
            body.append(buffer.mid(at, size));
            at += size + 2;
        }
    }

    // Silent until the client gives up (or `stopping`, or 30 s pass).
    void waitForPeerToClose(const std::atomic<bool>& stopping)
    {
        for (int waited = 0; waited < 30000 && !stopping; waited += 50) {
            if (net::peerClosedWithin(socket, 50))
                return;
        }
    }

private:
    bool readMore(QByteArray& buffer)
    {
        char chunk[65536];
        const long n = net::receive(socket, chunk, sizeof chunk);
        if (n <= 0)
            return false;
        buffer.append(chunk, int(n));
        return true;
    }

    const net::Handle socket;
};

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
    listener = net::listenOnLoopback(boundPort);
    if (listener == net::invalid)
        throw std::runtime_error("test service: cannot listen on loopback");
    acceptor = std::thread([this] {
        while (!stopping) {
            const net::Handle connection = net::acceptWithin(listener, 50);
            if (connection != net::invalid)
                startServing(connection);
        }
    });
}

TestService::~TestService()
{
    stopping = true;
    stopped.notify_all();
    acceptor.join();
    {
        std::unique_lock<std::mutex> lock(mutex);
        stopped.wait(lock, [this] { return activeWorkers == 0; });
    }
    net::close(listener);
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

void TestService::startServing(std::intptr_t socket)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++activeWorkers;
    }
    std::thread([this, socket] {
        serve(socket);
        std::lock_guard<std::mutex> lock(mutex);
        --activeWorkers;
        stopped.notify_all();
    }).detach();
}

void TestService::serve(std::intptr_t socket)
{
    Connection connection(socket);
    QByteArray buffer;
    int headEnd = 0;
    if (!connection.readHead(buffer, headEnd))
        return;
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
        complete = connection.readChunked(buffer, headEnd, request.body);
    } else {
        const qint64 length = request.header("Content-Length").toLongLong();
        complete = connection.readUntil(buffer, headEnd + length);
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
    if (!complete)
        return;
    switch (reply.kind) {
    case ScriptedReply::Kind::Answer: {
        QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reasonPhrase(reply.status) + "\r\n";
        for (const auto& h : reply.headers)
            head += h.first + ": " + h.second + "\r\n";
        if (reply.status != 204)
            head += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
        head += "Connection: close\r\n\r\n";
        connection.writeAll(head + (reply.status == 204 ? QByteArray() : reply.body));
        break;
    }
    case ScriptedReply::Kind::Raw:
        connection.writeAll(reply.body);
        if (reply.stallAfterwards)
            connection.waitForPeerToClose(stopping);
        break;
    case ScriptedReply::Kind::CloseWithoutAnswer:
        break;
    case ScriptedReply::Kind::Stall:
        connection.waitForPeerToClose(stopping);
        break;
    }
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
    return QStringLiteral("127.0.0.1:%1").arg(net::unusedPort());
}

} // namespace testing_support
