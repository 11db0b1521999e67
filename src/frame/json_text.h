// SPDX-License-Identifier: MIT
// JSON text before it reaches Qt's parser.
#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace norva {

// Qt 5.15's JSON parser leaks the earlier value when an object repeats a key
// and that value is an array or an object. It keeps the last member anyway, so
// removing the earlier ones first changes nothing but the leak: this returns
// `json` itself when no object repeats a key (or when the text is no JSON, which
// Qt then reports), else a copy with only the last member of each repeated key.
QByteArray withoutRepeatedKeys(const QByteArray& json);

// A text that is one flat object of plain members: keys and text of the ASCII
// characters from space to tilde without escapes, integers of up to 15 digits
// without leading zeros, true, false and null, with white space between. Qt's
// parser reads such a text to the values these texts write, and writes them
// back as the same texts; so its members can be passed on as they stand,
// without building a document (which on Qt 6 costs more than the rest of the
// reading). Service replies nearly always are such texts.
struct FlatMember {
    std::string_view key;   // without its quotes
    std::string_view value; // the value's text, quotes included
    bool isInteger() const { return value.front() == '-' || (value.front() >= '0' && value.front() <= '9'); }
    bool isText() const { return value.front() == '"'; }
};
// In the order written; nullopt for any other text, which is then Qt's to read.
using FlatMembers = std::vector<FlatMember>;
std::optional<FlatMembers> readFlatObject(const QByteArray& json);

// The member of that key (of a repeated key, the last one, as Qt keeps it);
// nullptr when there is none.
const FlatMember* findMember(const FlatMembers& members, std::string_view key);

// A member's value as Qt's parser gives it.
QJsonValue flatValue(const FlatMember& member);

// QJsonDocument::fromJson of `json` without its repeated keys, with the keys of
// every object in QJsonObject's own order (ascending by UTF-16 code unit).
QJsonDocument parseJson(const QByteArray& json, QJsonParseError* error);

} // namespace norva
