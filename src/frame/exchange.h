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
    // 0 when no HTTP reply was received: refused, unreachable, closed without an
    // answer, or idle past the limit.
    int httpStatus = 0;
    QByteArray body;
    QSharedPointer<char> bodyStorage; // owns `body`'s bytes when Qt wrote them in place
    QByteArray contentDisposition; // raw header, empty when absent
    QNetworkReply::NetworkError networkError = QNetworkReply::NoError;
    QString errorString;
    // false when the transfer broke off (peer closed or reset mid-reply, a broken
    // chunk, the idle limit): the body is not what the service sent.
    bool complete = true;

    // What the HTTP classes go by: an incomplete reply counts as no reply.
    int classifiedStatus() const { return complete ? httpStatus : 0; }
};

// Sends the request with a manager of its own and serves the calling thread's
// events until the reply has finished, then releases manager, reply and form.
// Needs a QCoreApplication (the host's or the call's temporary one).
ReceivedReply runExchange(OutgoingRequest& outgoing);

} // namespace norva
