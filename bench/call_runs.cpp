#include "call_runs.h"

#include "norva_api_qt.h"

#include "frame/qt_line.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <chrono>
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
