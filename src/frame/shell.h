// SPDX-License-Identifier: MIT
// The shell of an operation: from the argument text to the result text.
//
// It parses the argument document, builds a temporary QCoreApplication when the
// host has none, runs the operation's flow inside the three catch clauses, and
// finishes the result document with its console echo.
#pragma once

#include "frame/json_text.h"
#include "frame/result.h"

#include <QCoreApplication>
#include <QJsonObject>

#include <functional>
#include <optional>
#include <string>

namespace norva {

class DeferredCall;

struct ShellOptions {
    // The operation's public name, for a progress observer.
    const char* operation = "";
    // The message of the argument parse failure.
    const char* parseFailureMessage = "json str parse error";
    // Whether a catch clause echoes its result document after the error line.
    bool echoCaughtDocument = true;
    // false for the object's members: they rely on the host's application.
    bool mayBuildApplication = true;
};

// What a flow can ask of its call.
class Call
{
public:
    explicit Call(bool needsApplication);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Builds the temporary application when the host has none. A flow calls it
    // once everything that may be refused before sending has been decided.
    void startApplication();
    bool hasTemporaryApplication() const { return application.has_value(); }

    // QCoreApplication::exit(0) on the temporary application, if there is one.
    void exitTemporaryApplication();

    // The deferred call this one's exchange goes to; null for a blocking call.
    DeferredCall* deferredTo = nullptr;

private:
    const bool needsApplication;
    std::optional<QCoreApplication> application;
};

// The argument document. A text that is one flat object of plain members (see
// readFlatObject) also keeps those members as they stand: a declared operation
// builds its request from them, and the object is only read when asked for.
class Arguments
{
public:
    Arguments(QByteArray text, std::optional<FlatMembers> flat, QJsonObject object);

    const QJsonObject& object() const;
    // nullptr unless the text is flat.
    const FlatMembers* flat() const { return members ? &*members : nullptr; }

private:
    const QByteArray text; // the flat members point into it
    const std::optional<FlatMembers> members;
    mutable std::optional<QJsonObject> parsed;
};

// A flow reads the arguments, exchanges, and returns the result document.
using Flow = std::function<ResultDocument(const Arguments& arguments, Call& call)>;

// Parses the argument and runs the flow: the result text, echoed. When the
// thread is capturing a deferred call (deferred_call.h), the flow defers its
// exchange to it and the text is empty.
std::string runShell(const std::string& argument, const ShellOptions& options, const Flow& flow);

// `produce`'s text, or, when it throws, the error line and document of the
// operation's catch clauses.
std::string guardedResult(const ShellOptions& options, const std::function<std::string()>& produce);

} // namespace norva
