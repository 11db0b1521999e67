// SPDX-License-Identifier: MIT
// A host with its own application: NORVA_HTTP_API (its two members with their
// lines on standard output, the slot for failed replies), and calls made from
// inside the host's running event loop and from worker threads.
#include "support/harness.h"

#include "norva_api_qt_progress.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

using namespace testing_support;
using NORVA::NORVA_API_QT::NORVA_HTTP_API;

namespace {

struct MemberRow {
    QByteArray name;
    std::string (NORVA_HTTP_API::*member)(std::string);
    QString argument;
    ScriptedReply reply;
    QStringList lines; // the last one is the returned text
};

QStringList debugLog;
void collectDebug(QtMsgType, const QMessageLogContext&, const QString& message)
{
    debugLog << message;
}

} // namespace

Q_DECLARE_METATYPE(MemberRow)

class ObjectTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { service.reset(); }
    void constructorIgnoresItsParent();
    void members_data();
    void members();
    void requestFinishedReportsOnlyFailures();
    void callsInsideTheHostLoop();
    void callsFromWorkerThreadsFinish();

private:
    QString loginArgument() const
    {
        return substitute(R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})", service.address());
    }
    TestService service;
};

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

// Each member prints what it prints and returns the last line.
void ObjectTest::members_data()
{
    const auto login = &NORVA_HTTP_API::norva_sdk_login;
    const auto download = &NORVA_HTTP_API::norva_sdk_download_binary_file;
    const QString ada = R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})";
    const QString url = "http://$ADDR/kvr/authority/login";
    const QString requestFail = R"({"message":"request fail","status":400})";
    const QString into = R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR")";
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyyMMdd"));
    addRows(std::vector<MemberRow>{
        {"login unreachable: the network error, then request fail", login, R"({"ipconfig":"$REFUSED","username":"ada"})", ScriptedReply(),
         {R"({"error":1,"message":"Connection refused","status":400})", requestFail}},
        {"login HTTP 402: the network error, then token expired", login, ada, ScriptedReply::withStatus(402),
         {R"({"error":299,"message":"Error transferring )" + url + R"( - server replied: Payment Required","status":400})",
          R"({"message":"token expired","status":402})"}},
        {"login HTTP 500: the network error, then request fail", login, ada, ScriptedReply::json(R"({"code":200})", 500),
         {R"({"error":401,"message":"Error transferring )" + url + R"( - server replied: Internal Server Error","status":400})", requestFail}},
        {"login HTTP 200 cut short: the network error is the result", login, ada,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"code\":"), {R"({"error":2,"message":"Connection closed","status":400})"}},
        {"login HTTP 200 is judged as the free login judges it", login, ada, ScriptedReply::json(R"({"code":200,"data":"t"})"),
         {R"({"data":"t","message":"login success","status":200})"}},
        {"login HTTP 200 refusal", login, ada, ScriptedReply::json(R"({"code":411})"),
         {R"({"data":"{\"userName\":\"ada\",\"userPwd\":\"pw\"}","message":"Wrong password","status":411})"}},
        {"login argument parse failure", login, "nope", ScriptedReply(), {R"({"message":"json str parse error","status":400})"}},
        {"download: the size line comes first", download, into + "}", ScriptedReply::file("12345", "filename=a.brd"),
         {"5", R"({"filename":"a.brd","message":"download success","new_name":"","status":200})"}},
        {"download: an empty reply writes 0", download, into + "}", ScriptedReply::file("", "filename=a.brd"),
         {"0", R"({"message":"download fail","status":400})"}},
        {"download: the stamp is the day", download, into + R"(,"isTimeStamp":true})", ScriptedReply::file("x", "filename=a.brd"),
         {"1", R"({"filename":"a_)" + today + R"(.brd","message":"download success","new_name":"","status":200})"}},
        {"download unreachable is request fail", download, R"({"ipconfig":"$REFUSED"})", ScriptedReply(), {requestFail}},
        {"download HTTP 402", download, into + "}", ScriptedReply::withStatus(402), {R"({"message":"token expired","status":402})"}},
        {"download argument parse failure", download, "", ScriptedReply(), {R"({"message":"jsonstr parse error","status":400})"}},
    });
}

