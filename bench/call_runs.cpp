// SPDX-License-Identifier: MIT
#include "call_runs.h"

#include "norva_api_qt.h"
#include "norva_api_qt_async.h"

#include "frame/qt_line.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

int applicationArgc = 1;
char applicationName[] = "";
char* applicationArgv[] = {applicationName, nullptr};

double microsSince(Clock::time_point start, int calls)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / calls;
}

} // namespace

double libraryMicrosPerCall(const std::string& address, int calls)
{
    const std::string login = R"({"ipconfig":")" + address + R"(","username":"bench","password":"pw"})";
    const std::string select =
        R"({"ipconfig":")" + address + R"(","token":"bench-token","userid":1,"boardname":"top"})";
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) {
        if (i % 2 == 0)
            NORVA::NORVA_API_QT::norva_sdk_login(login);
        else
            NORVA::NORVA_API_QT::norva_sdk_select_share(select);
    }
    return microsSince(start, calls);
}

double bareQtMicrosPerCall(const std::string& address, int calls, bool freshApplication, bool plugins)
{
    const QByteArray loginBody = R"({"userName":"bench","userPwd":"pw"})";
    const QByteArray selectBody = R"({"brdName":"top","currentUserId":0,"endTime":null,"startTime":null,"userId":1})";
    const QString base = QString::fromStdString("http://" + address);
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) {
        std::unique_ptr<QCoreApplication> application;
        if (freshApplication) {
            application = std::make_unique<QCoreApplication>(applicationArgc, applicationArgv);
            if (!plugins) // as the library's temporary application does
                norva::qt_line::skipPluginSearch();
        }
        QNetworkAccessManager manager;
        QNetworkRequest request(QUrl(base + (i % 2 == 0 ? "/kvr/authority/login" : "/kvr/share/selectShare")));
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
        QNetworkReply* reply = manager.post(request, i % 2 == 0 ? loginBody : selectBody);
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        reply->readAll();
    }
    return microsSince(start, calls);
}

namespace {

// Keeps `inFlight` calls going until `calls` have finished; `start(i, done)`
// starts call i and calls `done` when it finished.
double keepInFlight(int calls, int inFlight, const std::function<void(int, std::function<void()>)>& start)
{
    QEventLoop loop;
    int started = 0;
    int finished = 0;
    std::function<void()> next;
    next = [&] {
        if (++finished == calls)
            loop.quit();
        else if (started < calls)
            start(started++, next);
    };
    const auto begin = Clock::now();
    while (started < std::min(calls, inFlight))
        start(started++, next);
    loop.exec();
    return microsSince(begin, calls);
}

} // namespace

namespace {

using Operation = std::string (*)(std::string);

Operation operationOf(Kind kind)
{
    switch (kind) {
    case Kind::PostQuery: return NORVA::NORVA_API_QT::norva_sdk_select_share;
    case Kind::GetQuery: return NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id;
    case Kind::SmallUpload: return NORVA::NORVA_API_QT::norva_sdk_upload_file;
    }
    return nullptr;
}

std::string argumentOf(Kind kind, const std::string& address, const std::string& uploadPath)
{
    QJsonObject argument{{QStringLiteral("ipconfig"), QString::fromStdString(address)},
                         {QStringLiteral("token"), QStringLiteral("bench-token")}};
    if (kind == Kind::PostQuery) {
        argument.insert(QStringLiteral("userid"), 1);
        argument.insert(QStringLiteral("boardname"), QStringLiteral("top"));
    } else if (kind == Kind::SmallUpload) {
        argument.insert(QStringLiteral("file_uploadpath"), QString::fromStdString(uploadPath));
    }
    return QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString();
}

} // namespace

const char* kindName(Kind kind)
{
    switch (kind) {
    case Kind::PostQuery: return "POST select_share";
    case Kind::GetQuery: return "GET get_all_model_id";
    case Kind::SmallUpload: return "upload_file, 1 KiB";
    }
    return "";
}

double blockingMicrosPerCall(const std::string& address, int calls, Kind kind, const std::string& uploadPath)
{
    const Operation operation = operationOf(kind);
    const std::string argument = argumentOf(kind, address, uploadPath);
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i)
        operation(argument);
    return microsSince(start, calls);
}

double asyncMicrosPerCall(const std::string& address, int calls, int inFlight)
{
    return asyncMicrosPerCall(address, calls, inFlight, Kind::PostQuery, std::string());
}

double asyncMicrosPerCall(const std::string& address, int calls, int inFlight, Kind kind, const std::string& uploadPath)
{
    NORVA::NORVA_API_QT::Client client;
    client.setMaxCallsInFlight(inFlight);
    const Operation operation = operationOf(kind);
    const std::string argument = argumentOf(kind, address, uploadPath);
    return keepInFlight(calls, inFlight, [&](int, std::function<void()> done) {
        NORVA::NORVA_API_QT::CallReply* const reply = client.call(operation, argument);
        // Deleted in its own finished(), as the header allows: a QNetworkReply
        // must wait for deleteLater(), a posted event that also contends with
        // Qt's network thread for the event queue.
        QObject::connect(reply, &NORVA::NORVA_API_QT::CallReply::finished, reply, [reply, done] {
            reply->result(); // read, as bare Qt reads its reply
            done();
            delete reply;
        });
    });
}

double reusedManagerMicrosPerCall(const std::string& address, int calls, int inFlight)
{
    QNetworkAccessManager manager;
    const QByteArray selectBody = R"({"brdName":"top","currentUserId":0,"endTime":null,"startTime":null,"userId":1})";
    QNetworkRequest request(QUrl(QString::fromStdString("http://" + address + "/kvr/share/selectShare")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    request.setRawHeader("token", "bench-token");
    return keepInFlight(calls, inFlight, [&](int, std::function<void()> done) {
        QNetworkReply* const reply = manager.post(request, selectBody);
        QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done] {
            reply->readAll();
            reply->deleteLater();
            done();
        });
    });
}

bool libraryUpload(const std::string& address, const std::string& path)
{
    // A Windows path holds backslashes: the argument is written as JSON, not pasted.
    const QJsonObject argument{{QStringLiteral("ipconfig"), QString::fromStdString(address)},
                               {QStringLiteral("token"), QStringLiteral("t")},
                               {QStringLiteral("file_uploadpath"), QString::fromStdString(path)}};
    const std::string result = NORVA::NORVA_API_QT::norva_sdk_upload_file(
        QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString());
    return result.find("\"status\":200") != std::string::npos;
}

bool bareQtUpload(const std::string& address, const std::string& path)
{
    QCoreApplication application(applicationArgc, applicationArgv);
    QNetworkAccessManager manager;
    auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    auto* file = new QFile(QString::fromStdString(path), form);
    file->open(QIODevice::ReadOnly);
    QHttpPart filePart;
    filePart.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data;name=file;filename=x"));
    filePart.setBodyDevice(file);
    form->append(filePart);
    QHttpPart dataPart;
    dataPart.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data;name=\"data\""));
    dataPart.setBody("{}");
    form->append(dataPart);
    QNetworkReply* reply = manager.post(
        QNetworkRequest(QUrl(QString::fromStdString("http://" + address + "/kvr/originalFile/uploadFile"))), form);
    form->setParent(reply);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
}

} // namespace bench
