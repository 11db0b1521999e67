// SPDX-License-Identifier: MIT
// Table-driven operation tests: each row states an argument document, the
// service's scripted reply, the exact request expected on the wire, and the exact
// result document (which must also be the last line on standard output).
#pragma once

#include "support/harness.h"
#include "support/test_service.h"

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <vector>

namespace testing_support {

// What the service must receive; an empty method means nothing is sent.
struct Wire {
    QByteArray method;
    QByteArray target;      // path with its query
    QByteArray contentType; // exact; for a multipart form its prefix
    QByteArray body;        // compared exactly unless the form is multipart
    QByteArray token;       // the "token" header; null when there must be none
};

// A JSON POST that sends the token "tk" of every test argument.
Wire post(const char* path, const QByteArray& body);
// A JSON POST without a token header.
Wire openPost(const char* path, const QByteArray& body);
// A form text POST with the token.
Wire formPost(const char* path, const QByteArray& text, bool withToken = true);
// A GET without a body or a token.
Wire openGet(const QByteArray& target, const char* contentType);
Wire nothingSent();

struct OperationCase {
    QString name;
    OperationFunction operation = nullptr;
    // A JSON object gets "ipconfig":"$ADDR" and "token":"tk" put in front unless
    // it names "ipconfig" itself; any other text goes as it is.
    QString argument;
    ScriptedReply reply;
    Wire wire;
    QString result;
    QStringList linesBefore; // further lines expected on standard output first
};

using CaseList = std::vector<OperationCase>;

// A sent text as it stands inside a result document: one JSON string.
QString sent(const QByteArray& text);

// The rows every operation shares: HTTP 402, 500, an empty 200 body, and a
// service that can't be reached. `requestData` is what an unparseable reply
// reports as sent (a null QString: no "request_data" key at all).
CaseList httpClassCases(const QString& name, OperationFunction operation, const QString& argument,
                        const Wire& wire, bool tokenExpiry, const QString& requestData);

// The whole-argument failures: an empty text and a text that is no JSON.
CaseList argumentFailureCases(const QString& name, OperationFunction operation,
                              const char* message = "json str parse error");

// Replies that send a status line and headers (plus `headers`), then break off
// and close: Content-Length short by most of the body and by all of it, chunked
// without its last chunk, and cut inside a chunk. The body that would have come
// is an incomplete JSON text in every case. Each comes with the name of its cut.
std::vector<std::pair<QString, ScriptedReply>> cutShortReplies(int status, const QByteArray& headers = {});

// How often a row runs: a reply that breaks off runs 50 times, since the same
// bytes must give the same result every time.
int runsOf(const ScriptedReply& reply);

// Runs the current row against `service`; fails the test on any difference.
void runCase(TestService& service);

} // namespace testing_support

Q_DECLARE_METATYPE(testing_support::OperationCase)
