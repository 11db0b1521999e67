// SPDX-License-Identifier: MIT
// The library against the local records service, as a user would run them.
#include "support/harness.h"

#include "certificates.h"
#include "http_server.h"
#include "tls_session.h"
#include "login_failures.h"
#include "database.h"
#include "norva_api_qt_async.h"
#include "norva_api_qt_progress.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

namespace {

// Starts norva-records-service on a free loopback port with a data folder.
class LocalService
{
public:
    bool start(const QString& dataFolder, const QStringList& extra = {}, const QByteArray& input = {})
    {
        const QStringList arguments = QStringList{"--listen", "127.0.0.1:0"} + extra + QStringList{dataFolder};
        if (launcher.isEmpty())
            process.start(QStringLiteral(NORVA_SERVICE_PATH), arguments);
        else
            process.start(launcher.front(), launcher.mid(1) + QStringList{NORVA_SERVICE_PATH} + arguments);
        if (!process.waitForStarted(5000))
            return false;
        process.write(input);
        process.closeWriteChannel();
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
    QStringList launcher; // a program that runs the service (prlimit, say)
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

// Every file in `folder`, one after the other (to look for text that must not be there).
QByteArray filesIn(const QString& folder)
{
    QByteArray bytes;
    for (const QString& name : QDir(folder).entryList(QDir::Files))
        bytes += readFile(folder + "/" + name);
    return bytes;
}

// The same call through the asynchronous face, on a client of its own or on `on`.
QJsonObject callAsync(const char* operation, QJsonObject argument, const QString& address, const QString& token = {},
                      Client* on = nullptr)
{
    argument.insert("ipconfig", address);
    if (!token.isEmpty())
        argument.insert("token", token);
    Client own;
    Client& client = on ? *on : own;
    const std::unique_ptr<CallReply> reply(
        client.call(operation, QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString()));
    QSignalSpy finished(reply.get(), &CallReply::finished);
    if (!finished.wait(20000))
        return {};
    return QJsonDocument::fromJson(QByteArray::fromStdString(reply->result())).object();
}

// The certificates of the HTTPS rows, made for this run: an authority the
// tests trust and the service certificates it signed, and one another
// authority signed.
struct TestCertificates {
    norva::service::PemPair authority, stranger, trusted, untrusted, expired, wrongHost;
};

struct TlsRow {
    QByteArray name;
    norva::service::PemPair TestCertificates::*certificate; // null: the service speaks plain HTTP
    QString scheme;
    bool reachable;
};

struct FaultRow {
    QByteArray name;
    QStringList options;
    QString token; // empty: a fresh login's
    int idleLimitMs;
    QStringList messages; // of norva_sdk_select_share, called once for each
};

} // namespace

Q_DECLARE_METATYPE(FaultRow)
Q_DECLARE_METATYPE(TlsRow)

class EndToEndTest : public QObject
{
    Q_OBJECT

private slots:
    void aWholeSession();
    void faults_data();
    void faults();
    void unusableOptionsStopTheService();
    void eachTokenActsForItsOwnUser();
    void plainPasswordsAreConvertedOnOpen();
    void tokensAndPasswordsAreKeptSafe();
    void slowClientsHoldNothing();
    void runningOutOfDescriptorsStopsNothing();
    void aPasswordChangeLeavesNoOldToken();
    void failedLoginsAreRememberedWithinBounds();
    void earlyAnswersReachTheClient();
    void aLoginFloodHoldsUpNobody();
    void bodiesInMemoryAreBounded();
    void aBatchThatFailsLeavesNoRows();
    void badRequests_data();
    void badRequests();
    void https_data();
    void https();
    void norvaTrustsWhatItIsTold();
    void aTlsBodyEndsOnlyWithItsClose();
    void aHandshakeFloodCrowdsOutNobody();
    void readmeExamplesRunAsWritten();

private:
    // Starts a service that serves `certificate` (plain HTTP for none); its
    // address without a scheme.
    bool startTls(LocalService& service, const QString& name, const norva::service::PemPair* certificate,
                  const QStringList& extra = {})
    {
        QStringList options = extra;
        if (certificate) {
            const QString base = folder.filePath(name);
            writeFile(base + ".crt", QByteArray::fromStdString(certificate->certificate));
            writeFile(base + ".key", QByteArray::fromStdString(certificate->key));
            options << "--tls-cert" << base + ".crt" << "--tls-key" << base + ".key";
        }
        if (!service.start(folder.filePath("data-" + name), options))
            return false;
        service.address.remove(QStringLiteral("https://"));
        return true;
    }
    // Made once, and the authority trusted by this process from then on.
    const TestCertificates& certificates();
    std::unique_ptr<TestCertificates> made;

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
    writeFile(source, bytes);
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
    QCOMPARE(readFile(into + "/round trip.gbr"), bytes);

    // A folder goes in one form, each file a part of its own: every file is
    // stored whole, under its own record.
    const QString boards = folder.filePath("boards");
    QDir().mkpath(boards);
    const QByteArray large(300000, 'L');
    writeFile(boards + "/top.gbr", large);
    writeFile(boards + "/bottom.gbr", QByteArray("B"));
    QCOMPARE(call(norva_sdk_upload_files, {{"file_uploadpath", boards}, {"data", QJsonObject{{"createuserid", userId}}}}, at,
                  token)["status"].toInt(),
             200);
    for (const QString& name : {QStringLiteral("top.gbr"), QStringLiteral("bottom.gbr")}) {
        const QJsonArray records = call(norva_sdk_select_origfiles_manage, {{"origfilename", name}}, at, token)["data"].toArray();
        QCOMPARE(records.size(), 1);
        const QString back = folder.filePath("back-" + name);
        QDir().mkpath(back);
        call(norva_sdk_download_binary_file,
             {{"file_downloadpath", back}, {"data", QJsonObject{{"id", records[0].toObject()["id"]}, {"userId", userId}}}}, at, token);
        QCOMPARE(readFile(back + "/" + name), name == "top.gbr" ? large : QByteArray("B"));
    }

    QCOMPARE(call(norva_sdk_add2share, {{"userid", userId}, {"boardid", board}, {"sharewith_id", 7}, {"sharetype", 1}}, at, token)["status"].toInt(), 200);
    const QJsonObject again = call(norva_sdk_add2share_batch,
                                   {{"data", QJsonArray{QJsonObject{{"userid", userId}, {"boardid", board}, {"sharewith_id", 7}}}}}, at, token);
    QCOMPARE(again["status"].toInt(), 206);
    QCOMPARE(again["Repeated_share_boardIds"].toArray(), QJsonArray{board});
    const QJsonObject page = call(norva_sdk_select_share_by_page, {{"which_page", 1}, {"data_num_in_each_page", 5}}, at, token);
    QCOMPARE(page["data"].toObject()["total"].toInt(), 1);

    // Every other route that only reads, once: these run on the database
    // connection that may not write, and none of them fails there (a failure
    // would stand in the service's log).
    const QJsonObject firstPage{{"which_page", 1}, {"data_num_in_each_page", 5}};
    const struct {
        OperationFunction operation;
        QJsonObject argument;
        bool withToken;
    } reads[] = {
        {norva_sdk_get_user_info_list, {}, true},
        {norva_sdk_get_user_info_list_by_page, firstPage, true},
        {norva_sdk_select_favorite, {}, true},
        {norva_sdk_select_favorite_by_page, firstPage, true},
        {norva_sdk_select_origfiles_manage_by_page, firstPage, true},
        {norva_sdk_select_error_library, {}, true},
        {norva_sdk_select_error_library_by_page, firstPage, true},
        {norva_sdk_select_error_msg, {}, true},
        {norva_sdk_select_error_msg_by_page, firstPage, true},
        {norva_tavlin_download_binaryfile, {{"file_downloadpath", folder.filePath("mall")}, {"data", QJsonObject{{"id", board}}}}, false},
        {norva_tavlin_select_order_by_page, firstPage, false},
        {norva_tavlin_select_orig_file_by_page, firstPage, false},
        {norva_tavlin_get_bid_name_list_by_page, firstPage, false},
        {norva_tavlin_get_latest_model_id, {}, false},
        {norva_tavlin_get_process_parameters, {{"data", QJsonObject{{"modelId", 1}}}}, false},
    };
    QDir().mkpath(folder.filePath("mall"));
    for (const auto& read : reads) {
        const QJsonObject result = call(read.operation, read.argument, at, read.withToken ? token : QString());
        QVERIFY2(result["status"].toInt() == 200, QJsonDocument(result).toJson().constData());
    }
    const QByteArray log = service.process.readAllStandardError();
    QVERIFY2(!log.contains("sql:"), log.constData());

