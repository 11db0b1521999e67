// SPDX-License-Identifier: MIT
#include "frame/transport.h"

#include "frame/route.h"

#include <QNetworkReply>
#include <QSslConfiguration>
#include <QSslError>
#include <QSslSocket>
#include <QStringList>
#include <QUrl>

namespace norva {

namespace {

QString joined(const QList<QSslError>& errors)
{
    QStringList texts;
    for (const QSslError& error : errors)
        texts << error.errorString();
    return texts.join(QStringLiteral("; "));
}

// A TLS socket that remembers the default configuration of its making, which
// its handshake checks against.
class TrustedSocket final : public QSslSocket
{
public:
    const QSslConfiguration madeUnder = QSslConfiguration::defaultConfiguration();
};

} // namespace

bool canReach(const QUrl& url, QString& why)
{
    if (!isHttps(url) || QSslSocket::supportsSsl())
        return true;
    why = QStringLiteral("norva-api-qt: %1 needs TLS, and Qt found no TLS library to load (%2)")
              .arg(url.toString(QUrl::RemovePath | QUrl::RemoveQuery), QSslSocket::sslLibraryBuildVersionString());
    return false;
}

std::unique_ptr<QTcpSocket> makeSocket(const QUrl& url, QObject* context, std::function<void()> ready)
{
    if (!isHttps(url)) {
        auto socket = std::make_unique<QTcpSocket>();
        QObject::connect(socket.get(), &QTcpSocket::connected, context, std::move(ready));
        return socket;
    }
    // Errors are not ignored: a certificate that does not check out ends the
    // handshake, and with it the connection, before the request is written.
    auto socket = std::make_unique<TrustedSocket>();
    QObject::connect(socket.get(), &QSslSocket::encrypted, context, std::move(ready));
    return socket;
}

bool trustUnchanged(const QTcpSocket& socket)
{
    const auto* const tls = dynamic_cast<const TrustedSocket*>(&socket);
    return !tls || tls->madeUnder == QSslConfiguration::defaultConfiguration();
}

bool closedByService(const QTcpSocket& socket)
{
    // Qt tells the two apart only by its text: RemoteHostClosedError either way.
    return !qobject_cast<const QSslSocket*>(&socket)
           || socket.errorString() == QSslSocket::tr("The TLS/SSL connection has been closed");
}

void connectSocket(QTcpSocket& socket, const QUrl& url, const Route& route)
{
    aimSocket(socket, route);
    // A tunnel's end is the service: the handshake checks the service's name.
    if (isHttps(url))
        static_cast<QSslSocket&>(socket).connectToHostEncrypted(url.host(), firstHopPort(url, route));
    else
        socket.connectToHost(firstHopHost(url, route), firstHopPort(url, route));
}

void noteTlsErrors(QNetworkReply& reply, QObject* context, std::function<void(const QString&)> note)
{
    QObject::connect(&reply, &QNetworkReply::sslErrors, context,
                     [note = std::move(note)](const QList<QSslError>& errors) { note(joined(errors)); });
}

void noteTlsErrors(QTcpSocket& socket, QObject* context, std::function<void(const QString&)> note)
{
    if (auto* const tls = qobject_cast<QSslSocket*>(&socket)) {
        QObject::connect(tls, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), context,
                         [note = std::move(note)](const QList<QSslError>& errors) { note(joined(errors)); });
    }
}

} // namespace norva
