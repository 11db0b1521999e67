// SPDX-License-Identifier: MIT
#include "support/test_service.h"

#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace testing_support {

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    return std::any_of(headers.begin(), headers.end(), [&name](const auto& h) { return h.first.compare(name, Qt::CaseInsensitive) == 0; });
}

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return QByteArray();
}

ScriptedReply ScriptedReply::file(const QByteArray& bytes, const QByteArray& contentDisposition)
{
    ScriptedReply reply = withStatus(200, bytes);
    reply.headers = {{"Content-Type", "application/octet-stream"}};
    if (!contentDisposition.isNull())
        reply.headers.append({"Content-Disposition", contentDisposition});
    return reply;
}

TestService::TestService()
{
    defaultReply = ScriptedReply::json(R"({"code":200,"msg":"ok","data":null})");
    norva::service::HttpLimits limits;
    limits.bodyBytes = limits.memoryBodyBytes = std::size_t(1) << 40; // tests decide what they send
    server = std::make_unique<norva::service::HttpServer>(limits);
    std::string error;
    if (!server->listen("127.0.0.1", 0, error))
        throw std::runtime_error("test service: " + error);
    boundPort = std::uint16_t(server->port());
    serving = std::thread([this] { server->run([this](norva::service::HttpConnection& c) { serve(c); }); });
}

TestService::~TestService()
{
    server->stop();
    serving.join();
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

int TestService::connectionCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return connections;
}

int TestService::requestCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return int(recorded.size());
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
    stopped.wait_for(lock, std::chrono::seconds(5), [this] { return activeWorkers == 0; });
    recorded.clear();
    connections = 0;
    scripted.clear();
    defaultReply = ScriptedReply::json(R"({"code":200,"msg":"ok","data":null})");
}

ScriptedReply TestService::nextReply()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (scripted.empty())
        return defaultReply;
    ScriptedReply reply = scripted.front();
    scripted.pop_front();
    return reply;
}

void TestService::serve(norva::service::HttpConnection& connection)
{
    struct Active {
        TestService& service;
        explicit Active(TestService& s) : service(s) { std::lock_guard<std::mutex> lock(service.mutex); ++service.activeWorkers; }
        ~Active()
        {
            std::lock_guard<std::mutex> lock(service.mutex);
            --service.activeWorkers;
            service.stopped.notify_all();
        }
    } active(*this);
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++connections;
    }
    while (serveOne(connection)) {
    }
}

bool TestService::serveOne(norva::service::HttpConnection& connection)
{
    norva::service::HttpRequest head;
    std::string raw;
    const auto read = connection.readRequest(head, &raw);
    if (read == norva::service::HttpConnection::Read::None)
        return false;
    RecordedRequest request;
    request.method = QByteArray::fromStdString(head.method);
    request.target = QByteArray::fromStdString(head.target);
    for (const auto& h : head.headers)
        request.headers.append({QByteArray::fromStdString(h.first), QByteArray::fromStdString(h.second)});
    request.body = QByteArray::fromStdString(head.body);
    request.raw = QByteArray::fromStdString(raw);
    {
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(request);
    }
    const ScriptedReply reply = nextReply();
    const int delayMs = reply.kind != ScriptedReply::Kind::Echo ? reply.delayMs
                        : reply.delayMs > 0                   ? int(qHash(request.body) % uint(reply.delayMs + 1))
                                                              : 0;
    if (delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    if (read == norva::service::HttpConnection::Read::Partial)
        return false;
    constexpr std::chrono::seconds silence(30);
    switch (reply.kind) {
    case ScriptedReply::Kind::Answer: {
        norva::service::HttpResponse answer;
        answer.status = reply.status;
        for (const auto& h : reply.headers)
            answer.headers.emplace_back(h.first.toStdString(), h.second.toStdString());
        answer.body = reply.body.toStdString();
        return connection.write(answer, reply.keepConnection) && reply.keepConnection;
    }
    case ScriptedReply::Kind::Raw:
        connection.writeRaw(reply.body.toStdString());
        if (reply.stallAfterwards)
            connection.waitForPeerToClose(silence);
        break;
    case ScriptedReply::Kind::Echo: {
        norva::service::HttpResponse answer;
        answer.status = 200;
        answer.headers.emplace_back("Content-Type", "application/json");
        const QJsonObject echoed{{"code", 200}, {"msg", "ok"}, {"data", QString::fromUtf8(request.body)}};
        answer.body = QJsonDocument(echoed).toJson(QJsonDocument::Compact).toStdString();
        connection.write(answer, false);
        break;
    }
    case ScriptedReply::Kind::CloseWithoutAnswer:
        break;
    case ScriptedReply::Kind::Stall:
        connection.waitForPeerToClose(silence);
        break;
    }
    return false;
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
    norva::service::HttpServer probe;
    std::string error;
    probe.listen("127.0.0.1", 0, error);
    return QStringLiteral("127.0.0.1:%1").arg(probe.port());
}

} // namespace testing_support
