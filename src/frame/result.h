// SPDX-License-Identifier: MIT
// Result documents: their fixed forms, their compact text and the console echo.
#pragma once

#include "frame/json_writer.h"

#include <QJsonValue>
#include <QString>

#include <string>

namespace norva {

namespace message {
inline const char* const serverShutsDown = "Server shuts down";
inline const char* const requestFail = "request fail";
inline const char* const tokenExpired = "token expired";
inline const char* const unparseableReply =
    "request connection success,status code 200,error:response json str parse error";
inline const char* const argumentParseFailure = "json str parse error";
inline const char* const downloadArgumentParseFailure = "jsonstr parse error";
inline const char* const downloadFail = "download fail";
inline const char* const jsonParametersError = "json parameters error";
inline const char* const requestCancelled = "request cancelled";
} // namespace message

// A result document: a flat JSON object built member by member. It keeps its
// members as a QJsonObject would (ascending keys, one value per key, inserting
// an undefined value removes the key) and writes the text QJsonDocument would,
// without the cost of either on Qt 6.
class ResultDocument
{
public:
    ResultDocument() { members.reserve(4); } // as many as most results have
    void insert(const char* key, const QJsonValue& value);
    // A value given as its JSON text, exactly as QJsonDocument would write it.
    void insertText(const char* key, const QByteArray& jsonText);
    bool contains(const char* key) const;
    bool isEmpty() const { return members.empty(); }
    // Compact JSON: keys sorted, no white space, no line end.
    std::string text() const { return objectText(members); }

private:
    void put(JsonMember member);

    JsonMembers members;
};

// What a call sent, as a failure document reports it: one JSON string of the
// body (or of an upload form's data part), or of the URL of a GET with a query;
// nothing for a GET without one. The value is only made when a document needs it.
struct SentText {
    QByteArray utf8;
    QString url;
    QJsonValue value() const;
};

// {"message":message,"status":status}
ResultDocument statusDocument(int status, const QString& message);
// The same of one of the library's own messages (UTF-8 that lives as long as
// the program): plain text goes in as its JSON text, with no value built.
ResultDocument statusDocument(int status, const char* message);

std::string compactText(const ResultDocument& document);

// Writes the text as one line to standard output and flushes it; lines from
// calls on several threads never mix. Nothing while a ConsoleSilence lives on
// the calling thread.
void echoLine(const std::string& text);

// The asynchronous face writes nothing to standard output: its calls run
// under one of these.
class ConsoleSilence
{
public:
    ConsoleSilence();
    ~ConsoleSilence();
    ConsoleSilence(const ConsoleSilence&) = delete;
    ConsoleSilence& operator=(const ConsoleSilence&) = delete;
};

// compactText and echoLine together: what every operation returns.
std::string finishResult(const ResultDocument& document);

} // namespace norva
