// Uploads and downloads: the form exactly as it crossed the wire, the files a
// download leaves behind, and every outcome's result document.
#include "support/multipart.h"
#include "support/operation_table.h"
#include "support/test_main.h"

#include "form_reader.h"
#include "norva_api_qt.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sstream>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#endif

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;
using NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile;

Q_DECLARE_METATYPE(testing_support::ScriptedReply)

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// Every file below `root`, as relative paths, sorted.
QStringList filesBelow(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(root).relativeFilePath(it.next());
    files.sort();
    return files;
}

const QByteArray dataDisposition = R"(form-data;name="data")";

const bool onWindows = QDir::separator() == QLatin1Char('\\');

// Narrow text as the system writes it: in the code page on Windows, UTF-8 here.
QByteArray narrow(const QString& text)
{
    return onWindows ? text.toLocal8Bit() : text.toUtf8();
}

QString fromNarrow(const QByteArray& bytes)
{
    return onWindows ? QString::fromLocal8Bit(bytes) : QString::fromUtf8(bytes);
}

} // namespace

class TransferTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        service.reset();
        folder.reset(new QTemporaryDir);
    }

    void singleFileForm_data();
    void singleFileForm();
    void folderForm_data();
    void folderForm();
    void uploadOutcomes_data();
    void uploadOutcomes() { runCase(service); }
    void downloads_data();
    void downloads();
    void stampedDownload();
    void downloadThatCannotBeWritten();

private:
    // "$DIR" is the temporary folder; "$SEP" the separator the library joins
    // paths with, as it stands inside a JSON text.
    QString inFolder(QString text) const
    {
        const QString separator = QDir::separator() == QLatin1Char('\\') ? QStringLiteral("\\\\") : QStringLiteral("/");
        return text.replace(QLatin1String("$DIR"), folder->path()).replace(QLatin1String("$SEP"), separator);
    }
    QList<FormPart> recordedForm(const char* path);
    void download(OperationFunction operation, const ScriptedReply& reply);

    TestService service;
    QScopedPointer<QTemporaryDir> folder;
};

QList<FormPart> TransferTest::recordedForm(const char* path)
{
    QList<FormPart> parts;
    [&] {
        QCOMPARE(service.requestCount(), 1);
        const RecordedRequest request = service.lastRequest();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.target, QByteArray(path));
        QCOMPARE(request.header("token"), QByteArray("tk"));
        const QByteArray contentType = request.header("Content-Type");
        QVERIFY2(contentType.startsWith("multipart/form-data; boundary="), contentType);
        QCOMPARE(request.header("Content-Length"), QByteArray::number(request.body.size()));
        QVERIFY2(parseMultipart(request.body, boundaryOf(contentType), parts), request.body.left(400));
        // The local service's tolerant reader finds the same parts in these bytes.
        std::istringstream form(request.body.toStdString());
        std::vector<norva::service::FormField> fields;
        QVERIFY(norva::service::readForm(form, norva::service::formBoundary(contentType.toStdString()), fields));
        QCOMPARE(int(fields.size()), parts.size());
        for (int i = 0; i < parts.size(); ++i) {
            const QByteArray name = QByteArray::fromStdString(fields[i].name);
            QCOMPARE(parts[i].headers.value(0).second,
                     fields[i].hasFilename ? "form-data;name=" + name + ";filename=" + QByteArray::fromStdString(fields[i].filename)
                                           : "form-data;name=\"" + name + '"');
            std::string content;
            QVERIFY(norva::service::readPart(form, fields[i], content, fields[i].size));
            QCOMPARE(QByteArray::fromStdString(content), parts[i].body);
        }
    }();
    return parts;
}

