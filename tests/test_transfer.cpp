// SPDX-License-Identifier: MIT
// Uploads and downloads: the form exactly as it crossed the wire, the files a
// download leaves behind, and every outcome's result document.
#include "support/operation_table.h"
#include "support/test_main.h"

#include "form_reader.h"
#include "norva_api_qt.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>


#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#endif

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;
using NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile;

namespace {

// A part of a form as it crossed the wire: the value of its one header, and
// its content.
struct FormPart {
    QByteArray disposition;
    QByteArray body;
};

const QByteArray dataDisposition = R"(form-data;name="data")";

const bool onWindows = QDir::separator() == QLatin1Char('\\');

// Narrow text as the system writes it: in the code page on Windows, UTF-8 here.
QByteArray narrow(const QString& text)
{
    return onWindows ? text.toLocal8Bit() : text.toUtf8();
}

struct FormRow {
    QByteArray name;
    bool share;
    QStringList files;      // created in (one file) or below (a folder) "boards"
    QString argument;       // one file: the argument; a folder: the data
    QString uploadPath;     // a folder: relative to the temporary folder
    QList<QByteArray> sent; // one file: its disposition; a folder: the names in the form
    QByteArray record;
};

struct DownloadRow {
    QByteArray name;
    bool mall;
    QString argument; // a leading "{" gets the address and the token
    ScriptedReply reply;
    QByteArray sentForm; // null: nothing sent
    QString expected;
    QStringList filesAfter; // below the temporary folder
    QByteArray storedBytes = {}; // what they hold; null: the reply's body
};

} // namespace

Q_DECLARE_METATYPE(FormRow)
Q_DECLARE_METATYPE(DownloadRow)

class TransferTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        service.reset();
        folder.reset(new QTemporaryDir);
        QDir::setCurrent(folder->path()); // for the rows with relative paths
    }
    void cleanup() { QDir::setCurrent(QDir::tempPath()); } // Windows removes no folder in use

    void singleFileForm_data();
    void singleFileForm();
    void folderForm_data();
    void folderForm();
    void uploadOutcomes_data();
    void uploadOutcomes() { runCase(service); }
    void downloads_data();
    void downloads();
    void downloadPastAFileSizeLimit();

private:
    // "$DIR" is the temporary folder; "$SEP" the separator the library joins
    // paths with, as it stands inside a JSON text.
    QString inFolder(QString text) const
    {
        return substitute(text.replace(QLatin1String("$DIR"), folder->path())
                              .replace(QLatin1String("$SEP"), onWindows ? QStringLiteral("\\\\") : QStringLiteral("/")),
                          service.address());
    }
    // (QTemporaryDir::filePath refuses a name that starts with ':'.)
    QString inTemp(const QString& relative) const { return folder->path() + QLatin1Char('/') + relative; }
    QList<FormPart> recordedForm(const char* path);

    TestService service;
    QScopedPointer<QTemporaryDir> folder;
};

// The form of the one request recorded, read with the local service's tolerant
// reader. The body must be exactly those parts written out again: nothing
// strays before, between or after them.
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
        const QByteArray boundary = QByteArray::fromStdString(norva::service::formBoundary(contentType.toStdString()));
        std::vector<norva::service::FormPart> read;
        QVERIFY(!boundary.isEmpty() && norva::service::splitForm(request.body.toStdString(), boundary.toStdString(), read));
        QByteArray written;
        for (const norva::service::FormPart& part : read) {
            const norva::service::FormField& field = part.field;
            const QByteArray name = QByteArray::fromStdString(field.name);
            parts.append({field.hasFilename ? "form-data;name=" + name + ";filename=" + QByteArray::fromStdString(field.filename)
                                            : "form-data;name=\"" + name + '"',
                          QByteArray::fromStdString(part.content)});
            written += "--" + boundary + "\r\nContent-Disposition: " + parts.last().disposition + "\r\n\r\n" + parts.last().body + "\r\n";
        }
        QCOMPARE(request.body, written + "--" + boundary + "--\r\n");
    }();
    return parts;
}

