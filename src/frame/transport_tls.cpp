#include "frame/transport.h"

#include <QSslSocket>
#include <QUrl>

namespace norva {

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
    auto socket = std::make_unique<QSslSocket>();
    QObject::connect(socket.get(), &QSslSocket::encrypted, context, std::move(ready));
    return socket;
}

void connectSocket(QTcpSocket& socket, const QUrl& url)
{
    if (isHttps(url))
        static_cast<QSslSocket&>(socket).connectToHostEncrypted(url.host(), quint16(url.port(443)));
    else
        socket.connectToHost(url.host(), quint16(url.port(80)));
}

} // namespace norva
