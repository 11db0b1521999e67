// SPDX-License-Identifier: MIT
// Uploads: one file or every file directly in a folder, with its record, in one
// multipart form.
#include "frame/operation.h"
#include "transfer/platform.h"
#include "transfer/upload_file.h"

#include "norva_api_qt.h"

#include <QFileInfo>
#include <QHttpMultiPart>
#include <QJsonDocument>

using namespace norva;
using namespace norva::transfer;

namespace {

// The file name is not quoted or escaped: the service reads it up to the line end.
void appendFilePart(QHttpMultiPart& form, const char* fieldName, const QString& path)
{
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QStringLiteral("form-data;name=%1;filename=%2")
                       .arg(QString::fromLatin1(fieldName))
                       .arg(QFileInfo(path).fileName()));
    auto* const file = new UploadFile(path, &form);
    part.setBodyDevice(file);
    form.append(part);
}

void appendDataPart(QHttpMultiPart& form, const QByteArray& record)
{
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data;name=\"data\""));
    part.setBody(record);
    form.append(part);
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

KeyList fileRecord(bool withShare)
{
    KeyList keys{
        {"zkcompanycode", "zkcompanycode", Read::Text},
        {"createuserid", "createuserid", Read::Integer},
        {"parentid", "parentid", Read::Integer},
        {"type", "type", Read::Integer},
        {"source", "source", Read::Integer},
    };
    if (withShare)
        keys = keys + KeyList{{"acsTypeId", "acsTypeId", Read::Integer}, {"acsType", "acsType", Read::Integer}};
    return keys;
}

KeyList errorInfoRecord()
{
    return {
        {"source", "source", Read::Integer},
        {"isReappear", "isReappear", Read::Integer},
        {"remark", "remark", Read::Text},
        {"gridX", "gridX", Read::Text},
        {"gridY", "gridY", Read::Text},
        {"priority", "priority", Read::Integer},
        {"layer", "layer", Read::Integer},
        {"libraryId", "libraryId", Read::Integer},
        {"errorMessage", "errorMessage", Read::Text},
    };
}

// One file: {"fileInfo":{...}} and, only when fileInfo.isError is the number 1,
// "errorInfo" with all nine keys (defaults when the caller gave none).
Body singleFileForm(bool withShare)
{
    return customBody([withShare](const QJsonObject& arguments, const QString& url) {
        const QString path = readText(arguments, QStringLiteral("file_uploadpath"));
        const QJsonObject data = readObject(arguments, QStringLiteral("data"));
        const QJsonObject fileInfo = readObject(data, QStringLiteral("fileInfo"));

        QJsonObject record;
        record.insert(QStringLiteral("fileInfo"),
                      mapKeys(fileInfo, fileRecord(withShare) + KeyList{{"isError", "isError", Read::Integer}}));
        if (fileInfo.value(QStringLiteral("isError")) == QJsonValue(1))
            record.insert(QStringLiteral("errorInfo"),
                          mapKeys(readObject(data, QStringLiteral("errorInfo")), errorInfoRecord()));
        const QByteArray recordText = compact(record);

        auto form = std::make_unique<QHttpMultiPart>(QHttpMultiPart::FormDataType);
        appendFilePart(*form, "file", path);
        appendDataPart(*form, recordText);
        return formPost(url, std::move(form), recordText);
    });
}

// A folder: one "multipartFiles" part per file lying directly in it, in the
// order the system lists them, and the flat record last.
Body folderForm(bool withShare)
{
    return customBody([withShare](const QJsonObject& arguments, const QString& url) {
        const QString folder = readText(arguments, QStringLiteral("file_uploadpath"));
        const QJsonObject data = readObject(arguments, QStringLiteral("data"));
        const QByteArray recordText = compact(mapKeys(data, fileRecord(withShare)));

        std::vector<FoundFile> files;
        scan_folder_files(folder.toStdString(), files);
        auto form = std::make_unique<QHttpMultiPart>(QHttpMultiPart::FormDataType);
        for (const FoundFile& file : files) {
            echoLine("file path:" + file.narrow);
            appendFilePart(*form, "multipartFiles", QString::fromStdString(file.utf8));
        }
        appendDataPart(*form, recordText);
        return formPost(url, std::move(form), recordText);
    });
}

OutcomeTable singleFileOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"Board_Id", From::ReplyData}}},
        {otherwise, 400, failure, {{"data", From::ReplyData}}},
    };
}

OutcomeTable folderOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {}},
        {otherwise, 400, failure, {{"API_msg", From::ReplyMsgAsMessage}, {"data", From::SentText}}},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_upload_file(std::string argument)
{
    static const Operation upload{
        "/kvr/originalFile/uploadFile",
        Access::Token,
        singleFileForm(false),
        singleFileOutcome("import file success", "import file fail"),
    };
    return upload.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_upload_file2share(std::string argument)
{
    static const Operation uploadAndShare{
        "/kvr/originalFile/insertBrdAndShare",
        Access::Token,
        singleFileForm(true),
        singleFileOutcome("import file and insert 2 share success", "import file and insert 2 share fail"),
    };
    return uploadAndShare.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_upload_files(std::string argument)
{
    static const Operation uploadFolder{
        "/kvr/originalFile/uploadMultipleFile",
        Access::Token,
        folderForm(false),
        folderOutcome("import files success", "import files fail"),
    };
    return uploadFolder.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_upload_files2share(std::string argument)
{
    static const Operation uploadFolderAndShare{
        "/kvr/originalFile/insertBatchBrdAndShare",
        Access::Token,
        folderForm(true),
        folderOutcome("import files and insert 2 share success", "import files and insert 2 share fail"),
    };
    return uploadFolderAndShare.call(std::move(argument));
}
