// SPDX-License-Identifier: MIT
#include "frame/exchange.h"

#include "frame/call_watch.h"
#include "frame/failure.h"
#include "frame/qt_line.h"
#include "frame/request_head.h"
#include "frame/route.h"
#include "frame/seams.h"
#include "frame/socket_exchange.h"
#include "frame/transport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QPointer>
#include <QTimer>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

namespace norva {

namespace {

constexpr qint64 readBufferBytes = qint64(1) << 20;

// A reply announcing more than this gets no room reserved up front.
constexpr qint64 maxReservedBody = qint64(1) << 30;

// Errors of the transfer itself, as opposed to those Qt derives from an HTTP
// error status (content and server errors).
bool isTransferError(QNetworkReply::NetworkError error)
{
    return (error > QNetworkReply::NoError && error < QNetworkReply::ProxyConnectionRefusedError)
           || (error >= QNetworkReply::ProtocolUnknownError && error <= QNetworkReply::ProtocolFailure);
}

// The request comes pinned down and with its body asked for in place (request.h).
QNetworkReply* send(QNetworkAccessManager& manager, OutgoingRequest& outgoing)
{
    // Qt passes on at most one upload progress signal in 100 ms unless asked
    // for all: an observer would not hear of the last bytes before a stall.
    if (ExchangeWatch::observed())
        outgoing.request.setAttribute(QNetworkRequest::EmitAllUploadProgressSignalsAttribute, true);
    if (outgoing.verb == Verb::Get)
        return manager.get(outgoing.request);
    if (outgoing.form) {
        QNetworkReply* reply = manager.post(outgoing.request, outgoing.form.get());
        // The form, and the files it streams from, now end with the reply.
        outgoing.form.release()->setParent(reply);
        return reply;
    }
    return manager.post(outgoing.request, outgoing.body);
}

// Qt finishes a reply without an error when the peer closes in the middle of a
// body at some moments and with one at others. What it counted tells the cases
// apart every time: a body shorter than its Content-Length is cut short. A body
// Qt decompressed is not compared, since the header counts the compressed bytes.
bool hasAnnouncedLength(const QNetworkReply& reply, qint64 received)
{
    const QVariant announced = reply.header(QNetworkRequest::ContentLengthHeader);
    if (!announced.isValid() || announced.toLongLong() == received)
        return true;
    const QByteArray encoding = reply.rawHeader(QByteArrayLiteral("Content-Encoding")).trimmed().toLower();
    return !encoding.isEmpty() && encoding != "identity";
}

// The body length the reply's head announced; -1 when it announced none (or
// no head came).
qint64 announcedLength(const QNetworkReply& reply)
{
    const QVariant announced = reply.header(QNetworkRequest::ContentLengthHeader);
    return announced.isValid() ? announced.toLongLong() : -1;
}

// The head of a reply as the manager read it, for a head observer.
QByteArray replyHead(const QNetworkReply& reply, int status)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + ' '
                      + reply.attribute(QNetworkRequest::HttpReasonPhraseAttribute).toByteArray() + "\r\n";
    for (const QNetworkReply::RawHeaderPair& field : reply.rawHeaderPairs())
        head += field.first + ": " + field.second + "\r\n";
    return head + "\r\n";
}

// An exchange on Qt's network manager. Its body is one Qt wrote in place
// (qt_line.h), or one collected here as it arrives, into one array reserved at
// the announced size. (A body for a sink never comes here: such a request goes
// on a socket of its own.)
class ManagerExchange final : public ExchangeInFlight
{
public:
    ManagerExchange(OutgoingRequest& outgoing, QNetworkAccessManager& manager) : outgoing(outgoing), manager(manager) {}
    ~ManagerExchange() override
    {
        if (reply)
            reply->deleteLater(); // this may run inside one of its signals
    }

    void start() override
    {
        reply = send(manager, outgoing);
        // Qt 5's HTTP thread waits while this much is unread, so a large reply
        // is not queued up in Qt beside the copy the call keeps (Qt 6 reads on).
        reply->setReadBufferSize(readBufferBytes);
        noteTlsErrors(*reply, this, [this](const QString& errors) { tlsErrors = errors; });
        connect(reply, &QNetworkReply::readyRead, this, [this] {
            const Running running(*this);
            bodyArrived();
        });
        connect(reply, &QNetworkReply::metaDataChanged, this, [this] {
            const Running running(*this);
            if (reply)
                announced = announcedLength(*reply);
            onActivity();
            onReceived(0, announced);
        });
        connect(reply, &QNetworkReply::uploadProgress, this, [this](qint64 done, qint64 total) {
            const Running running(*this);
            onActivity();
            onSent(done, total);
        });
        connect(reply, &QNetworkReply::finished, this, [this] {
            {
                const Running running(*this);
                bodyArrived(); // what the last readyRead left, and the figures it makes
            }
            onFinished(); // the last use of this exchange here
        });
    }

