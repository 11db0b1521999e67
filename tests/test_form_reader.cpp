// The service's form reader on forms as other clients write them, broken ones,
// and delimiters across the edge of its reading window. (test_transfer reads
// every form the library sends with it, too.)
#include "form_reader.h"

#include <QtTest>

#include <sstream>

using norva::service::FormField;

class FormReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void dispositions_data();
    void dispositions();
    void rawForms_data();
    void rawForms();

private:
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