void TransferTest::singleFileForm_data()
{
    QTest::addColumn<void*>("operation");
    QTest::addColumn<QString>("fileName"); // created in the folder; empty: none
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QByteArray>("disposition");
    QTest::addColumn<QByteArray>("record");

    void* const upload = reinterpret_cast<void*>(norva_sdk_upload_file);
    void* const share = reinterpret_cast<void*>(norva_sdk_upload_file2share);
    const QByteArray zeroFileInfo =
        R"({"createuserid":0,"isError":0,"parentid":0,"source":0,"type":0,"zkcompanycode":""})";
    const QByteArray defaultErrorInfo =
        R"("errorInfo":{"errorMessage":"","gridX":"","gridY":"","isReappear":0,"layer":0,"libraryId":0,"priority":0,"remark":"","source":0})";

    QTest::newRow("blanks in the name stay unquoted; isError 1 without errorInfo sends defaults")
        << upload << "a b.brd" << R"({"file_uploadpath":"$DIR/a b.brd","data":{"fileInfo":{"zkcompanycode":"ZK","createuserid":3,"isError":1}}})"
        << QByteArray("form-data;name=file;filename=a b.brd")
        << QByteArray(R"({)" + defaultErrorInfo + R"(,"fileInfo":{"createuserid":3,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":"ZK"}})");
    QTest::newRow("isError 1.0 counts; errorInfo read key by key, numbers as text become empty")
        << upload << "x.gbr" << R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":1.0},"errorInfo":{"gridX":5,"gridY":"7.5","remark":"r","priority":2,"extra":1}}})"
        << QByteArray("form-data;name=file;filename=x.gbr")
        << QByteArray(R"({"errorInfo":{"errorMessage":"","gridX":"","gridY":"7.5","isReappear":0,"layer":0,"libraryId":0,"priority":2,"remark":"r","source":0},"fileInfo":{"createuserid":0,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})");
    QTest::newRow("isError true is not 1") << upload << "x.gbr"
        << R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":true},"errorInfo":{"remark":"r"}}})"
        << QByteArray("form-data;name=file;filename=x.gbr") << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("isError \"1\" is not 1") << upload << "x.gbr"
        << R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":"1","createuserid":"12"}}})"
        << QByteArray("form-data;name=file;filename=x.gbr") << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("isError 2 goes out without errorInfo") << upload << "x.gbr"
        << R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":2},"errorInfo":{}}})"
        << QByteArray("form-data;name=file;filename=x.gbr")
        << QByteArray(R"({"fileInfo":{"createuserid":0,"isError":2,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})");
    QTest::newRow("no data at all") << upload << "x.gbr" << R"({"file_uploadpath":"$DIR/x.gbr"})"
        << QByteArray("form-data;name=file;filename=x.gbr") << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("non-ASCII name goes out as UTF-8") << upload << QString::fromUtf8("plaque é.brd")
        << QString::fromUtf8(R"({"file_uploadpath":"$DIR/plaque é.brd"})")
        << QString::fromUtf8("form-data;name=file;filename=plaque é.brd").toUtf8() << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("a missing file still sends the form") << upload << "" << R"({"file_uploadpath":"$DIR/gone.brd"})"
        << QByteArray("form-data;name=file;filename=gone.brd") << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("no file_uploadpath: empty file name") << upload << "" << R"({})"
        << QByteArray("form-data;name=file;filename=") << QByteArray(R"({"fileInfo":)" + zeroFileInfo + "}");
    QTest::newRow("file2share sends eight keys; a text party is 0") << share << "s.brd"
        << R"({"file_uploadpath":"$DIR/s.brd","data":{"fileInfo":{"acsTypeId":"4","acsType":2,"isError":1},"errorInfo":{"layer":3}}})"
        << QByteArray("form-data;name=file;filename=s.brd")
        << QByteArray(R"({"errorInfo":{"errorMessage":"","gridX":"","gridY":"","isReappear":0,"layer":3,"libraryId":0,"priority":0,"remark":"","source":0},)"
                      R"("fileInfo":{"acsType":2,"acsTypeId":0,"createuserid":0,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})");
}

