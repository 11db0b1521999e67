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
#include <QLatin1String>
#include <QString>

#include <utility>
#include <vector>

namespace norva {

void appendJson(QByteArray& out, const QJsonValue& value);

// Members in QJsonObject's order (ascending, one per key). The keys are the
// library's own names: ASCII text that lives as long as the program.
using JsonMembers = std::vector<std::pair<QLatin1String, QJsonValue>>;

// {"key":value,...} of members already in QJsonObject's order.
QByteArray objectText(const JsonMembers& members);

} // namespace norva
