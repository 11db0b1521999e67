// NORVA_HTTP_API in a host with its own application: its meta-object, its two
// members with their lines on standard output, and the slot for failed replies.
#include "support/harness.h"

#include "norva_api_qt.h"

#include <QMetaMethod>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QTemporaryDir>
#include <QtTest>

using namespace testing_support;
using NORVA::NORVA_API_QT::NORVA_HTTP_API;

Q_DECLARE_METATYPE(testing_support::ScriptedReply)

namespace {

QStringList debugLog;
void collectDebug(QtMsgType, const QMessageLogContext&, const QString& message)
{
    debugLog << message;
}

} // namespace

class ObjectTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { service.reset(); }
    void metaObject();
    void constructorIgnoresItsParent();
    void memberLogin_data();
    void memberLogin();
    void memberDownload_data();
    void memberDownload();
    void requestFinishedReportsOnlyFailures();
    void consoleDriverLogsInThroughTheObject();

private:
    CallResult callMember(std::string (NORVA_HTTP_API::*member)(std::string), const QString& argument)
    {
        NORVA_HTTP_API api;
        StdoutCapture capture;
        CallResult call;
        call.result = QString::fromStdString((api.*member)(substitute(argument, service.address()).toStdString()));
        call.lines = capture.lines();
        return call;
    }
    TestService service;
};

void ObjectTest::metaObject()
{
    const QMetaObject& meta = NORVA_HTTP_API::staticMetaObject;
    QCOMPARE(QByteArray(meta.className()), QByteArray("NORVA::NORVA_API_QT::NORVA_HTTP_API"));
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    const QMetaMethod slot = meta.method(meta.methodOffset());
    QCOMPARE(slot.methodSignature(), QByteArray("requestFinished(QNetworkReply*)"));
    QCOMPARE(slot.parameterNames(), QList<QByteArray>{"reply"});
    QCOMPARE(slot.methodType(), QMetaMethod::Slot);
    QCOMPARE(slot.access(), QMetaMethod::Public);
    QCOMPARE(QByteArray(slot.typeName()), QByteArray("void"));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);

    NORVA_HTTP_API api;
    QCOMPARE(api.qt_metacast("NORVA::NORVA_API_QT::NORVA_HTTP_API"), static_cast<void*>(&api));
    QCOMPARE(api.qt_metacast("QObject"), static_cast<void*>(static_cast<QObject*>(&api)));
    QCOMPARE(api.qt_metacast("NORVA_HTTP_API"), nullptr);
    QCOMPARE(qobject_cast<NORVA_HTTP_API*>(static_cast<QObject*>(&api)), &api);
}

void ObjectTest::constructorIgnoresItsParent()
{
    auto* parent = new QObject;
    NORVA_HTTP_API* const api = new NORVA_HTTP_API(parent);
    QPointer<NORVA_HTTP_API> watch(api);
    QCOMPARE(api->parent(), nullptr);
    delete parent;
    QVERIFY(!watch.isNull());
    delete api;
}

void ObjectTest::memberLogin_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<QStringList>("lines"); // the last one is the returned text

    const QString login = R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})";
    const QString url = "http://$ADDR/kvr/authority/login";
    const QString requestFail = R"({"message":"request fail","status":400})";
    QTest::newRow("unreachable: the network error, then request fail")
        << R"({"ipconfig":"$REFUSED","username":"ada"})" << ScriptedReply()
        << QStringList{R"({"error":1,"message":"Connection refused","status":400})", requestFail};
    QTest::newRow("HTTP 402: the network error, then token expired")
        << login << ScriptedReply::withStatus(402)
        << QStringList{R"({"error":299,"message":"Error transferring )" + url + R"( - server replied: Payment Required","status":400})",
                       R"({"message":"token expired","status":402})"};
    QTest::newRow("HTTP 500: the network error, then request fail")
        << login << ScriptedReply::json(R"({"code":200})", 500)
        << QStringList{R"({"error":401,"message":"Error transferring )" + url + R"( - server replied: Internal Server Error","status":400})",
                       requestFail};
    QTest::newRow("HTTP 200 cut short: the network error is the result")
        << login << ScriptedReply::raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"code\":")
        << QStringList{R"({"error":2,"message":"Connection closed","status":400})"};
    QTest::newRow("HTTP 200 is judged as the free login judges it")
        << login << ScriptedReply::json(R"({"code":200,"data":"t"})")
        << QStringList{R"({"data":"t","message":"login success","status":200})"};
    QTest::newRow("HTTP 200 refusal") << login << ScriptedReply::json(R"({"code":411})")
        << QStringList{R"({"data":"{\"userName\":\"ada\",\"userPwd\":\"pw\"}","message":"Wrong password","status":411})"};
    QTest::newRow("argument parse failure") << "nope" << ScriptedReply()
        << QStringList{R"({"message":"json str parse error","status":400})"};
}