void TransferTest::singleFileForm_data()
{
    const QByteArray zeroFileInfo =
        R"({"fileInfo":{"createuserid":0,"isError":0,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})";
    const QByteArray defaultErrorInfo =
        R"("errorInfo":{"errorMessage":"","gridX":"","gridY":"","isReappear":0,"layer":0,"libraryId":0,"priority":0,"remark":"","source":0})";
    const auto file = [](const QString& name) { return QList<QByteArray>{"form-data;name=file;filename=" + name.toUtf8()}; };
    std::vector<FormRow> rows{
        {"blanks in the name stay unquoted; isError 1 without errorInfo sends defaults", false, {"a b.brd"},
         R"({"file_uploadpath":"$DIR/a b.brd","data":{"fileInfo":{"zkcompanycode":"ZK","createuserid":3,"isError":1}}})", {}, file("a b.brd"),
         "{" + defaultErrorInfo + R"(,"fileInfo":{"createuserid":3,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":"ZK"}})"},
        {"isError 1.0 counts; errorInfo read key by key, numbers as text become empty", false, {"x.gbr"},
         R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":1.0},"errorInfo":{"gridX":5,"gridY":"7.5","remark":"r","priority":2,"extra":1}}})", {},
         file("x.gbr"),
         R"({"errorInfo":{"errorMessage":"","gridX":"","gridY":"7.5","isReappear":0,"layer":0,"libraryId":0,"priority":2,"remark":"r","source":0},"fileInfo":{"createuserid":0,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})"},
        {"isError true is not 1", false, {"x.gbr"}, R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":true},"errorInfo":{"remark":"r"}}})", {},
         file("x.gbr"), zeroFileInfo},
        {"isError \"1\" is not 1", false, {"x.gbr"}, R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":"1","createuserid":"12"}}})", {},
         file("x.gbr"), zeroFileInfo},
        {"isError 2 goes out without errorInfo", false, {"x.gbr"}, R"({"file_uploadpath":"$DIR/x.gbr","data":{"fileInfo":{"isError":2},"errorInfo":{}}})", {},
         file("x.gbr"), R"({"fileInfo":{"createuserid":0,"isError":2,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})"},
        {"no data at all", false, {"x.gbr"}, R"({"file_uploadpath":"$DIR/x.gbr"})", {}, file("x.gbr"), zeroFileInfo},
        {"non-ASCII name goes out as UTF-8", false, {QString::fromUtf8("plaque é.brd")}, QString::fromUtf8(R"({"file_uploadpath":"$DIR/plaque é.brd"})"), {},
         file(QString::fromUtf8("plaque é.brd")), zeroFileInfo},
        {"a missing file still sends the form", false, {}, R"({"file_uploadpath":"$DIR/gone.brd"})", {}, file("gone.brd"), zeroFileInfo},
        {"no file_uploadpath: empty file name", false, {}, R"({})", {}, file(""), zeroFileInfo},
        {"file2share sends eight keys; a text party is 0", true, {"s.brd"},
         R"({"file_uploadpath":"$DIR/s.brd","data":{"fileInfo":{"acsTypeId":"4","acsType":2,"isError":1},"errorInfo":{"layer":3}}})", {}, file("s.brd"),
         R"({"errorInfo":{"errorMessage":"","gridX":"","gridY":"","isReappear":0,"layer":3,"libraryId":0,"priority":0,"remark":"","source":0},)"
         R"("fileInfo":{"acsType":2,"acsTypeId":0,"createuserid":0,"isError":1,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})"},
    };
    // Qt would read the path as one of its resources (Windows has no such names).
    if (!onWindows)
        rows.push_back({"a relative path that starts with ':'", false, {":b.brd"}, R"({"file_uploadpath":":b.brd"})", {}, file(":b.brd"), zeroFileInfo});
    addRows(rows);
}

void TransferTest::singleFileForm()
{
    QFETCH(FormRow, row);
    const QByteArray content = "board bytes\r\n--not a boundary\0with a NUL";
    for (const QString& name : row.files)
        writeFile(inTemp(name), content);
    const QString argument = inFolder(row.argument).replace(QLatin1String("{"), QStringLiteral(R"({"ipconfig":"%1","token":"tk",)").arg(service.address()));
    const auto call = callOperation(row.share ? norva_sdk_upload_file2share : norva_sdk_upload_file,
                                    QString(argument).replace(QLatin1String(",}"), QLatin1String("}")));
    const QString expected = row.share ? R"({"Board_Id":null,"message":"import file and insert 2 share success","status":200})"
                                       : R"({"Board_Id":null,"message":"import file success","status":200})";
    QCOMPARE(call.result, expected);
    QCOMPARE(call.lines, QStringList{expected});

    const QList<FormPart> parts = recordedForm(row.share ? "/kvr/originalFile/insertBrdAndShare" : "/kvr/originalFile/uploadFile");
    QCOMPARE(parts.size(), 2);
    QCOMPARE(parts[0].disposition, row.sent.value(0));
    QCOMPARE(parts[0].body, row.files.isEmpty() ? QByteArray() : content);
    QCOMPARE(parts[1].disposition, dataDisposition);
    QCOMPARE(parts[1].body, row.record);
}

