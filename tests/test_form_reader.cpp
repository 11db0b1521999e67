// SPDX-License-Identifier: MIT
// The service's form reader on forms as other clients write them, broken ones,
// forms that arrive in pieces of any size (delimiters across their edges), and
// what it keeps where. (test_transfer reads every form the library sends with
// it, too.) And how its HTTP layer answers a handler that fails, and what
// connections that wait for a request hold of its memory bound.
#include "form_reader.h"
#include "http_server.h"

#include <QTcpSocket>
#include <thread>

#include <QtTest>


using norva::service::FormField;

namespace {

using norva::service::FormPart;

// The parts of a form fed to the reader `piece` bytes at a time, every part
// kept; none when it is not complete.
std::vector<FormPart> readParts(const std::string& body, const std::string& boundary, std::size_t piece)
{
    norva::service::FormPlan plan;
    plan.keepAll = true;
    norva::service::FormSplitter splitter(boundary, plan);
    for (std::size_t at = 0; at < body.size(); at += piece)
        splitter.feed(body.data() + at, std::min(piece, body.size() - at));
    return splitter.complete() ? std::move(splitter.parts()) : std::vector<FormPart>();
}

QByteArray contentOf(const std::string& path)
{
    QFile file(QString::fromStdString(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

} // namespace

class FormReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void dispositions();
    void rawForms();
    void keptWhereAsked();
    void failingHandlers();
    void waitingConnectionsHoldWithinTheBound();
};

void FormReaderTest::dispositions()
{
    const struct {
        const char* value;
        const char* name;
        bool hasFilename;
        const char* filename;
    } rows[] = {
        {"form-data;name=file;filename=a b.brd", "file", true, "a b.brd"}, // the library's file part
        {"form-data;name=\"data\"", "data", false, ""},                   // and its data part
        {" form-data; name=\"multipartFiles\"; filename=\"x y.gbr\"", "multipartFiles", true, "x y.gbr"},
        {"form-data;name=file;filename=a;b.brd", "file", true, "a;b.brd"}, // a semicolon in an unquoted name
        {"form-data;name=file;filename=", "file", true, ""},
        {"form-data;NAME=file;FILENAME=Z.BRD", "file", true, "Z.BRD"},
        {"form-data;name=file;filename=plaque \xc3\xa9.brd", "file", true, "plaque \xc3\xa9.brd"},
    };
    for (const auto& row : rows) {
        FormField field;
        norva::service::readDisposition(row.value, field);
        QVERIFY2(field.name == row.name && field.hasFilename == row.hasFilename && field.filename == row.filename, row.value);
    }
}

void FormReaderTest::rawForms()
{
    const QByteArray head = "--b\r\nContent-Disposition: form-data;name=x\r\n\r\n";
    struct Row {
        QByteArray name, body, boundary;
        int parts; // -1: not a complete form
        QByteArray lastContent;
    };
    std::vector<Row> rows{
        {"no closing delimiter", head + "no end", "b", -1, {}},
        {"no boundary", "anything", {}, -1, {}},
        {"no blank line", "--b\r\nno blank line", "b", -1, {}},
        {"one part", head + "v\r\n--b--\r\n", "b", 1, "v"},
    };
    // Large parts, whose delimiter falls across the edge of the 64 KiB pieces
    // the service reads.
    for (const int size : {65536 - 4, 65536 - 1, 65536 + 3})
        rows.push_back({"delimiter at " + QByteArray::number(size),
                        head + QByteArray(size - head.size(), 'c') + "\r\n--b\r\n" + head.mid(5) + "z\r\n--b--", "b", 2, "z"});
    rows.push_back({"preamble, and a part that holds almost the delimiter",
                    "junk --x\r\n" + head + "a\r\n--c\r\n-\r\n--b\r\n" + head.mid(5) + "\r\n--b--junk", "b", 2, ""});
    rows.push_back({"a part head without an end", "--b\r\n" + QByteArray(20000, 'h'), "b", -1, {}});
    rows.push_back({"something else after a delimiter", head + "v\r\n--bxy", "b", -1, {}});
    for (const Row& row : rows) {
        // The same parts whatever the pieces the body comes in.
        for (const std::size_t piece : {std::size_t(1), std::size_t(3), std::size_t(65536), std::size_t(1) << 30}) {
            const std::vector<FormPart> read = readParts(row.body.toStdString(), row.boundary.toStdString(), piece);
            const QByteArray what = row.name + " in pieces of " + QByteArray::number(qulonglong(piece));
            QVERIFY2(int(read.size()) == std::max(row.parts, 0), what);
            QVERIFY2(row.parts <= 0 || QByteArray::fromStdString(read.back().content) == row.lastContent, what);
            QVERIFY2(row.parts <= 0 || read.back().field.size == std::uint64_t(row.lastContent.size()), what);
        }
    }
    QCOMPARE(QString::fromStdString(norva::service::formBoundary("multipart/form-data; boundary=\"q;x\"")), QStringLiteral("q;x"));
}

// An upload's plan: its first file parts each in a file of their own, its data
// part in memory when small, the rest dropped; files nobody took go with the
// reader.
void FormReaderTest::keptWhereAsked()
{
    QTemporaryDir folder;
    const std::string path = folder.path().toStdString();
    const auto part = [](const QByteArray& name, const QByteArray& content) {
        return "--B\r\nContent-Disposition: form-data;name=" + name + ";filename=" + name + ".brd\r\n\r\n" + content + "\r\n";
    };
    const QByteArray form = part("other", "o") + part("file", "first") + part("data", "{}") + part("file", QByteArray(100000, 'x'))
                            + part("file", "third") + part("data", "second data") + "--B--\r\n";
    const auto plan = [](std::size_t fieldLimit) {
        norva::service::FormPlan plan;
        plan.filePart = "file";
        plan.maxFiles = 2;
        plan.fieldPart = "data";
        plan.fieldLimit = fieldLimit;
        return plan;
    };
    std::string taken;
    {
        norva::service::FormSplitter splitter("B", plan(2), path);
        for (int at = 0; at < form.size(); at += 1000)
            QVERIFY(splitter.feed(form.constData() + at, std::size_t(std::min(1000, int(form.size()) - at))));
        QVERIFY(splitter.complete());
        std::vector<FormPart>& parts = splitter.parts();
        QCOMPARE(int(parts.size()), 3);
        QCOMPARE(QByteArray::fromStdString(parts[0].field.name + parts[1].field.name + parts[2].field.name), QByteArray("filedatafile"));
        QCOMPARE(contentOf(parts[0].file), QByteArray("first"));
        QVERIFY(parts[1].file.empty() && parts[1].content == "{}" && !parts[1].tooLarge);
        QCOMPARE(contentOf(parts[2].file), QByteArray(100000, 'x'));
        QCOMPARE(parts[2].field.size, std::uint64_t(100000));
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files).size(), 2);
        taken = folder.path().toStdString() + "/taken";
        QCOMPARE(std::rename(parts[0].file.c_str(), taken.c_str()), 0);
        parts[0].file.clear();
    }
    // The part taken stays; the other went with the reader.
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList{"taken"});
    QVERIFY(QFile::remove(QString::fromStdString(taken)));

    // A data part over its limit is marked, its content dropped; a form that
    // stops half way leaves no file behind.
    {
        norva::service::FormSplitter splitter("B", plan(1), path);
        splitter.feed(form.constData(), std::size_t(form.size()));
        QVERIFY(splitter.parts()[1].tooLarge && splitter.parts()[1].content.empty());
    }
    {
        norva::service::FormSplitter splitter("B", plan(2), path);
        splitter.feed(form.constData(), std::size_t(form.size() / 2));
        QVERIFY(!splitter.complete());
        QVERIFY(!QDir(folder.path()).entryList(QDir::Files).isEmpty());
    }
    QVERIFY(QDir(folder.path()).entryList(QDir::Files).isEmpty());
}

