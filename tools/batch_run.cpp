#include "batch_run.h"

#include "command_document.h"

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

std::string refusal(const char* message)
{
    return std::string(R"({"message":")") + message + R"(","status":400})";
}

bool succeeded(const std::string& result)
{
    const int status = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object().value(QStringLiteral("status")).toInt();
    return status == 200 || status == 206;
}

} // namespace

int runBatch(std::istream& input, int jobs, const std::optional<Session>& session)
{
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
        const QJsonObject line = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
        const QJsonValue operation = line.value(QStringLiteral("operation"));
        const QJsonValue argument = line.value(QStringLiteral("argument"));
        if (!operation.isString() || !argument.isObject()) {
            lines.push_back({nullptr, refusal("a line needs \\\"operation\\\" (text) and \\\"argument\\\" (an object)")});
            continue;
        }
        std::string document = QJsonDocument(argument.toObject()).toJson(QJsonDocument::Compact).toStdString();
        if (session)
            document = withSession(document, *session, false);
        lines.push_back({std::unique_ptr<CallReply>(client.call(operation.toString().toStdString(), document)), {}});
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
