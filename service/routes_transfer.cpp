// SPDX-License-Identifier: MIT
// Uploads, which store files with their records, and downloads.
#include "routes.h"

#include <QFile>
#include <QUuid>

#include <cstdio>
#include <functional>
#include <limits>

namespace norva::service {

namespace {

// A file that could not be written or moved into place.
[[noreturn]] void failedToStore()
{
    if (lastWriteFoundNoRoom())
        throw StorageFull("cannot store the file: no room");
    throw std::runtime_error("cannot store the file");
}

QString suffixOf(const QString& name)
{
    const int point = name.lastIndexOf(QLatin1Char('.'));
    return point < 0 ? QString() : name.mid(point + 1);
}

} // namespace

void RecordsService::addTransferRoutes()
{
    // A record for a staged file, which takes the record's file name.
    const auto storeFile = [this](UploadForm::File& file, const QJsonObject& info, long long owner) {
        const QString name = QString::fromStdString(file.field.filename);
        db.change("INSERT INTO original_files(origfilename, origfileguid, mongogridfsid, origfilesuffix, zkcompanycode, "
                  "createuserid, parentid, type, source, isError, size, createtime, owner) "
                  "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)",
                  {name, QUuid::createUuid().toString(QUuid::WithoutBraces), QStringLiteral("local"), suffixOf(name),
                   field(info, "zkcompanycode"), double(owner), field(info, "parentid"),
                   field(info, "type"), field(info, "source"), field(info, "isError"), double(file.field.size), now(),
                   double(owner)});
        const long long id = db.lastInsertId();
        if (std::rename(file.path.c_str(), filePath(id).c_str()) != 0)
            failedToStore();
        file.path.clear();
        return id;
    };
    // The uploader is the caller, whatever "createuserid" says: nobody stores
    // files or shares in another's name.
    const auto share = [this](const QJsonObject& info, long long boardId, long long owner) {
        db.change("INSERT INTO shares(userId, brdId, acsTypeId, acsType, createtime, owner) VALUES(?,?,?,?,?,?)",
                  {double(owner), double(boardId), field(info, "acsTypeId"), field(info, "acsType"), now(),
                   double(owner)});
    };
    // Stores the staged files [first, last) under one transaction: all of them,
    // or none (files already renamed go again). `each` adds the rest of a file's
    // records. Files left out are removed with their form.
    using StagedFiles = std::vector<UploadForm::File>::iterator;
    const auto storeAll = [this, storeFile](StagedFiles first, StagedFiles last, const QJsonObject& info, long long owner,
                                            const std::function<void(long long)>& each) {
        QJsonArray ids;
        db.execute("BEGIN");
        try {
            for (; first != last; ++first) {
                const long long id = storeFile(*first, info, owner);
                ids.append(double(id));
                each(id);
            }
            db.execute("COMMIT");
        } catch (...) {
            db.execute("ROLLBACK");
            for (const QJsonValue& id : ids)
                std::remove(filePath(static_cast<long long>(id.toDouble())).c_str());
            throw;
        }
        return ids;
    };
    const auto uploadOne = [this, storeAll, share](Call& call, bool withShare) {
        UploadForm& upload = *call.upload;
        if (!upload.complete || upload.files.empty())
            return refuse("the form needs a file part and a data part");
        const QJsonObject info = field(upload.data, "fileInfo").toObject();
        const QJsonObject error = field(upload.data, "errorInfo").toObject();
        const bool withError = upload.data.contains("errorInfo");
        const QJsonArray ids = storeAll(upload.files.begin(), upload.files.end(), info, call.userId, [&](long long id) {
            if (withError)
                db.change("INSERT INTO error_messages(brdId, isReappear, remark, gridX, gridY, source, layer, priority, "
                          "libraryId, errorMessage, owner) VALUES(?,?,?,?,?,?,?,?,?,?,?)",
                          {double(id), field(error, "isReappear"), field(error, "remark"), field(error, "gridX"),
                           field(error, "gridY"), field(error, "source"), field(error, "layer"), field(error, "priority"),
                           field(error, "libraryId"), field(error, "errorMessage"), double(call.userId)});
            if (withShare)
                share(info, id, call.userId);
        });
        return ok(ids.first(), "imported");
    };
    const auto uploadMany = [storeAll, share](Call& call, bool withShare) {
        UploadForm& upload = *call.upload;
        if (!upload.complete)
            return refuse("the form needs a data part");
        const QJsonArray ids = storeAll(upload.files.begin(), upload.files.end(), upload.data, call.userId, [&](long long id) {
            if (withShare)
                share(upload.data, id, call.userId);
        });
        if (ids.isEmpty())
            return refuse("no files in the form");
        return ok(ids, "imported");
    };
    // A single upload stores the form's first file part; the library sends no more.
    const std::size_t anyNumber = std::numeric_limits<std::size_t>::max();
    upload("/kvr/originalFile/uploadFile", "file", 1, [uploadOne](Call& call) { return uploadOne(call, false); });
    upload("/kvr/originalFile/insertBrdAndShare", "file", 1, [uploadOne](Call& call) { return uploadOne(call, true); });
    upload("/kvr/originalFile/uploadMultipleFile", "multipartFiles", anyNumber, [uploadMany](Call& call) { return uploadMany(call, false); });
    upload("/kvr/originalFile/insertBatchBrdAndShare", "multipartFiles", anyNumber, [uploadMany](Call& call) { return uploadMany(call, true); });

    query("/kvr/originalFile/downloadFile", [this](Call& call) {
        return sendFile(formNumber(formFields(call.request.body), "id"), 404);
    });
}

HttpResponse RecordsService::sendFile(long long id, int missingStatus)
{
    const QJsonArray rows =
        db.query("SELECT origfilename FROM original_files WHERE id = ? AND delflag = 0", {double(id)});
    if (rows.isEmpty() || !QFile::exists(QString::fromStdString(filePath(id))))
        return HttpResponse::text(missingStatus, missingStatus == 204 ? "" : "no such file\n");
    HttpResponse response;
    response.headers = {{"Content-Type", "application/octet-stream"},
                        {"Content-Disposition", "attachment;filename="
                                                    + percentEncode(rows.first().toObject().value("origfilename").toString().toStdString())}};
    response.bodyFile = filePath(id);
    return response;
}

} // namespace norva::service
