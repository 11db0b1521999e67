// SPDX-License-Identifier: MIT
#include "batch_run.h"

#include "command_document.h"
#include "command_line.h"
#include "exit_status.h"
#include "operation_list.h"

#include "norva_api_qt_async.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <deque>
#include <istream>
#include <memory>
#include <string>
#include <thread>

namespace norva::command {

namespace {

using NORVA::NORVA_API_QT::CallFailure;
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
        document = withSession(document, *session, std::string());
    return {operation.toString().toStdString(), document, {}};
}

std::string unknownOperation(const std::string& name)
{
    return compact(QJsonObject{{QStringLiteral("message"), QStringLiteral("unknown operation")},
                               {QStringLiteral("operation"), QString::fromStdString(name)},
                               {QStringLiteral("status"), 400}});
}

// The count of calls done, on a terminal's standard error. It is wiped before
// anything else is written, so that no line shares the screen line with it.
class DoneCount
{
public:
    DoneCount() : shown(errorIsTerminal()) {}
    void wipe()
    {
        if (shown && width > 0)
            std::fprintf(stderr, "\r%*s\r", width, "");
        width = 0;
    }
    void show(std::size_t done, std::size_t total, bool totalKnown)
    {
        if (!shown)
            return;
        wipe();
        width = totalKnown ? std::fprintf(stderr, "%zu of %zu done", done, total) : std::fprintf(stderr, "%zu done", done);
        std::fflush(stderr);
    }

private:
    const bool shown;
    int width = 0;
};

Exit runBlocking(std::istream& input, const std::optional<Session>& session)
{
    Exit exit = Success;
    std::string text;
    for (std::size_t number = 1; std::getline(input, text); ++number) {
        if (text.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        const ReadLine line = readLine(text, session);
        const OperationEntry* const entry = line.refused.empty() ? findOperation(line.operation) : nullptr;
        std::string result = entry ? entry->function(line.argument) : std::string(); // echoes its own line
        if (!entry) {
            result = line.refused.empty() ? unknownOperation(line.operation) : line.refused;
            std::printf("%s\n", result.c_str());
        }
        std::fflush(stdout);
        const QJsonObject document = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
        const bool called = entry != nullptr;
        exit = worse(exit, exitStatus(document, called ? NORVA::NORVA_API_QT::lastCallFailure() : CallFailure::None,
                                      called ? NORVA::NORVA_API_QT::lastCallFailureText() : std::string(),
                                      "line " + std::to_string(number) + ": "));
    }
    return exit;
}

} // namespace

int runBatch(std::istream& input, int jobs, const std::optional<Session>& session, bool blocking)
{
    if (blocking)
        return runBlocking(input, session);

    int argc = 1;
    char name[] = "norva";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    Client client;
    client.setMaxCallsInFlight(jobs);

    // One slot a line, in input order: a reply, or the refusal of a line that
    // is no call. Lines are read on a thread of their own and handed over one
    // by one, so that calls start (and results come) before the input ends.
    struct Line {
        std::size_t number;
        std::unique_ptr<CallReply> reply;
        std::string refused;
    };
    std::deque<Line> unprinted;
    std::size_t lines = 0;
    std::size_t done = 0;
    bool inputEnded = false;
    Exit exit = Success;
    DoneCount count;
    const auto printReady = [&] {
        bool wiped = false;
        while (!unprinted.empty() && (!unprinted.front().reply || unprinted.front().reply->isFinished())) {
            if (!wiped) {
                count.wipe();
                wiped = true;
            }
            const Line line = std::move(unprinted.front());
            unprinted.pop_front();
            const std::string result = line.reply ? line.reply->result() : line.refused;
            std::fwrite(result.data(), 1, result.size(), stdout);
            std::fputc('\n', stdout);
            std::fflush(stdout);
            const QJsonObject document = QJsonDocument::fromJson(QByteArray::fromStdString(result)).object();
            exit = worse(exit, exitStatus(document, line.reply ? line.reply->failure() : CallFailure::None,
                                          line.reply ? line.reply->failureText() : std::string(),
                                          "line " + std::to_string(line.number) + ": "));
        }
        count.show(done, lines, inputEnded);
        if (inputEnded && unprinted.empty())
            QCoreApplication::quit();
    };
    const auto take = [&](const std::string& text) {
        if (text.find_first_not_of(" \t\r") == std::string::npos)
            return;
        const ReadLine line = readLine(text, session);
        ++lines;
        if (!line.refused.empty()) {
            ++done;
            unprinted.push_back({lines, nullptr, line.refused});
        } else {
            unprinted.push_back({lines, std::unique_ptr<CallReply>(client.call(line.operation, line.argument)), {}});
            QObject::connect(unprinted.back().reply.get(), &CallReply::finished, &client, [&] {
                ++done;
                printReady();
            });
        }
        printReady();
    };
    std::thread reader([&] {
        std::string text;
        while (std::getline(input, text))
            QMetaObject::invokeMethod(&client, [&take, text] { take(text); }, Qt::QueuedConnection);
        QMetaObject::invokeMethod(&client, [&] {
            inputEnded = true;
            printReady();
        }, Qt::QueuedConnection);
    });
    QCoreApplication::exec();
    reader.join();
    count.wipe();
    return exit;
}

} // namespace norva::command
