// SPDX-License-Identifier: MIT
#include "transfer/download.h"

#include "norva_api_qt.h"

#include "frame/operation.h"
#include "frame/qt_line.h"
#include "frame/result.h"
#include "transfer/file_path.h"
#include "transfer/platform.h"

#include <QFileInfo>
#include <QRandomGenerator>
#include <QSaveFile>

namespace norva::transfer {

namespace {

QString behindLast(const QString& text, QChar mark)
{
    return text.mid(text.lastIndexOf(mark) + 1); // all of it when the mark is absent
}

QString beforeFirst(const QString& text, QChar mark)
{
    return text.left(text.indexOf(mark)); // left(-1) is all of it
}

} // namespace

DownloadName deriveDownloadName(const QByteArray& contentDisposition, const QString& reName,
                                bool timeStamp, const QDateTime& now, const QString& stampFormat)
{
    // Decoding comes first, so an encoded "=" counts as one. A NUL ends the name.
    const QString header = qt_line::utf8UpToNul(QByteArray::fromPercentEncoding(contentDisposition));
    DownloadName name;
    name.filename = behindLast(header, QLatin1Char('='));
    const QString original = name.filename;
    if (!reName.isEmpty()) {
        name.newName = reName + QLatin1Char('.') + behindLast(name.filename, QLatin1Char('.'));
        name.stored = name.newName;
    } else if (timeStamp) {
        name.filename = beforeFirst(original, QLatin1Char('.')) + QLatin1Char('_') + now.toString(stampFormat)
                        + QLatin1Char('.') + behindLast(name.filename, QLatin1Char('.'));
        name.stored = name.filename;
    } else {
        name.stored = name.filename;
    }
    return name;
}

bool staysInFolder(const QString& storedName)
{
    if (storedName == QLatin1String(".") || storedName == QLatin1String("..") || storedName.contains(QChar(0)))
        return false;
    for (const char* breaking = pathBreakingCharacters; *breaking; ++breaking) {
        if (storedName.contains(QLatin1Char(*breaking)))
            return false;
    }
    return true;
}

DownloadSpool::DownloadSpool(const QString& folder) : folder(folder) {}

DownloadSpool::~DownloadSpool()
{
    discard();
}

void DownloadSpool::discard()
{
    if (!created)
        return;
    file.remove(); // closes it first
    created = false;
}

bool DownloadSpool::take(int httpStatus)
{
    if (httpStatus != 200)
        return false;
    // A hidden name of its own in the folder, made only if it is free.
    for (int attempt = 0; attempt < 16 && !created; ++attempt) {
        file.setFileName(fileOnDisk(folder + QLatin1Char(pathSeparator) + QStringLiteral(".norva-download-")
                                    + QString::number(QRandomGenerator::global()->generate(), 36)));
        created = file.open(QIODevice::WriteOnly | QIODevice::NewOnly);
    }
    // Private until it takes the target's name and permissions.
    if (created)
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return created;
}

void DownloadSpool::write(const char* data, qint64 size)
{
    if (!failed)
        failed = file.write(data, size) != size;
}

bool DownloadSpool::finish()
{
    failed = !file.flush() || failed;
    file.close();
    return !failed;
}

bool DownloadSpool::moveTo(const QString& path)
{
    if (!file.setPermissions(QFile::permissions(path)) || !replace_file(file.fileName(), path))
        return false;
    created = false; // its name is gone
    return true;
}

ResultDocument saveDownload(const QByteArray& bytes, DownloadSpool* spool, const QString& folder,
                         const DownloadName& name, OpenFailureText openFailureText)
{
    const QString fail = QString::fromLatin1(message::downloadFail);
    const QString path = folder + QLatin1Char(pathSeparator) + name.stored;
    const QString onDisk = fileOnDisk(path);
    // Only a regular file of that name, or none, is replaced: a folder, a link, a
    // device or a pipe is handled as a file that can't be opened, so that nothing
    // is written outside the folder or into something that is no file.
    const QFileInfo existing(onDisk);
    const bool existed = existing.exists() || existing.isSymLink();
    const bool replaceable = !existing.isSymLink() && (!existed || existing.isFile());
    // Opening the name itself tells whether the folder can hold it. A name that
    // was free holds an empty placeholder until the bytes take its place, and is
    // freed again if they don't.
    QFile placeholder(onDisk);
    const bool opened = staysInFolder(name.stored) && replaceable
                        && (existed || placeholder.open(QIODevice::WriteOnly | QIODevice::NewOnly));
    placeholder.close();
    const auto freeName = [&] {
        if (opened && !existed)
            placeholder.remove();
    };
    // In memory, the bytes go to a new file beside the target that takes the
    // target's place only once all of them are written (a spool already is
    // such a file): a failed write leaves no partial file, and an earlier file
    // of that name as it was.
    QSaveFile file(onDisk);
    const bool writable = opened && (spool ? !existed || existing.isWritable() : file.open(QIODevice::WriteOnly));
    if (!writable) {
        freeName();
        ResultDocument document = statusDocument(400, fail);
        document.insert("error", openFailureText == OpenFailureText::Compact
                                                     ? QStringLiteral("File:") + path + QStringLiteral("open failed")
                                                     : QStringLiteral("File: ") + path + QStringLiteral(" open failed"));
        return document;
    }
    const bool saved = spool ? spool->finish() && spool->moveTo(onDisk)
                             : file.write(bytes) == bytes.size() && file.commit();
    if (!saved) {
        freeName(); // the unfinished file goes with `file` or the spool
        return statusDocument(400, fail);
    }
    ResultDocument document = statusDocument(200, QStringLiteral("download success"));
    document.insert("filename", name.filename);
    document.insert("new_name", name.newName);
    return document;
}

std::string runDownload(const DownloadVariant& variant, std::string argument, const char* name)
{
    ShellOptions options;
    options.operation = name;
    options.parseFailureMessage = variant.parseFailureMessage;
    options.mayBuildApplication = variant.mayBuildApplication;
    return runShell(argument, options, [&variant](const Arguments& given, Call& call) {
        const QJsonObject& arguments = given.object();
        KeyList keys{{"id", "id", Read::Integer}};
        if (variant.sendsToken)
            keys.push_back({"userId", "userId", Read::Integer});
        const Operation request{variant.path, variant.sendsToken ? Access::Token : Access::Open,
                                formText("data", keys), {}};
        OutgoingRequest outgoing = *request.request(arguments);

        const QString folder = readText(arguments, QStringLiteral("file_downloadpath"));
        // Shared with the judge, which may run after this returns (a deferred call).
        const auto spool = std::make_shared<DownloadSpool>(folder);
        outgoing.bodySink = spool.get();
        const QString reName = readOptionalText(arguments, QStringLiteral("reName"));
        const QString stampKey = QStringLiteral("isTimeStamp");
        const bool timeStamp = arguments.contains(stampKey) && arguments.value(stampKey) == QJsonValue(true);

        HttpClasses classes;
        classes.with402Branch = variant.sendsToken;
        classes.withNoReplyClass = variant.withNoReplyClass;
        classes.alsoJudged = variant.answers204 ? 204 : -1;
        const Call* const callOfJudge = &call; // kept as long as its judge
        return exchange(call, outgoing, classes, [&variant, arguments, spool, folder, reName, timeStamp,
                                                  callOfJudge](const ReceivedReply& reply) {
            if (reply.httpStatus == 204) {
                ResultDocument document = statusDocument(400, QStringLiteral("Can not find this file"));
                const QJsonValue boardId = readRaw(readObject(arguments, QStringLiteral("data")), QStringLiteral("id"));
                if (!boardId.isUndefined())
                    document.insert("BoardId", boardId);
                return document;
            }
            if (variant.writesSizeLine)
                echoLine(std::to_string(reply.bodySize));
            // A body cut short is not the file: it is not stored.
            if (reply.bodySize == 0 || !reply.complete)
                return statusDocument(400, message::downloadFail);
            const DownloadName name =
                deriveDownloadName(reply.contentDisposition, reName, timeStamp, QDateTime::currentDateTime(),
                                   QString::fromLatin1(variant.stampFormat));
            const bool spaced = variant.spacedOpenFailureWithHostApplication && !callOfJudge->hasTemporaryApplication();
            return saveDownload(reply.body, reply.bodyInSink ? spool.get() : nullptr, folder, name,
                                spaced ? OpenFailureText::Spaced : OpenFailureText::Compact);
        });
    });
}

} // namespace norva::transfer

std::string NORVA::NORVA_API_QT::norva_sdk_download_binary_file(std::string argument)
{
    static constexpr norva::transfer::DownloadVariant records{
        "/kvr/originalFile/downloadFile", true, "jsonstr parse error", "yyyyMMddhhmmss",
        true, true, false, false, false};
    return norva::transfer::runDownload(records, std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile(std::string argument)
{
    static constexpr norva::transfer::DownloadVariant mall{
        "/mall/originalFile/downloadFile", false, "json str parse error", "yyyyMMddhhmmss",
        true, true, false, true, true};
    return norva::transfer::runDownload(mall, std::move(argument));
}