    QCOMPARE(call(norva_tavlin_select_boardid_by_order_num, {{"data", QJsonObject{{"orderNum", "A-1001"}}}}, at)["status"].toInt(), 200);
    QCOMPARE(call(norva_tavlin_get_all_model_id, {}, at)["data"].toArray().size(), 3);

    QCOMPARE(call(norva_sdk_logout, {{"id", userId}}, at)["status"].toInt(), 200);
    const QJsonObject refused = call(norva_sdk_select_share, {}, at, token);
    QCOMPARE(refused["status"].toInt(), 402);
    QCOMPARE(refused["message"].toString(), QStringLiteral("token expired"));

    // SIGTERM is a clean stop, the spooled forms went with their requests, and a
    // restart keeps the data without seeding it again.
    QVERIFY(QDir(folder.filePath("data-session/incoming")).isEmpty());
    service.stop();
    QCOMPARE(service.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(service.process.exitCode(), 0);
    LocalService restarted;
    QVERIFY(restarted.start(folder.filePath("data-session")));
    QVERIFY(!restarted.printed.contains("created user"));
    const QJsonObject kept = call(norva_sdk_select_origfiles_manage, {{"board_id", board}}, restarted.address, login(restarted.address));
    QCOMPARE(kept["data"].toArray().size(), 1);
    QCOMPARE(kept["data"].toArray()[0].toObject()["origfilename"].toString(), QStringLiteral("round trip.gbr"));
}

// What the library makes of the service's fault options.
void EndToEndTest::faults_data()
{
    const QString ok = "select share table success";
    addRows(std::vector<FaultRow>{
        {"tokens that live 0 s", {"--token-ttl", "0"}, "", 120000, {"token expired"}},
        {"a made-up token", {}, "made-up", 120000, {"token expired", "token expired"}},
        {"--expire-tokens", {"--expire-tokens"}, "", 120000, {"token expired"}},
        {"--fail once", {"--fail", "/kvr/share/selectShare=500x1"}, "", 120000, {"request fail", ok}},
        {"--fail 402", {"--fail", "/kvr/share/selectShare=402"}, "", 120000, {"token expired", "token expired"}},
        {"--fail 304, which has no body", {"--fail", "/kvr/share/selectShare=304x1"}, "", 120000, {"request fail", ok}},
        {"--drop", {"--drop", "/kvr/share/selectShare"}, "", 120000, {"Server shuts down"}},
        {"--delay-ms beyond the idle limit", {"--delay-ms", "1500"}, "", 300, {"Server shuts down"}},
        {"--delay-ms within it", {"--delay-ms", "100"}, "", 120000, {ok}},
    });
}

void EndToEndTest::faults()
{
    QFETCH(FaultRow, row);
    LocalService service;
    QVERIFY(service.start(folder.filePath(QString::fromLatin1(QTest::currentDataTag())), row.options));
    const QString token = row.token.isEmpty() ? login(service.address) : row.token;
    QVERIFY(!token.isEmpty());
    NORVA::NORVA_API_QT::setIdleLimit(row.idleLimitMs);
    QStringList results;
    for (int i = 0; i < row.messages.size(); ++i)
        results << call(norva_sdk_select_share, {}, service.address, token)["message"].toString();
    NORVA::NORVA_API_QT::setIdleLimit(120000);
    QCOMPARE(results, row.messages);
}

// A value the service cannot use stops it at once, naming the value, rather
// than leaving it to serve something its user did not ask for.
void EndToEndTest::unusableOptionsStopTheService()
{
    const QStringList refused[] = {{"--delay-ms", "5s"}, {"--token-ttl", "-1"}, {"--fail", "/kvr/a=500x0"},
                                   {"--fail", "/kvr/a=101"}, {"--drop", "kvr/a"}, {"--listen", "127.0.0.1:65536"},
                                   {"--add-user", "ada:"}, {"--idle-seconds", "0"}, {"--bogus", "1"}};
    for (const QStringList& options : refused) {
        LocalService service;
        QVERIFY2(!service.start(folder.filePath("data-refused"), options), qPrintable(options.join(' ')));
        QVERIFY(service.process.state() == QProcess::NotRunning || service.process.waitForFinished(5000));
        QCOMPARE(service.process.exitCode(), 2);
        QVERIFY2(service.process.readAllStandardError().contains(options.first().toUtf8()), qPrintable(options.join(' ')));
    }
}

// Records can be changed and removed only by the user who added them, and a
// password only by its own user: tried by another user first (refused, and
// nothing changes), then by the owner.
void EndToEndTest::eachTokenActsForItsOwnUser()
{
    LocalService service;
    const QString data = folder.filePath("data-owners");
    QVERIFY(service.start(data, {"--add-user", "ada:ada-secret-1", "--add-user", "bob:bob-secret-2"}));
    const QString at = service.address;
    const auto loginAs = [&at](const char* name, const char* password) {
        return call(norva_sdk_login, {{"username", name}, {"password", password}}, at)["data"].toObject();
    };
    const QJsonObject ada = loginAs("ada", "ada-secret-1");
    const QString adaToken = ada["token"].toString();
    const QString bobToken = loginAs("bob", "bob-secret-2")["token"].toString();
    const int adaId = ada["userId"].toInt();
    QVERIFY(!adaToken.isEmpty() && !bobToken.isEmpty());

    const QString source = folder.filePath("owned.brd");
    writeFile(source, "owned");
    const int board = upload(at, adaToken, source);
    QCOMPARE(call(norva_sdk_add2share, {{"userid", adaId}, {"boardid", board}, {"sharewith_id", 9}}, at, adaToken)["status"].toInt(), 200);
    QCOMPARE(call(norva_sdk_add2favorite, {{"userid", adaId}, {"boardid", board}}, at, adaToken)["status"].toInt(), 200);
    QCOMPARE(call(norva_sdk_insert_error_msg, {{"boardId", board}, {"reMark", "r"}}, at, adaToken)["status"].toInt(), 200);
    const auto firstId = [&](OperationFunction select) {
        return call(select, {}, at, adaToken)["data"].toArray().first().toObject()["id"].toInt();
    };
    const int shareId = firstId(norva_sdk_select_share);
    const int favouriteId = firstId(norva_sdk_select_favorite);
    const int messageId = firstId(norva_sdk_select_error_msg);

    const struct {
        const char* name;
        OperationFunction operation;
        QJsonObject argument;
    } rules[] = {
        {"change an error message", norva_sdk_update_error_msg, {{"id", messageId}, {"reMark", "changed"}}},
        {"remove an error message", norva_sdk_delete_error_msg, {{"data", QJsonObject{{"id", messageId}}}}},
        {"change a file record", norva_sdk_update_origfiles_manage, {{"origfile_id", board}, {"origfilename", "new.brd"}}},
        {"remove a share", norva_sdk_delete_share, {{"data", QJsonObject{{"id", shareId}, {"userId", adaId}}}}},
        {"remove a favourite", norva_sdk_delete_favorite, {{"data", QJsonObject{{"id", favouriteId}, {"userId", adaId}}}}},
        {"flag a file deleted", norva_sdk_updel_origfiles_manage, {{"data", QJsonObject{{"id", board}, {"userId", adaId}}}}},
        {"change a password", norva_sdk_update_password, {{"userid", adaId}, {"new_pwd", "ada-secret-3"}}},
    };
    for (const auto& rule : rules) {
        const QJsonObject refused = call(rule.operation, rule.argument, at, bobToken);
        QVERIFY2(refused["status"].toInt() == 400, rule.name);
        if (refused.contains("error_msg"))
            QVERIFY2(refused["error_msg"].toString().startsWith("only the user who"), rule.name);
        QVERIFY2(call(rule.operation, rule.argument, at, adaToken)["status"].toInt() == 200, rule.name);
    }
    QVERIFY(loginAs("ada", "ada-secret-1").isEmpty());
    QVERIFY(!loginAs("ada", "ada-secret-3").isEmpty());

    // Nobody writes in another's name: what bob adds "as ada" is his.
    const int bobId = loginAs("bob", "bob-secret-2")["userId"].toInt();
    QCOMPARE(call(norva_sdk_add2favorite, {{"userid", adaId}, {"boardid", 77}}, at, bobToken)["status"].toInt(), 200);
    QCOMPARE(call(norva_sdk_add2share, {{"userid", adaId}, {"boardid", 77}, {"sharewith_id", 9}}, at, bobToken)["status"].toInt(), 200);
    const QJsonObject planted = call(norva_sdk_upload_file, {{"file_uploadpath", source},
        {"data", QJsonObject{{"fileInfo", QJsonObject{{"createuserid", adaId}}}}}}, at, bobToken);
    QCOMPARE(planted["status"].toInt(), 200);
    QCOMPARE(call(norva_sdk_select_favorite, {{"userid", adaId}, {"boardname", QJsonValue()}}, at, adaToken)["data"].toArray().size(), 0);
    const QJsonArray bobs = call(norva_sdk_select_favorite, {{"userid", bobId}}, at, bobToken)["data"].toArray();
    QVERIFY(!bobs.isEmpty() && bobs.last().toObject()["boardId"].toInt() == 77);
    const QJsonArray files = call(norva_sdk_select_origfiles_manage, {{"board_id", planted["Board_Id"]}}, at, bobToken)["data"].toArray();
    QCOMPARE(files.first().toObject()["createuserid"].toInt(), bobId);

    // No password stands in the service's files as it was typed.
    const QByteArray stored = filesIn(data);
    for (const char* password : {"ada-secret-1", "bob-secret-2", "ada-secret-3"})
        QVERIFY2(!stored.contains(password), password);
}

// A data folder from before keeps passwords as typed: opening it replaces them
// by their hashes, and the users log in as before. A file without a record (a
// service killed before committing it) goes.
void EndToEndTest::plainPasswordsAreConvertedOnOpen()
{
    const QString data = folder.filePath("data-legacy");
    QVERIFY(QDir().mkpath(data + "/files"));
    {
        norva::service::Database legacy;
        std::string error;
        QVERIFY(legacy.open((data + "/records.sqlite3").toStdString(), error));
        legacy.execute("CREATE TABLE users(id INTEGER PRIMARY KEY, userName TEXT UNIQUE NOT NULL, userPwd TEXT NOT NULL,"
                       " userRealname TEXT); INSERT INTO users(userName, userPwd) VALUES('old', 'legacy-secret-9');"
                       "CREATE TABLE shares(id INTEGER PRIMARY KEY, userId, brdId, acsTypeId, acsType, createtime TEXT);"
                       "INSERT INTO shares(userId, brdId) VALUES(1, 5);");
    }
    writeFile(data + "/files/1", "left behind by a killed service");
    LocalService service;
    QVERIFY(service.start(data));
    const QString token =
        call(norva_sdk_login, {{"username", "old"}, {"password", "legacy-secret-9"}}, service.address)["data"]
            .toObject()["token"].toString();
    QVERIFY(!token.isEmpty());
    // The share of before is its user's, and that user may remove it.
    QCOMPARE(call(norva_sdk_delete_share, {{"data", QJsonObject{{"id", 1}, {"userId", 1}}}}, service.address, token)["status"].toInt(),
             200);
    // Its id does not come round again, though it was the last.
    QCOMPARE(call(norva_sdk_add2share, {{"userid", 1}, {"boardid", 6}, {"sharewith_id", 2}}, service.address, token)["status"].toInt(), 200);
    const QJsonArray shares = call(norva_sdk_select_share, {}, service.address, token)["data"].toArray();
    QCOMPARE(shares.size(), 1);
    QCOMPARE(shares.first().toObject()["id"].toInt(), 2);
    QVERIFY(!filesIn(data).contains("legacy-secret-9"));
    QVERIFY(!QFile::exists(data + "/files/1"));
}

// Tokens stand in the database only as hashes and go when they expire or when
// their user's password changes; the data folder is its owner's alone; a
// password need not stand on the command line; guessing one user's password
// slows that user's logins only; an error message made by an upload is its
// uploader's.
void EndToEndTest::tokensAndPasswordsAreKeptSafe()
{
    const QString data = folder.filePath("data-safe");
    const QString passwordFile = folder.filePath("ada.password");
    writeFile(passwordFile, "ada-secret-1\n");
    LocalService service;
    QVERIFY(service.start(data, {"--token-ttl", "2", "--add-user", "ada:@" + passwordFile, "--add-user", "bob"},
                          "bob-secret-2\n"));
    const QString at = service.address;
    const auto loginAs = [&at](const char* name, const char* password) {
        return call(norva_sdk_login, {{"username", name}, {"password", password}}, at)["data"].toObject()["token"].toString();
    };
    const auto status = [&at](const QString& token) { return call(norva_sdk_select_share, {}, at, token)["status"].toInt(); };
    const QString expired = loginAs("ada", "ada-secret-1");
    QTest::qWait(2100);
    const QString first = loginAs("ada", "ada-secret-1");
    const QString second = loginAs("ada", "ada-secret-1");
    const QString bob = loginAs("bob", "bob-secret-2");
    QVERIFY(!expired.isEmpty() && !first.isEmpty() && !second.isEmpty() && !bob.isEmpty());
    const QByteArray stored = filesIn(data);
    for (const QString& token : {expired, first, second, bob})
        QVERIFY(!stored.contains(token.toUtf8()));
    {
        norva::service::Database database;
        std::string error;
        QVERIFY(database.open((data + "/records.sqlite3").toStdString(), error));
        QCOMPARE(database.query("SELECT COUNT(*) AS n FROM login_tokens")[0].toObject()["n"].toInt(), 3); // the expired one went
    }
    QCOMPARE(QFile::permissions(data) & 0x0777, QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser);
    QCOMPARE(QFile::permissions(data + "/records.sqlite3") & 0x0777, QFileDevice::ReadUser | QFileDevice::WriteUser);

    // Ada's password changes with her first token: her second one is gone, Bob's stays.
    const int adaId = call(norva_sdk_login, {{"username", "ada"}, {"password", "ada-secret-1"}}, at)["data"].toObject()["userId"].toInt();
    QCOMPARE(call(norva_sdk_update_password, {{"userid", adaId}, {"new_pwd", "ada-secret-3"}}, at, first)["status"].toInt(), 200);
    QCOMPARE(status(first), 200);
    QCOMPARE(status(second), 402);
    QCOMPARE(status(bob), 200);

    // The error message an upload of Ada's made is hers: Bob can't remove it.
    const QString source = folder.filePath("with-error.brd");
    writeFile(source, "board");
    QCOMPARE(call(norva_sdk_upload_file, {{"file_uploadpath", source}, {"data", QJsonObject{{"fileInfo", QJsonObject{{"isError", 1}}}, {"errorInfo", QJsonObject{{"reMark", "r"}}}}}},
                  at, first)["status"].toInt(), 200);
    const int message = call(norva_sdk_select_error_msg, {}, at, first)["data"].toArray().first().toObject()["id"].toInt();
    QCOMPARE(QFile::permissions(data + "/files/" + QDir(data + "/files").entryList(QDir::Files).first()) & 0x0777,
             QFileDevice::ReadUser | QFileDevice::WriteUser);
    QCOMPARE(call(norva_sdk_delete_error_msg, {{"data", QJsonObject{{"id", message}}}}, at, bob)["status"].toInt(), 400);
    QCOMPARE(call(norva_sdk_delete_error_msg, {{"data", QJsonObject{{"id", message}}}}, at, first)["status"].toInt(), 200);

    // Five wrong guesses at Bob's password: his next answer waits; Ada's does not.
    for (int guess = 0; guess < 5; ++guess)
        QVERIFY(loginAs("bob", "guess").isEmpty());
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!loginAs("bob", "bob-secret-2").isEmpty());
    QVERIFY2(clock.restart() >= 900, "no wait after five failures");
    QVERIFY(!loginAs("ada", "ada-secret-3").isEmpty());
    QVERIFY2(clock.elapsed() < 900, "another user's login waited too");
}

// Connections that send half a head, more of them than requests are served
// at once, keep nobody else out; each is cut when its head's deadline passes,
// even while it trickles a byte now and then (an idle timer would wait on).
// Under a limit of 256 descriptors, 340 connections at once: those past what
// it can hold are turned away, and once they are gone the service answers as
// before (an accept loop that gave up would never answer again).
void EndToEndTest::runningOutOfDescriptorsStopsNothing()
{
    LocalService service;
    service.launcher = QStringList{"prlimit", "--nofile=256:256"};
    QVERIFY(service.start(folder.filePath("data-descriptors")));
    const quint16 port = service.address.section(':', 1).toUShort();
    NORVA::NORVA_API_QT::setIdleLimit(10000); // a service that stopped accepting fails the test soon
    for (int round = 0; round < 2; ++round) {
        std::vector<std::unique_ptr<QTcpSocket>> held;
        for (int i = 0; i < 340; ++i) {
            held.push_back(std::make_unique<QTcpSocket>());
            held.back()->connectToHost("127.0.0.1", port);
        }
        QTest::qWait(1000);
        held.clear();
        QElapsedTimer answered;
        answered.start();
        const QString token = login(service.address);
        QVERIFY2(!token.isEmpty(), qPrintable(QString::fromUtf8(service.process.readAllStandardError())));
        QCOMPARE(call(norva_sdk_select_share, {}, service.address, token)["status"].toInt(), 200);
        QVERIFY2(answered.elapsed() < 5000, qPrintable(QString::number(answered.elapsed())));
    }
    NORVA::NORVA_API_QT::setIdleLimit(120 * 1000);
}

// A login with the old password racing a change of it gets no token that
// outlives the change; and a change cut by kill -9 is all there or not at all:
// never the new password beside a token of the old one.
void EndToEndTest::aPasswordChangeLeavesNoOldToken()
{
    const auto compact = [](const QJsonObject& object) {
        return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
    };
    const auto alive = [](const QString& at, const QString& token) {
        return call(norva_sdk_select_share, {}, at, token)["status"].toInt() == 200;
    };
    LocalService service;
    const QString data = folder.filePath("data-password-race");
    QVERIFY(service.start(data));
    int userId = 0;
    const QString changer = login(service.address, &userId);
    QString password = "norva";
    int survivors = 0;
    for (int trial = 0; trial < 40; ++trial) {
        const QString next = QStringLiteral("race-%1").arg(trial);
        Client client;
        const std::unique_ptr<CallReply> racing(client.call("login", compact({{"ipconfig", service.address},
            {"username", "norva"}, {"password", password}})));
        const std::unique_ptr<CallReply> change(client.call("update_password", compact({{"ipconfig", service.address},
            {"token", changer}, {"userid", userId}, {"new_pwd", next}})));
        QTRY_VERIFY_WITH_TIMEOUT(racing->isFinished() && change->isFinished(), 20000);
        QVERIFY2(change->result().find(R"("status":200)") != std::string::npos, change->result().c_str());
        const QString raced = QJsonDocument::fromJson(QByteArray::fromStdString(racing->result()))
                                  .object()["data"].toObject()["token"].toString();
        survivors += !raced.isEmpty() && alive(service.address, raced);
        password = next;
    }
    QCOMPARE(survivors, 0);

    // Killed during a change: the password and the tokens agree afterwards.
    for (int trial = 0; trial < 8; ++trial) {
        LocalService killed;
        QVERIFY(killed.start(data));
        const QString mine = call(norva_sdk_login, {{"username", "norva"}, {"password", password}}, killed.address)["data"]
                                 .toObject()["token"].toString();
        const QString other = call(norva_sdk_login, {{"username", "norva"}, {"password", password}}, killed.address)["data"]
                                  .toObject()["token"].toString();
        QVERIFY(!mine.isEmpty() && !other.isEmpty());
        const QString next = QStringLiteral("killed-%1").arg(trial);
        Client client;
        const std::unique_ptr<CallReply> change(client.call("update_password", compact({{"ipconfig", killed.address},
            {"token", mine}, {"userid", userId}, {"new_pwd", next}})));
        QTest::qWait(trial * 15);
        killed.process.kill();
        killed.process.waitForFinished(5000);
        LocalService restarted;
        QVERIFY(restarted.start(data));
        const bool changed = !call(norva_sdk_login, {{"username", "norva"}, {"password", next}}, restarted.address)["data"]
                                  .toObject()["token"].toString().isEmpty();
        QVERIFY2(!(changed && alive(restarted.address, other)), qPrintable(QString::number(trial)));
        if (changed)
            password = next;
        else
            QVERIFY(alive(restarted.address, other));
    }
}

// What the service remembers of failed logins stays bounded whatever names
// come (20,000 distinct 15 KB names once took it from 14 to 317 MiB), and a
// name being guessed at still slows down.
void EndToEndTest::failedLoginsAreRememberedWithinBounds()
{
    using norva::service::LoginFailures;
    using std::chrono::seconds;
    LoginFailures failures;
    for (int i = 0; i < 20; ++i)
        failures.failed("ada");
    QCOMPARE(failures.waitBeforeAnswering("ada"), seconds(10));
    const std::string padding(15000, 'n');
    for (int i = 0; i < 20000; ++i)
        failures.failed(padding + std::to_string(i));
    QCOMPARE(failures.namesKept(), LoginFailures::mostNames);
    QCOMPARE(failures.waitBeforeAnswering("ada"), seconds(0)); // the oldest went first
    for (int i = 0; i < 6; ++i)
        failures.failed("bob");
    QCOMPARE(failures.waitBeforeAnswering("bob"), seconds(2));
    QCOMPARE(failures.waitBeforeAnswering(padding + "19999"), seconds(0));
}

// An upload answered from its head (a token that is no token) while the
// library still sends its 100 MiB: the service reads and drops the rest, so the
// answer arrives, rather than a reset that reads as "Server shuts down".
void EndToEndTest::earlyAnswersReachTheClient()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-early")));
    const QString big = folder.filePath("early-100MiB.brd");
    {
        QFile file(big);
        QVERIFY(file.open(QIODevice::WriteOnly));
        const QByteArray block(1 << 20, 'b');
        for (int i = 0; i < 100; ++i)
            QVERIFY(file.write(block) == block.size());
    }
    const QJsonObject result = call(norva_sdk_upload_file, {{"file_uploadpath", big}}, service.address, "no-such-token");
    QCOMPARE(QJsonDocument(result).toJson(QJsonDocument::Compact), QByteArray(R"({"message":"token expired","status":402})"));
    QFile::remove(big);
}

// 200 logins at once, each on a connection of its own: those past the few
// that may wait for a hash are turned away at once (503) rather than holding
// the workers, and another user's query meanwhile is answered.
void EndToEndTest::aLoginFloodHoldsUpNobody()
{
    LocalService service;
    // Hashes slowed by 3 s each (waited out side by side), so that the flood
    // piles up however slowly its logins reach the hash on a busy machine: at
    // 300 ms, logins that came paced out over a few seconds all got in.
    QVERIFY(service.start(folder.filePath("data-login-flood"), {"--slow-hash-ms", "3000"}));
    const QString token = login(service.address);
    const quint16 port = service.address.section(':', 1).toUShort();
    const QByteArray body = R"({"userName":"norva","userPwd":"norva"})";
    const QByteArray request = "POST /kvr/authority/login HTTP/1.1\r\nHost: s\r\nContent-Type: application/json\r\n"
                               "Connection: close\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    std::vector<std::unique_ptr<QTcpSocket>> logins;
    for (int i = 0; i < 200; ++i) {
        logins.push_back(std::make_unique<QTcpSocket>());
        logins.back()->connectToHost("127.0.0.1", port);
    }
    // Each request leaves now: unflushed, a socket would send only when the
    // loop below waits on it, one login at a time.
    for (const auto& socket : logins) {
        QVERIFY(socket->waitForConnected(5000));
        socket->write(request);
        QVERIFY(socket->waitForBytesWritten(5000));
    }
    QCOMPARE(call(norva_sdk_select_share, {}, service.address, token)["status"].toInt(), 200);
    int in = 0, away = 0;
    for (const auto& socket : logins) {
        QByteArray answer;
        while (socket->state() == QAbstractSocket::ConnectedState && socket->waitForReadyRead(30000))
            answer += socket->readAll();
        answer += socket->readAll();
        in += answer.startsWith("HTTP/1.1 200");
        away += answer.startsWith("HTTP/1.1 503") && answer.contains("Retry-After: 1");
    }
    qInfo("%d logged in, %d turned away", in, away);
    QVERIFY2(in >= 8 && away >= 1, qPrintable(QString("%1 in, %2 turned away").arg(in).arg(away)));
    QCOMPARE(in + away, 200);
}

void EndToEndTest::slowClientsHoldNothing()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-slow"), {"--idle-seconds", "2"}));
    const quint16 port = service.address.section(':', 1).toUShort();
    std::vector<std::unique_ptr<QTcpSocket>> halfHeads;
    for (int i = 0; i < 300; ++i) {
        halfHeads.push_back(std::make_unique<QTcpSocket>());
        halfHeads.back()->connectToHost("127.0.0.1", port);
        QVERIFY(halfHeads.back()->waitForConnected(3000));
        halfHeads.back()->write("POST /kvr/share/selectShare HTTP/1.1\r\nHost: x\r\n");
        halfHeads.back()->flush();
    }
    const QString token = login(service.address);
    QVERIFY(!token.isEmpty());
    QCOMPARE(call(norva_sdk_select_share, {}, service.address, token)["status"].toInt(), 200);

