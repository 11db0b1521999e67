#include "frame/result.h"

#include <algorithm>
#include <iostream>

namespace norva {

namespace {

JsonMembers::const_iterator findKey(const JsonMembers& members, QLatin1String key)
{
    return std::lower_bound(members.begin(), members.end(), key,
                            [](const JsonMembers::value_type& member, QLatin1String k) { return member.first < k; });
}

} // namespace

void ResultDocument::insert(const char* name, const QJsonValue& value)
{
    const QLatin1String key(name);
    const auto at = members.begin() + (findKey(members, key) - members.cbegin());
    const bool present = at != members.end() && at->first == key;
    if (value.isUndefined()) {
        if (present)
            members.erase(at);
    } else if (present) {
        at->second = value;
    } else {
        members.emplace(at, key, value);
    }
}

bool ResultDocument::contains(const char* name) const
{
    const QLatin1String key(name);
    const auto at = findKey(members, key);
    return at != members.end() && at->first == key;
}

ResultDocument statusDocument(int status, const QString& message)
{
    ResultDocument document;
    document.insert("message", message);
    document.insert("status", status);
    return document;
}

std::string compactText(const ResultDocument& document)
{
    return document.text().toStdString();
}

void echoLine(const std::string& text)
{
    std::cout << text << std::endl;
}

std::string finishResult(const ResultDocument& document)
{
    std::string text = compactText(document);
    echoLine(text);
    return text;
}

} // namespace norva
