// SPDX-License-Identifier: MIT
// The way a request takes to its service: directly, as an absolute-form
// request to an HTTP proxy, or through a tunnel (CONNECT or SOCKS5) that the
// socket opens. It is chosen as Qt's network manager chooses it, from the
// proxies the application's proxy factory lists for the request's URL (the
// host's own factory, application proxy, or the system's, http_proxy and the
// like on Linux), so that a call on the library's own connections goes the way
// it would go through the manager, and never directly where a proxy applies.
#pragma once

#include <QNetworkProxy>
#include <QString>

QT_BEGIN_NAMESPACE
class QTcpSocket;
class QUrl;
QT_END_NAMESPACE

namespace norva {

struct Route {
    enum class Way {
        Direct,
        // "GET http://host/path HTTP/1.1" on a connection to the proxy.
        AbsoluteForm,
        // The socket asks the proxy for a tunnel to the service.
        Tunnel,
        // An HTTP proxy that has credentials, for an "http" service: Qt's
        // manager answers its challenges (Basic, Digest, NTLM), which this
        // path does not speak.
        ManagerOnly,
        // No proxy in the list can carry the request (a caching proxy alone,
        // for "https"): the call fails as the manager fails it.
        NoSuitableProxy,
    };
    Way way = Way::Direct;
    QNetworkProxy proxy{QNetworkProxy::NoProxy};
    // Requests whose routes have the same key may share a connection.
    QString key;
};

Route routeFor(const QUrl& url);

// Points `socket` at its first hop: the proxy of an absolute-form route, else
// the service (through the route's tunnel, if any). Never the socket's own
// default, which asks the factory again with another kind of query.
void aimSocket(QTcpSocket& socket, const Route& route);

// The host and port the socket connects to for `url` on `route`.
QString firstHopHost(const QUrl& url, const Route& route);
quint16 firstHopPort(const QUrl& url, const Route& route);

} // namespace norva