    // Deleting the exchange later costs a posted event a call; at once is safe
    // unless one of its handlers is under way (a host's slot run from a
    // progress figure that cancels the call, say).
    bool deletableNow() const override { return handlersRunning == 0; }

    void abort() override
    {
        if (reply && !reply->isFinished())
            reply->abort(); // finishes it at once
    }

    bool isFinished() const override { return reply && reply->isFinished(); }

    ReceivedReply takeReply() override
    {
        ReceivedReply received;
        received.bodyStorage = qt_line::bodyStorage(*reply);
        if (!received.bodyStorage.isNull()) {
            // Qt wrote the reply in place; the bytes not read yet are all of it.
            received.body = QByteArray::fromRawData(received.bodyStorage.data(), int(reply->bytesAvailable()));
        } else {
            received.body = std::move(body);
        }
        received.bodySize = received.body.size();
        received.httpStatus = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        received.networkError = reply->error();
        if (received.networkError != QNetworkReply::NoError)
            received.errorString = reply->errorString();
        received.complete = received.httpStatus != 0 && !isTransferError(received.networkError)
                            && hasAnnouncedLength(*reply, received.bodySize);
        received.tlsErrors = tlsErrors;
        if (received.httpStatus != 0 && headsObserved())
            received.replyHead = replyHead(*reply, received.httpStatus);
        return received;
    }

private:
    // Counts a handler of the exchange while it runs.
    struct Running {
        explicit Running(ManagerExchange& exchange) : exchange(exchange) { ++exchange.handlersRunning; }
        ~Running() { --exchange.handlersRunning; }
        ManagerExchange& exchange;
    };

    // Qt says readyRead whenever body bytes came, and downloadProgress only
    // at most every 100 ms: readyRead alone is the body's activity.
    void bodyArrived()
    {
        onActivity();
        onReceived(readAvailable(), announced);
    }

    // Reads what arrived straight into the body array (no copy of Qt's buffer
    // on the way); the body bytes that arrived so far, wherever they are.
    qint64 readAvailable()
    {
        // An abandoned reply is closed and has nothing more to read (and one
        // gone with its manager is not read at all).
        if (!reply || !reply->isOpen())
            return body.size();
        if (!qt_line::bodyStorage(*reply).isNull())
            return reply->bytesAvailable();
        const qint64 available = reply->bytesAvailable();
        if (available <= 0)
            return body.size();
        if (body.isNull() && announced > 0 && announced <= maxReservedBody)
            body.reserve(int(announced));
        const int before = body.size();
        body.resize(before + int(available));
        const qint64 got = reply->read(body.data() + before, available);
        body.resize(before + int(qMax<qint64>(got, 0)));
        return body.size();
    }

    OutgoingRequest& outgoing;
    QNetworkAccessManager& manager;
    // The manager's child: gone with the manager, which may go first.
    QPointer<QNetworkReply> reply;
    QByteArray body;
    qint64 announced = -1;
    int handlersRunning = 0;
    QString tlsErrors;
};

// An exchange that can't take place: an "https" service where Qt has no TLS (a
// line on standard error says why), or no proxy that can carry it. Nothing is
// sent, and the call ends as if the service had not answered.
class UnreachableExchange final : public ExchangeInFlight
{
public:
    UnreachableExchange(QString why, QNetworkReply::NetworkError error, bool toStandardError)
        : why(std::move(why)), error(error), toStandardError(toStandardError)
    {
    }

    void start() override
    {
        if (toStandardError) {
            std::fprintf(stderr, "%s\n", why.toLocal8Bit().constData());
            std::fflush(stderr);
        }
        // Finished later, as any exchange: the caller's handlers are in place.
        QMetaObject::invokeMethod(this, [this] { finish(); }, Qt::QueuedConnection);
    }
    void abort() override { finish(); }
    bool isFinished() const override { return finishedAlready; }
    ReceivedReply takeReply() override
    {
        ReceivedReply received;
        received.networkError = error;
        received.errorString = why;
        return received;
    }

private:
    void finish()
    {
        if (finishedAlready)
            return;
        finishedAlready = true;
        onFinished();
    }

    const QString why;
    const QNetworkReply::NetworkError error;
    const bool toStandardError;
    bool finishedAlready = false;
};

} // namespace

