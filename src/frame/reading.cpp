#include "frame/reading.h"

#include "frame/json_writer.h"

#include <algorithm>
#include <cstring>
#include <limits>

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

namespace {

// The members in QJsonObject's order (of equal keys the one inserted last
// stays), written.
QByteArray orderedObjectText(JsonMembers members)
{
    // A body has a handful of keys: a stable insertion sort in place costs less
    // than std::stable_sort, which takes a buffer from the heap.
    for (auto next = members.begin(); next != members.end(); ++next) {
        for (auto at = next; at != members.begin() && keyBefore(at->key, (at - 1)->key); --at)
            std::iter_swap(at, at - 1);
    }
    const auto kept = std::unique(members.rbegin(), members.rend(),
                                  [](const auto& a, const auto& b) { return std::strcmp(a.key, b.key) == 0; });
    members.erase(members.begin(), kept.base());
    return QByteArray::fromStdString(objectText(members));
}

// What readValue gives of a flat member (nullptr: none), as its JSON text;
// null for no value. Text and integers stand in flat members as Qt writes them.
// The text refers to the argument text, which outlives the body's writing.
QByteArray flatValueText(const FlatMember* member, Read mode)
{
    const auto text = [member] { return QByteArray::fromRawData(member->value.data(), int(member->value.size())); };
    // Literals: no allocation for the values a body holds most.
    const QByteArray empty = QByteArrayLiteral("\"\"");
    const QByteArray null = QByteArrayLiteral("null");
    const QByteArray zero = QByteArrayLiteral("0");
    switch (mode) {
    case Read::Text:
    case Read::OptionalText:
        return member && member->isText() ? text() : empty;
    case Read::Integer: {
        if (!member || !member->isInteger())
            return zero;
        const qint64 value = text().toLongLong(); // at most 15 digits
        return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max() ? text() : zero;
    }
    case Read::Raw:
        return member ? text() : QByteArray();
    case Read::OptionalRaw:
        return member ? text() : null;
    case Read::OptionalMessage:
        return !member ? null : member->isText() ? text() : empty;
    }
    return QByteArray();
}

} // namespace

QByteArray mappedObjectText(const QJsonObject& from, const KeyList& mappings)
{
    JsonMembers members;
    members.reserve(mappings.size());
    for (const KeyMapping& m : mappings) {
        QJsonValue value = readValue(from, QString::fromLatin1(m.from), m.mode);
        if (!value.isUndefined())
            members.push_back({m.to, std::move(value), QByteArray()});
    }
    return orderedObjectText(std::move(members));
}

QByteArray mappedFlatText(const FlatMembers& from, const KeyList& mappings)
{
    JsonMembers members;
    members.reserve(mappings.size());
    for (const KeyMapping& m : mappings) {
        QByteArray text = flatValueText(findMember(from, m.from), m.mode);
        if (!text.isNull())
            members.push_back({m.to, QJsonValue(), std::move(text)});
    }
    return orderedObjectText(std::move(members));
}

QString flatText(const FlatMembers& from, const char* key)
{
    return QString::fromLatin1(flatUtf8(from, key));
}

QByteArray flatUtf8(const FlatMembers& from, const char* key)
{
    const FlatMember* const member = findMember(from, key);
    return member && member->isText() ? QByteArray(member->value.data() + 1, int(member->value.size()) - 2)
                                      : QByteArray();
}

} // namespace norva
