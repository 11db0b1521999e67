// SPDX-License-Identifier: MIT
// The library's own pieces, without the public header's view: the repeated-key
// scan, the idle limit, and how a download names what it stores.
#include "support/harness.h"

#include "frame/connection_pool.h"
#include "frame/exchange.h"
#include "frame/json_text.h"
#include "frame/reading.h"
#include "norva_api_qt_progress.h"
#include "transfer/download.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <memory>
#include <unistd.h>

using namespace testing_support;

class FrameTest : public QObject
{
    Q_OBJECT

private slots:
    void repeatedKeysAreRemovedBeforeParsing();
    void aFlatArgumentMapsAsItsObjectDoes();
    void membersWithoutAnApplicationAnswerAtOnce();
    void idleServiceEndsTheWait();
    void downloadNaming();
    void downloadNamesNeverLeaveTheFolder();
    void ownConnectionsSendWhatTheManagerSends();
    void aQtWithoutTlsRefusesHttps();
};

void FrameTest::repeatedKeysAreRemovedBeforeParsing()
{
    // (Qt's parser is not asked to read these texts itself: with repeated keys
    // that is the leak this avoids.)
    const struct {
        const char* name;
        QByteArray text, expected;
    } rows[] = {
        {"no repeats: untouched", R"({"a":[1],"b":{"a":2}})", R"({"a":[1],"b":{"a":2}})"},
        {"the last member wins", R"({"a":[1],"a":[2]})", R"({"a":[2]})"},
        {"other members stay", R"({"a":{"x":0},"b":1,"a":{"y":1}})", R"({"b":1,"a":{"y":1}})"},
        {"repeats inside a dropped member", R"({"o":{"k":[1],"k":[2]},"o":{"k":3}})", R"({"o":{"k":3}})"},
        {"repeats inside a kept member", R"([{"k":[1],"k":[2]}])", R"([{"k":[2]}])"},
        {"keys compare decoded", R"({"\u0061":[1],"a":[2]})", R"({"a":[2]})"},
        {"three of a key, escaped and not", "{\"\xc3\xa9\":[1],\"b\":0,\"\\u00e9\":[2],\"\xc3\xa9\":[3],\"e\":[4]}",
         "{\"b\":0,\"\xc3\xa9\":[3],\"e\":[4]}"},
        {"white space", "{ \"a\" : [1] ,\n \"a\" : 2 }", "{ \"a\" : 2 }"},
        {"braces and quotes inside strings", R"({"s":"}\"{","a":[1],"a":[2]})", R"({"s":"}\"{","a":[2]})"},
        {"garbage behind the document: still cleaned", R"({"a":[1],"a":[2]}})", R"({"a":[2]}})"},
        {"a member Qt would refuse is never removed", R"({"a":tru,"a":[1]})", R"({"a":tru,"a":[1]})"},
        {"invalid UTF-8 stays for Qt to refuse", "{\"a\":\"\xff\",\"a\":[1]}", "{\"a\":\"\xff\",\"a\":[1]}"},
        {"no JSON: untouched for Qt to refuse", R"({"a":[1],"a":)", R"({"a":[1],"a":)"},
    };
    for (const auto& row : rows)
        QVERIFY2(norva::withoutRepeatedKeys(row.text) == row.expected, row.name);
}

