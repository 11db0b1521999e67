// The one blocking HTTP exchange of a call.
#pragma once

#include "frame/request.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QString>

namespace norva {

// What the call keeps of the reply once the exchange is over.
struct ReceivedReply {
    // 0 when no HTTP reply was received: refused, unreachable, closed without an
    // answer, or idle past the limit.
    int httpStatus = 0;
    QByteArray body;
    QByteArray contentDisposition; // raw header, empty when absent
    QNetworkReply::NetworkError networkError = QNetworkReply::NoError;
    QString errorString;
};

// Sends the request with a manager of its own and serves the calling thread's
// events until the reply has finished, then releases manager, reply and form.
// Needs a QCoreApplication (the host's or the call's temporary one).
ReceivedReply runExchange(OutgoingRequest& outgoing);

} // namespace norva