void ObjectTest::members()
{
    QFETCH(MemberRow, row);
    QTemporaryDir folder;
    service.script(row.reply);
    NORVA_HTTP_API api;
    StdoutCapture capture;
    const QString argument = substitute(QString(row.argument).replace("$DIR", folder.path()), service.address());
    const QString result = QString::fromStdString((api.*row.member)(argument.toStdString()));
    QStringList lines;
    for (const QString& line : row.lines)
        lines << substitute(line, service.address());
    QCOMPARE(capture.lines(), lines);
    QCOMPARE(result, lines.last());
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

// Calls from inside the host's running loop: a call made from a timer while
// another call waits completes too, and afterwards the host's loop still runs
// and ends with the host's own exit code (the library never ends it).
void ObjectTest::callsInsideTheHostLoop()
{
    // The first request is answered late; the second, made from a timer that
    // fires inside the first call's wait, is answered at once.
    ScriptedReply slow = ScriptedReply::json(R"({"code":200,"data":"outer"})");
    slow.delayMs = 300;
    service.script(slow);
    service.script(ScriptedReply::json(R"({"code":200,"data":"inner"})"));

    QString outer;
    QString inner;
    bool laterTimerRan = false;
    QTimer::singleShot(0, [&] {
        QTimer::singleShot(50, [&] { inner = QString::fromStdString(NORVA::NORVA_API_QT::norva_sdk_login(loginArgument().toStdString())); });
        outer = QString::fromStdString(NORVA::NORVA_API_QT::norva_sdk_login(loginArgument().toStdString()));
        // This timer fires only if the host's loop is still alive.
        QTimer::singleShot(20, [&] {
            laterTimerRan = true;
            QCoreApplication::exit(42);
        });
    });
    StdoutCapture quiet;
    QCOMPARE(QCoreApplication::exec(), 42);
    QVERIFY(laterTimerRan);
    QCOMPARE(inner, QStringLiteral(R"({"data":"inner","message":"login success","status":200})"));
    QCOMPARE(outer, QStringLiteral(R"({"data":"outer","message":"login success","status":200})"));
    QCOMPARE(service.requestCount(), 2);
}

// With a host application, calls from other threads run there, are watched and
// cancelled there, and finish while the main thread's loop runs or waits;
// repeated, since a wait that hangs does so only now and then.
void ObjectTest::callsFromWorkerThreadsFinish()
{
    service.reset();
    service.setDefaultReply(ScriptedReply::json(R"({"code":200,"data":"w"})"));
    const QStringList expected{R"({"data":"w","message":"login success","status":200})",
                               R"({"message":"request cancelled","status":400})"};
    StdoutCapture quiet;
    for (int round = 0; round < 20; ++round) {
        QStringList results;
        std::vector<QThread*> workers;
        for (int i = 0; i < 2; ++i) {
            // Each worker watches its own call; the second one cancels its call
            // at the first report, which must not touch the first worker's.
            workers.push_back(QThread::create([&results, this, i] {
                int reports = 0;
                NORVA::NORVA_API_QT::setProgressObserver([&reports, i](const NORVA::NORVA_API_QT::CallProgress&) {
                    if (++reports == 1 && i == 1)
                        NORVA::NORVA_API_QT::cancelCall();
                });
                QString result = QString::fromStdString(NORVA::NORVA_API_QT::norva_sdk_login(loginArgument().toStdString()));
                if (reports == 0)
                    result += " unobserved";
                QMetaObject::invokeMethod(qApp, [&results, result] { results << result; });
            }));
            workers.back()->start();
        }
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 2, 10000);
        for (QThread* worker : workers) {
            QVERIFY(worker->wait(10000));
            delete worker;
        }
        results.sort();
        QCOMPARE(results, expected);
    }
    // Both threads echoed their results at once: every line came out whole.
    QStringList lines = quiet.lines();
    lines.removeDuplicates();
    lines.sort();
    QCOMPARE(lines, expected);
    QCOMPARE(quiet.lines().size(), 40);
}

QTEST_GUILESS_MAIN(ObjectTest)
#include "test_object.moc"
