// SPDX-License-Identifier: MIT
// A loopback HTTP server that plays the records service in tests.
//
// It runs on a thread of its own (so it answers whatever the calling thread is
// doing, with or without a Qt application), records every request exactly as it
// came over the wire, and answers each with the next scripted reply.
#pragma once

#include "http_server.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace testing_support {

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest {
    QByteArray method;
    QByteArray target; // path with its query, as sent
    HeaderList headers; // in the order sent
    QByteArray body;    // decoded when chunked
    QByteArray raw;     // everything received, head and body

    bool hasHeader(const QByteArray& name) const;
    // The first header of that name (case-insensitive); empty when absent.
    QByteArray header(const QByteArray& name) const;
};

struct ScriptedReply {
    enum class Kind {
        Answer,             // status line, headers, Content-Length, body
        Raw,                // `body` written as it is, then the connection closes
        CloseWithoutAnswer, // accept the request and close
        Stall,              // accept the request and send nothing until stopped
        // {"code":200,"msg":"ok","data":<the request body as a string>}, after
        // a wait between 0 and `delayMs` that the body decides: replies to
        // calls in flight together come back in another order.
        Echo,
    };

    Kind kind = Kind::Answer;
    int status = 200;
    int delayMs = 0; // wait this long before answering
    bool stallAfterwards = false; // after a Raw reply, keep the connection open and silent
    HeaderList headers;
    QByteArray body;
    // An Answer that keeps the connection for the next request (else it closes).
    bool keepConnection = false;

    static ScriptedReply json(const QByteArray& body, int status = 200)
    {
        return {Kind::Answer, status, 0, false, {{"Content-Type", "application/json"}}, body};
    }
    static ScriptedReply withStatus(int status, const QByteArray& body = {}) { return {Kind::Answer, status, 0, false, {}, body}; }
    // A null `contentDisposition` sends none.
    static ScriptedReply file(const QByteArray& bytes, const QByteArray& contentDisposition);
    static ScriptedReply raw(const QByteArray& bytes) { return {Kind::Raw, 200, 0, false, {}, bytes}; }
    // `bytes`, then the connection stays open and silent.
    static ScriptedReply rawThenSilent(const QByteArray& bytes) { return {Kind::Raw, 200, 0, true, {}, bytes}; }
    static ScriptedReply closeWithoutAnswer() { return {Kind::CloseWithoutAnswer, 200, 0, false, {}, {}}; }
    static ScriptedReply stall() { return {Kind::Stall, 200, 0, false, {}, {}}; }
    static ScriptedReply echo(int maxDelayMs) { return {Kind::Echo, 200, maxDelayMs, false, {}, {}}; }
};

class TestService
{
public:
    TestService();
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    // "127.0.0.1:<port>"
    QString address() const;

    // Replies are used in order; once they are used up, the default reply answers.
    void script(const ScriptedReply& reply);
    void setDefaultReply(const ScriptedReply& reply);

    std::vector<RecordedRequest> requests() const;
    int requestCount() const;
    int connectionCount() const; // connections accepted since the last reset
    RecordedRequest lastRequest() const;
    // The longest request recorded: Qt resends a request whose reply broke off,
    // and may break the resend off in turn, so the others are parts of it.
    RecordedRequest fullestRequest() const;
    void reset(); // forgets requests and script, restores the default reply

private:
    // One request a connection (more while the replies keep it), on the
    // service's own HTTP layer: records each request and sends its reply.
    void serve(norva::service::HttpConnection& connection);
    // False when the connection ends with this request.
    bool serveOne(norva::service::HttpConnection& connection);
    ScriptedReply nextReply();

    std::unique_ptr<norva::service::HttpServer> server;
    std::uint16_t boundPort = 0;
    std::thread serving;
    int activeWorkers = 0; // connections being served
    int connections = 0;   // connections accepted since the last reset

    mutable std::mutex mutex;
    std::condition_variable stopped;
    std::deque<ScriptedReply> scripted;
    ScriptedReply defaultReply;
    std::vector<RecordedRequest> recorded;
};

// A loopback port with nothing listening, for the refused-connection case.
QString refusedAddress();

} // namespace testing_support