void TransferTest::folderForm_data()
{
    const QByteArray flat = R"({"createuserid":2,"parentid":0,"source":0,"type":1,"zkcompanycode":"ZK"})";
    const QString data = R"({"zkcompanycode":"ZK","createuserid":2,"type":1,"acsTypeId":5,"isError":1})";
    addRows(std::vector<FormRow>{
        {"files directly in the folder, hidden ones included, nested ones not", false, {"b.brd", "a b.gbr", ".hidden", "sub/deep.brd"}, data,
         "boards", {".hidden", "a b.gbr", "b.brd"}, flat},
        {"trailing separator doubles it in each path", false, {"one.brd"}, data, "boards/", {"one.brd"}, flat},
        {"empty folder sends the data part alone", false, {}, data, "boards", {}, flat},
        {"folder with only sub-folders", false, {"s1/x.brd", "s2/y.brd"}, data, "boards", {}, flat},
        {"missing folder", false, {}, data, "nowhere", {}, flat},
        // Found, named in UTF-8 in the form, and shown in the "file path:" line
        // as narrow text of the system.
        {"a folder and a name beyond ASCII", false, {QString::fromUtf8("dossier é/plan ü.brd")}, data, QString::fromUtf8("boards/dossier é"),
         {QString::fromUtf8("plan ü.brd").toUtf8()}, flat},
        // On Windows the line shows "?" for what the code page can't spell;
        // the file is still found, named and sent as it is.
        {"a folder and a name beyond the code page", false, {QString::fromUtf8("上传 dir/板 ü;q.brd"), QString::fromUtf8("上传 dir/a.gbr")},
         data, QString::fromUtf8("boards/上传 dir"), {"a.gbr", QString::fromUtf8("板 ü;q.brd").toUtf8()}, flat},
        {"files2share adds the share keys", true, {"z.brd"}, data, "boards", {"z.brd"},
         R"({"acsType":0,"acsTypeId":5,"createuserid":2,"parentid":0,"source":0,"type":1,"zkcompanycode":"ZK"})"},
    });
}

void TransferTest::folderForm()
{
    QFETCH(FormRow, row);
    QDir(folder->path()).mkpath(QStringLiteral("boards"));
    for (const QString& file : row.files)
        writeFile(folder->filePath(QStringLiteral("boards/") + file), QFileInfo(file).fileName().toUtf8() + " content");

    const QString base = folder->filePath(row.uploadPath);
    const QString argument = QStringLiteral(R"({"ipconfig":"%1","token":"tk","file_uploadpath":"%2","data":%3})")
                                 .arg(service.address(), base, row.argument);
    const auto call = callOperation(row.share ? norva_sdk_upload_files2share : norva_sdk_upload_files, argument);

    const QString expected = row.share ? R"({"message":"import files and insert 2 share success","status":200})"
                                       : R"({"message":"import files success","status":200})";
    QCOMPARE(call.result, expected);
    QCOMPARE(call.lines.size(), row.sent.size() + 1);
    QCOMPARE(call.lines.last(), expected);
    const QList<QByteArray> lines = call.output.split('\n');
    // Under Wine the code page is a Windows one, not UTF-8: the row beyond ASCII
    // shows the conversion.
    if (onWindows)
        QVERIFY(narrow(QString::fromUtf8("é")) != QByteArray("\xc3\xa9"));

    const QList<FormPart> parts =
        recordedForm(row.share ? "/kvr/originalFile/insertBatchBrdAndShare" : "/kvr/originalFile/uploadMultipleFile");
    QCOMPARE(parts.size(), row.sent.size() + 1);
    QList<QByteArray> names;
    const QByteArray filePart = "form-data;name=multipartFiles;filename=";
    for (int i = 0; i < row.sent.size(); ++i) {
        // Part i is the file of line i: same order, the scan's.
        QVERIFY(parts[i].disposition.startsWith(filePart));
        const QByteArray name = parts[i].disposition.mid(filePart.size());
        QCOMPARE(lines[i], narrow(QStringLiteral("file path:") + base + QDir::separator() + QString::fromUtf8(name)));
        QCOMPARE(parts[i].body, name + " content");
        names << name;
    }
    std::sort(names.begin(), names.end());
    QCOMPARE(names, row.sent);
    QCOMPARE(parts.last().disposition, dataDisposition);
    QCOMPARE(parts.last().body, row.record);
}

