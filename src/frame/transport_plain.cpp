// SPDX-License-Identifier: MIT
// For a Qt built without TLS: "https" can't be reached, and says why.
#include "frame/transport.h"

#include "frame/route.h"

#include <QTcpSocket>
#include <QUrl>

namespace norva {

bool canReach(const QUrl& url, QString& why)
{
    if (!isHttps(url))
        return true;
    why = QStringLiteral("norva-api-qt: %1 needs TLS, and this Qt was built without it; "
                         "HTTPS needs a Qt built with OpenSSL")
              .arg(url.toString(QUrl::RemovePath | QUrl::RemoveQuery));
    return false;
}

std::unique_ptr<QTcpSocket> makeSocket(const QUrl&, QObject* context, std::function<void()> ready)
{
    auto socket = std::make_unique<QTcpSocket>();
    QObject::connect(socket.get(), &QTcpSocket::connected, context, std::move(ready));
    return socket;
}

bool trustUnchanged(const QTcpSocket&)
{
    return true;
}

bool closedByService(const QTcpSocket&)
{
    return true;
}

void connectSocket(QTcpSocket& socket, const QUrl& url, const Route& route)
{
    aimSocket(socket, route);
    socket.connectToHost(firstHopHost(url, route), firstHopPort(url, route));
}

void noteTlsErrors(QNetworkReply&, QObject*, std::function<void(const QString&)>) {}

void noteTlsErrors(QTcpSocket&, QObject*, std::function<void(const QString&)>) {}

} // namespace norva
