// Watching and stopping calls: what the progress observer hears, and what a
// cancelled call returns and leaves behind.
#include "support/harness.h"
#include "support/test_main.h"

#include "norva_api_qt_progress.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>


using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

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

enum class CancelFrom { Observer, TimerSlot };

struct ObservedRow {
    QByteArray name;
    OperationFunction operation;
    QString argument;
    ScriptedReply reply;
    qint64 toSend; // -1: only more than the file
    qint64 toReceive;
};

struct CancelRow {
    QByteArray name;
    OperationFunction operation;
    QString argument;
    ScriptedReply reply;
    CancelFrom from;
};

} // namespace

Q_DECLARE_METATYPE(ObservedRow)
Q_DECLARE_METATYPE(CancelRow)

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
    const QByteArray board = boardBytes(3 << 20);
    addRows(std::vector<ObservedRow>{
        {"norva_sdk_upload_file", norva_sdk_upload_file,
         R"({"ipconfig":"$ADDR","token":"tk","file_uploadpath":"$DIR/board.brd","data":{"fileInfo":{}}})",
         ScriptedReply::json(R"({"code":200,"data":7})"), -1, 21},
        {"norva_sdk_download_binary_file", norva_sdk_download_binary_file,
         R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR","data":{"id":1,"userId":2}})",
         ScriptedReply::file(board, "attachment;filename=copy.brd"), 13, board.size()},
        {"norva_sdk_select_share", norva_sdk_select_share, R"({"ipconfig":"$ADDR","token":"tk"})",
         ScriptedReply::json(R"({"code":200,"data":[]})"), 80, 22},
    });
}

// Every report comes on the calling thread and names the operation; the figures
// only grow, and the last one shows both bodies whole.
void ProgressTest::observedCalls()
{
    QFETCH(ObservedRow, row);
    writeFile(folder->filePath(QStringLiteral("board.brd")), boardBytes(3 << 20));
    service.script(row.reply);

    Recorder recorder;
    QElapsedTimer clock;
    clock.start();
    const CallResult call = callOperation(row.operation, argument(row.argument));
    const qint64 elapsedMs = clock.elapsed();
    QVERIFY2(call.result.contains(QLatin1String("\"status\":200")), qPrintable(call.result));

    const std::vector<Report>& reports = recorder.reports;
    QVERIFY(!reports.empty());
    // No more than one report per interval, and the last one.
    QVERIFY2(qint64(reports.size()) <= elapsedMs / 33 + 2, qPrintable(QString::number(reports.size())));
    for (size_t i = 0; i < reports.size(); ++i) {
        QCOMPARE(reports[i].operation, QString::fromLatin1(row.name));
        QCOMPARE(reports[i].thread, QThread::currentThread());
        if (i > 0) {
            QVERIFY(reports[i].progress.bytesSent >= reports[i - 1].progress.bytesSent);
            QVERIFY(reports[i].progress.bytesReceived >= reports[i - 1].progress.bytesReceived);
        }
    }
    const CallProgress last = reports.back().progress;
    QCOMPARE(last.bytesSent, last.bytesToSend);
    if (row.toSend < 0)
        QVERIFY(last.bytesToSend > 3 << 20);
    else
        QCOMPARE(last.bytesToSend, row.toSend);
    QCOMPARE(last.bytesReceived, row.toReceive);
    QCOMPARE(last.bytesToReceive, row.toReceive);
}

void ProgressTest::cancelledCalls_data()
{
    const ScriptedReply halfBody = ScriptedReply::rawThenSilent(
        "HTTP/1.1 200 OK\r\nContent-Disposition: attachment;filename=board.brd\r\nContent-Length: 100000\r\n\r\n"
        + boardBytes(40000));
    std::vector<CancelRow> rows;
    for (const CancelFrom from : {CancelFrom::Observer, CancelFrom::TimerSlot}) {
        const QByteArray by = from == CancelFrom::Observer ? ", from the observer" : ", from a timer slot";
        rows.push_back({"download, body half there" + by, norva_sdk_download_binary_file,
                        R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":"$DIR","data":{"id":1}})", halfBody, from});
        rows.push_back({"mall download, no answer" + by, NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile,
                        R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR","data":{"id":1}})", ScriptedReply::stall(), from});
        rows.push_back({"query, no answer" + by, norva_sdk_select_favorite, R"({"ipconfig":"$ADDR"})", ScriptedReply::stall(), from});
    }
    addRows(rows);
}

// The call ends at once with its own result; a download leaves the earlier file
// of its name as it was and nothing else.
void ProgressTest::cancelledCalls()
{
    QFETCH(CancelRow, row);
    service.setDefaultReply(row.reply);
    writeFile(folder->filePath(QStringLiteral("board.brd")), "earlier");

    bool cancelledOnce = false;
    Recorder recorder([&](const Recorder&) {
        if (cancelledOnce)
            return;
        cancelledOnce = true;
        if (row.from == CancelFrom::Observer)
            QVERIFY(cancelCall());
        else
            QTimer::singleShot(50, [] { QVERIFY(cancelCall()); });
    });
    const CallResult call = callOperation(row.operation, argument(row.argument));
    QCOMPARE(call.result, cancelled);
    QCOMPARE(call.lines, QStringList{cancelled});
    QVERIFY(cancelledOnce);
    QVERIFY(!cancelCall()); // nothing runs any more
    QCOMPARE(QDir(folder->path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("board.brd")});
    QCOMPARE(readFile(folder->filePath(QStringLiteral("board.brd"))), QByteArray("earlier"));

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

NORVA_TEST_MAIN(ProgressTest)
#include "test_progress.moc"
