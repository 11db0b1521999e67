// The norva command as a shell user runs it: sessions, key=value words, and
// Ctrl-C.
#include "support/harness.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace testing_support;

namespace {

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

struct SessionRow {
    QByteArray name;
    QString savedSession; // the file's text; empty for none
    QStringList environment;
    QStringList arguments;
    int exitCode;
    QByteArray body;  // null: nothing may be sent
    QByteArray token; // the token header
};

} // namespace

Q_DECLARE_METATYPE(SessionRow)

class NorvaCommandTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        service.reset();
        home.reset(new QTemporaryDir);
        QDir(home->path()).mkpath(QStringLiteral("config/norva"));
    }

    void documentAndSession_data();
    void documentAndSession();
    void loginSavesAndLogoutForgets();
    void ctrlCCancelsTheCall();
    void batchKeepsTheOrderOfItsLines();

private:
    QString sessionPath() const { return home->filePath(QStringLiteral("config/norva/session.json")); }
    QProcessEnvironment environment(const QStringList& extra = {}) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("NORVA_IPCONFIG"));
        env.remove(QStringLiteral("NORVA_TOKEN"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home->filePath(QStringLiteral("config")));
        for (const QString& pair : extra)
            env.insert(pair.section(QLatin1Char('='), 0, 0), substitute(pair.section(QLatin1Char('='), 1)));
        return env;
    }
    QString substitute(QString text) const { return text.replace(QLatin1String("$ADDR"), service.address()); }
    Run norva(const QStringList& arguments, const QStringList& environmentPairs = {})
    {
        QProcess process;
        process.setProcessEnvironment(environment(environmentPairs));
        QStringList substituted;
        for (const QString& argument : arguments)
            substituted << substitute(argument);
        process.start(QStringLiteral(NORVA_COMMAND_PATH), substituted);
        process.closeWriteChannel();
        if (!process.waitForFinished(20000))
            return {};
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

    TestService service;
    QScopedPointer<QTemporaryDir> home;
};

void NorvaCommandTest::documentAndSession_data()
{
    const QString saved = R"({"ipconfig":"$ADDR","token":"saved"})";
    const QStringList fromEnvironment{"NORVA_IPCONFIG=$ADDR", "NORVA_TOKEN=env"};
    addRows(std::vector<SessionRow>{
        {"pairs with JSON values", "", fromEnvironment, {"add2share", "boardid=4", "sharewith_id=2", "sharetype=1"}, 0,
         R"({"acsType":1,"acsTypeId":2,"brdId":4,"userId":0})", "env"},
        {"pairs with text, arrays and nesting", "", {},
         {"select_share", "ipconfig=$ADDR", "token=t", "boardname=top 7", "userid=[1,2]", "start_time=2024-01-01", "end_time=null"}, 0,
         R"({"brdName":"top 7","currentUserId":0,"endTime":null,"startTime":"2024-01-01","userId":[1,2]})", "t"},
        {"nested pairs", saved, {}, {"delete_share", "data.id=5", "data.userId=3"}, 0, "id=5&userId=3", "saved"},
        {"saved session fills a document", saved, {}, {"delete_share", "{}"}, 0, "id=0&userId=0", "saved"},
        {"environment over the file", saved, {"NORVA_TOKEN=env"}, {"delete_share"}, 0, "id=0&userId=0", "env"},
        {"the document's own keys first", saved, {"NORVA_TOKEN=env"}, {"delete_share", R"({"token":"own","data":{"id":1}})"}, 0,
         "id=1&userId=0", "own"},
        {"--no-session uses neither", saved, fromEnvironment, {"--no-session", "delete_share"}, 1, QByteArray(), QByteArray()},
        {"a word that is no pair", saved, {}, {"delete_share", "data.id"}, 2, QByteArray(), QByteArray()},
        {"a key both value and object", saved, {}, {"delete_share", "data=1", "data.id=2"}, 2, QByteArray(), QByteArray()},
    });
}

void NorvaCommandTest::documentAndSession()
{
    QFETCH(SessionRow, row);
    if (!row.savedSession.isEmpty())
        writeFile(sessionPath(), substitute(row.savedSession).toUtf8());
    service.setDefaultReply(ScriptedReply::json(R"({"code":200})"));
    const Run run = norva(row.arguments, row.environment);
    QCOMPARE(run.exitCode, row.exitCode);
    QCOMPARE(service.requestCount(), row.body.isNull() ? 0 : 1);
    if (!row.body.isNull()) {
        QCOMPARE(service.lastRequest().body, row.body);
        QCOMPARE(service.lastRequest().header("token"), row.token);
    }
}

