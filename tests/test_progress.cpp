// Watching and stopping calls: what the progress observer hears, and what a
// cancelled call returns and leaves behind.
#include "support/harness.h"
#include "support/test_main.h"

#include "norva_api_qt_progress.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <thread>

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

Q_DECLARE_METATYPE(testing_support::ScriptedReply)

namespace {

const QString cancelled = QStringLiteral(R"({"message":"request cancelled","status":400})");

struct Report {
    QString operation;
    CallProgress progress;
    QThread* thread;
};

// Records every report it hears, and runs `onReport` (if any) on each.
class Recorder
{
public:
    explicit Recorder(std::function<void(const Recorder&)> onReport = {}) : onReport(std::move(onReport))
    {
        setProgressObserver([this](const CallProgress& progress) {
            reports.push_back({QString::fromLatin1(progress.operation), progress, QThread::currentThread()});
            if (this->onReport)
                this->onReport(*this);
        });
    }
    ~Recorder() { clearProgressObserver(); }

    std::vector<Report> reports;

private:
    std::function<void(const Recorder&)> onReport;
};

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QByteArray boardBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

enum class CancelFrom { Observer, TimerSlot };

} // namespace

Q_DECLARE_METATYPE(CancelFrom)

class ProgressTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        service.reset();
        folder.reset(new QTemporaryDir);
        setIdleLimit(20 * 1000); // a cancel that fails shows as "Server shuts down", not a hang
    }

    void observedCalls_data();
    void observedCalls();
    void cancelledCalls_data();
    void cancelledCalls();
    void cancelReachesTheInnermostCall();
    void otherThreadsAreNotTold();

private:
    QString argument(QString text) const
    {
        return text.replace(QLatin1String("$DIR"), folder->path()).replace(QLatin1String("$ADDR"), service.address());
    }

    TestService service;
    QScopedPointer<QTemporaryDir> folder;
};

void ProgressTest::observedCalls_data()
{
    QTest::addColumn<void*>("operation");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<qint64>("toSend");    // -1: only more than the file
    QTest::addColumn<qint64>("toReceive");

    const QByteArray board = boardBytes(3 << 20);
    QTest::newRow("upload of 3 MiB")
        << reinterpret_cast<void*>(norva_sdk_upload_file) << "norva_sdk_upload_file"
        << R"({"ipconfig":"$ADDR","token":"tk","file_uploadpath":"$DIR/board.brd","data":{"fileInfo":{}}})"
        << ScriptedReply::json(R"({"code":200,"data":7})") << qint64(-1) << qint64(21);
    QTest::newRow("download of 3 MiB")
        << reinterpret_cast<void*>(norva_sdk_download_binary_file) << "norva_sdk_download_binary_file"
        << R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR","data":{"id":1,"userId":2}})"
        << ScriptedReply::file(board, "attachment;filename=copy.brd") << qint64(13) << qint64(board.size());
    QTest::newRow("a query")
        << reinterpret_cast<void*>(norva_sdk_select_share) << "norva_sdk_select_share"
        << R"({"ipconfig":"$ADDR","token":"tk"})" << ScriptedReply::json(R"({"code":200,"data":[]})")
        << qint64(80) << qint64(22);
}

// Every report comes on the calling thread and names the operation; the figures
// only grow, and the last one shows both bodies whole.
void ProgressTest::observedCalls()
{
    QFETCH(void*, operation);
    QFETCH(QString, name);
    QFETCH(QString, argument);
    QFETCH(ScriptedReply, reply);
    QFETCH(qint64, toSend);
    QFETCH(qint64, toReceive);
    QFile board(folder->filePath(QStringLiteral("board.brd")));
    QVERIFY(board.open(QIODevice::WriteOnly));
    board.write(boardBytes(3 << 20));
    board.close();
    service.script(reply);

    Recorder recorder;
    QElapsedTimer clock;
    clock.start();
    const CallResult call = callOperation(reinterpret_cast<OperationFunction>(operation), this->argument(argument));
    const qint64 elapsedMs = clock.elapsed();
    QVERIFY2(call.result.contains(QLatin1String("\"status\":200")), qPrintable(call.result));

    const std::vector<Report>& reports = recorder.reports;
    QVERIFY(!reports.empty());
    // No more than one report per interval, and the last one.
    QVERIFY2(qint64(reports.size()) <= elapsedMs / 33 + 2, qPrintable(QString::number(reports.size())));
    for (size_t i = 0; i < reports.size(); ++i) {
        QCOMPARE(reports[i].operation, name);
        QCOMPARE(reports[i].thread, QThread::currentThread());
        if (i > 0) {
            QVERIFY(reports[i].progress.bytesSent >= reports[i - 1].progress.bytesSent);
            QVERIFY(reports[i].progress.bytesReceived >= reports[i - 1].progress.bytesReceived);
        }
    }
    const CallProgress last = reports.back().progress;
    QCOMPARE(last.bytesSent, last.bytesToSend);
    if (toSend < 0)
        QVERIFY(last.bytesToSend > 3 << 20);
    else
        QCOMPARE(last.bytesToSend, toSend);
    QCOMPARE(last.bytesReceived, toReceive);
    QCOMPARE(last.bytesToReceive, toReceive);
}

