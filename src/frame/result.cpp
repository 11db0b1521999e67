// SPDX-License-Identifier: MIT
#include "frame/result.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <mutex>

namespace norva {

namespace {

JsonMembers::const_iterator findKey(const JsonMembers& members, const char* key)
{
    return std::lower_bound(members.begin(), members.end(), key,
                            [](const JsonMember& member, const char* k) { return keyBefore(member.key, k); });
}

} // namespace

void ResultDocument::insert(const char* key, const QJsonValue& value)
{
    put({key, value, QByteArray()});
}

void ResultDocument::insertText(const char* key, const QByteArray& jsonText)
{
    put({key, QJsonValue(), jsonText});
}

void ResultDocument::put(JsonMember member)
{
    const auto at = members.begin() + (findKey(members, member.key) - members.cbegin());
    const bool present = at != members.end() && std::strcmp(at->key, member.key) == 0;
    if (member.text.isNull() && member.value.isUndefined()) {
        if (present)
            members.erase(at);
    } else if (present) {
        *at = std::move(member);
    } else {
        members.insert(at, std::move(member));
    }
}

bool ResultDocument::contains(const char* key) const
{
    const auto at = findKey(members, key);
    return at != members.end() && std::strcmp(at->key, key) == 0;
}

QJsonValue SentText::value() const
{
    if (!url.isNull())
        return url;
    return utf8.isNull() ? QJsonValue(QJsonValue::Undefined) : QJsonValue(QString::fromUtf8(utf8));
}

ResultDocument statusDocument(int status, const QString& message)
{
    ResultDocument document;
    document.insert("message", message);
    document.insert("status", status);
    return document;
}

ResultDocument statusDocument(int status, const char* message)
{
    if (!message)
        message = "";
    const size_t length = std::strlen(message);
    const bool plain = std::all_of(message, message + length,
                                   [](char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
    if (!plain)
        return statusDocument(status, QString::fromUtf8(message));
    QByteArray text(int(length) + 2, Qt::Uninitialized);
    text[0] = '"';
    std::memcpy(text.data() + 1, message, length);
    text[int(length) + 1] = '"';
    ResultDocument document;
    document.insertText("message", text);
    document.insert("status", status);
    return document;
}

std::string compactText(const ResultDocument& document)
{
    return document.text();
}

// Calls may run on several threads at once: each line goes out whole, and a
// std::cout that the host redirected to a buffer of its own is never written
// from two threads at the same time.
namespace {

thread_local int silences = 0;

} // namespace

ConsoleSilence::ConsoleSilence()
{
    ++silences;
}

ConsoleSilence::~ConsoleSilence()
{
    --silences;
}

void echoLine(const std::string& text)
{
    if (silences > 0)
        return;
    static std::mutex writing;
    const std::lock_guard<std::mutex> lock(writing);
    std::cout.write(text.data(), std::streamsize(text.size())).put('\n').flush();
}

std::string finishResult(const ResultDocument& document)
{
    std::string text = compactText(document);
    echoLine(text);
    return text;
}

} // namespace norva