    // 300 bodies that come a byte at a time, never quiet for the idle limit:
    // more than there are workers, yet they hold none, and a query meanwhile
    // is answered while every one of them is still open.
    std::vector<std::unique_ptr<QTcpSocket>> slowBodies;
    for (int i = 0; i < 300; ++i) {
        slowBodies.push_back(std::make_unique<QTcpSocket>());
        slowBodies.back()->connectToHost("127.0.0.1", port);
        QVERIFY(slowBodies.back()->waitForConnected(3000));
        slowBodies.back()->write("POST /kvr/authority/login HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
                                 "Content-Length: 16000\r\n\r\n{");
        slowBodies.back()->flush();
    }
    QTimer feed;
    QObject::connect(&feed, &QTimer::timeout, [&slowBodies] {
        for (const auto& socket : slowBodies)
            socket->write(" ");
    });
    feed.start(300);
    QTest::qWait(600);
    QCOMPARE(callAsync("select_share", {}, service.address, token)["status"].toInt(), 200);
    for (const auto& socket : slowBodies)
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    feed.stop();
    slowBodies.clear();

    QTcpSocket trickle;
    trickle.connectToHost("127.0.0.1", port);
    QVERIFY(trickle.waitForConnected(3000));
    for (int i = 0; i < 40 && trickle.state() == QAbstractSocket::ConnectedState; ++i) {
        trickle.write("X");
        trickle.waitForDisconnected(250);
    }
    QCOMPARE(trickle.state(), QAbstractSocket::UnconnectedState); // within 2 s, not after 10
    for (const auto& socket : halfHeads) {
        if (socket->state() != QAbstractSocket::UnconnectedState)
            QVERIFY(socket->waitForDisconnected(5000));
    }
}

