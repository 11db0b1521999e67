// The service's form reader on forms as other clients write them, broken ones,
// and delimiters across the edge of its reading window. (test_transfer reads
// every form the library sends with it, too.) And how its HTTP layer answers a
// handler that fails.
#include "form_reader.h"
#include "http_server.h"

#include <QTcpSocket>
#include <thread>

#include <QtTest>

#include <sstream>

using norva::service::FormField;

namespace {

struct Part {
    FormField field;
    std::string content;
};

// The parts of a form with their content; none when it is not complete.
std::vector<Part> readParts(const std::string& body, const std::string& boundary)
{
    std::istringstream in(body);
    std::vector<FormField> fields;
    std::vector<Part> parts;
    if (!norva::service::readForm(in, boundary, fields))
        return parts;
    for (const FormField& field : fields) {
        parts.push_back({field, std::string()});
        norva::service::readPart(in, field, parts.back().content, field.size);
    }
    return parts;
}

} // namespace

class FormReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void dispositions();
    void rawForms();
    void failingHandlers();
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
    // The reader looks through a window of 64 KiB: a delimiter across its edge.
    for (const int size : {65536 - 4, 65536 - 1, 65536 + 3})
        rows.push_back({"delimiter at " + QByteArray::number(size),
                        head + QByteArray(size - head.size(), 'c') + "\r\n--b\r\n" + head.mid(5) + "z\r\n--b--", "b", 2, "z"});
    for (const Row& row : rows) {
        const std::vector<Part> read = readParts(row.body.toStdString(), row.boundary.toStdString());
        QVERIFY2(int(read.size()) == std::max(row.parts, 0), row.name);
        QVERIFY2(row.parts <= 0 || QByteArray::fromStdString(read.back().content) == row.lastContent, row.name);
    }
    QCOMPARE(QString::fromStdString(norva::service::formBoundary("multipart/form-data; boundary=\"q;x\"")), QStringLiteral("q;x"));
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
        socket.write("GET " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n");
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

QTEST_APPLESS_MAIN(FormReaderTest)
#include "test_form_reader.moc"
