// SPDX-License-Identifier: MIT
// Stopping calls: what a cancelled call returns and leaves behind; and reports
// that keep up with bytes which come in a burst and then stop. (The rest of
// what the progress observer hears is checked on every row of the operation
// tables.)
#include "support/harness.h"
#include "support/test_main.h"

#include "norva_api_qt_progress.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <boost/asio.hpp>

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

namespace {

const QString cancelled = QStringLiteral(R"({"message":"request cancelled","status":400})");

// Observes this thread's calls for its lifetime.
struct ObserverScope {
    explicit ObserverScope(ProgressObserver observer) { setProgressObserver(std::move(observer)); }
    ~ObserverScope() { clearProgressObserver(); }
};

// A service that takes connections and reads nothing: the system holds what
// fits into its buffers, and an upload stalls there. Afterwards it tells how
// many bytes reached it.
class DeafService
{
public:
    DeafService()
    {
        using boost::asio::ip::tcp;
        acceptor.open(tcp::v4());
        acceptor.bind(tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
        acceptor.listen();
    }
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(acceptor.local_endpoint().port()); }
    // Everything sent on the first connection, once the client has closed it.
    qint64 bytesReceived()
    {
        boost::asio::ip::tcp::socket connection = acceptor.accept();
        std::vector<char> buffer(1 << 20);
        qint64 total = 0;
        boost::system::error_code error;
        while (!error)
            total += qint64(connection.read_some(boost::asio::buffer(buffer), error));
        return total;
    }

private:
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor{io};
};

enum class CancelFrom { Observer, TimerSlot };

struct CancelRow {
    QByteArray name;
    OperationFunction operation;
    QString argument;
    ScriptedReply reply;
    CancelFrom from;
};

} // namespace

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

    void cancelledCalls_data();
    void cancelledCalls();
    void cancelReachesTheInnermostCall();
    void reportsKeepUpWithABurst_data();
    void reportsKeepUpWithABurst();

private:
    QString argument(QString text) const
    {
        return text.replace(QLatin1String("$DIR"), folder->path()).replace(QLatin1String("$ADDR"), service.address());
    }

    TestService service;
    QScopedPointer<QTemporaryDir> folder;
};

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
    const ObserverScope observer([&](const CallProgress&) {
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
    service.setDefaultReply(ScriptedReply::stall());
    const QString query = argument(QStringLiteral(R"({"ipconfig":"$ADDR"})"));
    QString inner;
    const ObserverScope observer([&](const CallProgress& progress) {
        if (inner.isEmpty() && qstrcmp(progress.operation, "norva_sdk_select_share") == 0) {
            QTimer::singleShot(50, [] { cancelCall(); });
            inner = QString::fromStdString(norva_sdk_delete_favorite(query.toStdString()));
            QVERIFY(cancelCall());
        }
    });
    const CallResult outer = callOperation(norva_sdk_select_share, query);
    QCOMPARE(inner, cancelled);
    QCOMPARE(outer.result, cancelled);
    QCOMPARE(outer.lines, (QStringList{cancelled, cancelled}));
}

void ProgressTest::reportsKeepUpWithABurst_data()
{
    QTest::addColumn<bool>("upload");
    QTest::newRow("a download's service sends 1 MiB, then nothing") << false;
    QTest::newRow("an upload's service stops reading") << true;
}

// Bytes that come in a burst and then stop are reported within the interval,
// not when the stall ends: Qt itself passes on no later progress signal.
void ProgressTest::reportsKeepUpWithABurst()
{
    QFETCH(bool, upload);
    constexpr int stallMs = 4000;
    setIdleLimit(stallMs);
    const QByteArray burst = boardBytes(1 << 20);
    DeafService deaf;
    QString call;
    if (upload) {
        writeFile(folder->filePath(QStringLiteral("big.brd")), QByteArray(64 << 20, 'b'));
        call = QStringLiteral(R"({"ipconfig":"%1","file_uploadpath":"$DIR/big.brd"})").arg(deaf.address());
    } else {
        service.setDefaultReply(ScriptedReply::rawThenSilent("HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n" + burst));
        call = QStringLiteral(R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR","data":{"id":1}})");
    }

    QElapsedTimer clock;
    std::vector<std::pair<qint64, CallProgress>> reports;
    const ObserverScope observer([&](const CallProgress& progress) { reports.emplace_back(clock.elapsed(), progress); });
    clock.start();
    const CallResult result = callOperation(upload ? norva_sdk_upload_file : norva_sdk_download_binary_file, argument(call));
    QCOMPARE(result.result, QStringLiteral(R"({"message":"Server shuts down","status":400})"));
    QVERIFY(!reports.empty());

    const auto moved = [upload](const CallProgress& p) { return upload ? p.bytesSent : p.bytesReceived; };
    const qint64 last = moved(reports.back().second);
    if (upload) {
        // Near what reached the service: the system keeps some of what was
        // handed to it, and what was not sent yet goes with the connection.
        const qint64 reached = deaf.bytesReceived();
        QVERIFY2(last > reached / 2, qPrintable(QStringLiteral("%1 of %2").arg(last).arg(reached)));
    } else {
        QCOMPARE(last, qint64(burst.size()));
        QCOMPARE(reports.back().second.bytesToReceive, qint64(100000000));
    }
    const auto firstWithLast = std::find_if(reports.begin(), reports.end(), [&](const auto& r) { return moved(r.second) == last; });
    QVERIFY2(firstWithLast->first < stallMs / 2, qPrintable(QString::number(firstWithLast->first)));
}

NORVA_TEST_MAIN(ProgressTest)
#include "test_progress.moc"
