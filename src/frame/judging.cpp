#include "frame/judging.h"

#include "frame/json_text.h"
#include "frame/reading.h"
#include "frame/result.h"

#include <QJsonDocument>
#include <QJsonParseError>

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
        return statusDocument(402, QString::fromLatin1(message::tokenExpired));
    case HttpClass::NoReply:
        return statusDocument(400, QString::fromLatin1(message::serverShutsDown));
    case HttpClass::Ok:
    case HttpClass::Other:
        break;
    }
    return statusDocument(400, QString::fromLatin1(message::requestFail));
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

QJsonValue valueFrom(From from, const QJsonObject& reply, const QJsonValue& sentText)
{
    const QString data = QStringLiteral("data");
    const QString msg = QStringLiteral("msg");
    switch (from) {
    case From::ReplyData:
        return readRaw(reply, data);
    case From::ReplyDataOrNull:
        return readOptionalRaw(reply, data);
    case From::ReplyMsgOrNull:
        return readOptionalRaw(reply, msg);
    case From::ReplyMsgOrEmpty:
        return reply.contains(msg) ? reply.value(msg) : QJsonValue(QString());
    case From::ReplyMsgAsMessage:
        return readOptionalMessage(reply, msg);
    case From::SentText:
        return sentText;
    }
    return QJsonValue::Undefined;
}

} // namespace

ResultDocument applyOutcome(const OutcomeTable& table, const QJsonObject& serviceReply,
                         const QJsonValue& sentText)
{
    const int code = readInteger(serviceReply, QStringLiteral("code"));
    for (const Outcome& row : table) {
        if (!row.when.matches(code))
            continue;
        ResultDocument document = statusDocument(row.status, QString::fromUtf8(row.message));
        for (const ResultKey& key : row.keys) {
            const QJsonValue value = valueFrom(key.from, serviceReply, sentText);
            if (!value.isUndefined())
                document.insert(key.key, value);
        }
        return document;
    }
    return statusDocument(400, QString::fromLatin1(message::requestFail));
}

ResultDocument judgeServiceReply(const QByteArray& body, const OutcomeTable& table,
                              const QJsonValue& sentText)
{
    QJsonParseError error;
    const QJsonDocument document = parseJson(body, &error);
    if (error.error != QJsonParseError::NoError) {
        ResultDocument unparseable = statusDocument(400, QString::fromLatin1(message::unparseableReply));
        if (!sentText.isUndefined())
            unparseable.insert("request_data", sentText);
        return unparseable;
    }
    return applyOutcome(table, document.object(), sentText);
}

} // namespace norva