void TransferTest::singleFileForm()
{
    QFETCH(void*, operation);
    QFETCH(QString, fileName);
    QFETCH(QString, argument);
    QFETCH(QByteArray, disposition);
    QFETCH(QByteArray, record);
    const QByteArray content = "board bytes\r\n--not a boundary\0with a NUL";
    if (!fileName.isEmpty())
        writeFile(folder->filePath(fileName), content);
    const auto call = callOperation(reinterpret_cast<OperationFunction>(operation),
                                    inFolder(substitute(argument, service.address()))
                                        .replace(QLatin1String("{"), QStringLiteral(R"({"ipconfig":"%1","token":"tk",)").arg(service.address()))
                                        .replace(QLatin1String(",}"), QLatin1String("}")));
    const bool share = operation == reinterpret_cast<void*>(norva_sdk_upload_file2share);
    const QString expected = share ? R"({"Board_Id":null,"message":"import file and insert 2 share success","status":200})"
                                   : R"({"Board_Id":null,"message":"import file success","status":200})";
    QCOMPARE(call.result, expected);
    QCOMPARE(call.lines, QStringList{expected});

    const QList<FormPart> parts =
        recordedForm(share ? "/kvr/originalFile/insertBrdAndShare" : "/kvr/originalFile/uploadFile");
    QCOMPARE(parts.size(), 2);
    QCOMPARE(parts[0].headers, (HeaderList{{"Content-Disposition", disposition}}));
    QCOMPARE(parts[0].body, fileName.isEmpty() ? QByteArray() : content);
    QCOMPARE(parts[1].headers, (HeaderList{{"Content-Disposition", dataDisposition}}));
    QCOMPARE(parts[1].body, record);
}

void TransferTest::folderForm_data()
{
    QTest::addColumn<bool>("share");
    QTest::addColumn<QStringList>("files");  // created below the folder
    QTest::addColumn<QString>("uploadPath"); // relative to the folder
    QTest::addColumn<QStringList>("sent");   // names expected in the form
    QTest::addColumn<QString>("data");
    QTest::addColumn<QByteArray>("record");

    const QByteArray flat = R"({"createuserid":2,"parentid":0,"source":0,"type":1,"zkcompanycode":"ZK"})";
    const QString data = R"({"zkcompanycode":"ZK","createuserid":2,"type":1,"acsTypeId":5,"isError":1})";
    QTest::newRow("files directly in the folder, hidden ones included, nested ones not")
        << false << QStringList{"b.brd", "a b.gbr", ".hidden", "sub/deep.brd"} << "boards"
        << QStringList{".hidden", "a b.gbr", "b.brd"} << data << flat;
    QTest::newRow("trailing separator doubles it in each path")
        << false << QStringList{"one.brd"} << "boards/" << QStringList{"one.brd"} << data << flat;
    QTest::newRow("empty folder sends the data part alone") << false << QStringList{} << "boards" << QStringList{} << data << flat;
    QTest::newRow("folder with only sub-folders") << false << QStringList{"s1/x.brd", "s2/y.brd"} << "boards" << QStringList{} << data << flat;
    QTest::newRow("missing folder") << false << QStringList{} << "nowhere" << QStringList{} << data << flat;
    // A folder and a name beyond ASCII: found, named in UTF-8 in the form, and
    // shown in the "file path:" line as narrow text of the system.
    QTest::newRow("a folder and a name beyond ASCII")
        << false << QStringList{QString::fromUtf8("dossier é/plan ü.brd")} << QString::fromUtf8("boards/dossier é")
        << QStringList{QString::fromUtf8("plan ü.brd")} << data << flat;
    QTest::newRow("files2share adds the share keys")
        << true << QStringList{"z.brd"} << "boards" << QStringList{"z.brd"} << data
        << QByteArray(R"({"acsType":0,"acsTypeId":5,"createuserid":2,"parentid":0,"source":0,"type":1,"zkcompanycode":"ZK"})");
}