void TransferTest::uploadOutcomes_data()
{
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
    addRows(cases);
}

void TransferTest::downloads_data()
{
    const QByteArray bytes("G04 top layer*\n\0\x01\x02", 18);
    const ScriptedReply topLayer = ScriptedReply::file(bytes, "attachment;filename=top%20layer.gbr");
    const QString into = R"({"file_downloadpath":"$DIR/in")";
    const QString stored = R"({"filename":"top layer.gbr","message":"download success","new_name":"","status":200})";
    const QString downloadFail = R"({"message":"download fail","status":400})";
    const QString requestFail = R"({"message":"request fail","status":400})";
    const QString tokenExpired = R"({"message":"token expired","status":402})";
    // A download into "in" that could not open `name` there.
    const auto openFailed = [](const QString& name) {
        return R"({"error":"File:$DIR/in$SEP)" + name + R"(open failed","message":"download fail","status":400})";
    };
    // A records download into "in", with `more` keys and the default ids.
    const auto records = [&into](const char* name, const QString& more, const ScriptedReply& reply, const QString& expected,
                                 const QStringList& files = {}) {
        return DownloadRow{name, false, into + more + "}", reply, "id=0&userId=0", expected, files};
    };
#ifdef NORVA_TEST_HOST_APPLICATION
    const QString mallOpenFailure = "File: $DIR/in/x.gbr$SEPx.gbr open failed"; // the host's own application
#else
    const QString mallOpenFailure = "File:$DIR/in/x.gbr$SEPx.gbr" "open failed";
#endif

    std::vector<DownloadRow> rows{
        {"stored under the decoded name", false, into + R"(,"data":{"id":5,"userId":3}})", topLayer, "id=5&userId=3", stored, {"in/top layer.gbr"}},
        records("reName keeps the extension and wins over the stamp", R"(,"reName":"second","isTimeStamp":true)", topLayer,
                R"({"filename":"top layer.gbr","message":"download success","new_name":"second.gbr","status":200})", {"in/second.gbr"}),
        records("a numeric reName and isTimeStamp 1 change nothing", R"(,"reName":5,"isTimeStamp":1)", topLayer, stored, {"in/top layer.gbr"}),
        records("an existing file is overwritten", "", ScriptedReply::file("new", "filename=old.txt"),
                R"({"filename":"old.txt","message":"download success","new_name":"","status":200})", {"in/old.txt"}),
        records("empty body", "", ScriptedReply::file("", "filename=x.gbr"), downloadFail),
        records("no header: the folder itself can't be opened", "", ScriptedReply::file("x", QByteArray()),
                R"({"error":"File:$DIR/in$SEPopen failed","message":"download fail","status":400})"),
        {"a folder that does not exist is not created", false, R"({"file_downloadpath":"$DIR/none"})", topLayer, "id=0&userId=0",
         R"({"error":"File:$DIR/none$SEPtop layer.gbr)" "open failed\",\"message\":\"download fail\",\"status\":400}", {}},
        records("a name with .. and / stays out of the file system", "", ScriptedReply::file("evil", "filename=..%2F..%2Fevil.sh"),
                openFailed("../../evil.sh")),
        records("the name .. is refused", "", ScriptedReply::file("evil", "filename=.."), openFailed("..")),
        records("a reName with a separator is refused", R"(,"reName":"../up")", topLayer, openFailed("../up.gbr")),
        records("a 10 KiB name can't be opened", "", ScriptedReply::file("x", "filename=" + QByteArray(10240, 'n')),
                openFailed(QString(10240, 'n'))),
        // Decoding the header as UTF-8 ends the text at a NUL byte: the name is cut
        // there, and stays inside the folder.
        records("a NUL byte ends the name", "", ScriptedReply::file("x", "filename=a%00/../../b.gbr"),
                R"({"filename":"a","message":"download success","new_name":"","status":200})", {"in/a"}),
        records("records download: HTTP 402", "", ScriptedReply::withStatus(402), tokenExpired),
        records("records download: peer closes", "", ScriptedReply::closeWithoutAnswer(), R"({"message":"Server shuts down","status":400})"),
        {"records download: argument parse failure", false, "", ScriptedReply(), QByteArray(), R"({"message":"jsonstr parse error","status":400})", {}},

        {"mall download sends id only, no token", true, into + R"(,"data":{"id":12,"userId":3}})", topLayer, "id=12", stored, {"in/top layer.gbr"}},
        {"mall 204 names the board", true, R"({"data":{"id":12}})", ScriptedReply::withStatus(204), "id=12",
         R"({"BoardId":12,"message":"Can not find this file","status":400})", {}},
        {"mall 204 keeps a text id as text", true, R"({"data":{"id":"12"}})", ScriptedReply::withStatus(204), "id=0",
         R"({"BoardId":"12","message":"Can not find this file","status":400})", {}},
        {"mall 204 without an id", true, "{}", ScriptedReply::withStatus(204), "id=0", R"({"message":"Can not find this file","status":400})", {}},
        {"mall 402 is an ordinary failure", true, "{}", ScriptedReply::withStatus(402), "id=0", requestFail, {}},
        {"mall open failure text", true, R"({"file_downloadpath":"$DIR/in/x.gbr"})", ScriptedReply::file("x", "filename=x.gbr"), "id=0",
         R"({"error":")" + mallOpenFailure + R"(","message":"download fail","status":400})", {}},
        {"mall argument parse failure", true, "{x", ScriptedReply(), QByteArray(), R"({"message":"json str parse error","status":400})", {}},
    };

    // A coded body is stored as it decodes, and only once its coding ended.
    const QByteArray lines = QByteArray("G04 top layer*\n").repeated(4);
    const QByteArray gzipped("\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\x73\x37\x30\x51\x28\xc9\x2f\x50\xc8\x49\xac\x4c"
                             "\x2d\xd2\xe2\x72\x27\x85\x0b\x00\xb3\xfc\xa5\xca\x3c\x00\x00\x00", 38);
    const auto coded = [](const QByteArray& bytes, const QByteArray& coding) {
        ScriptedReply reply = ScriptedReply::file(bytes, "filename=top.gbr");
        reply.headers.append({"Content-Encoding", coding});
        return reply;
    };
    const QString storedTop = R"({"filename":"top.gbr","message":"download success","new_name":"","status":200})";
    rows.push_back(records("a gzip body is stored decoded", "", coded(gzipped, "gzip"), storedTop, {"in/top.gbr"}));
    rows.back().storedBytes = lines;
    rows.push_back(records("a deflate body is stored decoded", "", coded(qCompress(lines).mid(4), "Deflate"), storedTop, {"in/top.gbr"}));
    rows.back().storedBytes = lines;
    rows.push_back(records("a gzip body whose coding breaks off", "", coded(gzipped.left(20), "gzip"), downloadFail));

    if (!onWindows)
        rows.push_back({"a relative folder that starts with ':'", false, R"({"file_downloadpath":":in"})", topLayer, "id=0&userId=0",
                        stored, {":in/top layer.gbr"}});

    // A body that breaks off is not stored, and the earlier file of that name
    // keeps its bytes; a status other than 200 decides as it does everywhere.
    const struct {
        int status;
        QString records, mall;
    } cutOutcomes[] = {{200, downloadFail, downloadFail}, {402, tokenExpired, requestFail}, {500, requestFail, requestFail}};
    for (const auto& outcome : cutOutcomes) {
        for (const auto& [cut, reply] : cutShortReplies(outcome.status, "Content-Disposition: filename=old.txt\r\n")) {
            const QByteArray name = QByteArray::number(outcome.status) + " " + cut.toUtf8();
            rows.push_back({"records download, " + name, false, into + "}", reply, "id=0&userId=0", outcome.records, {}});
            rows.push_back({"mall download, " + name, true, into + "}", reply, "id=0", outcome.mall, {}});
        }
    }
    addRows(rows);
}

