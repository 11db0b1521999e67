// SPDX-License-Identifier: MIT
// Judging a reply: the HTTP classes, and the outcome table that turns a service
// reply (the JSON object of an HTTP 200 body) into a result document.
//
// Everything here works on plain values, so it is tested without a network.
#pragma once

#include <QByteArray>
#include "frame/result.h"

#include <QJsonObject>
#include <QJsonValue>

#include <optional>
#include <vector>

namespace norva {

enum class HttpClass {
    Ok,           // 200: the body decides
    TokenExpired, // 402, in operations that send a token
    NoReply,      // 0: no HTTP reply at all (refused, unreachable, closed)
    Other,        // any other status
};

HttpClass classifyStatus(int httpStatus, bool with402Branch);

// The two-key document of a class other than Ok.
ResultDocument httpClassDocument(HttpClass httpClass);

// Where a key of a result document takes its value from.
enum class From {
    ReplyData,          // the reply's "data" as it is; missing stays missing
    ReplyDataOrNull,    // the reply's "data", null when missing
    ReplyMsgOrNull,     // the reply's "msg" as it is, null when missing
    ReplyMsgOrEmpty,    // the reply's "msg" as it is, "" when missing
    ReplyMsgAsMessage,  // the reply's "msg" as text, null when missing
    SentText,           // what was sent, as one JSON string
};

struct ResultKey {
    const char* key;
    From from;
};

// Which service "code" a row answers: one value, or any code not matched before.
struct CodeMatch {
    constexpr CodeMatch(int code) : code(code) {} // NOLINT: rows read {200, ...}
    static constexpr CodeMatch anyOther()
    {
        CodeMatch match(0);
        match.any = true;
        return match;
    }

    constexpr bool matches(int replyCode) const { return any || replyCode == code; }

    int code = 0;
    bool any = false;
};

// Any code that an earlier row of the table did not match.
inline constexpr CodeMatch otherwise = CodeMatch::anyOther();

struct Outcome {
    CodeMatch when;
    int status;
    const char* message;
    std::vector<ResultKey> keys;
};

// Rows are tried in order; the last row should be `otherwise`.
using OutcomeTable = std::vector<Outcome>;

// The common table: code 200 gives success, anything else failure; both carry
// the reply's "data".
OutcomeTable plainOutcome(const char* success, const char* failure);
// As plainOutcome, but a failure carries the sent text in "data".
OutcomeTable selectOutcome(const char* success, const char* failure);

// The removals: both outcomes carry the reply's "msg" as "API_msg"; only success
// carries the reply's "data".
OutcomeTable deleteOutcome(const char* success, const char* failure);

// The GET queries: both outcomes carry the reply's "msg" as text in "API_msg";
// only success carries the reply's "data".
OutcomeTable getQueryOutcome(const char* success, const char* failure);

// Parses an HTTP 200 body and applies the table. A body that is no JSON gives the
// unparseable-reply document, with "request_data" holding `sentText` unless that
// is undefined.
ResultDocument judgeServiceReply(const QByteArray& body, const OutcomeTable& table,
                              const SentText& sentText);

} // namespace norva
