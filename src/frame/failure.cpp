// SPDX-License-Identifier: MIT
#include "frame/failure.h"

#include <cstring>

namespace norva {

using NORVA::NORVA_API_QT::CallFailure;

namespace {

// This thread's last failure, in storage without a destructor: a thread-local
// object that has one makes a MinGW DLL register it with the thread's exit,
// which under Wine was seen to hang the process's end now and then.
thread_local CallFailure lastCause = CallFailure::None;
thread_local char lastText[512] = {};

} // namespace

FailureReport describeFailure(const ReceivedReply& reply, const QUrl& url)
{
    if (reply.cancelled)
        return {CallFailure::Cancelled, QStringLiteral("request cancelled")};
    const QString where = url.toString(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo);
    if (reply.idlePassed)
        return {CallFailure::IdleLimit, QStringLiteral("No byte from %1 for the whole idle limit").arg(where)};
    if (reply.httpStatus != 0)
        return {};
    if (url.host().isEmpty())
        return {CallFailure::HostNotFound, QStringLiteral("No service address: the ipconfig names no host")};
    switch (reply.networkError) {
    case QNetworkReply::ConnectionRefusedError:
        return {CallFailure::ConnectionRefused, QStringLiteral("Connection refused (%1)").arg(where)};
    case QNetworkReply::HostNotFoundError:
        return {CallFailure::HostNotFound, QStringLiteral("Host %1 not found (%2)").arg(url.host(), where)};
    case QNetworkReply::SslHandshakeFailedError:
        if (!reply.tlsErrors.isEmpty())
            return {CallFailure::TlsNotTrusted,
                    QStringLiteral("The certificate of %1 is not trusted: %2").arg(where, reply.tlsErrors)};
        return {CallFailure::TlsHandshakeFailed,
                QStringLiteral("TLS handshake with %1 failed: %2").arg(where, reply.errorString)};
    case QNetworkReply::NoError:
    case QNetworkReply::RemoteHostClosedError:
        return {CallFailure::ClosedEarly, QStringLiteral("%1 closed the connection before a reply came").arg(where)};
    default:
        return {CallFailure::NetworkError, reply.errorString.isEmpty() ? QStringLiteral("Network error (%1)").arg(where)
                                                                       : reply.errorString};
    }
}

void noteLastFailure(FailureReport report)
{
    lastCause = report.cause;
    const QByteArray text = report.text.toUtf8().left(int(sizeof lastText) - 1);
    std::memcpy(lastText, text.constData(), std::size_t(text.size()));
    lastText[text.size()] = '\0';
}

} // namespace norva

namespace NORVA::NORVA_API_QT {

CallFailure lastCallFailure()
{
    return norva::lastCause;
}

std::string lastCallFailureText()
{
    return norva::lastText;
}

} // namespace NORVA::NORVA_API_QT
