// SPDX-License-Identifier: MIT
#include "frame/judging.h"

#include "frame/json_text.h"
#include "frame/reading.h"
#include "frame/result.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <functional>
#include <limits>
#include <string>

namespace norva {

HttpClass classifyStatus(int httpStatus, bool with402Branch)
{
    if (httpStatus == 200)
        return HttpClass::Ok;
    if (httpStatus == 402 && with402Branch)
        return HttpClass::TokenExpired;
    if (httpStatus == 0)
        return HttpClass::NoReply;
    return HttpClass::Other;
}

ResultDocument httpClassDocument(HttpClass httpClass)
{
    switch (httpClass) {
    case HttpClass::TokenExpired:
        return statusDocument(402, message::tokenExpired);
    case HttpClass::NoReply:
        return statusDocument(400, message::serverShutsDown);
    case HttpClass::Ok:
    case HttpClass::Other:
        break;
    }
    return statusDocument(400, message::requestFail);
}

OutcomeTable plainOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"data", From::ReplyData}}},
        {otherwise, 400, failure, {{"data", From::ReplyData}}},
    };
}

OutcomeTable selectOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"data", From::ReplyData}}},
        {otherwise, 400, failure, {{"data", From::SentText}}},
    };
}

OutcomeTable deleteOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"API_msg", From::ReplyMsgOrNull}, {"data", From::ReplyData}}},
        {otherwise, 400, failure, {{"API_msg", From::ReplyMsgOrNull}}},
    };
}

OutcomeTable getQueryOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"API_msg", From::ReplyMsgAsMessage}, {"data", From::ReplyData}}},
        {otherwise, 400, failure, {{"API_msg", From::ReplyMsgAsMessage}}},
    };
}

namespace {

// A member of the service reply: its value, or the JSON text it has in a flat
// reply (see readFlatObject). Missing when the reply has no such member.
struct ReplyValue {
    QJsonValue value = QJsonValue::Undefined;
    QByteArray text;
    bool missing() const { return text.isNull() && value.isUndefined(); }
};

using ReplyMember = std::function<ReplyValue(const char* key)>;

ReplyValue valueFrom(From from, const ReplyMember& reply, const SentText& sentText)
{
    const auto orIfMissing = [](const ReplyValue& member, const QJsonValue& missing) {
        return member.missing() ? ReplyValue{missing, {}} : member;
    };
    const QJsonValue null(QJsonValue::Null);
    switch (from) {
    case From::ReplyData:
        return reply("data");
    case From::ReplyDataOrNull:
        return orIfMissing(reply("data"), null);
    case From::ReplyMsgOrNull:
        return orIfMissing(reply("msg"), null);
    case From::ReplyMsgOrEmpty:
        return orIfMissing(reply("msg"), QString());
    case From::ReplyMsgAsMessage: {
        // As text: a member that is not text reads as "".
        const ReplyValue msg = reply("msg");
        if (msg.missing())
            return {null, {}};
        if (!msg.text.isNull())
            return {{}, msg.text.startsWith('"') ? msg.text : QByteArrayLiteral("\"\"")};
        return {msg.value.toString(), {}};
    }
    case From::SentText:
        return {sentText.value(), {}};
    }
    return {};
}

ResultDocument applyOutcome(const OutcomeTable& table, int code, const ReplyMember& serviceReply,
                            const SentText& sentText)
{
    for (const Outcome& row : table) {
        if (!row.when.matches(code))
            continue;
        ResultDocument document = statusDocument(row.status, row.message);
        for (const ResultKey& key : row.keys) {
            const ReplyValue value = valueFrom(key.from, serviceReply, sentText);
            if (!value.text.isNull())
                document.insertText(key.key, value.text);
            else if (!value.value.isUndefined())
                document.insert(key.key, value.value);
        }
        return document;
    }
    return statusDocument(400, message::requestFail);
}

// The service code of a flat reply, as QJsonValue::toInt(0) reads it: an
// integer within int's range, else 0.
int flatCode(const FlatMember* code)
{
    if (!code || !code->isInteger())
        return 0;
    const qint64 value = std::stoll(std::string(code->value));
    return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max() ? int(value) : 0;
}

} // namespace

ResultDocument judgeServiceReply(const QByteArray& body, const OutcomeTable& table,
                                 const SentText& sentText)
{
    if (const std::optional<FlatMembers> flat = readFlatObject(body)) {
        return applyOutcome(table, flatCode(findMember(*flat, "code")), [&flat](const char* key) {
            const FlatMember* member = findMember(*flat, key);
            return member ? ReplyValue{{}, QByteArray(member->value.data(), int(member->value.size()))} : ReplyValue{};
        }, sentText);
    }
    QJsonParseError error;
    const QJsonDocument document = parseJson(body, &error);
    if (error.error != QJsonParseError::NoError) {
        ResultDocument unparseable = statusDocument(400, message::unparseableReply);
        const QJsonValue sent = sentText.value();
        if (!sent.isUndefined())
            unparseable.insert("request_data", sent);
        return unparseable;
    }
    const QJsonObject reply = document.object();
    return applyOutcome(table, reply.value(QLatin1String("code")).toInt(0),
                        [&reply](const char* key) { return ReplyValue{reply.value(QLatin1String(key)), {}}; }, sentText);
}

} // namespace norva
