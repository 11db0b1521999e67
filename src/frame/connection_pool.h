// SPDX-License-Identifier: MIT
// Connections a client keeps open between its calls, so that a call to the
// same service on the same route skips the connect (and the TLS handshake).
// Qt's manager keeps its connections the same way; the library's own
// exchanges keep theirs here.
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>
#include <vector>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

namespace norva {

class ConnectionPool final : public QObject
{
public:
    explicit ConnectionPool(QObject* parent = nullptr);
    ~ConnectionPool() override;

    // The connection last given back for `routeKey` that is still open, has
    // nothing unread and was made under the trust in force now; null when
    // there is none. Connections found closed on the way are let go.
    std::unique_ptr<QTcpSocket> take(const QString& routeKey);

    // Keeps `socket`, which has just carried a whole exchange and may carry
    // another, for the next request on `routeKey`. It is closed once it stays
    // unused for the idle limit, and at once when as many as the client may
    // have in flight wait already.
    void giveBack(const QString& routeKey, std::unique_ptr<QTcpSocket> socket);

    void setIdleLimit(int milliseconds) { idleLimitMs = milliseconds; }
    void setMaxPerRoute(int connections) { maxPerRoute = connections; }

private:
    struct Kept {
        QString routeKey;
        std::unique_ptr<QTcpSocket> socket;
        QElapsedTimer unusedFor;
    };
    void closeUnused();
    // Closes a socket. A socket given back may be inside one of its own
    // signals, and goes later; one that lay unused goes now (a thread whose
    // loop runs no more would never delete it).
    enum class When { Now, Later };
    static void letGo(std::unique_ptr<QTcpSocket> socket, When when);

    std::vector<Kept> kept; // oldest first
    QTimer sweep;
    int idleLimitMs = 120 * 1000;
    int maxPerRoute = 6;
};

} // namespace norva