// A flat argument's body is written from its text, any other from Qt's
// object: the two write the same body, whatever the keys and their order.
void FrameTest::aFlatArgumentMapsAsItsObjectDoes()
{
    using norva::Read;
    norva::KeyList many; // more keys than a body of the library's own has
    static const char* const names[] = {"k00", "k01", "k02", "k03", "k04", "k05", "k06", "k07", "k08", "k09",
                                        "k10", "k11", "k12", "k13", "k14", "k15", "k16", "k17", "k18", "k19"};
    for (int i = 19; i >= 0; --i)
        many.push_back({names[i], names[19 - i], Read(i % 6)});
    const struct {
        const char* name;
        QByteArray argument;
        norva::KeyList keys;
    } rows[] = {
        {"modes, missing keys and wrong types",
         R"({"t":"x","n":5,"b":true,"z":null,"f":-7,"big":12345678901})",
         {{"text", "t", Read::Text},
          {"textOfNumber", "n", Read::Text},
          {"int", "n", Read::Integer},
          {"negative", "f", Read::Integer},
          {"intTooBig", "big", Read::Integer},
          {"raw", "b", Read::Raw},
          {"rawMissing", "none", Read::Raw},
          {"optional", "none", Read::OptionalRaw},
          {"optionalNull", "z", Read::OptionalRaw},
          {"optionalText", "n", Read::OptionalText},
          {"message", "none", Read::OptionalMessage}}},
        {"a key mapped twice keeps its last value", R"({"a":1,"b":2})",
         {{"x", "a", Read::Raw}, {"y", "b", Read::Raw}, {"x", "b", Read::Raw}}},
        {"twenty keys, written in reverse",
         R"({"k00":0,"k01":"1","k02":null,"k03":-3,"k04":false,"k05":5,"k06":"6","k07":7,"k08":"8","k09":9,)"
         R"("k10":10,"k11":"11","k12":12,"k13":13,"k14":"14","k15":15,"k16":16,"k17":"17","k18":18,"k19":19})",
         many},
    };
    for (const auto& row : rows) {
        const std::optional<norva::FlatMembers> flat = norva::readFlatObject(row.argument);
        QVERIFY2(flat, row.name);
        const QJsonObject object = QJsonDocument::fromJson(row.argument).object();
        QCOMPARE(norva::mappedFlatText(*flat, row.keys), norva::mappedObjectText(object, row.keys));
    }
}

void FrameTest::membersWithoutAnApplicationAnswerAtOnce()
{
    QVERIFY(!QCoreApplication::instance());
    TestService service;
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    StdoutCapture quiet;
    const QString argument = substitute(R"({"ipconfig":"$ADDR","username":"a","file_downloadpath":"/tmp"})", service.address());
    const std::string request = argument.toStdString();
    QCOMPARE(QString::fromStdString(api.norva_sdk_login(request)), QStringLiteral(R"({"message":"request fail","status":400})"));
    QCOMPARE(QString::fromStdString(api.norva_sdk_download_binary_file(request)),
             QStringLiteral(R"({"message":"request fail","status":400})"));
    QCOMPARE(service.requestCount(), 0);
}

// Whenever the service falls silent, the idle limit ends the call.
void FrameTest::idleServiceEndsTheWait()
{
    const ScriptedReply replies[] = {
        ScriptedReply::stall(),
        ScriptedReply::rawThenSilent("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n"),
        ScriptedReply::rawThenSilent("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n{\"code\":"),
        ScriptedReply::rawThenSilent("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\n{\"code\":2"),
    };
    NORVA::NORVA_API_QT::setIdleLimit(300);
    for (const ScriptedReply& reply : replies) {
        TestService service;
        service.script(reply);
        QElapsedTimer clock;
        clock.start();
        const CallResult call = callOperation(NORVA::NORVA_API_QT::norva_sdk_login,
                                              substitute(R"({"ipconfig":"$ADDR","username":"a"})", service.address()));
        QCOMPARE(call.result, QStringLiteral(R"({"message":"Server shuts down","status":400})"));
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    }
    NORVA::NORVA_API_QT::setIdleLimit(120 * 1000);
}

