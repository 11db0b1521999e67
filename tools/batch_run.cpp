#include "batch_run.h"

#include "command_document.h"
#include "operation_list.h"

#include "norva_api_qt_async.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <istream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace norva::command {

namespace {

using NORVA::NORVA_API_QT::CallReply;
using NORVA::NORVA_API_QT::Client;

std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::string refusal(const char* message)
{
    return compact(QJsonObject{{QStringLiteral("message"), QString::fromLatin1(message)}, {QStringLiteral("status"), 400}});
}

// A line's call: the operation's name and its argument text, or the refusal
// of a line that is no call.
struct ReadLine {
    std::string operation;
    std::string argument;
    std::string refused;
};

ReadLine readLine(const std::string& text, const std::optional<Session>& session)
{
    const QJsonObject line = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
    const QJsonValue operation = line.value(QStringLiteral("operation"));
    const QJsonValue argument = line.value(QStringLiteral("argument"));
    if (!operation.isString() || !argument.isObject())
        return {{}, {}, refusal("a line needs \"operation\" (text) and \"argument\" (an object)")};
    std::string document = compact(argument.toObject());
    if (session)
        document = withSession(document, *session, false);
    return {operation.toString().toStdString(), document, {}};
}

bool succeeded(const std::string& result)
{
    const int status = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object().value(QStringLiteral("status")).toInt();
    return status == 200 || status == 206;
}

} // namespace

namespace {

std::string unknownOperation(const std::string& name)
{
    return compact(QJsonObject{{QStringLiteral("message"), QStringLiteral("unknown operation")},
                               {QStringLiteral("operation"), QString::fromStdString(name)},
                               {QStringLiteral("status"), 400}});
}

} // namespace

int runBatch(std::istream& input, int jobs, const std::optional<Session>& session, bool blocking)
{
    if (blocking) {
        bool allSucceeded = true;
        std::string text;
        while (std::getline(input, text)) {
            if (text.find_first_not_of(" \t\r") == std::string::npos)
                continue;
            const ReadLine line = readLine(text, session);
            const OperationEntry* const entry = line.refused.empty() ? findOperation(line.operation) : nullptr;
            std::string result = entry ? entry->function(line.argument) : std::string(); // echoes its own line
            if (!entry) {
                result = line.refused.empty() ? unknownOperation(line.operation) : line.refused;
                std::printf("%s\n", result.c_str());
            }
            allSucceeded = allSucceeded && succeeded(result);
        }
        return allSucceeded ? 0 : 1;
    }

    int argc = 1;
    char name[] = "norva";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    Client client;
    client.setMaxCallsInFlight(jobs);

    // One slot a line: a reply, or the refusal of a line that is no call.
    struct Line {
        std::unique_ptr<CallReply> reply;
        std::string refused;
    };
    std::vector<Line> lines;
    std::string text;
    while (std::getline(input, text)) {
        if (text.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        const ReadLine line = readLine(text, session);
        if (!line.refused.empty())
            lines.push_back({nullptr, line.refused});
        else
            lines.push_back({std::unique_ptr<CallReply>(client.call(line.operation, line.argument)), {}});
    }

    // Results go out in input order, each as soon as those before it are out.
    const bool terminal = isatty(fileno(stderr));
    std::size_t printed = 0;
    std::size_t done = 0;
    bool allSucceeded = true;
    const auto printReady = [&] {
        while (printed < lines.size() && (!lines[printed].reply || lines[printed].reply->isFinished())) {
            Line& line = lines[printed++];
            const std::string result = line.reply ? line.reply->result() : line.refused;
            allSucceeded = allSucceeded && succeeded(result);
            line.reply.reset();
            std::fwrite(result.data(), 1, result.size(), stdout);
            std::fputc('\n', stdout);
        }
        std::fflush(stdout);
        if (terminal)
            std::fprintf(stderr, "\r%zu of %zu done", done, lines.size());
        if (printed == lines.size())
            QCoreApplication::quit();
    };
    for (Line& line : lines) {
        if (!line.reply) {
            ++done;
            continue;
        }
        QObject::connect(line.reply.get(), &CallReply::finished, &client, [&] {
            ++done;
            printReady();
        });
    }
    printReady();
    if (printed < lines.size())
        application.exec();
    if (terminal)
        std::fputc('\n', stderr);
    return allSucceeded ? 0 : 1;
}

} // namespace norva::command
