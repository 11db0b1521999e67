// The library against the local records service, as a user would run them.
#include "support/harness.h"

#include "norva_api_qt.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

namespace {

// Starts norva-records-service on a free loopback port with a data folder.
class LocalService
{
public:
    bool start(const QString& dataFolder, const QStringList& extra = {})
    {
        process.start(QStringLiteral(NORVA_SERVICE_PATH),
                      QStringList{"--listen", "127.0.0.1:0"} + extra + QStringList{dataFolder});
        if (!process.waitForStarted(5000))
            return false;
        QByteArray out;
        while (!out.contains("listening on ")) {
            if (!process.waitForReadyRead(5000))
                return false;
            out += process.readAllStandardOutput();
        }
        printed = QString::fromUtf8(out);
        const int at = out.indexOf("listening on ") + 13;
        address = QString::fromUtf8(out.mid(at, out.indexOf('\n', at) - at)).trimmed();
        return true;
    }
    void stop()
    {
        process.terminate();
        process.waitForFinished(5000);
    }
    ~LocalService() { stop(); }

    QProcess process;
    QString address;
    QString printed;
};

QJsonObject call(OperationFunction operation, QJsonObject argument, const QString& address, const QString& token = {})
{
    argument.insert("ipconfig", address);
    if (!token.isEmpty())
        argument.insert("token", token);
    StdoutCapture quiet;
    return QJsonDocument::fromJson(QByteArray::fromStdString(
                                       operation(QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString())))
        .object();
}

} // namespace

class EndToEndTest : public QObject
{
    Q_OBJECT

private slots:
    void aWholeSession();
    void restartKeepsTheData();
    void anExpiredTokenIsRefused();
    void badRequestsAndSeveralClients();

private:
    QString login(const QString& address, int* userId = nullptr)
    {
        const QJsonObject result = call(norva_sdk_login, {{"username", "norva"}, {"password", "norva"}}, address);
        if (userId)
            *userId = result["data"].toObject()["userId"].toInt();
        return result["data"].toObject()["token"].toString();
    }
    int upload(const QString& address, const QString& token, const QString& path)
    {
        const QJsonObject result = call(norva_sdk_upload_file,
                                        {{"file_uploadpath", path}, {"data", QJsonObject{{"fileInfo", QJsonObject{{"createuserid", 1}}}}}},
                                        address, token);
        return result["Board_Id"].toInt();
    }
    QTemporaryDir folder;
};

void EndToEndTest::aWholeSession()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-session")));
    QVERIFY(service.printed.contains("created user norva with password norva"));
    const QString at = service.address;
    int userId = 0;
    const QString token = login(at, &userId);
    QVERIFY(!token.isEmpty());
    QCOMPARE(call(norva_sdk_login, {{"username", "norva"}, {"password", "nope"}}, at)["status"].toInt(), 411);
    QCOMPARE(call(norva_sdk_login, {{"username", "nobody"}}, at)["status"].toInt(), 410);

    const QByteArray bytes("G04 round trip*\r\n\0\xff", 19);
    const QString source = folder.filePath("round trip.gbr");
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();
    const int board = upload(at, token, source);
    QVERIFY(board > 0);

    const QJsonObject listed = call(norva_sdk_select_origfiles_manage, {{"origfilename", "round trip"}}, at, token);
    QCOMPARE(listed["status"].toInt(), 200);
    QCOMPARE(listed["data"].toArray().size(), 1);
    QCOMPARE(listed["data"].toArray()[0].toObject()["id"].toInt(), board);

    const QString into = folder.filePath("down");
    QDir().mkpath(into);
    const QJsonObject fetched = call(norva_sdk_download_binary_file,
                                     {{"file_downloadpath", into}, {"data", QJsonObject{{"id", board}, {"userId", userId}}}},
                                     at, token);
    QCOMPARE(fetched["filename"].toString(), QStringLiteral("round trip.gbr"));
    QFile stored(into + "/round trip.gbr");
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), bytes);

    QCOMPARE(call(norva_sdk_add2share, {{"userid", userId}, {"boardid", board}, {"sharewith_id", 7}, {"sharetype", 1}}, at, token)["status"].toInt(), 200);
    const QJsonObject again = call(norva_sdk_add2share_batch,
                                   {{"data", QJsonArray{QJsonObject{{"userid", userId}, {"boardid", board}, {"sharewith_id", 7}}}}}, at, token);
    QCOMPARE(again["status"].toInt(), 206);
    QCOMPARE(again["Repeated_share_boardIds"].toArray(), QJsonArray{board});
    const QJsonObject page = call(norva_sdk_select_share_by_page, {{"which_page", 1}, {"data_num_in_each_page", 5}}, at, token);
    QCOMPARE(page["data"].toObject()["total"].toInt(), 1);

    QCOMPARE(call(norva_tavlin_select_boardid_by_order_num, {{"data", QJsonObject{{"orderNum", "A-1001"}}}}, at)["status"].toInt(), 200);
    QCOMPARE(call(norva_tavlin_get_all_model_id, {}, at)["data"].toArray().size(), 3);

    QCOMPARE(call(norva_sdk_logout, {{"id", userId}}, at)["status"].toInt(), 200);
    const QJsonObject refused = call(norva_sdk_select_share, {}, at, token);
    QCOMPARE(refused["status"].toInt(), 402);
    QCOMPARE(refused["message"].toString(), QStringLiteral("token expired"));
}

