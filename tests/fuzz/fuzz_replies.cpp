// SPDX-License-Identifier: MIT
// Feeds arbitrary reply bytes to the judging of every operation. The first byte
// picks the operation and the HTTP status, the first line of the rest is the
// Content-Disposition header, the remainder the body. Downloads store into a
// scratch folder; a stored name must never leave it.
#include "operations.h"

#include "frame/exchange.h"
#include "frame/json_text.h"
#include "frame/json_writer.h"
#include "frame/seams.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <cstdint>
#include <filesystem>

namespace {

// Emptied with std::filesystem, not QDir: QDir takes a stored name that starts
// with ':' for a resource path and leaves the file behind.
QTemporaryDir* scratch = nullptr;
norva::ReceivedReply nextReply;

norva::ReceivedReply answer(norva::OutgoingRequest&)
{
    return nextReply;
}

bool staysInScratch(const QString& name)
{
    return !name.contains(QLatin1Char('/')) && name != QLatin1String("..") && name != QLatin1String(".");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    static QTemporaryDir folder; // removed at exit
    scratch = &folder;
    norva::seam::setExchangeStub(answer);
    fuzzing::silenceStandardOutput();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    static const int statuses[] = {200, 200, 200, 200, 204, 402, 0, 500};
    static const std::vector<fuzzing::Operation> operations = fuzzing::allOperations();
    const fuzzing::Operation operation = operations[data[0] % operations.size()];
    const QByteArray rest(reinterpret_cast<const char*>(data) + 1, int(size - 1));
    const int lineEnd = rest.indexOf('\n');
    nextReply = norva::ReceivedReply();
    nextReply.httpStatus = statuses[(data[0] >> 5) & 7];
    nextReply.complete = nextReply.httpStatus != 0;
    nextReply.contentDisposition = lineEnd < 0 ? QByteArray() : rest.left(lineEnd);
    nextReply.body = lineEnd < 0 ? rest : rest.mid(lineEnd + 1);

    const std::string argument = QStringLiteral(
        R"({"ipconfig":"127.0.0.1:1","token":"t","file_downloadpath":"%1","data":{"id":1,"userId":1},"isTimeStamp":true})")
                                     .arg(scratch->path()).toStdString();
    const std::string result = operation(argument);
    const QJsonObject document = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
    if (!document.contains(QLatin1String("status")))
        __builtin_trap(); // every outcome is a result document
    if (document.value(QLatin1String("message")) == QLatin1String("download success")
        && (!staysInScratch(document.value(QLatin1String("filename")).toString())
            || !staysInScratch(document.value(QLatin1String("new_name")).toString())))
        __builtin_trap(); // a stored name left the download folder
    // Where the flat reader takes a body, Qt's parser reads the same members, and
    // writes each value back as the text the reader passes on.
    if (const auto flat = norva::readFlatObject(nextReply.body)) {
        QJsonParseError error;
        const QJsonObject parsed = QJsonDocument::fromJson(nextReply.body, &error).object();
        QJsonObject read;
        for (const norva::FlatMember& member : *flat) {
            const QJsonValue value = norva::flatValue(member);
            read.insert(QString::fromLatin1(member.key.data(), int(member.key.size())), value);
            std::string written;
            norva::appendJson(written, value);
            if (written != member.value)
                __builtin_trap();
        }
        if (error.error != QJsonParseError::NoError || parsed != read)
            __builtin_trap();
    }
    // Keep the scratch folder small.
    for (const auto& entry : std::filesystem::directory_iterator(scratch->path().toStdString()))
        std::filesystem::remove(entry.path());
    return 0;
}