// A download's name: the one behind the last "=", renamed or stamped.
void FrameTest::downloadNaming()
{
    const QByteArray example = "attachment;filename=top%20layer.gbr";
    const QString full = "yyyyMMddhhmmss";
    const struct {
        const char* name;
        QByteArray header;
        QString reName;
        bool stamp;
        QString format, stored, filename, newName;
    } rows[] = {
        // The worked example: 14:07:09 on 5 March 2024.
        {"example: plain", example, "", false, full, "top layer.gbr", "top layer.gbr", ""},
        {"example: stamped", example, "", true, full, "top layer_20240305140709.gbr", "top layer_20240305140709.gbr", ""},
        {"example: renamed", example, "second", false, full, "second.gbr", "top layer.gbr", "second.gbr"},
        {"example: renamed and stamped", example, "second", true, full, "second.gbr", "top layer.gbr", "second.gbr"},
        {"the object's day stamp", example, "", true, "yyyyMMdd", "top layer_20240305.gbr", "top layer_20240305.gbr", ""},
        {"no header", QByteArray(), "", false, full, "", "", ""},
        {"no header, stamped", QByteArray(), "", true, full, "_20240305140709.", "_20240305140709.", ""},
        {"no header, renamed", QByteArray(), "x", false, full, "x.", "", "x."},
        {"no = at all", "attachment", "", false, full, "attachment", "attachment", ""},
        {"quotes stay", "filename=\"a.brd\"", "", false, full, "\"a.brd\"", "\"a.brd\"", ""},
        {"the last = decides", "filename=a.brd;size=10", "", false, full, "10", "10", ""},
        {"an encoded = counts", "filename=a%3Db.brd", "", false, full, "b.brd", "b.brd", ""},
        {"no point, stamped", "filename=notes", "", true, full, "notes_20240305140709.notes", "notes_20240305140709.notes", ""},
        {"no point, renamed", "filename=notes", "x", false, full, "x.notes", "notes", "x.notes"},
        {"leading point, stamped", "filename=.cfg", "", true, full, "_20240305140709.cfg", "_20240305140709.cfg", ""},
        {"reName with a point", "filename=a.brd", "x.y", false, full, "x.y.brd", "a.brd", "x.y.brd"},
        {"UTF-8 in the header", "filename=%E6%B5%8B.brd", "", false, full, QString::fromUtf8("测.brd"), QString::fromUtf8("测.brd"), ""},
    };
    const QDateTime clock(QDate(2024, 3, 5), QTime(14, 7, 9));
    for (const auto& row : rows) {
        const auto name = norva::transfer::deriveDownloadName(row.header, row.reName, row.stamp, clock, row.format);
        QVERIFY2(name.stored == row.stored && name.filename == row.filename && name.newName == row.newName,
                 qPrintable(QStringLiteral("%1: %2 / %3 / %4").arg(row.name, name.stored, name.filename, name.newName)));
    }
}

void FrameTest::downloadNamesNeverLeaveTheFolder()
{
    // Windows reads a backslash as a separator and ":" as a drive or a stream.
    const bool windows = QDir::separator() == QLatin1Char('\\');
    const struct {
        QString name;
        bool stays;
    } rows[] = {
        {"top layer.gbr", true}, {"", true}, {"a..b", true}, {"a\\b", !windows}, {"a:b", !windows},
        {".", false}, {"..", false}, {"a/b", false}, {QString::fromLatin1("a\0b", 3), false},
    };
    for (const auto& row : rows)
        QVERIFY2(norva::transfer::staysInFolder(row.name) == row.stays, qPrintable(row.name));
}