// Bodies held in memory count against one bound for the whole service: while
// one client's body holds most of it, another's that would pass it is answered
// 503 from its head; once the first is done, the second gets through.
void EndToEndTest::bodiesInMemoryAreBounded()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-memory"), {"--max-memory-mb", "1"}));
    const QString token = login(service.address);
    const quint16 port = service.address.section(':', 1).toUShort();
    const auto headOf = [&token](const QByteArray& path, const QByteArray& type, const QByteArray& body) {
        return "POST " + path + " HTTP/1.1\r\nHost: s\r\nContent-Type: " + type + "\r\nConnection: close\r\ntoken: " + token.toUtf8()
               + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n";
    };
    const QByteArray body = "id=1&pad=" + QByteArray(700000, 'x');
    const QByteArray head = headOf("/kvr/share/deleteShare", "application/x-www-form-urlencoded", body);
    const auto answer = [](QTcpSocket& socket) {
        QByteArray bytes;
        while (socket.waitForReadyRead(5000))
            bytes += socket.readAll();
        return bytes;
    };
    QTcpSocket first, second;
    first.connectToHost("127.0.0.1", port);
    QVERIFY(first.waitForConnected(3000));
    first.write(head + body.left(1000)); // the rest later: its share stays held
    QVERIFY(first.waitForBytesWritten(3000));
    QTest::qWait(500); // the first head is read and its share taken
    second.connectToHost("127.0.0.1", port);
    QVERIFY(second.waitForConnected(3000));
    second.write(head + body);
    QVERIFY(answer(second).startsWith("HTTP/1.1 503"));
    first.write(body.mid(1000));
    QVERIFY(answer(first).startsWith("HTTP/1.1 200"));
    QTcpSocket third;
    third.connectToHost("127.0.0.1", port);
    QVERIFY(third.waitForConnected(3000));
    third.write(head + body);
    QVERIFY(answer(third).startsWith("HTTP/1.1 200"));

    // A JSON body counts with its parsed form, about ten times the text: 80 KB
    // of JSON fits the bound of 1 MiB, 100 KB does not.
    for (const int size : {80000, 100000}) {
        const QByteArray json = "[" + QByteArray(size - 2, ' ') + "]";
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", port);
        QVERIFY(socket.waitForConnected(3000));
        socket.write(headOf("/kvr/share/insertMultipleShare", "application/json", json) + json);
        QVERIFY2(answer(socket).startsWith(size == 80000 ? "HTTP/1.1 200" : "HTTP/1.1 503"), QByteArray::number(size));
    }
}

