// SPDX-License-Identifier: MIT
/// \file
/// norva-api-qt progress: watching and stopping a call from the thread that makes
/// it. An extension beside the operations of norva_api_qt.h; nothing here changes
/// what an operation sends or returns unless a call is cancelled.
///
/// Everything in this header belongs to the calling thread: an observer set on
/// one thread hears only the calls made on that thread, and a cancel stops only a
/// call of the thread that says it. While a call waits for the service it serves
/// the calling thread's Qt events, so a GUI on that thread keeps repainting, its
/// slots run, and the observer and any of those slots may cancel.
///
///     using namespace NORVA::NORVA_API_QT;
///     setProgressObserver([&](const CallProgress& p) {
///         bar->setValue(p.bytesToSend > 0 ? int(100 * p.bytesSent / p.bytesToSend) : 0);
///         if (stopRequested)
///             cancelCall();
///     });
///     const std::string result = norva_sdk_upload_file(argument);
///     clearProgressObserver();
#ifndef NORVA_API_QT_PROGRESS_H
#define NORVA_API_QT_PROGRESS_H

#include "norva_api_qt.h"

#include <functional>
#include <string>

namespace NORVA {
namespace NORVA_API_QT {

/// Where one call's exchange stands. No figure ever goes back, and a total that
/// is not known (yet) is -1: a reply's length stays -1 when no reply came.
struct CallProgress {
    const char* operation; ///< the operation's name, as "norva_sdk_upload_file"
    qint64 bytesSent;      ///< request body bytes sent so far
    qint64 bytesToSend;    ///< the request body's size; 0 when it has none
    qint64 bytesReceived;  ///< reply body bytes received so far
    qint64 bytesToReceive; ///< the reply's announced length; -1 when it announces none
};

/// What hears a thread's progress figures (setProgressObserver()).
using ProgressObserver = std::function<void(const CallProgress& progress)>;

/// Sets the observer of the calling thread's calls, in place of an earlier one.
/// It is called from inside each call's wait, on this thread: as bytes move,
/// at most about 30 times a second with the latest figures (bytes that arrive
/// within 33 ms of a report are reported when those 33 ms are up, also when
/// nothing follows them), and once more when the exchange is over. It may call cancelCall(), and may make calls
/// of its own (they are observed too). Exceptions it throws are dropped. A call
/// that started before the observer was set is not observed.
NORVA_API_QT_EXPORT void setProgressObserver(ProgressObserver observer);
/// Removes the calling thread's observer: its later calls are not observed.
NORVA_API_QT_EXPORT void clearProgressObserver();

/// Ends the exchange of the innermost call that runs on this thread at once. That
/// call returns {"message":"request cancelled","status":400} (written to standard
/// output like every result document); a download stores nothing and leaves an
/// earlier file of its name as it was. Returns false, and does nothing, when no
/// call is waiting for the service on this thread.
NORVA_API_QT_EXPORT bool cancelCall();

/// How long a call of this thread may wait without a byte in either direction
/// before it ends as if no reply had come ("Server shuts down"); 120000 ms until
/// set. Values below 1 ms count as 1 ms.
NORVA_API_QT_EXPORT void setIdleLimit(int milliseconds);
/// The calling thread's idle limit, in milliseconds.
NORVA_API_QT_EXPORT int idleLimit();

/// Why a call got no reply from the service. The result document says only
/// "Server shuts down" (or "request fail"); this says what happened, for a host
/// to tell its user. The service's own answers, whatever their status, are None.
enum class CallFailure {
    None,               ///< the service answered, or nothing was sent (a refused argument)
    ConnectionRefused,  ///< nothing listens at the address
    HostNotFound,       ///< the name does not resolve, or no address was given
    IdleLimit,          ///< the service fell silent for the whole idle limit
    TlsNotTrusted,      ///< the service's certificate does not check out
    TlsHandshakeFailed, ///< TLS could not be agreed (plain HTTP on the port, say)
    ClosedEarly,        ///< the connection ended before a whole reply came
    Cancelled,          ///< the host cancelled the call
    UnknownOperation,   ///< the asynchronous face was asked for a name it does not know
    WrongThread,        ///< the asynchronous face was called from another thread
    NetworkError,       ///< any other failure of the network (its text says which)
};

/// The failure of the last call this thread made through the blocking functions
/// (None before the first), and a line that says it as Qt's errorString() does,
/// naming the address ("Connection refused (http://127.0.0.1:9)"; for TLS, the
/// certificate's problem). Empty for None.
NORVA_API_QT_EXPORT CallFailure lastCallFailure();
/// The line that says lastCallFailure(); empty for CallFailure::None.
NORVA_API_QT_EXPORT std::string lastCallFailureText();

/// Hears the heads of this thread's exchanges: the request head as Qt's manager
/// writes it (fields the library sets, and those Qt adds), and the head of the
/// reply as it came, each as HTTP/1.1 text, lines ended by "\r\n". The token
/// header is passed on as it is: an observer that shows it masks it.
using HeadObserver = std::function<void(const std::string& head, bool isRequest)>;
/// Sets the calling thread's head observer, in place of an earlier one.
NORVA_API_QT_EXPORT void setHeadObserver(HeadObserver observer);
/// Removes the calling thread's head observer.
NORVA_API_QT_EXPORT void clearHeadObserver();

} // namespace NORVA_API_QT
} // namespace NORVA

#endif // NORVA_API_QT_PROGRESS_H
