// SPDX-License-Identifier: MIT
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

struct ExitRow {
    QByteArray name;
    QStringList arguments;
    ScriptedReply reply;
    QByteArray input; // standard input
    int exitCode;
    QStringList said;  // what standard error must hold
    bool sent;         // whether a request reached the service
    QByteArray body;   // what it must hold, when sent
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
Q_DECLARE_METATYPE(ExitRow)

class NorvaCommandTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        service.reset();
        refused = refusedAddress();
        home.reset(new QTemporaryDir);
        QDir(home->path()).mkpath(QStringLiteral("config/norva"));
    }

    void documentAndSession_data();
    void documentAndSession();
    void exitStatusAndCause_data();
    void exitStatusAndCause();
    void loginSavesAndLogoutForgets();
    void ctrlCCancelsTheCall();
    void batchKeepsTheOrderOfItsLines();
    void batchOnATerminalAndAsItComes();

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
    QString substitute(QString text) const
    {
        return text.replace(QLatin1String("$ADDR"), service.address())
            .replace(QLatin1String("$REFUSED"), refused)
            .replace(QLatin1String("$HOME"), home->path());
    }
    Run norva(const QStringList& arguments, const QStringList& environmentPairs = {}, const QByteArray& input = {})
    {
        QProcess process;
        process.setProcessEnvironment(environment(environmentPairs));
        QStringList substituted;
        for (const QString& argument : arguments)
            substituted << substitute(argument);
        process.start(QStringLiteral(NORVA_COMMAND_PATH), substituted);
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(20000))
            return {};
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

    TestService service;
    QString refused; // a loopback address where nothing listens
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
        {"--no-session uses neither", saved, fromEnvironment, {"--no-session", "delete_share"}, 3, QByteArray(), QByteArray()},
        {"the saved user id fills the operation's user key", R"({"ipconfig":"$ADDR","token":"saved","userId":12})", {},
         {"add2share", "boardid=4", "sharewith_id=2", "sharetype=1"}, 0, R"({"acsType":1,"acsTypeId":2,"brdId":4,"userId":12})",
         "saved"},
        {"... inside the document's own object", R"({"ipconfig":"$ADDR","token":"saved","userId":12})", {},
         {"delete_share", "data.id=5"}, 0, "id=5&userId=12", "saved"},
        {"... never over the caller's", R"({"ipconfig":"$ADDR","token":"saved","userId":12})", {},
         {"delete_share", "data.id=5", "data.userId=3"}, 0, "id=5&userId=3", "saved"},
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

// Each exit status, with the line that says why; wrong input is refused before
// anything is sent.
void NorvaCommandTest::exitStatusAndCause_data()
{
    const ScriptedReply ok = ScriptedReply::json(R"({"code":200})");
    const QStringList share{"--no-session", "add2share", "ipconfig=$ADDR", "token=tk", "boardid=2", "sharewith_id=1"};
    addRows(std::vector<ExitRow>{
        {"success", share, ok, {}, 0, {}, true, R"("acsTypeId":1,"brdId":2)"},
        {"the service says no", share, ScriptedReply::json(R"({"code":411})"), {}, 1, {}, true, {}},
        {"token refused", share, ScriptedReply::withStatus(402, R"({"code":200})"), {}, 4,
         {"norva: the token expired or was refused (402): log in again"}, true, {}},
        {"connection refused", {"--no-session", "select_share", "ipconfig=$REFUSED"}, ok, {}, 3,
         {"norva: Connection refused (http://$REFUSED)"}, false, {}},
        {"unknown host", {"--no-session", "select_share", "ipconfig=nosuch.invalid:80"}, ok, {}, 3,
         {"norva: Host nosuch.invalid not found (http://nosuch.invalid:80)"}, false, {}},
        {"no address", {"--no-session", "select_share"}, ok, {}, 3, {"norva: No service address"}, false, {}},
        {"unknown keys", share + QStringList{"sharetyp=1", "boardId=3"}, ok, {}, 2,
         {"does not read the key boardId (did you mean boardid?), nor sharetyp (did you mean sharetype?)",
          "its keys: ipconfig token userid boardid sharewith_id sharetype"}, false, {}},
        {"an unknown nested key", {"--no-session", "delete_share", "ipconfig=$ADDR", "data.user_id=1"}, ok, {}, 2,
         {"does not read the key data.user_id (did you mean data.userId?)"}, false, {}},
        {"--force sends it", share + QStringList{"sharetyp=1", "--force"}, ok, {}, 0, {}, true, R"("acsType":0)"},
        {"a missing upload file", {"--no-session", "upload_file", "ipconfig=$ADDR", "file_uploadpath=$HOME/none.brd"}, ok, {},
         2, {"file_uploadpath=$HOME/none.brd is no file"}, false, {}},
        {"a missing upload folder", {"--no-session", "upload_files", "ipconfig=$ADDR", "file_uploadpath=$HOME/none"}, ok, {},
         2, {"is no folder"}, false, {}},
        {"-v shows the heads, the token masked", share + QStringList{"-v"}, ok, {}, 0,
         {"> POST /kvr/", "> token: ***", "< HTTP/1.1 200 OK"}, true, {}},
        {"the password from standard input", {"--no-session", "login", "ipconfig=$ADDR", "username=ada", "password=-"}, ok,
         "s3cret pass\n", 0, {}, true, R"("userPwd":"s3cret pass")"},
        {"no password and no terminal", {"--no-session", "login", "ipconfig=$ADDR", "username=ada"}, ok, {}, 2,
         {"login needs password=, or password=- to read it from standard input"}, false, {}},
        {"options anywhere, --opt=value, and --", {"select_share", "--no-session", "--cacert=", "--", "-"}, ok, {}, 2,
         {"--cacert needs a FILE"}, false, {}},
        {"the document after --", {"--no-session", "select_share", "--", "-"}, ok,
         R"({"ipconfig":"$ADDR","currentUserId":7})", 0, {}, true, R"("currentUserId":7)"},
        {"--jobs outside batch", {"select_share", "--jobs=2"}, ok, {}, 2, {"--jobs goes with batch"}, false, {}},
        {"a flag with a value", {"select_share", "--pretty=yes"}, ok, {}, 2, {"--pretty takes no value"}, false, {}},
    });
}