void ProgressTest::cancelledCalls_data()
{
    QTest::addColumn<void*>("operation");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<CancelFrom>("from");

    ScriptedReply halfBody = ScriptedReply::raw(
        "HTTP/1.1 200 OK\r\nContent-Disposition: attachment;filename=board.brd\r\nContent-Length: 100000\r\n\r\n"
        + boardBytes(40000));
    halfBody.stallAfterwards = true;
    const QString records = R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR","data":{"id":1}})";
    const QString mall = R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR","data":{"id":1}})";
    for (const CancelFrom from : {CancelFrom::Observer, CancelFrom::TimerSlot}) {
        const char* const by = from == CancelFrom::Observer ? "from the observer" : "from a timer slot";
        QTest::addRow("download, body half there, %s", by)
            << reinterpret_cast<void*>(norva_sdk_download_binary_file) << records << halfBody << from;
        QTest::addRow("mall download, no answer, %s", by)
            << reinterpret_cast<void*>(NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile) << mall
            << ScriptedReply::stall() << from;
        QTest::addRow("query, no answer, %s", by)
            << reinterpret_cast<void*>(norva_sdk_select_favorite) << QStringLiteral(R"({"ipconfig":"$ADDR"})")
            << ScriptedReply::stall() << from;
    }
}

// The call ends at once with its own result; a download leaves the earlier file
// of its name as it was and nothing else.
void ProgressTest::cancelledCalls()
{
    QFETCH(void*, operation);
    QFETCH(QString, argument);
    QFETCH(ScriptedReply, reply);
    QFETCH(CancelFrom, from);
    service.setDefaultReply(reply);
    QFile earlier(folder->filePath(QStringLiteral("board.brd")));
    QVERIFY(earlier.open(QIODevice::WriteOnly));
    earlier.write("earlier");
    earlier.close();

    bool cancelledOnce = false;
    Recorder recorder([&](const Recorder&) {
        if (cancelledOnce)
            return;
        cancelledOnce = true;
        if (from == CancelFrom::Observer)
            QVERIFY(cancelCall());
        else
            QTimer::singleShot(50, [] { QVERIFY(cancelCall()); });
    });
    const CallResult call = callOperation(reinterpret_cast<OperationFunction>(operation), this->argument(argument));
    QCOMPARE(call.result, cancelled);
    QCOMPARE(call.lines, QStringList{cancelled});
    QVERIFY(cancelledOnce);
    QVERIFY(!cancelCall()); // nothing runs any more
    QCOMPARE(QDir(folder->path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("board.brd")});
    QCOMPARE(readFile(earlier.fileName()), QByteArray("earlier"));

    // The thread's next call is not touched by the cancel before it.
    service.setDefaultReply(ScriptedReply::json(R"({"code":200})"));
    const CallResult next =
        callOperation(norva_sdk_delete_share, this->argument(QStringLiteral(R"({"ipconfig":"$ADDR"})")));
    QVERIFY2(next.result.endsWith(QLatin1String("success\",\"status\":200}")), qPrintable(next.result));
}

// A call made from inside another one is the innermost: a cancel ends it and
// leaves the outer call waiting, until a second cancel ends that one too.
void ProgressTest::cancelReachesTheInnermostCall()
{
    service.setReplyForPath("/kvr/share/selectShare", ScriptedReply::stall());
    ScriptedReply slow = ScriptedReply::json(R"({"code":200})");
    slow.delayMs = 1500;
    service.setReplyForPath("/kvr/favourite/deleteFavourite", slow);

    QString inner;
    bool nested = false;
    Recorder recorder([&](const Recorder& self) {
        if (self.reports.back().operation == QLatin1String("norva_sdk_select_share") && !nested) {
            nested = true;
            QTimer::singleShot(50, [] { cancelCall(); });
            const QString text = argument(QStringLiteral(R"({"ipconfig":"$ADDR"})"));
            inner = QString::fromStdString(norva_sdk_delete_favorite(text.toStdString()));
            QVERIFY(cancelCall());
        }
    });
    const CallResult outer =
        callOperation(norva_sdk_select_share, argument(QStringLiteral(R"({"ipconfig":"$ADDR"})")));
    QCOMPARE(inner, cancelled);
    QCOMPARE(outer.result, cancelled);
    QCOMPARE(outer.lines, (QStringList{cancelled, cancelled}));
}

// An observer set on another thread hears nothing of this thread's calls, and
// this thread's calls are not cancelled from there.
void ProgressTest::otherThreadsAreNotTold()
{
    std::atomic<int> heard{0};
    std::atomic<bool> set{false}, done{false}, cancelledThere{false};
    std::thread other([&] {
        setProgressObserver([&](const CallProgress&) { ++heard; });
        set = true;
        while (!done) {
            if (cancelCall())
                cancelledThere = true;
            QThread::yieldCurrentThread();
        }
    });
    while (!set)
        QThread::yieldCurrentThread();
    service.setDefaultReply(ScriptedReply::json(R"({"code":200})"));
    const CallResult call = callOperation(norva_sdk_delete_share, argument(QStringLiteral(R"({"ipconfig":"$ADDR"})")));
    done = true;
    other.join();
    QVERIFY2(call.result.endsWith(QLatin1String("success\",\"status\":200}")), qPrintable(call.result));
    QCOMPARE(heard.load(), 0);
    QVERIFY(!cancelledThere);
}

NORVA_TEST_MAIN(ProgressTest)
#include "test_progress.moc"
