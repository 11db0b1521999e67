#include "frame/exchange.h"

#include "frame/seams.h"

#include <QEventLoop>
#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QTimer>

#include <memory>

namespace norva {

namespace {

// Errors of the transfer itself, as opposed to those Qt derives from an HTTP
// error status (content and server errors).
bool isTransferError(QNetworkReply::NetworkError error)
{
    return (error > QNetworkReply::NoError && error < QNetworkReply::ProxyConnectionRefusedError)
           || (error >= QNetworkReply::ProtocolUnknownError && error <= QNetworkReply::ProtocolFailure);
}

QNetworkReply* send(QNetworkAccessManager& manager, OutgoingRequest& outgoing)
{
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

} // namespace

ReceivedReply runExchange(OutgoingRequest& outgoing)
{
    if (const seam::ExchangeStub stub = seam::exchangeStub())
        return stub(outgoing);

    QEventLoop loop;
    const auto manager = std::make_unique<QNetworkAccessManager>();
    QNetworkReply* const reply = send(*manager, outgoing);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);

    // A service that stops sending must not hold the caller for ever: any
    // progress restarts the idle timer, and its expiry abandons the exchange.
    bool idle = false;
    QTimer idleTimer;
    idleTimer.setSingleShot(true);
    idleTimer.setInterval(seam::idleLimitMs());
    QObject::connect(&idleTimer, &QTimer::timeout, reply, [&idle, reply] {
        idle = true;
        reply->abort();
    });
    const auto restart = [&idleTimer] { idleTimer.start(); };
    QObject::connect(reply, &QNetworkReply::uploadProgress, &idleTimer, restart);
    QObject::connect(reply, &QNetworkReply::downloadProgress, &idleTimer, restart);
    QObject::connect(reply, &QNetworkReply::metaDataChanged, &idleTimer, restart);
    idleTimer.start();

    while (!reply->isFinished()) {
        loop.exec();
        // Someone else's exit() on this thread ends exec() early, and can leave
        // the thread marked as quitting so that exec() returns at once; keep
        // waiting for this reply all the same, without spinning.
        if (!reply->isFinished())
            loop.processEvents(QEventLoop::WaitForMoreEvents);
    }
    idleTimer.stop();
    reply->deleteLater();

    ReceivedReply received;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    received.httpStatus = idle ? 0 : status.toInt();
    if (reply->isOpen()) // an abandoned reply is closed and has nothing to read
        received.body = reply->readAll();
    received.contentDisposition = reply->rawHeader(QByteArrayLiteral("Content-Disposition"));
    received.networkError = reply->error();
    received.errorString = reply->errorString();
    received.complete = !idle && !isTransferError(received.networkError);
    return received;
}

} // namespace norva
