// SPDX-License-Identifier: MIT
// The exported QObject: login and download for hosts with an application, and a
// slot that reports failed replies.
#include "norva_api_qt.h"

#include "accounts/login.h"
#include "frame/qt_line.h"
#include "frame/result.h"
#include "transfer/download.h"

#include <QDebug>
#include <QJsonObject>
#include <QNetworkReply>

namespace NORVA::NORVA_API_QT {

using namespace norva;

NORVA_HTTP_API::NORVA_HTTP_API(QObject* /*parent*/) : QObject(nullptr) {}

NORVA_HTTP_API::~NORVA_HTTP_API() = default;

std::string NORVA_HTTP_API::norva_sdk_login(std::string argument)
{
    ShellOptions options;
    options.operation = "NORVA_HTTP_API::norva_sdk_login";
    options.mayBuildApplication = false;
    return runShell(argument, options, [](const Arguments& arguments, Call&) {
        const Operation& login = accounts::loginOperation();
        OutgoingRequest outgoing = *login.request(arguments);
        const ReceivedReply reply = runExchange(outgoing);
        if (reply.cancelled)
            return statusDocument(400, message::requestCancelled);

        ResultDocument networkError;
        if (reply.networkError != QNetworkReply::NoError) {
            networkError = statusDocument(400, reply.errorString);
            networkError.insert("error", int(reply.networkError));
        }
        if (reply.httpStatus != 200) {
            if (!networkError.isEmpty())
                echoLine(compactText(networkError));
            return httpClassDocument(reply.httpStatus == 402 ? HttpClass::TokenExpired : HttpClass::Other);
        }
        if (!networkError.isEmpty())
            return networkError;
        return judgeServiceReply(reply.body, login.outcomes, outgoing.sentText);
    });
}

std::string NORVA_HTTP_API::norva_sdk_download_binary_file(std::string argument)
{
    static constexpr transfer::DownloadVariant member{
        "/kvr/originalFile/downloadFile", true, "jsonstr parse error", "yyyyMMdd",
        false, false, true, false, false};
    return transfer::runDownload(member, std::move(argument), "NORVA_HTTP_API::norva_sdk_download_binary_file");
}

void NORVA_HTTP_API::requestFinished(QNetworkReply* reply)
{
    if (!reply || reply->error() == QNetworkReply::NoError)
        return;
    const QByteArray bytes = reply->readAll();
    qDebug() << bytes;
    ResultDocument document = statusDocument(400, reply->errorString());
    document.insert("error", int(reply->error()));
    document.insert("message2", qt_line::utf8UpToNul(bytes));
    echoLine(compactText(document));
}

} // namespace NORVA::NORVA_API_QT