// A handler's exception is answered 500, or 507 for a full disk, and its text
// (SQLite's, say) stays in the service's log.
void FormReaderTest::failingHandlers()
{
    norva::service::HttpServer server;
    std::string error;
    QVERIFY(server.listen("127.0.0.1", 0, error));
    const norva::service::HttpHandler handler = [](const norva::service::HttpRequest& request) {
        if (request.path == "/full")
            throw norva::service::StorageFull("sql: database or disk is full");
        if (request.path == "/broken")
            throw std::runtime_error("sql: no such table: secret");
        return norva::service::HttpResponse::text(200, "fine\n");
    };
    std::thread serving([&] { server.serve(handler); });
    const auto answer = [&server](const QByteArray& path) {
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", quint16(server.port()));
        socket.waitForConnected(3000);
        socket.write("GET " + path + " HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n");
        QByteArray bytes;
        while (socket.waitForReadyRead(3000))
            bytes += socket.readAll();
        return bytes;
    };
    const QByteArray full = answer("/full"), broken = answer("/broken"), fine = answer("/fine");
    server.stop();
    serving.join();
    QVERIFY2(full.startsWith("HTTP/1.1 507"), full.constData());
    QVERIFY2(broken.startsWith("HTTP/1.1 500"), broken.constData());
    QVERIFY2(fine.startsWith("HTTP/1.1 200"), fine.constData());
    QVERIFY(!full.contains("sql") && !broken.contains("sql"));
}

