// SPDX-License-Identifier: MIT
// The socket the library's own exchanges run on: plain TCP for "http", TLS for
// "https" where this build of Qt has TLS. One file per kind of Qt build,
// chosen by the build (transport_tls.cpp, transport_plain.cpp).
#pragma once

#include <QString>
#include <QUrl>

#include <functional>
#include <memory>

QT_BEGIN_NAMESPACE
class QNetworkReply;
class QObject;
class QTcpSocket;
QT_END_NAMESPACE

namespace norva {

struct Route;

inline bool isHttps(const QUrl& url)
{
    return url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0;
}

// Whether `url` can be reached by this build; when not, `why` says so in a
// line a user can act on.
bool canReach(const QUrl& url, QString& why);

// A socket for `url`, which calls `ready` (in `context`) once a request may be
// written: when connected, and for "https" once the handshake has checked the
// service's certificate against Qt's default TLS configuration. A certificate
// that does not check out closes the socket before anything is written.
std::unique_ptr<QTcpSocket> makeSocket(const QUrl& url, QObject* context, std::function<void()> ready);

// Whether a kept connection may carry another request: for "https", only
// while Qt's default TLS configuration is still the one its handshake checked
// the service against. (A host that withdraws or adds a CA expects the next
// call to follow.)
bool trustUnchanged(const QTcpSocket& socket);

// Whether the socket's last error is the service's own end of the connection:
// for TLS, only its close_notify (asked as the error comes: a TCP close right
// behind it replaces it); a TCP close alone may be a cut made by anyone on the
// way.
bool closedByService(const QTcpSocket& socket);

// Connects the socket made for `url` to the first hop of `route`.
void connectSocket(QTcpSocket& socket, const QUrl& url, const Route& route);

// Hands `note` the certificate problems TLS finds on the reply or the socket,
// as one "; "-joined text (never, where Qt has no TLS).
void noteTlsErrors(QNetworkReply& reply, QObject* context, std::function<void(const QString&)> note);
void noteTlsErrors(QTcpSocket& socket, QObject* context, std::function<void(const QString&)> note);

} // namespace norva
