// SPDX-License-Identifier: MIT
#include "frame/shell.h"

#include "frame/call_watch.h"
#include "frame/deferred_call.h"
#include "frame/failure.h"
#include "frame/json_text.h"
#include "frame/qt_line.h"
#include "frame/result.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <algorithm>
#include <exception>

namespace norva {

namespace {

// QCoreApplication keeps references to these for its whole life.
int applicationArgc = 1;
char applicationName[] = "";
char* applicationArgv[] = {applicationName, nullptr};

std::string caught(const QString& errorText, const ShellOptions& options)
{
    const std::string line = errorText.toStdString();
    echoLine(line);
    ResultDocument document;
    document.insert("status", 400);
    document.insert("error_message", errorText);
    std::string text = compactText(document);
    if (options.echoCaughtDocument)
        echoLine(text);
    return text;
}

// The argument as it comes through QString, whose UTF-8 decoding replaces an
// invalid sequence by U+FFFD; ASCII comes through as it is, without the trip.
QByteArray argumentText(const std::string& argument)
{
    const bool ascii = std::all_of(argument.begin(), argument.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    return ascii ? QByteArray::fromStdString(argument) : QString::fromStdString(argument).toUtf8();
}

} // namespace

Arguments::Arguments(QByteArray text, std::optional<FlatMembers> flat, QJsonObject object)
    : text(std::move(text)), members(std::move(flat))
{
    if (!members)
        parsed = std::move(object);
}

const QJsonObject& Arguments::object() const
{
    if (!parsed)
        parsed = QJsonDocument::fromJson(text).object();
    return *parsed;
}

Call::Call(bool needsApplication) : needsApplication(needsApplication) {}

void Call::startApplication()
{
    if (needsApplication && !application) {
        application.emplace(applicationArgc, applicationArgv);
        qt_line::skipPluginSearch();
    }
}

void Call::exitTemporaryApplication()
{
    if (application)
        QCoreApplication::exit(0);
}

std::string guardedResult(const ShellOptions& options, const std::function<std::string()>& produce)
{
    try {
        return produce();
    } catch (const QJsonParseError& error) {
        return caught(error.errorString(), options);
    } catch (const std::string& text) {
        return caught(QString::fromStdString(text), options);
    } catch (const std::exception& exception) {
        return caught(QString::fromLocal8Bit(exception.what()), options);
    }
}

std::string runShell(const std::string& argument, const ShellOptions& options, const Flow& flow)
{
    DeferredCall* const deferred = DeferredCall::current();
    if (!deferred) // a call that sends nothing has no failure to tell of
        noteLastFailure({});
    const bool needsApplication = !deferred && options.mayBuildApplication && QCoreApplication::startingUp();
    const OperationScope scope(options.operation);
    return guardedResult(options, [&] {
        QByteArray text = argumentText(argument);
        std::optional<FlatMembers> flat = readFlatObject(text);
        QJsonDocument document;
        if (!flat) {
            QJsonParseError error;
            document = parseJson(text, &error);
            if (error.error != QJsonParseError::NoError)
                return finishResult(statusDocument(400, options.parseFailureMessage));
        }
        // Shared: a deferred call keeps them until its reply came. One block
        // holds both.
        struct Held {
            Held(QByteArray text, std::optional<FlatMembers> flat, QJsonObject object, bool needsApplication)
                : arguments(std::move(text), std::move(flat), std::move(object)), call(needsApplication)
            {
            }
            const Arguments arguments;
            Call call;
        };
        const auto held = std::make_shared<Held>(std::move(text), std::move(flat), document.object(), needsApplication);
        const std::shared_ptr<const Arguments> arguments(held, &held->arguments);
        const std::shared_ptr<Call> call(held, &held->call);
        call->deferredTo = deferred;
        ResultDocument result = flow(*arguments, *call);
        if (deferred && deferred->hasExchange()) {
            deferred->keep(arguments, call, options);
            return std::string();
        }
        std::string resultText = finishResult(result);
        call->exitTemporaryApplication();
        return resultText;
    });
}

} // namespace norva