// Calls of the asynchronous face, and downloads, go on connections of the
// library's own; what they send must be what Qt's manager sends, byte for
// byte, for every kind of request and on every route.
void FrameTest::ownConnectionsSendWhatTheManagerSends()
{
    int argc = 1;
    char name[] = "test_frame";
    char* argv[] = {name, nullptr};
    const QCoreApplication application(argc, argv);
    TestService service;
    const QString at = "http://" + service.address();
    const QString upload = QDir::temp().filePath(QString::fromUtf8("norva-frame-\xc3\xa9.brd"));
    writeFile(upload, boardBytes(3000));
    using norva::OutgoingRequest;
    const struct {
        const char* name;
        QNetworkProxy proxy; // the application's, for a service that is not on loopback
        QString url;
        std::function<OutgoingRequest(const QString& url)> make;
        QByteArray requestLine; // how the request starts
    } rows[] = {
        {"JSON with a token", QNetworkProxy::NoProxy, at + "/kvr/share/selectShare",
         [](const QString& url) {
             OutgoingRequest o = norva::jsonPost(url, R"({"userId":1})");
             norva::setTokenHeader(o, "tk");
             return o;
         },
         "POST /kvr/share/selectShare HTTP/1.1\r\n"},
        {"form text, no token", QNetworkProxy::NoProxy, at + "/mall/originalFile/downloadFile",
         [](const QString& url) { return norva::formTextPost(url, "id=12"); }, "POST /mall/"},
        {"a path to normalise, a token in UTF-8", QNetworkProxy::NoProxy, at + "/a%20b/../c?q=1",
         [](const QString& url) {
             OutgoingRequest o = norva::formTextPost(url, "");
             norva::setTokenHeader(o, "\xc3\xa9");
             return o;
         },
         "POST /c?q=1 HTTP/1.1\r\n"},
        {"GET with a query", QNetworkProxy::NoProxy, at + "/tavlin/m?id=3&n=%C3%A9",
         [](const QString& url) { return norva::bodilessGet(url, norva::contentType::formText, true); }, "GET /tavlin/m?id=3"},
        {"an upload form", QNetworkProxy::NoProxy, at + "/kvr/originalFile/uploadFile",
         [&upload](const QString& url) {
             auto form = std::make_unique<QHttpMultiPart>(QHttpMultiPart::FormDataType);
             form->setBoundary("boundary_.oOo._fixed");
             QHttpPart file;
             file.setHeader(QNetworkRequest::ContentDispositionHeader,
                            QString("form-data;name=file;filename=") + QFileInfo(upload).fileName());
             auto* const device = new QFile(upload, form.get());
             device->open(QIODevice::ReadOnly);
             file.setBodyDevice(device);
             form->append(file);
             QHttpPart data;
             data.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data;name=\"data\""));
             data.setBody(R"({"fileInfo":{}})");
             form->append(data);
             OutgoingRequest o = norva::formPost(url, std::move(form), "{}");
             norva::setTokenHeader(o, "tk");
             return o;
         },
         "POST /kvr/originalFile/uploadFile HTTP/1.1\r\n"},
        {"through an HTTP proxy", QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", service.address().section(':', 1).toUShort()),
         "http://records.test:81/kvr/share/selectShare",
         [](const QString& url) { return norva::jsonPost(url, "{}"); },
         "POST http://records.test:81/kvr/share/selectShare HTTP/1.1\r\n"},
        {"through a caching proxy",
         QNetworkProxy(QNetworkProxy::HttpCachingProxy, "127.0.0.1", service.address().section(':', 1).toUShort()),
         "http://records.test/tavlin/m", [](const QString& url) { return norva::bodilessGet(url, nullptr, false); },
         "GET http://records.test/tavlin/m HTTP/1.1\r\n"},
    };
    for (const auto& row : rows) {
        QNetworkProxy::setApplicationProxy(row.proxy);
        QByteArray raw[2];
        for (const bool own : {false, true}) {
            OutgoingRequest outgoing = row.make(row.url);
            QNetworkAccessManager manager;
            norva::ConnectionPool pool;
            const std::unique_ptr<norva::ExchangeInFlight> exchange = norva::makeExchange(outgoing, &manager, own ? &pool : nullptr);
            QEventLoop loop;
            exchange->onActivity = [] {};
            exchange->onSent = [](qint64, qint64) {};
            exchange->onReceived = [](qint64, qint64) {};
            exchange->onFinished = [&loop] { loop.quit(); };
            service.reset();
            exchange->start();
            if (!exchange->isFinished())
                loop.exec();
            QVERIFY2(exchange->takeReply().httpStatus == 200, row.name);
            raw[own] = service.lastRequest().raw;
        }
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        QVERIFY2(raw[true].startsWith(row.requestLine), raw[true].constData());
        QCOMPARE(raw[true], raw[false]);
    }
    QFile::remove(upload);
}

// With a Qt built without TLS (this test links that transport), an "https"
// service is never reached: the call ends as if it had not answered, and a line
// on standard error says why. Both ways out: Qt's manager and the socket of a
// download.
void FrameTest::aQtWithoutTlsRefusesHttps()
{
    TestService service;
    const QString argument =
        substitute(R"({"ipconfig":"https://$ADDR","username":"a","file_downloadpath":"/tmp","data":{"id":1}})", service.address());
    for (const OperationFunction operation : {NORVA::NORVA_API_QT::norva_sdk_login, NORVA::NORVA_API_QT::norva_sdk_download_binary_file}) {
        std::FILE* const said = std::tmpfile();
        std::fflush(stderr);
        const int savedStderr = dup(fileno(stderr));
        dup2(fileno(said), fileno(stderr));
        const CallResult call = callOperation(operation, argument);
        std::fflush(stderr);
        dup2(savedStderr, fileno(stderr));
        close(savedStderr);
        std::rewind(said);
        char line[512] = {};
        const bool got = std::fgets(line, sizeof line, said) != nullptr;
        std::fclose(said);
        QCOMPARE(call.result, QStringLiteral(R"({"message":"Server shuts down","status":400})"));
        QVERIFY(got);
        QCOMPARE(QString::fromLocal8Bit(line).trimmed(),
                 QStringLiteral("norva-api-qt: https://") + service.address()
                     + QStringLiteral(" needs TLS, and this Qt was built without it; HTTPS needs a Qt built with OpenSSL"));
        QCOMPARE(service.requestCount(), 0);
    }
}

QTEST_APPLESS_MAIN(FrameTest)
#include "test_frame.moc"