void NorvaCommandTest::loginSavesAndLogoutForgets()
{
    service.script(ScriptedReply::json(R"({"code":200,"data":{"token":"tk9","userId":12}})"));
    Run run = norva({"login", "ipconfig=$ADDR", "username=ada", "password=pw", "--save"});
    QCOMPARE(run.exitCode, 0);
    QFile saved(sessionPath());
    QCOMPARE(saved.permissions() & 0x0777, QFileDevice::ReadUser | QFileDevice::WriteUser);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    const QByteArray text = saved.readAll();
    QVERIFY2(text.contains(R"("token": "tk9")") && text.contains(substitute(R"("ipconfig": "$ADDR")").toUtf8()), text);
    saved.close();

    // A failed login leaves the saved session alone.
    service.script(ScriptedReply::json(R"({"code":411,"msg":"wrong"})"));
    run = norva({"login", "ipconfig=$ADDR", "username=ada", "password=no", "--save"});
    QCOMPARE(run.exitCode, 1);
    QVERIFY(run.err.contains("not saved"));
    QVERIFY(QFile::exists(sessionPath()));

    // Logging out says who (the saved user id) and forgets the session.
    service.script(ScriptedReply::json(R"({"code":200,"data":12})"));
    run = norva({"logout"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(service.lastRequest().body, QByteArray(R"({"id":12})"));
    QVERIFY(!QFile::exists(sessionPath()));
}

// Ctrl-C cancels through the library: the cancelled result, exit status 130,
// and nothing stored beside the earlier file of that name.
void NorvaCommandTest::ctrlCCancelsTheCall()
{
    service.setDefaultReply(ScriptedReply::rawThenSilent(
        "HTTP/1.1 200 OK\r\nContent-Disposition: attachment;filename=board.brd\r\nContent-Length: 900000\r\n\r\n"
        + boardBytes(300000)));
    writeFile(home->filePath(QStringLiteral("board.brd")), "earlier");

    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(QStringLiteral(NORVA_COMMAND_PATH), {"download_binary_file", "ipconfig=" + service.address(),
                                                       "file_downloadpath=" + home->path(), "data.id=1"});
    QVERIFY(process.waitForStarted());
    QTRY_COMPARE_WITH_TIMEOUT(service.requestCount(), 1, 10000);
    QTest::qWait(200); // the first part of the body is on its way
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 130);
    QCOMPARE(process.readAllStandardOutput(), QByteArray("{\"message\":\"request cancelled\",\"status\":400}\n"));
    QCOMPARE(QDir(home->path()).entryList(QDir::Files | QDir::Hidden), QStringList{"board.brd"});
    QCOMPARE(readFile(home->filePath(QStringLiteral("board.brd"))), QByteArray("earlier"));
}

// A batch prints one result a line in the order of its input, whatever order
// the replies came in; one failing line makes the exit status 1.
void NorvaCommandTest::batchKeepsTheOrderOfItsLines()
{
    service.setDefaultReply(ScriptedReply::echo(30));
    const auto line = [](int user) {
        return QStringLiteral(R"({"operation":"select_share","argument":{"currentUserId":%1}})").arg(user);
    };
    QStringList good;
    for (int user = 0; user < 12; ++user)
        good << line(user);
    const QString file = home->filePath(QStringLiteral("batch.jsonl"));
    const QStringList mixed{line(1), R"({"operation":"no_such_thing","argument":{}})", "", "not json", line(2)};
    const struct {
        QStringList lines;
        QStringList options;
        int exitCode;
        int requests;
    } rows[] = {
        {good, {"--jobs", "4"}, 0, 12},
        {mixed, {"--jobs", "4"}, 1, 2},
        {mixed, {"--blocking"}, 1, 2}, // the same lines from the blocking functions
    };
    for (const auto& row : rows) {
        service.reset();
        service.setDefaultReply(ScriptedReply::echo(30));
        writeFile(file, row.lines.join(QLatin1Char('\n')).toUtf8());
        const Run run = norva(QStringList{"batch"} + row.options + QStringList{file}, {"NORVA_IPCONFIG=$ADDR", "NORVA_TOKEN=tk"});
        QCOMPARE(run.exitCode, row.exitCode);
        QCOMPARE(service.requestCount(), row.requests);
        const QList<QByteArray> results = run.out.trimmed().split('\n');
        QStringList expected;
        for (const QString& sent : row.lines) {
            if (sent.isEmpty())
                continue;
            const int user = sent.contains("currentUserId") ? sent.section(':', -1).remove('}').toInt() : -1;
            expected << (user >= 0 ? QStringLiteral("status 200 user %1").arg(user) : QStringLiteral("status 400"));
        }
        QStringList seen;
        for (const QByteArray& result : results) {
            const QJsonObject document = QJsonDocument::fromJson(result).object();
            const QJsonObject sent = QJsonDocument::fromJson(document.value("data").toString().toUtf8()).object();
            seen << (document.value("status").toInt() == 200
                         ? QStringLiteral("status 200 user %1").arg(sent.value("currentUserId").toInt())
                         : QStringLiteral("status %1").arg(document.value("status").toInt()));
        }
        QCOMPARE(seen, expected);
    }
}

QTEST_GUILESS_MAIN(NorvaCommandTest)
#include "test_norva_command.moc"
