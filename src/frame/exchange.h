// The one blocking HTTP exchange of a call.
#pragma once

#include "frame/request.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QSharedPointer>
#include <QString>

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
    QString errorString;
    // Whether `body` is the whole body the service announced: a status, no
    // transfer error, and as many bytes as Content-Length said. Only a download
    // looks at it, and stores nothing incomplete; its reply is read on a socket
    // of the exchange's own, where a chunked body is whole only once its last
    // chunk came (socket_exchange.h).
    bool complete = false;
    // The host cancelled the call while it waited: nothing else here counts.
    bool cancelled = false;
};

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
};

// Sends the request with a manager of its own (a request with a body sink: on a
// socket of its own) and serves the calling thread's events until the reply has
// finished, then releases manager, reply and form.
// Needs a QCoreApplication (the host's or the call's temporary one).
ReceivedReply runExchange(OutgoingRequest& outgoing);

} // namespace norva
