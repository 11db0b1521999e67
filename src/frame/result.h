// Result documents: their fixed forms, their compact text and the console echo.
#pragma once

#include <QJsonObject>
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

// {"message":message,"status":status}
QJsonObject statusDocument(int status, const QString& message);

// The document in compact JSON (keys sorted, no white space, no line end).
std::string compactText(const QJsonObject& document);

// Writes the text as one line to standard output and flushes it.
void echoLine(const std::string& text);

// compactText and echoLine together: what every operation returns.
std::string finishResult(const QJsonObject& document);

} // namespace norva
