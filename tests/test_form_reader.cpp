// The service's form reader, fed with the exact bytes the library sends.
#include "support/harness.h"

#include "form_reader.h"
#include "norva_api_qt.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

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
    void refusesBrokenForms();

private:
    RecordedRequest upload(OperationFunction operation, const QString& path)
    {
        service.reset();
        callOperation(operation, QStringLiteral(R"({"ipconfig":"%1","token":"t","file_uploadpath":"%2","data":{"fileInfo":{"isError":1},"createuserid":4}})")
                                     .arg(service.address(), path));
        return service.lastRequest();
    }
    static std::vector<FormField> read(const RecordedRequest& request)
    {
        std::vector<FormField> fields;
        const bool complete = norva::service::readForm(request.body.toStdString(),
                                                       norva::service::formBoundary(request.header("Content-Type").toStdString()),
                                                       fields);
        return complete ? fields : std::vector<FormField>{};
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

    const std::vector<FormField> fields = read(upload(NORVA::NORVA_API_QT::norva_sdk_upload_file, path));
    QCOMPARE(fields.size(), size_t(2));
    QCOMPARE(QString::fromStdString(fields[0].name), QStringLiteral("file"));
    QCOMPARE(QString::fromStdString(fields[0].filename), QString::fromUtf8("top layer é.gbr"));
    QCOMPARE(QByteArray::fromStdString(fields[0].body), content);
    QCOMPARE(QString::fromStdString(fields[1].name), QStringLiteral("data"));
    QVERIFY(QByteArray::fromStdString(fields[1].body).startsWith(R"({"errorInfo":{)"));
}

void FormReaderTest::readsTheLibrarysFolderForm()
{
    QDir(folder.path()).mkpath(QStringLiteral("many"));
    for (const char* name : {"one.brd", "two words.gbr", ".hidden"}) {
        QFile file(folder.filePath(QStringLiteral("many/") + QLatin1String(name)));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("content of ") + name);
    }
    const std::vector<FormField> fields = read(upload(NORVA::NORVA_API_QT::norva_sdk_upload_files, folder.filePath("many")));
    QCOMPARE(fields.size(), size_t(4));
    QStringList names;
    for (std::size_t i = 0; i < 3; ++i) {
        QCOMPARE(QString::fromStdString(fields[i].name), QStringLiteral("multipartFiles"));
        QCOMPARE(fields[i].body, "content of " + fields[i].filename);
        names << QString::fromStdString(fields[i].filename);
    }
    names.sort();
    QCOMPARE(names, (QStringList{".hidden", "one.brd", "two words.gbr"}));
    QCOMPARE(QString::fromStdString(fields[3].body), QStringLiteral(R"({"createuserid":4,"parentid":0,"source":0,"type":0,"zkcompanycode":""})"));
}

void FormReaderTest::refusesBrokenForms()
{
    std::vector<FormField> fields;
    QVERIFY(!norva::service::readForm("--b\r\nContent-Disposition: form-data;name=x\r\n\r\nno end", "b", fields));
    QVERIFY(!norva::service::readForm("anything", "", fields));
    QVERIFY(!norva::service::readForm("--b\r\nno blank line", "b", fields));
    fields.clear();
    QVERIFY(norva::service::readForm("--b\r\nContent-Disposition: form-data;name=x\r\n\r\nv\r\n--b--\r\n", "b", fields));
    QCOMPARE(fields.size(), size_t(1));
    QCOMPARE(QString::fromStdString(norva::service::formBoundary("multipart/form-data; boundary=\"q;x\"")), QStringLiteral("q;x"));
}

QTEST_APPLESS_MAIN(FormReaderTest)
#include "test_form_reader.moc"