void TransferTest::downloads()
{
    QFETCH(DownloadRow, row);
    const OperationFunction operation = row.mall ? norva_tavlin_download_binaryfile : norva_sdk_download_binary_file;
    const QString argument = row.argument.startsWith(QLatin1Char('{'))
                                 ? R"({"ipconfig":"$ADDR","token":"tk")" + QString(row.argument == "{}" ? "" : ",") + row.argument.mid(1)
                                 : row.argument;
    QString expected = inFolder(row.expected);
    QStringList expectedFiles = row.filesAfter;
    if (!expectedFiles.contains(QStringLiteral("in/old.txt")))
        expectedFiles << QStringLiteral("in/old.txt");
    expectedFiles.sort();
    // Both faces where the host has an application, each run alike.
    const int runs = runsOf(row.reply);
    for (int run = QCoreApplication::instance() ? 2 * runs : runs; run > 0 && !QTest::currentTestFailed(); --run) {
        const FaceScope scope(run > runs ? Face::Async : Face::Blocking);
        service.reset();
        service.script(row.reply);
        if (row.reply.kind == ScriptedReply::Kind::CloseWithoutAnswer || row.reply.kind == ScriptedReply::Kind::Raw)
            service.setDefaultReply(row.reply);
        QDir(folder->filePath(QStringLiteral("in"))).removeRecursively();
        QDir(inTemp(QStringLiteral(":in"))).removeRecursively();
        QDir().mkpath(inTemp(QStringLiteral(":in")));
        // An earlier file that only a successful download of that name replaces.
        writeFile(folder->filePath(QStringLiteral("in/old.txt")), "old content");

        const auto call = callOperation(operation, inFolder(argument));
        QCOMPARE(call.result, expected);
        QCOMPARE(call.lines, currentFace() == Face::Async ? QStringList() : QStringList{expected});
        if (row.sentForm.isNull()) {
            QCOMPARE(service.requestCount(), 0);
        } else {
            const RecordedRequest request = service.fullestRequest();
            QCOMPARE(request.target, QByteArray(row.mall ? "/mall/originalFile/downloadFile" : "/kvr/originalFile/downloadFile"));
            QCOMPARE(request.body, row.sentForm);
            QCOMPARE(request.header("Content-Type"), QByteArray("application/x-www-form-urlencoded"));
            QCOMPARE(request.header("token"), row.mall ? QByteArray() : QByteArray("tk"));
        }
        // Nothing but the expected file and the earlier one, anywhere below the
        // temporary folder. A stored file is readable as any file made there is
        // (the earlier one was made with the default permissions), not only by
        // its owner.
        QCOMPARE(filesBelow(folder->path()), expectedFiles);
        const QFileDevice::Permissions madeThere = QFile::permissions(folder->filePath(QStringLiteral("in/old.txt")));
        for (const QString& file : row.filesAfter) {
            QCOMPARE(readFile(inTemp(file)), row.storedBytes.isNull() ? row.reply.body : row.storedBytes);
            QCOMPARE(QFile::permissions(inTemp(file)), madeThere);
        }
        if (!row.filesAfter.contains(QStringLiteral("in/old.txt")))
            QCOMPARE(readFile(folder->filePath(QStringLiteral("in/old.txt"))), QByteArray("old content"));
    }
}

