// The service's form reader, fed with the exact bytes the library sends.
#include "support/harness.h"

#include "form_reader.h"
#include "norva_api_qt.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sstream>

using namespace testing_support;
using norva::service::FormField;

class FormReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void dispositions_data();
    void dispositions();
    void readsTheLibrarysSingleFileForm();
    void readsTheLibrarysFolderForm();
    void rawForms_data();
    void rawForms();

private:
    RecordedRequest upload(OperationFunction operation, const QString& path)
    {
        service.reset();
        callOperation(operation, QStringLiteral(R"({"ipconfig":"%1","token":"t","file_uploadpath":"%2","data":{"fileInfo":{"isError":1},"createuserid":4}})")
                                     .arg(service.address(), path));
        return service.lastRequest();
    }
    struct Part {
        FormField field;
        std::string content;
    };
    // The parts of a form with their content; none when it is not complete.
    static std::vector<Part> readParts(const std::string& body, const std::string& boundary)
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
    static std::vector<Part> read(const RecordedRequest& request)
    {
        return readParts(request.body.toStdString(),
                         norva::service::formBoundary(request.header("Content-Type").toStdString()));
    }
    TestService service;
    QTemporaryDir folder;
};

void FormReaderTest::dispositions_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("hasFilename");
    QTest::addColumn<QString>("filename");
    QTest::newRow("the library's file part") << "form-data;name=file;filename=a b.brd" << "file" << true << "a b.brd";
    QTest::newRow("the library's data part") << "form-data;name=\"data\"" << "data" << false << "";
    QTest::newRow("blanks after semicolons, quoted") << " form-data; name=\"multipartFiles\"; filename=\"x y.gbr\""
                                                     << "multipartFiles" << true << "x y.gbr";
    QTest::newRow("a semicolon inside an unquoted file name") << "form-data;name=file;filename=a;b.brd" << "file" << true
                                                              << "a;b.brd";
    QTest::newRow("an empty file name") << "form-data;name=file;filename=" << "file" << true << "";
    QTest::newRow("upper-case keys") << "form-data;NAME=file;FILENAME=Z.BRD" << "file" << true << "Z.BRD";
    QTest::newRow("non-ASCII bytes") << QString::fromUtf8("form-data;name=file;filename=plaque é.brd") << "file" << true
                                     << QString::fromUtf8("plaque é.brd");
}

void FormReaderTest::dispositions()
{
    QFETCH(QString, value);
    QFETCH(QString, name);
    QFETCH(bool, hasFilename);
    QFETCH(QString, filename);
    FormField field;
    norva::service::readDisposition(value.toStdString(), field);
    QCOMPARE(QString::fromStdString(field.name), name);
    QCOMPARE(field.hasFilename, hasFilename);
    QCOMPARE(QString::fromStdString(field.filename), filename);
}

void FormReaderTest::readsTheLibrarysSingleFileForm()
{
    const QString path = folder.filePath(QString::fromUtf8("top layer é.gbr"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray content("G04*\r\n--\r\n\0end", 14);
    file.write(content);
    file.close();

    const std::vector<Part> parts = read(upload(NORVA::NORVA_API_QT::norva_sdk_upload_file, path));
    QCOMPARE(parts.size(), size_t(2));
    QCOMPARE(QString::fromStdString(parts[0].field.name), QStringLiteral("file"));
    QCOMPARE(QString::fromStdString(parts[0].field.filename), QString::fromUtf8("top layer é.gbr"));
    QCOMPARE(QByteArray::fromStdString(parts[0].content), content);
    QCOMPARE(QString::fromStdString(parts[1].field.name), QStringLiteral("data"));
    QVERIFY(QByteArray::fromStdString(parts[1].content).startsWith(R"({"errorInfo":{)"));
}

void FormReaderTest::readsTheLibrarysFolderForm()
{
    QDir(folder.path()).mkpath(QStringLiteral("many"));
    for (const char* name : {"one.brd", "two words.gbr", ".hidden"}) {
        QFile file(folder.filePath(QStringLiteral("many/") + QLatin1String(name)));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("content of ") + name);
    }
    const std::vector<Part> parts = read(upload(NORVA::NORVA_API_QT::norva_sdk_upload_files, folder.filePath("many")));
    QCOMPARE(parts.size(), size_t(4));
    QStringList names;
    for (std::size_t i = 0; i < 3; ++i) {
        QCOMPARE(QString::fromStdString(parts[i].field.name), QStringLiteral("multipartFiles"));
        QCOMPARE(parts[i].content, "content of " + parts[i].field.filename);
        names << QString::fromStdString(parts[i].field.filename);
    }
    names.sort();
    QCOMPARE(names, (QStringList{".hidden", "one.brd", "two words.gbr"}));
    QCOMPARE(QString::fromStdString(parts[3].content), QStringLiteral(R"({"createuserid":4,"parentid":0,"source":0,"type":0,"zkcompanycode":""})"));
}

void FormReaderTest::rawForms_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("boundary");
    QTest::addColumn<int>("parts");            // -1: not a complete form
    QTest::addColumn<QByteArray>("lastContent");
    const QByteArray head = "--b\r\nContent-Disposition: form-data;name=x\r\n\r\n";
    QTest::newRow("no closing delimiter") << head + "no end" << QByteArray("b") << -1 << QByteArray();
    QTest::newRow("no boundary") << QByteArray("anything") << QByteArray() << -1 << QByteArray();
    QTest::newRow("no blank line") << QByteArray("--b\r\nno blank line") << QByteArray("b") << -1 << QByteArray();
    QTest::newRow("one part") << head + "v\r\n--b--\r\n" << QByteArray("b") << 1 << QByteArray("v");
    // The reader looks through a window of 64 KiB: a delimiter across its edge.
    for (const int size : {65536 - 4, 65536 - 1, 65536 + 3}) {
        const QByteArray content(size - head.size(), 'c');
        QTest::addRow("delimiter at %d", size) << head + content + "\r\n--b\r\n" + head.mid(5) + "z\r\n--b--"
                                               << QByteArray("b") << 2 << QByteArray("z");
    }
}

void FormReaderTest::rawForms()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, boundary);
    QFETCH(int, parts);
    QFETCH(QByteArray, lastContent);
    const std::vector<Part> read = readParts(body.toStdString(), boundary.toStdString());
    QCOMPARE(int(read.size()), std::max(parts, 0));
    if (parts > 0)
        QCOMPARE(QByteArray::fromStdString(read.back().content), lastContent);
    QCOMPARE(QString::fromStdString(norva::service::formBoundary("multipart/form-data; boundary=\"q;x\"")), QStringLiteral("q;x"));
}

QTEST_APPLESS_MAIN(FormReaderTest)
#include "test_form_reader.moc"
