// SPDX-License-Identifier: MIT
#include "frame/connection_pool.h"

#include "frame/transport.h"

#include <QTcpSocket>

#include <algorithm>

namespace norva {

ConnectionPool::ConnectionPool(QObject* parent) : QObject(parent)
{
    sweep.setParent(this);
    sweep.setSingleShot(true);
    connect(&sweep, &QTimer::timeout, this, &ConnectionPool::closeUnused);
}

ConnectionPool::~ConnectionPool() = default;

void ConnectionPool::letGo(std::unique_ptr<QTcpSocket> socket, When when)
{
    socket->abort();
    if (when == When::Later)
        socket.release()->deleteLater();
}

std::unique_ptr<QTcpSocket> ConnectionPool::take(const QString& routeKey)
{
    for (auto it = kept.rbegin(); it != kept.rend(); ++it) {
        if (it->routeKey != routeKey)
            continue;
        std::unique_ptr<QTcpSocket> socket = std::move(it->socket);
        kept.erase(std::next(it).base());
        socket->setParent(nullptr);
        // Bytes nobody asked for, or a close the loop has seen: not for reuse.
        if (socket->state() == QAbstractSocket::ConnectedState && socket->bytesAvailable() == 0 && trustUnchanged(*socket))
            return socket;
        letGo(std::move(socket), When::Now);
        return take(routeKey);
    }
    return nullptr;
}

void ConnectionPool::giveBack(const QString& routeKey, std::unique_ptr<QTcpSocket> socket)
{
    const auto sameRoute = [&routeKey](const Kept& k) { return k.routeKey == routeKey; };
    if (std::count_if(kept.begin(), kept.end(), sameRoute) >= maxPerRoute) {
        letGo(std::move(socket), When::Later);
        return;
    }
    // The pool's child while kept: it moves with the client to another thread.
    socket->setParent(this);
    kept.push_back({routeKey, std::move(socket), QElapsedTimer()});
    kept.back().unusedFor.start();
    if (!sweep.isActive())
        sweep.start(idleLimitMs);
}

void ConnectionPool::closeUnused()
{
    qint64 next = -1;
    for (auto it = kept.begin(); it != kept.end();) {
        const qint64 left = idleLimitMs - it->unusedFor.elapsed();
        if (left <= 0 || it->socket->state() != QAbstractSocket::ConnectedState) {
            letGo(std::move(it->socket), When::Now);
            it = kept.erase(it);
            continue;
        }
        next = next < 0 ? left : std::min(next, left);
        ++it;
    }
    if (next > 0)
        sweep.start(int(next));
}

} // namespace norva
