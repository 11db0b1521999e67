// SPDX-License-Identifier: MIT
// A call as a QFuture, for .then() chains and coroutine wrappers.
#include "norva_api_qt_async.h"

#include <QFutureWatcher>
#include <QPromise>

#include <memory>

namespace NORVA::NORVA_API_QT {

QFuture<std::string> Client::callFuture(const std::string& operation, const std::string& argument)
{
    const auto promise = std::make_shared<QPromise<std::string>>();
    promise->start();
    // The watcher hears the host's QFuture::cancel() and cancels the call; it
    // holds the reply, and both go once the call has finished. It lives on the
    // calling thread, as the reply does.
    auto* const watcher = new QFutureWatcher<std::string>;
    CallReply* const reply = call(operation, argument);
    reply->setParent(watcher);
    connect(reply, &CallReply::finished, watcher, [promise, reply, watcher] {
        promise->addResult(reply->result()); // ignored once cancelled
        promise->finish();
        // Later: this may run inside the watcher's own canceled().
        watcher->deleteLater();
    });
    connect(watcher, &QFutureWatcherBase::canceled, reply, &CallReply::cancel);
    watcher->setFuture(promise->future());
    return promise->future();
}

} // namespace NORVA::NORVA_API_QT