// A batch that fails half way (a statement that can't run, a full disk) leaves
// none of its rows, and the next one goes in whole.
void EndToEndTest::aBatchThatFailsLeavesNoRows()
{
    norva::service::Database db;
    std::string error;
    QVERIFY(db.open(folder.filePath("batch.sqlite3").toStdString(), error));
    db.execute("CREATE TABLE shares(id INTEGER PRIMARY KEY AUTOINCREMENT, userId)");
    const auto batch = [&db](const std::vector<const char*>& tables) {
        try {
            norva::service::Transaction transaction(db);
            for (const char* table : tables)
                db.change(std::string("INSERT INTO ") + table + "(userId) VALUES(?)", {1});
            transaction.commit();
        } catch (const std::exception&) {
        }
        return db.query("SELECT COUNT(*) AS n FROM shares").first().toObject()["n"].toInt();
    };
    QCOMPARE(batch({"shares", "shares", "no_such_table", "shares"}), 0);
    QCOMPARE(batch({"shares", "shares"}), 2);
}

void EndToEndTest::badRequests_data()
{
    QTest::addColumn<bool>("tls");
    QTest::newRow("HTTP") << false;
    QTest::newRow("HTTPS") << true;
}

// The same limits over HTTP and over HTTPS, where a connection that starts no
// handshake is closed as one that sends no request is.
void EndToEndTest::badRequests()
{
    QFETCH(bool, tls);
    LocalService service;
    QVERIFY(startTls(service, tls ? "limits-tls" : "limits", tls ? &certificates().trusted : nullptr,
                     {"--max-body-mb", "1", "--idle-seconds", "1"}));
    // Every exchange ends with the service closing the connection.
    const auto rawExchange = [&service, tls](const QByteArray& request) {
        QSslSocket socket;
        const quint16 port = service.address.section(':', 1).toUShort();
        if (tls && !request.isEmpty())
            socket.connectToHostEncrypted("127.0.0.1", port);
        else
            socket.connectToHost("127.0.0.1", port);
        if (!(tls && !request.isEmpty() ? socket.waitForEncrypted(3000) : socket.waitForConnected(3000)))
            return "not connected: " + socket.errorString().toUtf8();
        socket.write(request);
        socket.waitForBytesWritten(3000);
        QByteArray answer;
        while (socket.waitForReadyRead(3000))
            answer += socket.readAll();
        return socket.state() == QAbstractSocket::UnconnectedState ? answer : "still open after " + answer;
    };
    const QByteArray json = "POST /kvr/authority/login HTTP/1.1\r\nHost: s\r\nContent-Type: application/json\r\n";
    const QByteArray models = "GET /tavlin/tavlinModel/selectAllModel HTTP/1.1\r\n";
    const struct {
        QByteArray request;
        QByteArray answer; // how the answer starts
        int answers;
        QByteArray holds = {}; // what the answer must hold beside
    } exchanges[] = {
        {"GARBAGE\r\n\r\n", "HTTP/1.1 400", 1},
        {"POST /kvr/authority/login HTTP/1.1\r\nHost: s\r\nContent-Length: many\r\n\r\n", "HTTP/1.1 400", 1},
        {json + "Content-Length: 3\r\nConnection: close\r\n\r\n{x}", "HTTP/1.1 200", 1}, // {"code":400,...}
        {"GET /nowhere HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n", "HTTP/1.1 404", 1},
        // The head limit: 64 KiB of fields.
        {"GET /x HTTP/1.1\r\nHost: s\r\nX-Long: " + QByteArray(70000, 'x') + "\r\n\r\n", "HTTP/1.1 431", 1},
        // Over --max-body-mb 1: refused from the head, before any of the body.
        {"POST /kvr/originalFile/uploadFile HTTP/1.1\r\nHost: s\r\nContent-Type: multipart/form-data; boundary=b\r\n"
         "Content-Length: 1048577\r\n\r\n", "HTTP/1.1 413", 1},
        // Two requests in one write: both answered, in order, on one connection.
        {json + "Content-Length: 3\r\n\r\n{x}" + json + "Content-Length: 3\r\nConnection: close\r\n\r\n{x}", "HTTP/1.1 200", 2},
        // Answered from the head alone, and closed: no token, no such path, more
        // than a route without a token takes. None of the body is read.
        {"POST /kvr/originalFile/uploadFile HTTP/1.1\r\nHost: s\r\nContent-Type: multipart/form-data; boundary=b\r\n"
         "Content-Length: 900000\r\n\r\n", "HTTP/1.1 402", 1},
        {"POST /kvr/nowhere HTTP/1.1\r\nHost: s\r\nContent-Length: 900000\r\n\r\n", "HTTP/1.1 404", 1},
        {json + "Content-Length: 100000\r\n\r\n", "HTTP/1.1 413", 1},
        // HTTP/1.1's rules for heads: one Host, chunked only and last (a body
        // under another coding would be read as the next request), and no
        // expectation but 100-continue, which is met once the head passed.
        {"GET /tavlin/tavlinModel/selectAllModel HTTP/1.1\r\nConnection: close\r\n\r\n", "HTTP/1.1 400", 1},
        {models + "Host: s\r\nHost: t\r\nConnection: close\r\n\r\n", "HTTP/1.1 400", 1},
        {json + "Transfer-Encoding: gzip\r\n\r\nGET /x HTTP/1.1\r\nHost: s\r\n\r\n", "HTTP/1.1 501", 1},
        {json + "Transfer-Encoding: chunked, gzip\r\n\r\n3\r\n{x}\r\n0\r\n\r\n", "HTTP/1.1 400", 1},
        {json + "Expect: something\r\nContent-Length: 3\r\n\r\n{x}", "HTTP/1.1 417", 1},
        // What is held unparsed is bounded: a chunk extension or a trailer
        // past it is refused, not buffered whole.
        {json + "Transfer-Encoding: chunked\r\n\r\n2;" + QByteArray(200000, 'e') + "\r\n{}\r\n0\r\n\r\n", "HTTP/1.1 400", 1},
        {json + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\nX-T: " + QByteArray(200000, 't') + "\r\n\r\n",
         "HTTP/1.1 400", 1},
        {json + "Expect: 100-continue\r\nContent-Length: 3\r\nConnection: close\r\n\r\n{x}", "HTTP/1.1 100 Continue", 2},
        // An absolute-form target, and HEAD where GET is answered: GET's head, no body.
        {"GET http://s/tavlin/tavlinModel/selectAllModel HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n",
         "HTTP/1.1 200", 1, "\"code\":200"},
        {"HEAD /tavlin/tavlinModel/selectAllModel HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n", "HTTP/1.1 200", 1,
         "\r\nContent-Length: "},
        {QByteArray(models).replace("GET", "POST") + "Host: s\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", "HTTP/1.1 405", 1,
         "Allow: GET, HEAD"},
        // Half a head, then silence: closed after --idle-seconds 1.
        {"GET /x HTTP/1.1\r\n", "", 0},
        // Nothing at all (over HTTPS, no handshake): closed as well.
        {"", "", 0},
    };
    for (const auto& exchange : exchanges) {
        const QByteArray answer = rawExchange(exchange.request);
        QVERIFY2(answer.startsWith(exchange.answer), (exchange.request.left(120) + " -> " + answer.left(200)).constData());
        QCOMPARE(answer.count("HTTP/1.1 "), exchange.answers);
        QVERIFY2(answer.contains(exchange.holds), (exchange.request.left(60) + " -> " + answer.left(400)).constData());
        if (exchange.request.startsWith("HEAD"))
            QVERIFY2(answer.endsWith("\r\n\r\n"), answer.constData()); // the head alone
    }
    // Nothing of the refused bodies was kept.
    const QDir incoming(folder.filePath(tls ? "data-limits-tls/incoming" : "data-limits/incoming"));
    QVERIFY(incoming.exists() && incoming.isEmpty());
}

