// JSON text before it reaches Qt's parser.
#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace norva {

// Qt 5.15's JSON parser leaks the earlier value when an object repeats a key
// and that value is an array or an object. It keeps the last member anyway, so
// removing the earlier ones first changes nothing but the leak: this returns
// `json` itself when no object repeats a key (or when the text is no JSON, which
// Qt then reports), else a copy with only the last member of each repeated key.
QByteArray withoutRepeatedKeys(const QByteArray& json);

// QJsonDocument::fromJson of `json` without its repeated keys, with the keys of
// every object in QJsonObject's own order (ascending by UTF-16 code unit).
QJsonDocument parseJson(const QByteArray& json, QJsonParseError* error);

} // namespace norva
