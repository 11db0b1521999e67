// SPDX-License-Identifier: MIT
#include "frame/reading.h"

#include "frame/json_writer.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>

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
// empty for no value. Text and integers stand in flat members as Qt writes them.
std::string_view flatValueText(const FlatMember* member, Read mode)
{
    switch (mode) {
    case Read::Text:
    case Read::OptionalText:
        return member && member->isText() ? member->value : "\"\"";
    case Read::Integer: {
        if (!member || !member->isInteger())
            return "0";
        // At most 15 digits (a flat member holds no longer number).
        const qint64 value = QByteArray::fromRawData(member->value.data(), int(member->value.size())).toLongLong();
        return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max() ? member->value : "0";
    }
    case Read::Raw:
        return member ? member->value : std::string_view();
    case Read::OptionalRaw:
        return member ? member->value : "null";
    case Read::OptionalMessage:
        return !member ? "null" : member->isText() ? member->value : "\"\"";
    }
    return {};
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
    // A body has a handful of keys: they are ordered on the stack (a long list
    // on the heap), and the text written straight into the body, with no value
    // or member built on the way.
    struct Mapped {
        const char* key;
        std::string_view text;
    };
    Mapped onStack[16];
    const std::unique_ptr<Mapped[]> onHeap(mappings.size() > std::size(onStack) ? new Mapped[mappings.size()] : nullptr);
    Mapped* const mapped = onHeap ? onHeap.get() : onStack;
    size_t count = 0;
    qsizetype length = 2;
    for (const KeyMapping& m : mappings) {
        const std::string_view text = flatValueText(findMember(from, m.from), m.mode);
        if (text.empty())
            continue;
        // In QJsonObject's order; of equal keys the one mapped last stays.
        size_t at = count;
        while (at > 0 && keyBefore(m.to, mapped[at - 1].key))
            --at;
        if (at > 0 && std::strcmp(mapped[at - 1].key, m.to) == 0) {
            length -= qsizetype(mapped[at - 1].text.size());
            mapped[at - 1].text = text;
            length += qsizetype(text.size());
            continue;
        }
        std::move_backward(mapped + at, mapped + count, mapped + count + 1);
        mapped[at] = {m.to, text};
        ++count;
        length += qsizetype(std::strlen(m.to) + 4 + text.size()); // "key":value,
    }
    // Written through a pointer: on Qt 6 each append of QByteArray is an insert.
    QByteArray body(length, Qt::Uninitialized);
    char* to = body.data();
    const auto put = [&to](const char* from, size_t size) {
        std::memcpy(to, from, size);
        to += size;
    };
    *to++ = '{';
    for (size_t i = 0; i < count; ++i) {
        if (i > 0)
            *to++ = ',';
        *to++ = '"';
        put(mapped[i].key, std::strlen(mapped[i].key));
        put("\":", 2);
        put(mapped[i].text.data(), mapped[i].text.size());
    }
    *to++ = '}';
    body.truncate(int(to - body.constData()));
    return body;
}

std::string_view flatTextView(const FlatMembers& from, const char* key)
{
    const FlatMember* const member = findMember(from, key);
    return member && member->isText() ? member->value.substr(1, member->value.size() - 2) : std::string_view();
}

QByteArray flatUtf8(const FlatMembers& from, const char* key)
{
    const std::string_view text = flatTextView(from, key);
    return QByteArray(text.data(), int(text.size()));
}

} // namespace norva