const TestCertificates& EndToEndTest::certificates()
{
    if (made)
        return *made;
    using norva::service::CertificateRequest;
    std::string error;
    const auto make = [&error](CertificateRequest request) {
        const norva::service::PemPair pair = norva::service::makeCertificate(request, error);
        if (pair.certificate.empty())
            qFatal("cannot make a test certificate: %s", error.c_str());
        return pair;
    };
    auto c = std::make_unique<TestCertificates>();
    c->authority = make({"test authority", {}, true});
    c->stranger = make({"another authority", {}, true});
    CertificateRequest service{"service", {"127.0.0.1", "localhost"}};
    service.issuer = &c->authority;
    c->trusted = make(service);
    c->expired = make([service] {
        CertificateRequest r = service;
        r.validFromSeconds = -2 * 86400;
        r.validForSeconds = 86400;
        return r;
    }());
    c->wrongHost = make([service] {
        CertificateRequest r = service;
        r.hosts = {"elsewhere.example"};
        return r;
    }());
    c->untrusted = make([&c, service] {
        CertificateRequest r = service;
        r.issuer = &c->stranger;
        return r;
    }());
    // Trusted as a Qt host trusts its own authority.
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(QSslCertificate::fromData(QByteArray::fromStdString(c->authority.certificate)));
    QSslConfiguration::setDefaultConfiguration(configuration);
    made = std::move(c);
    return *made;
}

void EndToEndTest::https_data()
{
    QTest::addColumn<TlsRow>("row");
    const QString https = "https://", http = "http://";
    for (const TlsRow& row : {
             TlsRow{"trusted", &TestCertificates::trusted, https, true},
             TlsRow{"another authority's", &TestCertificates::untrusted, https, false},
             TlsRow{"expired", &TestCertificates::expired, https, false},
             TlsRow{"for another host", &TestCertificates::wrongHost, https, false},
             TlsRow{"plain HTTP to the TLS port", &TestCertificates::trusted, http, false},
             TlsRow{"TLS to the plain port", nullptr, https, false},
             TlsRow{"no scheme to the plain port", nullptr, QString(), true},
         })
        QTest::newRow(row.name.constData()) << row;
}

