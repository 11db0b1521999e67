// SPDX-License-Identifier: MIT
#include "frame/json_writer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstring>

namespace norva {

namespace {

// Both Qt lines write an integral number below this as its plain digits (Qt 6
// writes 1e16 as "1e+16" when it holds a double).
constexpr double plainIntegerLimit = 1e15;

// The text as both Qt lines write it when every character is ASCII: the six
// with a short escape, other control characters as \u00XX, the rest as they
// are. False (and nothing written) for anything beyond ASCII.
bool appendAsciiString(std::string& out, QStringView text)
{
    static const char hex[] = "0123456789abcdef";
    qsizetype length = 2;
    for (const QChar qc : text) {
        const char16_t c = qc.unicode();
        if (c >= 0x80)
            return false;
        length += c >= 0x20 && c != '"' && c != '\\' ? 1 : c == '"' || c == '\\' || c == '\b' || c == '\f' || c == '\n' || c == '\r' || c == '\t' ? 2 : 6;
    }
    const size_t start = out.size();
    out.resize(start + size_t(length));
    char* to = out.data() + start;
    *to++ = '"';
    for (const QChar qc : text) {
        const char16_t c = qc.unicode();
        if (c >= 0x20 && c != '"' && c != '\\') {
            *to++ = char(c);
            continue;
        }
        *to++ = '\\';
        switch (c) {
        case '"': *to++ = '"'; break;
        case '\\': *to++ = '\\'; break;
        case '\b': *to++ = 'b'; break;
        case '\f': *to++ = 'f'; break;
        case '\n': *to++ = 'n'; break;
        case '\r': *to++ = 'r'; break;
        case '\t': *to++ = 't'; break;
        default:
            *to++ = 'u';
            *to++ = '0';
            *to++ = '0';
            *to++ = hex[c >> 4];
            *to++ = hex[c & 15];
        }
    }
    *to = '"';
    return true;
}

// What Qt writes for one value: the array of that value without its brackets.
void appendByQt(std::string& out, const QJsonValue& value)
{
    const QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    out.append(text.constData() + 1, size_t(text.size()) - 2);
}

void appendString(std::string& out, const QString& text)
{
    if (!appendAsciiString(out, text))
        appendByQt(out, QJsonValue(text));
}

// A key: the library's own ASCII name.
void appendKey(std::string& out, const char* key)
{
    out += '"';
    out += key;
    out += "\":";
}

} // namespace

void appendJson(std::string& out, const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        out.append("null");
        return;
    case QJsonValue::Bool:
        out.append(value.toBool() ? "true" : "false");
        return;
    case QJsonValue::Double: {
        const double d = value.toDouble();
        if (std::trunc(d) == d && std::fabs(d) < plainIntegerLimit) {
            out.append(std::to_string(qint64(d)));
            return;
        }
        break;
    }
    case QJsonValue::String:
        appendString(out, value.toString());
        return;
    case QJsonValue::Array:
        out.append(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact).toStdString());
        return;
    case QJsonValue::Object:
        out.append(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact).toStdString());
        return;
    case QJsonValue::Undefined:
        break;
    }
    appendByQt(out, value);
}

bool keyBefore(const char* a, const char* b)
{
    return std::strcmp(a, b) < 0;
}

std::string objectText(const JsonMembers& members)
{
    std::string out;
    out.reserve(128);
    out += '{';
    for (const JsonMember& member : members) {
        if (out.size() > 1)
            out += ',';
        appendKey(out, member.key);
        if (member.text.isNull())
            appendJson(out, member.value);
        else
            out.append(member.text.constData(), size_t(member.text.size()));
    }
    out += '}';
    return out;
}

} // namespace norva