void ObjectTest::memberLogin()
{
    QFETCH(QString, argument);
    QFETCH(ScriptedReply, reply);
    QFETCH(QStringList, lines);
    service.script(reply);
    const CallResult call = callMember(&NORVA_HTTP_API::norva_sdk_login, argument);
    for (QString& line : lines)
        line = substitute(line, service.address());
    QCOMPARE(call.lines, lines);
    QCOMPARE(call.result, lines.last());
}

void ObjectTest::memberDownload_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<QStringList>("lines");

    const QString into = R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR")";
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyyMMdd"));
    QTest::newRow("the size line comes first")
        << into + "}" << ScriptedReply::file("12345", "filename=a.brd")
        << QStringList{"5", R"({"filename":"a.brd","message":"download success","new_name":"","status":200})"};
    QTest::newRow("an empty reply writes 0")
        << into + "}" << ScriptedReply::file("", "filename=a.brd") << QStringList{"0", R"({"message":"download fail","status":400})"};
    QTest::newRow("the stamp is the day")
        << into + R"(,"isTimeStamp":true})" << ScriptedReply::file("x", "filename=a.brd")
        << QStringList{"1", R"({"filename":"a_)" + today + R"(.brd","message":"download success","new_name":"","status":200})"};
    QTest::newRow("unreachable is request fail")
        << R"({"ipconfig":"$REFUSED"})" << ScriptedReply() << QStringList{R"({"message":"request fail","status":400})"};
    QTest::newRow("HTTP 402") << into + "}" << ScriptedReply::withStatus(402)
                              << QStringList{R"({"message":"token expired","status":402})"};
    QTest::newRow("argument parse failure") << "" << ScriptedReply()
                                            << QStringList{R"({"message":"jsonstr parse error","status":400})"};
}

void ObjectTest::memberDownload()
{
    QFETCH(QString, argument);
    QFETCH(ScriptedReply, reply);
    QFETCH(QStringList, lines);
    QTemporaryDir folder;
    service.script(reply);
    const CallResult call =
        callMember(&NORVA_HTTP_API::norva_sdk_download_binary_file, QString(argument).replace("$DIR", folder.path()));
    QCOMPARE(call.lines, lines);
    QCOMPARE(call.result, lines.last());
}

void ObjectTest::requestFinishedReportsOnlyFailures()
{
    NORVA_HTTP_API api;
    QNetworkAccessManager manager;
    const auto fetch = [&](const ScriptedReply& scripted) {
        service.script(scripted);
        QNetworkReply* reply = manager.get(QNetworkRequest(QUrl(QStringLiteral("http://%1/any").arg(service.address()))));
        QObject::connect(reply, &QNetworkReply::finished, &api, [&api, reply] { api.requestFinished(reply); });
        QSignalSpy finished(reply, &QNetworkReply::finished);
        finished.wait(5000);
        return reply;
    };

    StdoutCapture ok;
    QPointer<QNetworkReply> good = fetch(ScriptedReply::json(R"({"code":200})"));
    QCOMPARE(ok.lines(), QStringList{});

    debugLog.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectDebug);
    QStringList lines;
    QPointer<QNetworkReply> bad;
    {
        StdoutCapture failed;
        bad = fetch(ScriptedReply::withStatus(404, "nope"));
        lines = failed.lines();
    }
    qInstallMessageHandler(previous);
    QCOMPARE(lines, QStringList{substitute(
                        R"({"error":203,"message":"Error transferring http://$ADDR/any - server replied: Not Found","message2":"nope","status":400})",
                        service.address())});
    QVERIFY(debugLog.join('\n').contains(QLatin1String("nope")));
    // The slot neither deletes the reply nor schedules it for deletion.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!bad.isNull());
    QVERIFY(!good.isNull());
    delete bad;
    delete good;
}

void ObjectTest::consoleDriverLogsInThroughTheObject()
{
    service.script(ScriptedReply::json(R"({"code":200,"data":"tok"})"));
    QProcess driver;
    driver.start(QStringLiteral(NORVA_CONSOLE_PATH),
                 {"--address", service.address(), "--user", "ada", "--password", "pw", "--once"});
    QVERIFY(driver.waitForFinished(10000));
    QCOMPARE(driver.exitCode(), 0);
    const QString result = R"({"data":"tok","message":"login success","status":200})";
    // The member's own echo, then the driver's line and the asterisks.
    // (Lines end in CR LF on Windows, where standard output is in text mode.)
    QCOMPARE(QString::fromUtf8(driver.readAllStandardOutput()).remove(QLatin1Char('\r')).split('\n', Qt::SkipEmptyParts),
             (QStringList{result, result, "*************************"}));
    QCOMPARE(service.lastRequest().body, QByteArray(R"({"userName":"ada","userPwd":"pw"})"));
}

QTEST_GUILESS_MAIN(ObjectTest)
#include "test_object.moc"
