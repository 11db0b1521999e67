// A host with its own application, calling from inside its running event loop.
#include "support/harness.h"

#include "norva_api_qt_progress.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <QtTest>

using namespace testing_support;
using NORVA::NORVA_API_QT::norva_sdk_login;

class HostRunTest : public QObject
{
    Q_OBJECT

private slots:
    void callsInsideTheHostLoop();
    void callsFromWorkerThreadsFinish();

private:
    QString loginArgument() const
    {
        return substitute(R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})", service.address());
    }
    TestService service;
};

// Calls from inside the host's running loop: a call made from a timer while
// another call waits completes too, and afterwards the host's loop still runs
// and ends with the host's own exit code (the library never ends it).
void HostRunTest::callsInsideTheHostLoop()
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
        QTimer::singleShot(50, [&] { inner = QString::fromStdString(norva_sdk_login(loginArgument().toStdString())); });
        outer = QString::fromStdString(norva_sdk_login(loginArgument().toStdString()));
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
void HostRunTest::callsFromWorkerThreadsFinish()
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
                QString result = QString::fromStdString(norva_sdk_login(loginArgument().toStdString()));
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

QTEST_GUILESS_MAIN(HostRunTest)
#include "test_host_runs.moc"
