// SPDX-License-Identifier: MIT
#include "frame/route.h"

#include "frame/transport.h"

#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QTcpSocket>
#include <QUrl>

namespace norva {

namespace {

QString proxyKey(const QNetworkProxy& proxy)
{
    return QString::number(int(proxy.type())) + QLatin1Char('@') + proxy.hostName() + QLatin1Char(':')
           + QString::number(proxy.port()) + QLatin1Char('/') + proxy.user();
}

} // namespace

Route routeFor(const QUrl& url)
{
    const bool tls = isHttps(url);
    Route route;
    route.way = Route::Way::NoSuitableProxy;
    // The first proxy of the list that can carry the request: for "http" any
    // HTTP proxy that caches (the request goes to it in absolute form), else
    // one that tunnels (no proxy at all is one).
    for (const QNetworkProxy& proxy : QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(url))) {
        const bool httpKind = proxy.type() == QNetworkProxy::HttpProxy || proxy.type() == QNetworkProxy::HttpCachingProxy;
        if (!tls && httpKind && (proxy.capabilities() & QNetworkProxy::CachingCapability)) {
            route.way = proxy.user().isEmpty() ? Route::Way::AbsoluteForm : Route::Way::ManagerOnly;
            route.proxy = proxy;
            break;
        }
        if (proxy.capabilities() & QNetworkProxy::TunnelingCapability) {
            route.way = proxy.type() == QNetworkProxy::NoProxy || proxy.type() == QNetworkProxy::DefaultProxy
                            ? Route::Way::Direct
                            : Route::Way::Tunnel;
            route.proxy = route.way == Route::Way::Direct ? QNetworkProxy(QNetworkProxy::NoProxy) : proxy;
            break;
        }
    }
    route.key = url.scheme().toLower() + QLatin1String("://") + url.host().toLower() + QLatin1Char(':')
                + QString::number(url.port(tls ? 443 : 80)) + QLatin1Char(' ') + proxyKey(route.proxy);
    return route;
}

void aimSocket(QTcpSocket& socket, const Route& route)
{
    socket.setProxy(route.way == Route::Way::Tunnel ? route.proxy : QNetworkProxy(QNetworkProxy::NoProxy));
}

QString firstHopHost(const QUrl& url, const Route& route)
{
    return route.way == Route::Way::AbsoluteForm ? route.proxy.hostName() : url.host();
}

quint16 firstHopPort(const QUrl& url, const Route& route)
{
    if (route.way == Route::Way::AbsoluteForm)
        return route.proxy.port();
    return quint16(url.port(isHttps(url) ? 443 : 80));
}

} // namespace norva
