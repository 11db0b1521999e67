// SPDX-License-Identifier: MIT
#include "frame/operation.h"

#include "frame/deferred_call.h"
#include "frame/result.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace norva {

Body jsonObject(KeyList keys)
{
    return Body{Body::Form::JsonObject, std::move(keys), nullptr, nullptr, {}};
}

Body jsonArrayOfRecords(const char* arrayKey, KeyList keys)
{
    return Body{Body::Form::JsonArray, std::move(keys), arrayKey, nullptr, {}};
}

Body formText(const char* within, KeyList keys)
{
    return Body{Body::Form::FormText, std::move(keys), within, nullptr, {}};
}

Body getQuery(const char* contentType, KeyList keys, const char* within)
{
    return Body{Body::Form::Query, std::move(keys), within, contentType, {}};
}

Body customBody(RequestBuilder build)
{
    return Body{Body::Form::Custom, {}, nullptr, nullptr, std::move(build)};
}

KeyList pagedRaw()
{
    return {{"pageNo", "which_page", Read::Raw}, {"pageSize", "data_num_in_each_page", Read::Raw}};
}

KeyList pagedIntegers()
{
    return {{"pageNo", "which_page", Read::Integer},
            {"pageSize", "data_num_in_each_page", Read::Integer}};
}

QString keyValueText(const QJsonObject& source, const KeyList& keys)
{
    QString text;
    for (const KeyMapping& key : keys) {
        if (!text.isEmpty())
            text += QLatin1Char('&');
        const QString from = QString::fromLatin1(key.from);
        const QString value = key.mode == Read::Integer ? QString::number(readInteger(source, from))
                                                        : readText(source, from);
        text += QString::fromLatin1(key.to) + QLatin1Char('=') + value;
    }
    return text;
}

ResultDocument judgeExchange(const ReceivedReply& reply, const HttpClasses& classes, const ReplyJudge& judge)
{
    if (reply.cancelled)
        return statusDocument(400, message::requestCancelled);
    const int status = reply.httpStatus;
    if (status == 200 || status == classes.alsoJudged)
        return judge(reply);
    const HttpClass httpClass = classifyStatus(status, classes.with402Branch);
    if (httpClass == HttpClass::NoReply && !classes.withNoReplyClass)
        return httpClassDocument(HttpClass::Other);
    return httpClassDocument(httpClass);
}

ResultDocument exchange(Call& call, OutgoingRequest& outgoing, const HttpClasses& classes, ReplyJudge judge)
{
    if (call.deferredTo) {
        call.deferredTo->defer(std::move(outgoing), classes, std::move(judge));
        return {};
    }
    call.startApplication();
    return judgeExchange(runExchange(outgoing), classes, judge);
}

std::optional<OutgoingRequest> Operation::request(const Arguments& arguments) const
{
    const FlatMembers* const flat = arguments.flat();
    if (!flat || body.form != Body::Form::JsonObject || body.within)
        return request(arguments.object());
    // A flat argument text: its members go into the body as they stand.
    OutgoingRequest outgoing =
        jsonPost(RequestCache::serviceUrl(flatTextView(*flat, "ipconfig"), path), mappedFlatText(*flat, body.keys));
    if (access == Access::Token)
        setTokenHeader(outgoing, flatUtf8(*flat, "token"));
    return outgoing;
}

std::optional<OutgoingRequest> Operation::request(const QJsonObject& arguments) const
{
    const QString ipconfig = readText(arguments, QStringLiteral("ipconfig"));
    const QString url = serviceUrlText(ipconfig, QString::fromLatin1(path));
    const QJsonObject source = body.within && body.form != Body::Form::JsonArray
                                   ? readObject(arguments, QString::fromLatin1(body.within))
                                   : arguments;
    OutgoingRequest outgoing;
    switch (body.form) {
    case Body::Form::JsonObject:
        outgoing = jsonPost(url, mappedObjectText(source, body.keys));
        break;
    case Body::Form::JsonArray: {
        const QJsonArray records = readArray(arguments, QString::fromLatin1(body.within));
        if (records.isEmpty())
            return std::nullopt;
        QByteArray mapped = "[";
        for (const QJsonValue& record : records) {
            if (record.isObject())
                mapped += (mapped.size() > 1 ? "," : "") + mappedObjectText(record.toObject(), body.keys);
        }
        outgoing = jsonPost(url, mapped + ']');
        break;
    }
    case Body::Form::FormText:
        outgoing = formTextPost(url, keyValueText(source, body.keys).toUtf8());
        break;
    case Body::Form::Query: {
        const bool hasQuery = !body.keys.empty();
        const QString query = hasQuery ? QLatin1Char('?') + keyValueText(source, body.keys) : QString();
        outgoing = bodilessGet(url + query, body.getContentType, hasQuery);
        break;
    }
    case Body::Form::Custom:
        outgoing = body.build(arguments, url);
        break;
    }
    if (access == Access::Token)
        setTokenHeader(outgoing, readText(arguments, QStringLiteral("token")).toUtf8());
    return outgoing;
}

std::string Operation::call(std::string argument, const char* name) const
{
    ShellOptions options;
    options.operation = name;
    options.echoCaughtDocument = echoCaughtDocument;
    return runShell(argument, options, [this](const Arguments& arguments, Call& call) {
        std::optional<OutgoingRequest> outgoing = request(arguments);
        if (!outgoing)
            return statusDocument(400, message::jsonParametersError);
        HttpClasses classes;
        classes.with402Branch = access == Access::Token;
        // The judge may run after this returns (a deferred call); the sent text
        // comes with the reply, from the request that was sent.
        return exchange(call, *outgoing, classes, [this](const ReceivedReply& reply) {
            return judgeServiceReply(reply.body, outcomes, *reply.sentText);
        });
    });
}

} // namespace norva