// A connection that has sent nothing holds no buffer; one that holds half a
// head holds its buffer (1 KiB) of the memory bound, and one more than the
// bound allows is answered 503. The bound is given back as they close.
void FormReaderTest::waitingConnectionsHoldWithinTheBound()
{
    norva::service::HttpLimits limits;
    limits.memoryBodiesBytes = 16 << 10;
    norva::service::HttpServer server(limits);
    std::string error;
    QVERIFY(server.listen("127.0.0.1", 0, error));
    std::thread serving([&server] {
        server.serve([](const norva::service::HttpRequest&) { return norva::service::HttpResponse::text(200, "fine\n"); });
    });
    const auto connected = [&server](const QByteArray& sent) {
        auto socket = std::make_unique<QTcpSocket>();
        socket->connectToHost("127.0.0.1", quint16(server.port()));
        socket->waitForConnected(3000);
        socket->write(sent);
        socket->waitForBytesWritten(3000);
        return socket;
    };
    const auto answered = [&connected] {
        const auto socket = connected("GET /x HTTP/1.1\r\nHost: s\r\nConnection: close\r\n\r\n");
        QByteArray bytes;
        while (socket->waitForReadyRead(3000))
            bytes += socket->readAll();
        return bytes.left(12);
    };
    std::vector<std::unique_ptr<QTcpSocket>> silent, halfHeads;
    for (int i = 0; i < 40; ++i)
        silent.push_back(connected(QByteArray()));
    const QByteArray withSilentOnes = answered();
    for (int i = 0; i < 40; ++i)
        halfHeads.push_back(connected("POST /x HTTP/1.1\r\nHost: s\r\n"));
    int busy = 0;
    QDeadlineTimer patience(5000);
    while (busy < 24 && !patience.hasExpired()) {
        for (auto& socket : halfHeads) {
            socket->waitForReadyRead(10);
            if (socket->bytesAvailable() && socket->readAll().startsWith("HTTP/1.1 503"))
                ++busy;
        }
    }
    const QByteArray withHalfHeads = answered();
    halfHeads.clear();
    QByteArray afterThem = answered();
    for (QDeadlineTimer later(3000); !afterThem.startsWith("HTTP/1.1 200") && !later.hasExpired(); afterThem = answered())
        QThread::msleep(20); // until the service has seen them close
    server.stop();
    serving.join();
    QCOMPARE(withSilentOnes, QByteArray("HTTP/1.1 200"));
    QCOMPARE(busy, 24);
    QCOMPARE(withHalfHeads, QByteArray("HTTP/1.1 503"));
    QCOMPARE(afterThem, QByteArray("HTTP/1.1 200"));
}

QTEST_APPLESS_MAIN(FormReaderTest)
#include "test_form_reader.moc"