// A download that can't be written whole (past the process's file size limit)
// stores nothing: neither a partial file nor a change to an earlier file.
void TransferTest::downloadPastAFileSizeLimit()
{
#ifndef Q_OS_UNIX
    QSKIP("needs setrlimit");
#else
    writeFile(folder->filePath(QStringLiteral("in/old.txt")), "old content");
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    for (const char* name : {"old.txt", "new.gbr"}) {
        service.script(ScriptedReply::file(QByteArray(1 << 20, 'b'), QByteArray("filename=") + name));
        rlimit lowered = before;
        lowered.rlim_cur = 64 << 10;
        setrlimit(RLIMIT_FSIZE, &lowered);
        const QString result =
            callOperation(norva_sdk_download_binary_file, inFolder(R"({"ipconfig":"$ADDR","file_downloadpath":"$DIR/in"})")).result;
        setrlimit(RLIMIT_FSIZE, &before);
        QCOMPARE(result, QStringLiteral(R"({"message":"download fail","status":400})"));
        QCOMPARE(filesBelow(folder->path()), QStringList{"in/old.txt"});
        QCOMPARE(readFile(folder->filePath(QStringLiteral("in/old.txt"))), QByteArray("old content"));
    }
    std::signal(SIGXFSZ, previousHandler);
#endif
}

NORVA_TEST_MAIN(TransferTest)
#include "test_transfer.moc"
