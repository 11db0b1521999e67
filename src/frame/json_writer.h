// SPDX-License-Identifier: MIT
// Compact JSON text, byte for byte as QJsonDocument::toJson(Compact) writes it,
// without building a QJsonDocument.
//
// On Qt 6 building a QJsonObject and writing it through QJsonDocument costs more
// than all the rest of a call's own work, and every call writes a request body
// and a result document. The values a call writes are nearly always null,
// booleans, small integers and plain ASCII text: those are written here, in the
// form both Qt lines give them; anything else (other numbers, text with other
// characters, arrays and objects) is written by Qt itself, value by value.
#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

#include <string>
#include <utility>
#include <vector>

namespace norva {

void appendJson(std::string& out, const QJsonValue& value);

// A member of an object to write. The key is one of the library's own names:
// ASCII text that lives as long as the program. A member holds its value, or
// (when `text` is not null) the value's JSON text as Qt would write it.
struct JsonMember {
    const char* key;
    QJsonValue value;
    QByteArray text;
};

// Members in QJsonObject's order (ascending, one per key).
using JsonMembers = std::vector<JsonMember>;

// Orders members by key as QJsonObject does (for ASCII keys, byte order).
bool keyBefore(const char* a, const char* b);

// {"key":value,...} of members already in QJsonObject's order.
std::string objectText(const JsonMembers& members);

} // namespace norva
