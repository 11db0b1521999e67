// SPDX-License-Identifier: MIT
// The one blocking HTTP exchange of a call.
#pragma once

#include "frame/request.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QNetworkReply>
#include <QSharedPointer>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace norva {

// What the call keeps of the reply once the exchange is over.
struct ReceivedReply {
    // The status of the reply's status line. 0 when none arrived (refused,
    // unreachable, closed before a status line) and when the idle limit ended
    // the exchange: only then is there "no reply". Once a status has arrived it
    // decides, whatever happened to the body afterwards.
    int httpStatus = 0;
    QByteArray body; // the body bytes that arrived, unless a sink took them
    qint64 bodySize = 0; // how many body bytes arrived, in `body` or in the sink
    bool bodyInSink = false; // the request's sink took the body
    QSharedPointer<char> bodyStorage; // owns `body`'s bytes when Qt wrote them in place
    QByteArray contentDisposition; // raw header, empty when absent
    QNetworkReply::NetworkError networkError = QNetworkReply::NoError;
    QString errorString; // empty without an error
    // Whether `body` is the whole body the service announced: a status, no
    // transfer error, and as many bytes as Content-Length said. Only a download
    // looks at it, and stores nothing incomplete; its reply is read on a socket
    // of the exchange's own, where a chunked body is whole only once its last
    // chunk came (socket_exchange.h).
    bool complete = false;
    // The host cancelled the call while it waited: nothing else here counts.
    bool cancelled = false;
    // The idle limit ended the exchange.
    bool idlePassed = false;
    // The certificate problems TLS found, "; "-joined; empty when none.
    QString tlsErrors;
    // The reply's head as it came, only while a head observer listens.
    QByteArray replyHead;
    // What the request reports as sent (request.h), set by the frame before a
    // judge sees the reply; it lives as long as the request.
    const SentText* sentText = nullptr;
};

// Which HTTP statuses an exchange hands to the operation's own judge.
struct HttpClasses {
    bool with402Branch = false;   // 402 is "token expired"
    bool withNoReplyClass = true; // 0 is "Server shuts down" (else "request fail")
    int alsoJudged = -1;          // one more status the judge takes, tested after 200
};

// What an operation makes of a reply its classes hand to it.
using ReplyJudge = std::function<ResultDocument(const ReceivedReply& reply)>;

// Takes a reply's body as it arrives, in place of the call's array: a download
// writes a large file to disk instead of holding all of it in memory.
class BodySink
{
public:
    virtual ~BodySink() = default;
    // Asked once, when the first body bytes of a reply with `httpStatus` arrive;
    // false keeps that body in memory as usual.
    virtual bool take(int httpStatus) = 0;
    virtual void write(const char* data, qint64 size) = 0;
    // Lets go of what it took and did not store, once the call has ended.
    virtual void discard() = 0;
};

// One exchange under way, driven by the events of the thread it was made on.
// Both faces use it: the blocking one serves the thread's events until it
// finished, the asynchronous one carries on when it does.
class ExchangeInFlight : public QObject
{
public:
    // Sends the request. `outgoing` must outlive the exchange.
    virtual void start() = 0;
    // Ends the exchange now; onFinished follows at once.
    virtual void abort() = 0;
    virtual bool isFinished() const = 0;
    // The reply, once finished (once).
    virtual ReceivedReply takeReply() = 0;

    // Any progress either way (for an idle limit).
    std::function<void()> onActivity;
    // The request body's bytes handed on so far, and their total.
    std::function<void(qint64 done, qint64 total)> onSent;
    // The reply body bytes received so far, and the length the head announced
    // (-1 when none, or no head yet).
    std::function<void(qint64 done, qint64 announced)> onReceived;
    // Called once; from it the exchange may be deleted at once only when
    // deletableNow() says so, else later (deleteLater).
    std::function<void()> onFinished;

    // Keeps `owner` (what holds the exchange's request) as long as the exchange.
    void keepUntilDeleted(std::shared_ptr<void> owner) { kept = std::move(owner); }

    // Whether the exchange may be deleted at once rather than later: true only
    // while none of its own code is on the stack but the tail call of
    // onFinished, after which it touches nothing of itself.
    virtual bool deletableNow() const { return false; }

private:
    std::shared_ptr<void> kept;
};

class ConnectionPool;

// The exchange of `outgoing`. With a pool (the asynchronous face), and for
// every request whose body goes to a sink, on a connection of the library's
// own (socket_exchange.h), kept in `pool` if there is one; else on `manager`.
// Addresses with credentials, and routes only the manager can take
// (route.h), go on `manager`, which a request for a sink never needs.
std::unique_ptr<ExchangeInFlight> makeExchange(OutgoingRequest& outgoing, QNetworkAccessManager* manager,
                                               ConnectionPool* pool);

// A service that stops sending must not hold the caller for ever: `abandon` is
// called once the limit passes without any progress. Progress only notes its
// time; the one timer looks at it when it fires and waits on for what is left.
// (Restarting a timer on every progress costs a system timer each time, which
// on Windows is a round trip through the window system.)
class IdleLimit
{
public:
    IdleLimit(int limitMs, std::function<void()> abandon);
    IdleLimit(const IdleLimit&) = delete;
    IdleLimit& operator=(const IdleLimit&) = delete;

    void noteProgress() { sinceProgress.restart(); }
    void stop() { timer.stop(); }
    bool passed() const { return passedAlready; }

private:
    const int limitMs;
    const std::function<void()> abandon;
    QElapsedTimer sinceProgress;
    QTimer timer;
    bool passedAlready = false;
};

// Sends the request with a manager of its own (a request with a body sink: on a
// socket of its own) and serves the calling thread's events until the reply has
// finished, then releases manager, reply and form. Needs a QCoreApplication
// (the host's or the call's temporary one).
ReceivedReply runExchange(OutgoingRequest& outgoing);

} // namespace norva