void TransferTest::folderForm()
{
    QFETCH(bool, share);
    QFETCH(QStringList, files);
    QFETCH(QString, uploadPath);
    QFETCH(QStringList, sent);
    QFETCH(QString, data);
    QFETCH(QByteArray, record);
    QDir(folder->path()).mkpath(QStringLiteral("boards"));
    for (const QString& file : files)
        writeFile(folder->filePath(QStringLiteral("boards/") + file), QFileInfo(file).fileName().toUtf8() + " content");

    const QString base = folder->filePath(uploadPath);
    const QString argument = QStringLiteral(R"({"ipconfig":"%1","token":"tk","file_uploadpath":"%2","data":%3})")
                                 .arg(service.address(), base, data);
    const auto call = callOperation(share ? norva_sdk_upload_files2share : norva_sdk_upload_files, argument);

    const QString expected = share ? R"({"message":"import files and insert 2 share success","status":200})"
                                   : R"({"message":"import files success","status":200})";
    QCOMPARE(call.result, expected);
    QCOMPARE(call.lines.size(), sent.size() + 1);
    QCOMPARE(call.lines.last(), expected);
    const QList<QByteArray> lines = call.output.split('\n');
    // Under Wine the code page is a Windows one, not UTF-8: the row beyond ASCII
    // shows the conversion.
    if (onWindows)
        QVERIFY(narrow(QString::fromUtf8("é")) != QByteArray("\xc3\xa9"));

    const QList<FormPart> parts =
        recordedForm(share ? "/kvr/originalFile/insertBatchBrdAndShare" : "/kvr/originalFile/uploadMultipleFile");
    QCOMPARE(parts.size(), sent.size() + 1);
    QStringList names;
    for (int i = 0; i < sent.size(); ++i) {
        // Part i is the file of line i: same order, the scan's.
        const QString name = fromNarrow(lines[i]).section(QDir::separator(), -1);
        QCOMPARE(lines[i], narrow(QStringLiteral("file path:") + base + QDir::separator() + name));
        QCOMPARE(parts[i].headers,
                 (HeaderList{{"Content-Disposition", "form-data;name=multipartFiles;filename=" + name.toUtf8()}}));
        QCOMPARE(parts[i].body, name.toUtf8() + " content");
        names << name;
    }
    names.sort();
    QCOMPARE(names, sent);
    QCOMPARE(parts.last().headers, (HeaderList{{"Content-Disposition", dataDisposition}}));
    QCOMPARE(parts.last().body, record);
}

