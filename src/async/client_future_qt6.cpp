// A call as a QFuture, for .then() chains and coroutine wrappers.
#include "norva_api_qt_async.h"

#include <QPromise>

#include <memory>

namespace NORVA::NORVA_API_QT {

QFuture<std::string> Client::callFuture(const std::string& operation, const std::string& argument)
{
    const auto promise = std::make_shared<QPromise<std::string>>();
    promise->start();
    CallReply* const reply = call(operation, argument);
    connect(reply, &CallReply::finished, reply, [promise, reply] {
        promise->addResult(reply->result());
        promise->finish();
        delete reply; // allowed in its own finished()
    });
    return promise->future();
}

} // namespace NORVA::NORVA_API_QT