// Login, upload, download and a query, through both faces. A service whose
// certificate does not check out, or that speaks the other protocol, gets the
// result of a service that never answered, for every operation; a login with
// the right password that was refused shows that it never reached the service.
void EndToEndTest::https()
{
    QFETCH(TlsRow, row);
    const TestCertificates& c = certificates();
    LocalService service;
    const QString name = "tls-" + QString::fromLatin1(row.name).replace(' ', '-');
    if (row.certificate == &TestCertificates::expired) {
        // The service does not start with it: every client would refuse it.
        QVERIFY(!startTls(service, name, &c.expired));
        service.process.waitForFinished(5000);
        QVERIFY(service.process.readAllStandardError().contains(".crt is expired; serve with one that is valid now"));
        return;
    }
    // The trusted service runs under a memory bound of 1 MiB, which a dozen
    // TLS sessions fill, beside 40 connections that each hold half of a
    // client's hello: no session is made for a hello until it has come, so
    // they hold a little of the bound, and every call still goes through.
    const bool bounded = row.certificate == &TestCertificates::trusted && row.scheme == "https://";
    QVERIFY(startTls(service, name, row.certificate ? &(c.*row.certificate) : nullptr,
                     bounded ? QStringList{"--max-memory-mb", "1"} : QStringList()));
    std::vector<std::unique_ptr<QTcpSocket>> halfHellos;
    for (int i = 0; bounded && i < 40; ++i) {
        halfHellos.push_back(std::make_unique<QTcpSocket>());
        halfHellos.back()->connectToHost("127.0.0.1", service.address.section(':', 1).toUShort());
        QVERIFY(halfHellos.back()->waitForConnected(3000));
        halfHellos.back()->write(QByteArray("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11));
        QVERIFY(halfHellos.back()->waitForBytesWritten(3000));
    }
    const QString at = row.scheme + service.address;
    const QString nobody = row.scheme + "127.0.0.1:1";

    const QString source = folder.filePath(name + ".gbr");
    const QByteArray bytes = QByteArray(300000, 'g') + "\r\n";
    writeFile(source, bytes);
    const QString into = folder.filePath(name + "-down");
    QDir().mkpath(into);
    int userId = 0;
    const QString token = row.reachable ? login(at, &userId) : QString("not-a-token");
    QCOMPARE(token.isEmpty(), false);
    const QJsonObject uploaded = call(norva_sdk_upload_file,
                                      {{"file_uploadpath", source}, {"data", QJsonObject{{"fileInfo", QJsonObject{{"createuserid", 1}}}}}},
                                      at, token);
    const int board = row.reachable ? uploaded["Board_Id"].toInt() : 1;
    const QJsonObject download{{"file_downloadpath", into}, {"data", QJsonObject{{"id", board}, {"userId", userId}}}};
    const QJsonObject results[] = {
        call(norva_sdk_login, {{"username", "norva"}, {"password", "norva"}}, at),
        uploaded,
        call(norva_sdk_download_binary_file, download, at, token),
        callAsync("norva_sdk_download_binary_file", download, at, token),
        call(norva_sdk_select_origfiles_manage, {{"board_id", board}}, at, token),
        callAsync("select_origfiles_manage", {{"board_id", board}}, at, token),
    };
    if (row.reachable) {
        for (const QJsonObject& result : results)
            QVERIFY2(result["status"].toInt() == 200, QJsonDocument(result).toJson().constData());
        QCOMPARE(readFile(into + "/" + name + ".gbr"), bytes);
        QCOMPARE(results[4]["data"].toArray().size(), 1);
        if (row.scheme != "https://")
            return;
        // A client's kept connection follows the host's trust: once the
        // authority is withdrawn the next call is refused, and once it is back
        // the next call goes through.
        Client kept;
        const auto query = [&] { return callAsync("select_origfiles_manage", {{"board_id", board}}, at, token, &kept).value("message"); };
        const QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
        QSslConfiguration withdrawn = trusting;
        withdrawn.setCaCertificates(QSslConfiguration::systemCaCertificates());
        const QString answered = query().toString();
        QVERIFY(answered != "Server shuts down");
        QSslConfiguration::setDefaultConfiguration(withdrawn);
        QCOMPARE(query().toString(), QStringLiteral("Server shuts down"));
        QSslConfiguration::setDefaultConfiguration(trusting);
        QCOMPARE(query().toString(), answered);
        return;
    }
    const QJsonObject unanswered = call(norva_sdk_select_origfiles_manage, {}, nobody, token);
    QCOMPARE(unanswered["message"].toString(), QStringLiteral("Server shuts down"));
    for (const QJsonObject& result : results)
        QCOMPARE(result, unanswered);
    QVERIFY(QDir(into).isEmpty());
}

// Clients that send a whole TLS hello and then nothing: past the handshakes
// allowed at once, the oldest is ended for the newest, so a real client that
// comes after them gets its answer.
void EndToEndTest::aHandshakeFloodCrowdsOutNobody()
{
    const TestCertificates& c = certificates();
    const QString certificate = folder.filePath("flood.crt"), key = folder.filePath("flood.key");
    writeFile(certificate, QByteArray::fromStdString(c.trusted.certificate));
    writeFile(key, QByteArray::fromStdString(c.trusted.key));
    std::string error;
    norva::service::HttpLimits limits;
    limits.tls = norva::service::loadTlsContext(certificate.toStdString(), key.toStdString(), error);
    QVERIFY2(limits.tls, error.c_str());
    limits.handshakesAtOnce = 4;
    norva::service::HttpServer server(limits);
    QVERIFY(server.listen("127.0.0.1", 0, error));
    std::thread serving([&server] {
        server.serve([](const norva::service::HttpRequest&) { return norva::service::HttpResponse::text(200, "fine\n"); });
    });
    const quint16 port = quint16(server.port());
    // A hello as this Qt writes it, taken from a client of a plain listener.
    QByteArray hello;
    {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        QSslSocket client;
        client.connectToHostEncrypted("127.0.0.1", listener.serverPort());
        QVERIFY(client.waitForConnected(3000));
        client.flush();
        QVERIFY(listener.waitForNewConnection(3000));
        const std::unique_ptr<QTcpSocket> peer(listener.nextPendingConnection());
        while (peer->waitForReadyRead(3000)) {
            hello += peer->readAll();
            if (hello.size() >= 5 && hello.size() >= 5 + (int(quint8(hello[3])) << 8 | quint8(hello[4])))
                break;
        }
    }
    std::vector<std::unique_ptr<QTcpSocket>> stalled;
    for (int i = 0; i < 10; ++i) {
        stalled.push_back(std::make_unique<QTcpSocket>());
        stalled.back()->connectToHost("127.0.0.1", port);
        QVERIFY(stalled.back()->waitForConnected(3000));
        stalled.back()->write(hello);
        // The service's first flight: its handshake with this one is under way.
        QVERIFY(stalled.back()->waitForReadyRead(3000));
    }
    QSslSocket client;
    client.connectToHostEncrypted("127.0.0.1", port);
    const bool encrypted = client.waitForEncrypted(5000);
    client.write("GET /x HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (client.waitForReadyRead(3000))
        answer += client.readAll();
    int ended = 0;
    for (const auto& socket : stalled) {
        while (socket->state() == QAbstractSocket::ConnectedState && socket->waitForReadyRead(200))
            socket->readAll();
        ended += socket->state() != QAbstractSocket::ConnectedState;
    }
    server.stop();
    serving.join();
    QVERIFY(encrypted);
    QVERIFY2(answer.startsWith("HTTP/1.1 200"), answer.constData());
    QCOMPARE(ended, 7); // the six oldest for the later four, one more for the real client
}

// A download whose body runs to the close: over TLS it is whole only once the
// service ended TLS itself (close_notify). A bare TCP close may be anybody's
// cut, and a file cut so is not stored. Both faces.
void EndToEndTest::aTlsBodyEndsOnlyWithItsClose()
{
    const TestCertificates& c = certificates();
    class RunToTheClose final : public QTcpServer
    {
    public:
        bool notify = true;
        const TestCertificates* certificates = nullptr;

    protected:
        void incomingConnection(qintptr descriptor) override
        {
            auto* const socket = new QSslSocket(this);
            socket->setSocketDescriptor(descriptor);
            socket->setLocalCertificate(QSslCertificate(QByteArray::fromStdString(certificates->trusted.certificate)));
            socket->setPrivateKey(QSslKey(QByteArray::fromStdString(certificates->trusted.key), QSsl::Ec));
            connect(socket, &QSslSocket::readyRead, socket, [this, socket] {
                if (!socket->readAll().contains("\r\n\r\n"))
                    return;
                socket->write("HTTP/1.1 200 OK\r\nContent-Disposition: attachment;filename=cut.brd\r\n"
                              "Connection: close\r\n\r\n" + QByteArray(5000, 'c'));
                while (socket->bytesToWrite() > 0 || socket->encryptedBytesToWrite() > 0)
                    socket->waitForBytesWritten(1000);
                if (notify)
                    socket->disconnectFromHost();
                else
                    socket->abort();
            });
            socket->startServerEncryption();
        }
    } server;
    server.certificates = &c;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QString at = "https://127.0.0.1:" + QString::number(server.serverPort());
    for (const bool notify : {true, false}) {
        server.notify = notify;
        for (const bool async : {false, true}) {
            QTemporaryDir into;
            const QJsonObject download{{"file_downloadpath", into.path()}, {"data", QJsonObject{{"id", 1}}}};
            const QJsonObject result = async ? callAsync("download_binary_file", download, at, "tk")
                                             : call(norva_sdk_download_binary_file, download, at, "tk");
            const QString where = QString("notify %1, async %2: ").arg(notify).arg(async);
            QVERIFY2((result["status"].toInt() == 200) == notify, qPrintable(where + QJsonDocument(result).toJson()));
            QCOMPARE(readFile(into.filePath("cut.brd")), notify ? QByteArray(5000, 'c') : QByteArray("<missing>"));
        }
    }
}

// norva trusts the certificates of --cacert, else of NORVA_CACERT, else of the
// saved session, which login --save keeps; without them the service's own
// certificate is not trusted.
void EndToEndTest::norvaTrustsWhatItIsTold()
{
    LocalService service;
    QVERIFY(service.start(folder.filePath("data-tls-self-signed"), {"--tls-self-signed"}));
    const QString certificate = folder.filePath("data-tls-self-signed/tls-certificate.pem");
    QVERIFY(service.printed.contains("clients trust it with: norva --cacert " + certificate));
    QVERIFY(service.address.startsWith("https://127.0.0.1:"));
    const QString fingerprint =
        QSslCertificate::fromPath(certificate).value(0).digest(QCryptographicHash::Sha256).toHex(':').toUpper();
    QVERIFY(service.printed.contains("(SHA-256 " + fingerprint + ")"));
    // An end-entity certificate for the address it serves, and TLS 1.2 with
    // forward-secret AEAD suites only.
    const auto openssl = [](const QStringList& arguments) {
        QProcess tool;
        tool.start("openssl", arguments);
        tool.closeWriteChannel();
        tool.waitForFinished(10000);
        return std::make_pair(tool.exitCode(), tool.readAllStandardOutput());
    };
    const QByteArray fields = openssl({"x509", "-noout", "-text", "-in", certificate}).second;
    QVERIFY2(fields.contains("CA:FALSE") && !fields.contains("CA:TRUE") && fields.contains("IP Address:127.0.0.1"), fields);
    const QString connectTo = service.address.mid(int(strlen("https://")));
    for (const auto& [suite, taken] : {std::make_pair("ECDHE-ECDSA-AES128-GCM-SHA256", true),
                                       std::make_pair("ECDHE-ECDSA-AES128-SHA", false),
                                       std::make_pair("ECDHE-ECDSA-AES256-SHA384", false)}) {
        const int status = openssl({"s_client", "-connect", connectTo, "-tls1_2", "-cipher", suite}).first;
        QVERIFY2((status == 0) == taken, suite);
    }
    // Served again on the same address it is the same certificate; on
    // another, one made for that address.
    service.stop();
    LocalService again;
    QVERIFY(again.start(folder.filePath("data-tls-self-signed"), {"--tls-self-signed"}));
    QVERIFY(again.printed.contains("(SHA-256 " + fingerprint + ")"));
    again.stop();
    LocalService moved;
    QVERIFY(moved.start(folder.filePath("data-tls-self-signed"), {"--tls-self-signed", "--listen", "127.0.0.2:0"}));
    QVERIFY(moved.printed.contains("made a new TLS certificate for 127.0.0.2"));
    QVERIFY(openssl({"x509", "-noout", "-text", "-in", certificate}).second.contains("IP Address:127.0.0.2"));
    moved.stop();
    QVERIFY(service.start(folder.filePath("data-tls-self-signed"), {"--tls-self-signed"}));

    const QString config = folder.filePath("norva-config");
    int exitCode = -1;
    QByteArray said; // standard error
    const auto norva = [&](const QStringList& arguments, const QString& caFromEnvironment = {}) {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", config);
        environment.remove("NORVA_IPCONFIG");
        environment.remove("NORVA_TOKEN");
        environment.remove("NORVA_CACERT");
        if (!caFromEnvironment.isEmpty())
            environment.insert("NORVA_CACERT", caFromEnvironment);
        process.setProcessEnvironment(environment);
        process.start(NORVA_COMMAND_PATH, arguments);
        process.waitForFinished(20000);
        exitCode = process.exitCode();
        said = process.readAllStandardError();
        return QJsonDocument::fromJson(process.readAllStandardOutput()).object()["message"].toString();
    };
    const QStringList login{"login", "ipconfig=" + service.address, "username=norva", "password=norva"};
    QCOMPARE(norva(login), QStringLiteral("Server shuts down"));
    QCOMPARE(exitCode, 3);
    QVERIFY2(said.startsWith(("norva: The certificate of " + service.address + " is not trusted: ").toUtf8()), said);
    QCOMPARE(norva(login, certificate), QStringLiteral("login success"));
    QCOMPARE(norva(QStringList{"--cacert", folder.filePath("nothing.pem")} + login), QString()); // a usage error
    QCOMPARE(norva(QStringList{"--cacert", certificate} + login + QStringList{"--save"}), QStringLiteral("login success"));
    QCOMPARE(norva({"get_all_model_id"}), QStringLiteral("select all models success"));
    QCOMPARE(norva({"--no-session", "get_all_model_id", "ipconfig=" + service.address}), QStringLiteral("Server shuts down"));

    // The saved session's certificate file gone: every call says so, naming
    // the session file and --no-session, and logout still ends the session.
    const QString copy = folder.filePath("copy-of-the-certificate.pem");
    QVERIFY(QFile::copy(certificate, copy));
    QCOMPARE(norva(QStringList{"--cacert", copy} + login + QStringList{"--save"}), QStringLiteral("login success"));
    QVERIFY(QFile::remove(copy));
    QCOMPARE(norva({"get_all_model_id"}), QString());
    QCOMPARE(exitCode, 2);
    QVERIFY2(said.contains(("the saved session (" + config + "/norva/session.json) trusts " + copy).toUtf8())
                 && said.contains("--no-session"), said);
    norva({"logout"});
    QVERIFY2(said.contains("saved session removed"), said);
    QVERIFY(!QFile::exists(config + "/norva/session.json"));
}

// The norva lines of the README, run as they stand against a local service in
// a folder of their own: each succeeds, and the session fills in the
// logged-in user where the share names its user.
void EndToEndTest::readmeExamplesRunAsWritten()
{
    QFile readme(NORVA_README_PATH);
    QVERIFY(readme.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(readme.readAll());
    const int start = text.indexOf("```sh\n./build/tools/norva --list");
    QVERIFY(start >= 0);
    const QStringList lines = text.mid(start + 6, text.indexOf("```", start + 6) - start - 6).split('\n', Qt::SkipEmptyParts);
    QVERIFY(lines.size() >= 6);

    LocalService service;
    QVERIFY(service.start(folder.filePath("data-readme")));
    QTemporaryDir work;
    writeFile(work.filePath("big.brd"), boardBytes(300000));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", work.filePath("config"));
    environment.remove("NORVA_IPCONFIG");
    environment.remove("NORVA_TOKEN");
    environment.remove("NORVA_CACERT");
    QByteArray shares;
    for (QString line : lines) {
        line.replace("./build/tools/norva", NORVA_COMMAND_PATH).replace("127.0.0.1:8765", service.address);
        QProcess shell;
        shell.setProcessEnvironment(environment);
        shell.setWorkingDirectory(work.path());
        shell.start("bash", {"-c", line});
        QVERIFY(shell.waitForFinished(20000));
        const QByteArray out = shell.readAllStandardOutput();
        QVERIFY2(shell.exitCode() == 0, qPrintable(line + ": " + out + shell.readAllStandardError()));
        if (line.contains("select_share"))
            shares = out;
    }
    // The README's add2share gives no user: the session's (norva, 1) stands in the share.
    QVERIFY2(shares.contains(R"("userId": 1)"), shares);
}

QTEST_GUILESS_MAIN(EndToEndTest)
#include "test_end_to_end.moc"