void TransferTest::uploadOutcomes_data()
{
    addCaseColumn();
    const Wire single{"POST", "/kvr/originalFile/uploadFile", "multipart/form-data", {}, "tk"};
    const Wire folderWire{"POST", "/kvr/originalFile/uploadMultipleFile", "multipart/form-data", {}, "tk"};
    const QString singleRecord =
        sent(R"({"fileInfo":{"createuserid":0,"isError":0,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})");
    const QString folderRecord = sent(R"({"createuserid":0,"parentid":0,"source":0,"type":0,"zkcompanycode":""})");
    CaseList cases{
        {"upload_file success hands back the board id", norva_sdk_upload_file, "{}",
         ScriptedReply::json(R"({"code":200,"data":77})"), single, R"({"Board_Id":77,"message":"import file success","status":200})", {}},
        {"upload_file success without data", norva_sdk_upload_file, "{}", ScriptedReply::json(R"({"code":200})"), single,
         R"({"message":"import file success","status":200})", {}},
        {"upload_file failure with null data", norva_sdk_upload_file, "{}", ScriptedReply::json(R"({"code":500,"data":null})"),
         single, R"({"data":null,"message":"import file fail","status":400})", {}},
        {"upload_files failure carries msg and the record", norva_sdk_upload_files, R"({"file_uploadpath":"/nonexistent"})",
         ScriptedReply::json(R"({"code":500,"msg":"full","data":9})"), folderWire,
         R"({"API_msg":"full","data":)" + folderRecord + R"(,"message":"import files fail","status":400})", {}},
        {"upload_files failure with a numeric msg", norva_sdk_upload_files, R"({"file_uploadpath":"/nonexistent"})",
         ScriptedReply::json(R"({"code":1,"msg":3})"), folderWire,
         R"({"API_msg":"","data":)" + folderRecord + R"(,"message":"import files fail","status":400})", {}},
        {"upload_files success says nothing of the boards", norva_sdk_upload_files, R"({"file_uploadpath":"/nonexistent"})",
         ScriptedReply::json(R"({"code":200,"data":[1,2]})"), folderWire, R"({"message":"import files success","status":200})", {}},
    };
    const auto add = [&cases](const CaseList& more) { cases.insert(cases.end(), more.begin(), more.end()); };
    add(httpClassCases("upload_file", norva_sdk_upload_file, "{}", single, true, singleRecord));
    add(httpClassCases("upload_files", norva_sdk_upload_files, R"({"file_uploadpath":"/nonexistent"})", folderWire, true, folderRecord));
    add(argumentFailureCases("upload_file2share", norva_sdk_upload_file2share));
    addCases(cases);
}