void EndToEndTest::restartKeepsTheData()
{
    const QString data = folder.filePath("data-restart");
    const QString source = folder.filePath("kept.brd");
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("kept bytes");
    file.close();
    int board = 0;
    {
        LocalService first;
        QVERIFY(first.start(data));
        board = upload(first.address, login(first.address), source);
        QVERIFY(board > 0);
    }
    LocalService second;
    QVERIFY(second.start(data));
    QVERIFY(!second.printed.contains("created user")); // not seeded twice
    const QString token = login(second.address);
    const QJsonObject listed = call(norva_sdk_select_origfiles_manage, {{"board_id", board}}, second.address, token);
    QCOMPARE(listed["data"].toArray().size(), 1);
    QCOMPARE(listed["data"].toArray()[0].toObject()["origfilename"].toString(), QStringLiteral("kept.brd"));
}

void EndToEndTest::anExpiredTokenIsRefused()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-expiry"), {"--token-ttl", "0"}));
    const QString token = login(service.address);
    QVERIFY(!token.isEmpty());
    QCOMPARE(call(norva_sdk_select_favorite, {}, service.address, token)["status"].toInt(), 402);
    QCOMPARE(call(norva_sdk_select_favorite, {}, service.address, QStringLiteral("made-up"))["status"].toInt(), 402);
}

void EndToEndTest::badRequestsAndSeveralClients()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-clients")));
    const auto rawExchange = [&service](const QByteArray& request) {
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", service.address.section(':', 1).toUShort());
        socket.waitForConnected(3000);
        socket.write(request);
        socket.waitForBytesWritten(3000);
        QByteArray answer;
        while (socket.waitForReadyRead(3000))
            answer += socket.readAll();
        return answer;
    };
    QVERIFY(rawExchange("GARBAGE\r\n\r\n").startsWith("HTTP/1.1 400"));
    QVERIFY(rawExchange("POST /kvr/authority/login HTTP/1.1\r\nContent-Length: many\r\n\r\n").startsWith("HTTP/1.1 400"));
    QVERIFY(rawExchange("POST /kvr/authority/login HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 3\r\nConnection: close\r\n\r\n{x}")
                .contains(R"("code":400)"));
    QVERIFY(rawExchange("GET /nowhere HTTP/1.1\r\nConnection: close\r\n\r\n").startsWith("HTTP/1.1 404"));

    // Eight clients at once, each its own process.
    std::vector<std::unique_ptr<QProcess>> clients;
    const QString argument = QStringLiteral(R"({"ipconfig":"%1","username":"norva","password":"norva"})").arg(service.address);
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<QProcess>());
        clients.back()->start(QStringLiteral(NORVA_COMMAND_PATH), {"login", argument});
    }
    for (auto& client : clients) {
        QVERIFY(client->waitForFinished(10000));
        QCOMPARE(client->exitCode(), 0);
        QVERIFY(client->readAllStandardOutput().contains(R"("message":"login success")"));
    }
}

QTEST_GUILESS_MAIN(EndToEndTest)
#include "test_end_to_end.moc"
