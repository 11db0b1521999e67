#include "transfer/download.h"

#include "norva_api_qt.h"

#include "frame/operation.h"
#include "frame/result.h"
#include "transfer/platform.h"

#include <QFile>

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
    // Decoding comes first, so an encoded "=" counts as one.
    const QString header = QString::fromUtf8(QByteArray::fromPercentEncoding(contentDisposition));
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
    return storedName != QLatin1String(".") && storedName != QLatin1String("..")
           && !storedName.contains(QLatin1Char(pathSeparator)) && !storedName.contains(QChar(0));
}

QJsonObject saveDownload(const QByteArray& bytes, const QString& folder, const DownloadName& name,
                         OpenFailureText openFailureText)
{
    const QString fail = QString::fromLatin1(message::downloadFail);
    const QString path = folder + QLatin1Char(pathSeparator) + name.stored;
    // A name that would leave the folder is handled as a file that can't be opened.
    QFile file(path);
    if (!staysInFolder(name.stored) || !file.open(QIODevice::WriteOnly)) {
        QJsonObject document = statusDocument(400, fail);
        document.insert(QStringLiteral("error"), openFailureText == OpenFailureText::Compact
                                                     ? QStringLiteral("File:") + path + QStringLiteral("open failed")
                                                     : QStringLiteral("File: ") + path + QStringLiteral(" open failed"));
        return document;
    }
    if (file.write(bytes) <= 0)
        return statusDocument(400, fail);
    QJsonObject document = statusDocument(200, QStringLiteral("download success"));
    document.insert(QStringLiteral("filename"), name.filename);
    document.insert(QStringLiteral("new_name"), name.newName);
    return document;
}

std::string runDownload(const DownloadVariant& variant, std::string argument)
{
    ShellOptions options;
    options.parseFailureMessage = variant.parseFailureMessage;
    options.mayBuildApplication = variant.mayBuildApplication;
    return runShell(argument, options, [&variant](const QJsonObject& arguments, Call& call) {
        KeyList keys{{"id", "id", Read::Integer}};
        if (variant.sendsToken)
            keys.push_back({"userId", "userId", Read::Integer});
        const Operation request{variant.path, variant.sendsToken ? Access::Token : Access::Open,
                                formText("data", keys), {}};
        OutgoingRequest outgoing = *request.request(arguments);

        const QString folder = readText(arguments, QStringLiteral("file_downloadpath"));
        const QString reName = readOptionalText(arguments, QStringLiteral("reName"));
        const QString stampKey = QStringLiteral("isTimeStamp");
        const bool timeStamp = arguments.contains(stampKey) && arguments.value(stampKey) == QJsonValue(true);

        HttpClasses classes;
        classes.with402Branch = variant.sendsToken;
        classes.withNoReplyClass = variant.withNoReplyClass;
        classes.alsoJudged = variant.answers204 ? 204 : -1;
        return exchange(call, outgoing, classes, [&](const ReceivedReply& reply) {
            if (reply.httpStatus == 204) {
                QJsonObject document = statusDocument(400, QStringLiteral("Can not find this file"));
                const QJsonValue boardId = readRaw(readObject(arguments, QStringLiteral("data")), QStringLiteral("id"));
                if (!boardId.isUndefined())
                    document.insert(QStringLiteral("BoardId"), boardId);
                return document;
            }
            if (variant.writesSizeLine)
                echoLine(std::to_string(reply.body.size()));
            if (reply.body.isEmpty())
                return statusDocument(400, QString::fromLatin1(message::downloadFail));
            const DownloadName name =
                deriveDownloadName(reply.contentDisposition, reName, timeStamp, QDateTime::currentDateTime(),
                                   QString::fromLatin1(variant.stampFormat));
            const bool spaced = variant.spacedOpenFailureWithHostApplication && !call.hasTemporaryApplication();
            return saveDownload(reply.body, folder, name,
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