void TransferTest::downloads_data()
{
    QTest::addColumn<void*>("operation");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<QByteArray>("sentForm"); // null: nothing sent
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QStringList>("filesAfter"); // below the temporary folder

    void* const records = reinterpret_cast<void*>(norva_sdk_download_binary_file);
    void* const mall = reinterpret_cast<void*>(norva_tavlin_download_binaryfile);
    const QByteArray bytes("G04 top layer*\n\0\x01\x02", 18);
    const ScriptedReply topLayer = ScriptedReply::file(bytes, "attachment;filename=top%20layer.gbr");
    const QString into = R"("file_downloadpath":"$DIR/in")";
#ifdef NORVA_TEST_HOST_APPLICATION
    const QString mallOpenFailure = "File: $DIR/in/x.gbr$SEPx.gbr open failed"; // the host's own application
#else
    const QString mallOpenFailure = "File:$DIR/in/x.gbr$SEPx.gbr" "open failed";
#endif

    QTest::newRow("stored under the decoded name")
        << records << "{" + into + R"(,"data":{"id":5,"userId":3}})" << topLayer << QByteArray("id=5&userId=3")
        << R"({"filename":"top layer.gbr","message":"download success","new_name":"","status":200})"
        << QStringList{"in/top layer.gbr"};
    QTest::newRow("reName keeps the extension and wins over the stamp")
        << records << "{" + into + R"(,"reName":"second","isTimeStamp":true})" << topLayer << QByteArray("id=0&userId=0")
        << R"({"filename":"top layer.gbr","message":"download success","new_name":"second.gbr","status":200})"
        << QStringList{"in/second.gbr"};
    QTest::newRow("a numeric reName and isTimeStamp 1 change nothing")
        << records << "{" + into + R"(,"reName":5,"isTimeStamp":1})" << topLayer << QByteArray("id=0&userId=0")
        << R"({"filename":"top layer.gbr","message":"download success","new_name":"","status":200})"
        << QStringList{"in/top layer.gbr"};
    QTest::newRow("an existing file is overwritten")
        << records << "{" + into + "}" << ScriptedReply::file("new", "filename=old.txt") << QByteArray("id=0&userId=0")
        << R"({"filename":"old.txt","message":"download success","new_name":"","status":200})" << QStringList{"in/old.txt"};
    QTest::newRow("empty body") << records << "{" + into + "}" << ScriptedReply::file("", "filename=x.gbr")
        << QByteArray("id=0&userId=0") << R"({"message":"download fail","status":400})" << QStringList{};
    QTest::newRow("no header: the folder itself can't be opened")
        << records << "{" + into + "}" << ScriptedReply::file("x", QByteArray()) << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/in$SEPopen failed","message":"download fail","status":400})" << QStringList{};
    QTest::newRow("a folder that does not exist is not created")
        << records << R"({"file_downloadpath":"$DIR/none"})" << topLayer << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/none$SEPtop layer.gbr)" "open failed\",\"message\":\"download fail\",\"status\":400}"
        << QStringList{};
    QTest::newRow("a name with .. and / stays out of the file system")
        << records << "{" + into + "}" << ScriptedReply::file("evil", "filename=..%2F..%2Fevil.sh") << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/in$SEP../../evil.sh)" "open failed\",\"message\":\"download fail\",\"status\":400}"
        << QStringList{};
    QTest::newRow("the name .. is refused")
        << records << "{" + into + "}" << ScriptedReply::file("evil", "filename=..") << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/in$SEP..)" "open failed\",\"message\":\"download fail\",\"status\":400}" << QStringList{};
    QTest::newRow("a reName with a separator is refused")
        << records << "{" + into + R"(,"reName":"../up"})" << topLayer << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/in$SEP../up.gbr)" "open failed\",\"message\":\"download fail\",\"status\":400}"
        << QStringList{};
    QTest::newRow("a 10 KiB name can't be opened")
        << records << "{" + into + "}" << ScriptedReply::file("x", "filename=" + QByteArray(10240, 'n'))
        << QByteArray("id=0&userId=0")
        << R"({"error":"File:$DIR/in$SEP)" + QString(10240, 'n') + R"(open failed","message":"download fail","status":400})"
        << QStringList{};
    // Decoding the header as UTF-8 ends the text at a NUL byte: the name is cut
    // there, and stays inside the folder.
    QTest::newRow("a NUL byte ends the name")
        << records << "{" + into + "}" << ScriptedReply::file("x", "filename=a%00/../../b.gbr") << QByteArray("id=0&userId=0")
        << R"({"filename":"a","message":"download success","new_name":"","status":200})" << QStringList{"in/a"};
    QTest::newRow("records download: HTTP 402") << records << "{" + into + "}" << ScriptedReply::withStatus(402)
        << QByteArray("id=0&userId=0") << R"({"message":"token expired","status":402})" << QStringList{};
    QTest::newRow("records download: peer closes")
        << records << "{" + into + "}" << ScriptedReply::closeWithoutAnswer() << QByteArray("id=0&userId=0")
        << R"({"message":"Server shuts down","status":400})" << QStringList{};
    QTest::newRow("records download: argument parse failure")
        << records << "" << ScriptedReply() << QByteArray() << R"({"message":"jsonstr parse error","status":400})" << QStringList{};

    QTest::newRow("mall download sends id only, no token")
        << mall << "{" + into + R"(,"data":{"id":12,"userId":3}})" << topLayer << QByteArray("id=12")
        << R"({"filename":"top layer.gbr","message":"download success","new_name":"","status":200})"
        << QStringList{"in/top layer.gbr"};
    QTest::newRow("mall 204 names the board") << mall << R"({"data":{"id":12}})" << ScriptedReply::withStatus(204)
        << QByteArray("id=12") << R"({"BoardId":12,"message":"Can not find this file","status":400})" << QStringList{};
    QTest::newRow("mall 204 keeps a text id as text") << mall << R"({"data":{"id":"12"}})" << ScriptedReply::withStatus(204)
        << QByteArray("id=0") << R"({"BoardId":"12","message":"Can not find this file","status":400})" << QStringList{};
    QTest::newRow("mall 204 without an id") << mall << "{}" << ScriptedReply::withStatus(204) << QByteArray("id=0")
        << R"({"message":"Can not find this file","status":400})" << QStringList{};
    QTest::newRow("mall 402 is an ordinary failure") << mall << "{}" << ScriptedReply::withStatus(402) << QByteArray("id=0")
        << R"({"message":"request fail","status":400})" << QStringList{};
    QTest::newRow("mall open failure text") << mall << R"({"file_downloadpath":"$DIR/in/x.gbr"})"
        << ScriptedReply::file("x", "filename=x.gbr") << QByteArray("id=0")
        << R"({"error":")" + mallOpenFailure + R"(","message":"download fail","status":400})" << QStringList{};
    QTest::newRow("mall argument parse failure") << mall << "{x" << ScriptedReply() << QByteArray()
        << R"({"message":"json str parse error","status":400})" << QStringList{};

    // A body that breaks off is not stored, and the earlier file of that name
    // keeps its bytes; a status other than 200 decides as it does everywhere.
    const QString downloadFail = R"({"message":"download fail","status":400})";
    const QString requestFail = R"({"message":"request fail","status":400})";
    const struct {
        int status;
        QString records, mall;
    } cutOutcomes[] = {{200, downloadFail, downloadFail},
                       {402, R"({"message":"token expired","status":402})", requestFail},
                       {500, requestFail, requestFail}};
    for (const auto& outcome : cutOutcomes) {
        for (const auto& [cut, reply] : cutShortReplies(outcome.status, "Content-Disposition: filename=old.txt\r\n")) {
            // Qt ends a chunked body that breaks off at a close as if it were
            // whole, and shows nothing of the chunks it saw: see the header.
            if (outcome.status == 200 && cut.startsWith(QLatin1String("chunked")))
                continue;
            const QByteArray name = QByteArray::number(outcome.status) + " " + cut.toUtf8();
            QTest::newRow("records download, " + name) << records << "{" + into + "}" << reply
                << QByteArray("id=0&userId=0") << outcome.records << QStringList{};
            QTest::newRow("mall download, " + name) << mall << "{" + into + "}" << reply << QByteArray("id=0")
                << outcome.mall << QStringList{};
        }
    }
}

