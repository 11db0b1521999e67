// SPDX-License-Identifier: MIT
// Operations as declarations: a path, who may call it, how the body is made from
// the argument document, and the table that turns the service's reply into the
// result document. Operations whose body or whose HTTP 200 reply is not JSON
// (uploads, downloads) use the same pieces through `exchange`.
#pragma once

#include "frame/exchange.h"
#include "frame/judging.h"
#include "frame/reading.h"
#include "frame/request.h"
#include "frame/shell.h"

#include <QJsonObject>

#include <functional>
#include <optional>
#include <string>

namespace norva {

enum class Access {
    Open,  // no token header; HTTP 402 is an ordinary failure
    Token, // the "token" header, and HTTP 402 means "token expired"
};

// Builds a request that none of the declared forms describes (an upload form).
using RequestBuilder = std::function<OutgoingRequest(const QJsonObject& arguments, const QString& url)>;

// How the request body (or query) is made from the argument document.
struct Body {
    enum class Form { JsonObject, JsonArray, FormText, Query, Custom };

    Form form = Form::JsonObject;
    KeyList keys;
    // Read the keys from this nested object (or, for JsonArray, from each object
    // element of this array) instead of the argument document itself.
    const char* within = nullptr;
    // Content-Type of a Query, which goes out as a GET without a body.
    const char* getContentType = nullptr;
    RequestBuilder build; // for Custom
};

// A JSON object of `keys`, read from the argument document.
Body jsonObject(KeyList keys);
// A JSON array with one object of `keys` for each object element of the array
// `arrayKey`; other elements are skipped. An empty or missing array is refused
// with "json parameters error" before anything is sent.
Body jsonArrayOfRecords(const char* arrayKey, KeyList keys);
// "key=value&key=value" of `keys` read from the object `within`, not encoded.
Body formText(const char* within, KeyList keys);
// A GET: "?key=value&..." of `keys` (from `within` when given), not encoded;
// no keys means no query.
Body getQuery(const char* contentType, KeyList keys = {}, const char* within = nullptr);

// A POST built by `build` from the argument document and the service URL.
Body customBody(RequestBuilder build);

// The caller's "which_page" and "data_num_in_each_page" as the service's
// "pageNo" and "pageSize": passed on as they are (a missing one is left out), or
// read as integers (a missing one is 0).
KeyList pagedRaw();
KeyList pagedIntegers();

// The text "key=value&key=value" of keys read as text or integer.
QString keyValueText(const QJsonObject& source, const KeyList& keys);

// Sorts a reply into its HTTP class; 200 (and `alsoJudged`) go to `judge`.
ResultDocument judgeExchange(const ReceivedReply& reply, const HttpClasses& classes, const ReplyJudge& judge);

// Starts the temporary application if needed, runs the exchange, and judges
// its reply. A deferred call's exchange is left to it instead (the document is
// then empty): `judge` may run after the flow returned, and must own what it
// reads.
ResultDocument exchange(Call& call, OutgoingRequest& outgoing, const HttpClasses& classes, ReplyJudge judge);

struct Operation {
    const char* path;
    Access access;
    Body body;
    OutcomeTable outcomes;
    // The planner and most mall queries write only the error line in a catch clause.
    bool echoCaughtDocument = true;

    // `name` is the operation's public name, which a progress observer is told;
    // by default the name of the function that calls.
    std::string call(std::string argument, const char* name = __builtin_FUNCTION()) const;

    // The request for an argument document, token header included; nullopt when
    // the body's own rule refuses it before sending.
    std::optional<OutgoingRequest> request(const Arguments& arguments) const;
    std::optional<OutgoingRequest> request(const QJsonObject& arguments) const;
};

} // namespace norva
