#include "frame/reading.h"

#include "frame/json_writer.h"

#include <algorithm>
#include <cstring>

namespace norva {

QString readText(const QJsonObject& from, const QString& key)
{
    return from.value(key).toString();
}

int readInteger(const QJsonObject& from, const QString& key)
{
    return from.value(key).toInt(0);
}

QJsonObject readObject(const QJsonObject& from, const QString& key)
{
    return from.value(key).toObject();
}

QJsonArray readArray(const QJsonObject& from, const QString& key)
{
    return from.value(key).toArray();
}

QJsonValue readRaw(const QJsonObject& from, const QString& key)
{
    return from.value(key);
}

QJsonValue readOptionalRaw(const QJsonObject& from, const QString& key)
{
    return from.contains(key) ? from.value(key) : QJsonValue(QJsonValue::Null);
}

QString readOptionalText(const QJsonObject& from, const QString& key)
{
    return from.contains(key) ? from.value(key).toString() : QString();
}

QJsonValue readOptionalMessage(const QJsonObject& from, const QString& key)
{
    return from.contains(key) ? QJsonValue(from.value(key).toString()) : QJsonValue(QJsonValue::Null);
}

QJsonValue readValue(const QJsonObject& from, const QString& key, Read mode)
{
    switch (mode) {
    case Read::Text:
        return readText(from, key);
    case Read::Integer:
        return readInteger(from, key);
    case Read::Raw:
        return readRaw(from, key);
    case Read::OptionalRaw:
        return readOptionalRaw(from, key);
    case Read::OptionalText:
        return readOptionalText(from, key);
    case Read::OptionalMessage:
        return readOptionalMessage(from, key);
    }
    return QJsonValue::Undefined;
}

KeyList operator+(KeyList first, const KeyList& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

QJsonObject mapKeys(const QJsonObject& from, const KeyList& mappings)
{
    QJsonObject to;
    for (const KeyMapping& m : mappings) {
        const QJsonValue value = readValue(from, QString::fromLatin1(m.from), m.mode);
        if (!value.isUndefined())
            to.insert(QString::fromLatin1(m.to), value);
    }
    return to;
}

QByteArray mappedObjectText(const QJsonObject& from, const KeyList& mappings)
{
    JsonMembers members;
    members.reserve(mappings.size());
    for (const KeyMapping& m : mappings) {
        QJsonValue value = readValue(from, QString::fromLatin1(m.from), m.mode);
        if (!value.isUndefined())
            members.push_back({m.to, std::move(value), QByteArray()});
    }
    // QJsonObject's order; of equal keys the one inserted last stays.
    std::stable_sort(members.begin(), members.end(), [](const auto& a, const auto& b) { return keyBefore(a.key, b.key); });
    const auto kept = std::unique(members.rbegin(), members.rend(),
                                  [](const auto& a, const auto& b) { return std::strcmp(a.key, b.key) == 0; });
    members.erase(members.begin(), kept.base());
    return objectText(members);
}

} // namespace norva