void TransferTest::downloads()
{
    QFETCH(void*, operation);
    QFETCH(ScriptedReply, reply);
    for (int run = runsOf(reply); run > 0 && !QTest::currentTestFailed(); --run) {
        service.reset();
        QDir(folder->filePath(QStringLiteral("in"))).removeRecursively();
        // An earlier file that only a successful download of that name replaces.
        writeFile(folder->filePath(QStringLiteral("in/old.txt")), "old content");
        download(reinterpret_cast<OperationFunction>(operation), reply);
    }
}

void TransferTest::download(OperationFunction operation, const ScriptedReply& reply)
{
    QFETCH(QString, argument);
    QFETCH(QByteArray, sentForm);
    QFETCH(QString, expected);
    QFETCH(QStringList, filesAfter);
    service.script(reply);
    if (reply.kind == ScriptedReply::Kind::CloseWithoutAnswer || reply.kind == ScriptedReply::Kind::Raw)
        service.setDefaultReply(reply);

    const bool mall = operation == norva_tavlin_download_binaryfile;
    QString fullArgument = argument;
    if (argument.startsWith(QLatin1Char('{')))
        fullArgument = QStringLiteral(R"({"ipconfig":"$ADDR","token":"tk")") + (argument == "{}" ? "" : ",") + argument.mid(1);
    const auto call = callOperation(operation, inFolder(substitute(fullArgument, service.address())));
    QCOMPARE(call.result, inFolder(expected));
    QCOMPARE(call.lines, QStringList{inFolder(expected)});

    if (sentForm.isNull()) {
        QCOMPARE(service.requestCount(), 0);
    } else {
        const RecordedRequest request = service.fullestRequest();
        QCOMPARE(request.target, QByteArray(mall ? "/mall/originalFile/downloadFile" : "/kvr/originalFile/downloadFile"));
        QCOMPARE(request.body, sentForm);
        QCOMPARE(request.header("Content-Type"), QByteArray("application/x-www-form-urlencoded"));
        QCOMPARE(request.header("token"), mall ? QByteArray() : QByteArray("tk"));
    }
    // Nothing but the expected file and the earlier one, anywhere below the
    // temporary folder.
    QStringList expectedFiles = filesAfter;
    if (!expectedFiles.contains(QStringLiteral("in/old.txt")))
        expectedFiles << QStringLiteral("in/old.txt");
    expectedFiles.sort();
    QCOMPARE(filesBelow(folder->path()), expectedFiles);
    // A stored file is readable as any file made there is (the earlier one was
    // made with the default permissions), not only by its owner.
    const QFileDevice::Permissions madeThere = QFile::permissions(folder->filePath(QStringLiteral("in/old.txt")));
    for (const QString& file : filesAfter) {
        QCOMPARE(readFile(folder->filePath(file)), reply.body);
        QCOMPARE(QFile::permissions(folder->filePath(file)), madeThere);
    }
    if (!filesAfter.contains(QStringLiteral("in/old.txt")))
        QCOMPARE(readFile(folder->filePath(QStringLiteral("in/old.txt"))), QByteArray("old content"));
}

