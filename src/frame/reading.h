// SPDX-License-Identifier: MIT
// Reading an argument document or a service reply, key by key.
//
// Each key of a document is read in one mode, and the mode alone decides what a
// missing key or a value of another JSON type becomes. Nothing here fails.
#pragma once

#include <QJsonArray>
#include "frame/json_text.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <vector>

namespace norva {

enum class Read {
    Text,            // a JSON string, else ""
    Integer,         // a whole number that fits an int, else 0
    Raw,             // the value unchanged; a missing key stays missing
    OptionalRaw,     // the value unchanged; a missing key reads as null
    OptionalText,    // the value as text when the key is there, else ""
    OptionalMessage, // the value as text when the key is there, else null
};

QString readText(const QJsonObject& from, const QString& key);
int readInteger(const QJsonObject& from, const QString& key);
QJsonObject readObject(const QJsonObject& from, const QString& key);
QJsonArray readArray(const QJsonObject& from, const QString& key);
// QJsonValue::Undefined when missing: inserting it into an object adds no key.
QJsonValue readRaw(const QJsonObject& from, const QString& key);
QJsonValue readOptionalRaw(const QJsonObject& from, const QString& key);
QString readOptionalText(const QJsonObject& from, const QString& key);
QJsonValue readOptionalMessage(const QJsonObject& from, const QString& key);

// The value a key contributes to a document when read in `mode`.
QJsonValue readValue(const QJsonObject& from, const QString& key, Read mode);

// One key of a request object: `to` takes the argument key `from`, read in `mode`.
struct KeyMapping {
    const char* to;
    const char* from;
    Read mode;
};

using KeyList = std::vector<KeyMapping>;

// Two key lists, one after the other.
KeyList operator+(KeyList first, const KeyList& second);

// Builds an object from `mappings`, in order; a raw key that is missing adds nothing.
QJsonObject mapKeys(const QJsonObject& from, const KeyList& mappings);

// The compact text of mapKeys(from, mappings), written without building the
// object (a key mapped twice keeps its last value).
QByteArray mappedObjectText(const QJsonObject& from, const KeyList& mappings);
// The same of flat members: what mappedObjectText writes of their object.
QByteArray mappedFlatText(const FlatMembers& from, const KeyList& mappings);
// readText of flat members, as UTF-8 (a flat text is printable ASCII, without
// escapes): a view into the argument text, and a copy.
std::string_view flatTextView(const FlatMembers& from, const char* key);
QByteArray flatUtf8(const FlatMembers& from, const char* key);

} // namespace norva