std::unique_ptr<ExchangeInFlight> makeExchange(OutgoingRequest& outgoing, QNetworkAccessManager* manager,
                                               ConnectionPool* pool)
{
    const QUrl& url = outgoing.request.url();
    QString why;
    if (!canReach(url, why))
        return std::make_unique<UnreachableExchange>(why, QNetworkReply::ProtocolUnknownError, true);
    // Addresses with credentials (which the manager answers a challenge with)
    // stay on the manager.
    const bool ownConnection = outgoing.bodySink || (pool && url.userInfo().isEmpty());
    if (!ownConnection)
        return std::make_unique<ManagerExchange>(outgoing, *manager);
    Route route = routeFor(url);
    switch (route.way) {
    case Route::Way::Direct:
    case Route::Way::AbsoluteForm:
    case Route::Way::Tunnel:
        return std::make_unique<SocketExchange>(outgoing, std::move(route), pool);
    case Route::Way::ManagerOnly:
        if (!outgoing.bodySink)
            return std::make_unique<ManagerExchange>(outgoing, *manager);
        // A download has no manager: it asks the proxy for a tunnel, and the
        // socket answers the proxy's challenge with its credentials.
        route.way = Route::Way::Tunnel;
        return std::make_unique<SocketExchange>(outgoing, std::move(route), pool);
    case Route::Way::NoSuitableProxy:
        break;
    }
    if (!outgoing.bodySink)
        return std::make_unique<ManagerExchange>(outgoing, *manager);
    return std::make_unique<UnreachableExchange>(QStringLiteral("No suitable proxy found"),
                                                 QNetworkReply::ProxyNotFoundError, false);
}

IdleLimit::IdleLimit(int limitMs, std::function<void()> abandon) : limitMs(limitMs), abandon(std::move(abandon))
{
    sinceProgress.start();
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &timer, [this] {
        const qint64 quietMs = sinceProgress.elapsed();
        if (quietMs < this->limitMs) {
            timer.start(int(this->limitMs - quietMs));
            return;
        }
        passedAlready = true;
        this->abandon();
    });
    timer.start(limitMs);
}

ReceivedReply runExchange(OutgoingRequest& outgoing)
{
    if (const seam::ExchangeStub stub = seam::exchangeStub()) {
        ReceivedReply stubbed = stub(outgoing);
        stubbed.bodySize = stubbed.body.size();
        stubbed.sentText = &outgoing.sentText;
        return stubbed;
    }
    // Without an application the thread has no event dispatcher: nothing would
    // ever arrive, and the wait below would spin. (Only the object's members can
    // get here so, when a host calls them before making its application.)
    if (!QCoreApplication::instance())
        return ReceivedReply();

    QEventLoop loop;
    std::optional<QNetworkAccessManager> manager;
    if (!outgoing.bodySink)
        manager.emplace();
    const std::unique_ptr<ExchangeInFlight> exchange = makeExchange(outgoing, manager ? &*manager : nullptr, nullptr);
    IdleLimit idle(idleLimitMs(), [&exchange] { exchange->abort(); });
    const qint64 bytesToSend = outgoing.verb == Verb::Get ? 0 : outgoing.form ? -1 : outgoing.body.size();
    ExchangeWatch watch([&exchange] { exchange->abort(); }, bytesToSend);
    exchange->onActivity = [&idle] { idle.noteProgress(); };
    exchange->onSent = [&watch](qint64 done, qint64 total) { watch.sent(done, total); };
    exchange->onReceived = [&watch](qint64 done, qint64 announced) { watch.received(done, announced); };
    exchange->onFinished = [&loop] { loop.quit(); };
    if (headsObserved())
        reportHead(requestHead(outgoing.verb == Verb::Get ? "GET" : "POST", outgoing.request), true);
    exchange->start();

    // Someone else's exit() on this thread ends exec() early, and can leave the
    // thread marked as quitting so that exec() returns at once; the wait goes
    // on all the same, without spinning.
    while (!exchange->isFinished()) {
        loop.exec();
        if (!exchange->isFinished())
            loop.processEvents(QEventLoop::WaitForMoreEvents);
    }
    idle.stop();
    watch.finish();

    ReceivedReply received = exchange->takeReply();
    received.cancelled = watch.cancelled();
    received.sentText = &outgoing.sentText;
    if (idle.passed()) {
        received.httpStatus = 0;
        received.complete = false;
        received.idlePassed = true;
    }
    if (headsObserved())
        reportHead(received.replyHead, false);
    noteLastFailure(describeFailure(received, outgoing.request.url()));
    return received;
}

} // namespace norva