void TransferTest::stampedDownload()
{
    service.script(ScriptedReply::file("bytes", "attachment;filename=a.b.gbr"));
    const QDateTime before = QDateTime::currentDateTime();
    const auto call = callOperation(norva_sdk_download_binary_file,
                                    inFolder(substitute(R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR","isTimeStamp":true})",
                                                        service.address())));
    const QDateTime after = QDateTime::currentDateTime();
    // The part between the first and the last point is lost: a.b.gbr -> a_T.gbr.
    QStringList allowed;
    for (QDateTime t = before.addMSecs(-before.time().msec()); t <= after; t = t.addSecs(1))
        allowed << QStringLiteral(R"({"filename":"a_%1.gbr","message":"download success","new_name":"","status":200})")
                       .arg(t.toString(QStringLiteral("yyyyMMddhhmmss")));
    QVERIFY2(allowed.contains(call.result), qPrintable(call.result));
    const QString stored = call.result.section(QLatin1Char('"'), 3, 3);
    QCOMPARE(readFile(folder->filePath(stored)), QByteArray("bytes"));
}

// A download that can't be written whole (here: past a file size limit) stores
// nothing: no partial file, and an earlier file of that name as it was.
void TransferTest::downloadThatCannotBeWritten()
{
#ifndef Q_OS_UNIX
    QSKIP("needs a file size limit (RLIMIT_FSIZE)");
#else
    writeFile(folder->filePath(QStringLiteral("in/old.txt")), "old content");
    rlimit before{};
    QVERIFY(getrlimit(RLIMIT_FSIZE, &before) == 0);
    rlimit limited = before;
    limited.rlim_cur = 64 << 10;
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    for (const char* name : {"old.txt", "new.gbr"}) {
        service.script(ScriptedReply::file(QByteArray(1 << 20, 'b'), QByteArray("filename=") + name));
        QVERIFY(setrlimit(RLIMIT_FSIZE, &limited) == 0);
        const auto call = callOperation(norva_sdk_download_binary_file,
                                        inFolder(substitute(R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR/in"})",
                                                            service.address())));
        setrlimit(RLIMIT_FSIZE, &before);
        QCOMPARE(call.result, QStringLiteral(R"({"message":"download fail","status":400})"));
        QCOMPARE(filesBelow(folder->path()), QStringList{"in/old.txt"});
        QCOMPARE(readFile(folder->filePath(QStringLiteral("in/old.txt"))), QByteArray("old content"));
    }
    std::signal(SIGXFSZ, previousHandler);
#endif
}

NORVA_TEST_MAIN(TransferTest)
#include "test_transfer.moc"
