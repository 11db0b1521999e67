// SPDX-License-Identifier: MIT
/// \file
/// norva-api-qt: the asynchronous face.
///
/// For hosts with a running event loop (a GUI thread, a worker thread's loop).
/// A Client starts a call and returns at once; the call's CallReply says when it
/// finished and holds its result document, the very text the blocking function
/// of that operation returns for the same reply, letter for letter. Nothing here
/// runs a nested event loop, and nothing is written to standard output: a host
/// that wants the console line prints result().
///
/// A host without an event loop keeps the blocking functions of norva_api_qt.h.
///
///     Client client;                       // on the GUI thread
///     CallReply* reply = client.call("select_share", argument);
///     QObject::connect(reply, &CallReply::finished, [reply] {
///         show(reply->result());
///         delete reply;
///     });
#ifndef NORVA_API_QT_ASYNC_H
#define NORVA_API_QT_ASYNC_H

#include "norva_api_qt.h"
#include "norva_api_qt_progress.h"

#include <QtCore/QMetaType>
#include <QtCore/QObject>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <QtCore/QFuture>
#endif

#include <memory>
#include <string>

namespace NORVA {
namespace NORVA_API_QT {

class Client;
struct CallDriver; // the library's own

/// One call of a Client, owned by the caller (like a QNetworkReply). Deleting a
/// reply that has not finished cancels its call, without finished(). Unlike a
/// QNetworkReply, a reply may be deleted in a slot of its own finished() (no
/// deleteLater() needed, which costs a posted event); nothing of it is touched
/// after that signal. However a download ends, a file it began to take and did
/// not store is gone by the time the call ends (finished(), or the deletion).
class NORVA_API_QT_EXPORT CallReply : public QObject
{
    Q_OBJECT

public:
    /// Cancels the call unless it finished, without finished().
    ~CallReply() override;

    /// Whether finished() has come.
    bool isFinished() const;
    /// The result document once finished(); empty before.
    std::string result() const;
    /// Once finished(): why the call got no reply (None when the service
    /// answered), and a line that says it, naming the address; see
    /// norva_api_qt_progress.h.
    CallFailure failure() const;
    /// The line that says failure(); empty for CallFailure::None.
    std::string failureText() const;
    /// Ends the call with {"message":"request cancelled","status":400} (unless
    /// it already finished); finished() follows at once, inside cancel(). A
    /// call still waiting for its turn is never sent. Neither a cancel nor a
    /// deletion starts a waiting call on its own stack: those start from the
    /// event loop, so a loop that cancels every reply of a client sends nothing
    /// beyond the calls that were already in flight.
    void cancel();

Q_SIGNALS:
    /// The figures of the call's exchange, paced as the progress observer's.
    void progress(const NORVA::NORVA_API_QT::CallProgress& progress);
    /// Once for every call, whatever the outcome, and never before call()
    /// returned.
    void finished();

protected:
    /// Notes a listener of progress(): a reply nobody watches is not paced.
    void connectNotify(const QMetaMethod& signal) override;

private:
    friend class Client;
    friend struct CallDriver;
    struct State;
    explicit CallReply(std::unique_ptr<State> state);
    std::unique_ptr<State> d;
};

/// Makes calls from the thread it lives on, on HTTP/1.1 connections of the
/// library's own, kept between calls: up to maxCallsInFlight() per service and
/// route, each closed once unused for the idle limit. A request goes out in
/// one write with TCP_NODELAY, and on Linux what comes is acknowledged at once,
/// so that no call waits for a delayed ACK, whatever the server. The bytes
/// sent are those Qt's network manager would send on this Qt line, upload
/// forms included, and the result is the blocking function's, letter for
/// letter.
///
/// Proxies and trust are taken as Qt's manager takes them, for every call: the
/// application's proxy factory is asked with the request's URL (the host's own
/// factory, QNetworkProxy::setApplicationProxy, or the system's, such as
/// http_proxy on Linux). An "http" service goes through an HTTP or caching
/// proxy as absolute-form requests, an "https" one through a CONNECT tunnel,
/// and SOCKS5 as Qt's socket does; a service on loopback goes directly, as in
/// Qt. A new TLS connection checks the service against Qt's default TLS
/// configuration of that moment, and a kept one made before the host changed
/// it is not used again. A body that runs to the close of a TLS connection is
/// whole only if the service ended TLS itself (close_notify).
///
/// Two kinds of call go through one Qt network manager of the client's
/// instead, which answers challenges this path does not speak: an "http"
/// service behind an HTTP proxy that has credentials (Qt answers its Basic,
/// Digest or NTLM challenge), and an address with credentials in it,
/// "user:password@host:port", which has a manager and connection of its own,
/// as a blocking call does, so that no later call sends them unasked. (A
/// download behind such a proxy asks it for a tunnel instead, where Qt's
/// socket answers the challenge.)
///
/// A client may be moved to a worker's thread (moveToThread()) while none of
/// its calls is waiting or in flight.
class NORVA_API_QT_EXPORT Client : public QObject
{
    Q_OBJECT

public:
    /// A client on the calling thread, with Qt's parent.
    explicit Client(QObject* parent = nullptr);
    /// Calls still waiting or in flight finish with "request cancelled".
    ~Client() override;

    /// Starts the operation of that name ("norva_sdk_select_share", or
    /// "select_share" without the prefix; any of the free functions of
    /// norva_api_qt.h) with the argument text its blocking function takes.
    /// Returns at once. An unknown name, or a call from a thread other than
    /// the client's, sends nothing: its reply finishes with a document that
    /// says so. Such a reply lives on the calling thread and is tied to no
    /// client. On that thread a host may connect to it, read it, cancel it and
    /// delete it at any moment; its finished() comes from that thread's event
    /// loop, never inside call(), so a slot connected before the loop next runs
    /// hears it however late. (A thread that runs no loop delivers it with
    /// QCoreApplication::sendPostedEvents().) Nothing else of a client may be
    /// used from another thread.
    CallReply* call(const std::string& operation, const std::string& argument);
    /// An operation's free function, as norva_sdk_select_share.
    using OperationFunction = std::string (*)(std::string);
    /// The same, naming the operation by its function:
    /// `client.call(norva_sdk_select_share, argument)`.
    CallReply* call(OperationFunction operation, const std::string& argument);

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    /// The same call as a future of its result document. QFuture::cancel()
    /// cancels the call, as CallReply::cancel() does: the future ends as
    /// cancelled when the calling thread's loop next runs, and a call still
    /// waiting for its turn is never sent.
    QFuture<std::string> callFuture(const std::string& operation, const std::string& argument);
#endif

    /// A call whose service sends nothing, nor takes anything, for this long
    /// ends as if no reply had come. 120000 ms unless set.
    void setIdleLimit(int milliseconds);
    /// The idle limit of calls started from now on, in milliseconds.
    int idleLimit() const;
    /// How many calls are in flight at once (6 unless set: Qt's own number of
    /// connections per host); the others wait their turn in order.
    void setMaxCallsInFlight(int calls);
    /// How many calls are in flight at once.
    int maxCallsInFlight() const;

private:
    friend class CallReply;
    friend struct CallDriver;
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace NORVA_API_QT
} // namespace NORVA

Q_DECLARE_METATYPE(NORVA::NORVA_API_QT::CallProgress)

#endif // NORVA_API_QT_ASYNC_H