void NorvaCommandTest::exitStatusAndCause()
{
    QFETCH(ExitRow, row);
    service.setDefaultReply(row.reply);
    const Run run = norva(row.arguments, {}, substitute(QString::fromUtf8(row.input)).toUtf8());
    QCOMPARE(run.exitCode, row.exitCode);
    for (const QString& said : row.said)
        QVERIFY2(run.err.contains(substitute(said).toUtf8()), run.err.constData());
    QVERIFY2(!run.err.contains("tk\n") && !run.err.contains(": tk"), run.err.constData()); // the token stays masked
    QCOMPARE(service.requestCount(), row.sent ? 1 : 0);
    if (row.sent)
        QVERIFY2(service.lastRequest().body.contains(row.body), service.lastRequest().body.constData());
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

namespace {

// What a terminal shows of `output`: a carriage return goes back to the start
// of the line, which the characters after it overwrite.
QStringList screenLines(const QByteArray& output)
{
    QStringList lines{QString()};
    int column = 0;
    for (const char c : output) {
        if (c == '\n') {
            lines << QString();
            column = 0;
        } else if (c == '\r') {
            column = 0;
        } else {
            QString& line = lines.last();
            if (column < line.size())
                line[column] = QLatin1Char(c);
            else
                line += QLatin1Char(c);
            ++column;
        }
    }
    for (QString& line : lines)
        line = line.trimmed();
    lines.removeAll(QString());
    return lines;
}

} // namespace

// On a terminal that shows both standard output and standard error, every
// result line stands alone on its screen line: the count is wiped before it.
// Lines are read as they come: the first result is out before the input ends.
void NorvaCommandTest::batchOnATerminalAndAsItComes()
{
    service.setDefaultReply(ScriptedReply::echo(20));
    QStringList lines;
    for (int user = 0; user < 8; ++user)
        lines << QStringLiteral(R"({"operation":"select_share","argument":{"currentUserId":%1}})").arg(user);
    const QString file = home->filePath(QStringLiteral("batch.jsonl"));
    writeFile(file, lines.join(QLatin1Char('\n')).toUtf8());
    QProcess terminal;
    terminal.setProcessEnvironment(environment({"NORVA_IPCONFIG=$ADDR", "NORVA_TOKEN=tk"}));
    terminal.start(QStringLiteral("script"), {"-qec", QStringLiteral("%1 batch --jobs 3 %2").arg(NORVA_COMMAND_PATH, file),
                                             "/dev/null"});
    terminal.closeWriteChannel();
    QVERIFY(terminal.waitForFinished(20000));
    QCOMPARE(terminal.exitCode(), 0);
    const QByteArray shown = terminal.readAllStandardOutput();
    QVERIFY(shown.contains(" of 8 done")); // the count was there, and is wiped at the end
    const QStringList screen = screenLines(shown);
    QCOMPARE(screen.size(), 8);
    for (int user = 0; user < 8; ++user) {
        const QJsonObject result = QJsonDocument::fromJson(screen[user].toUtf8()).object();
        QVERIFY2(result.value("status").toInt() == 200, qPrintable(screen[user]));
    }

    QProcess piped;
    piped.setProcessEnvironment(environment({"NORVA_IPCONFIG=$ADDR", "NORVA_TOKEN=tk"}));
    piped.start(QStringLiteral(NORVA_COMMAND_PATH), {"batch", "-"});
    piped.write((lines[0] + '\n').toUtf8());
    QTRY_VERIFY_WITH_TIMEOUT(piped.bytesAvailable() > 0 || piped.canReadLine(), 10000);
    QVERIFY(piped.readLine().contains(R"("status":200)"));
    piped.write((lines[1] + '\n').toUtf8());
    piped.closeWriteChannel();
    QVERIFY(piped.waitForFinished(10000));
    QCOMPARE(piped.exitCode(), 0);
    QVERIFY(piped.readAll().contains(R"("status":200)"));
}

QTEST_GUILESS_MAIN(NorvaCommandTest)
#include "test_norva_command.moc"
