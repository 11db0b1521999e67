// JSON text before it reaches Qt's parser.
#pragma once

#include <QByteArray>

namespace norva {

// Qt 5.15's JSON parser leaks the earlier value when an object repeats a key
// and that value is an array or an object. It keeps the last member anyway, so
// removing the earlier ones first changes nothing but the leak: this returns
// `json` itself when no object repeats a key (or when the text is no JSON, which
// Qt then reports), else a copy with only the last member of each repeated key.
QByteArray withoutRepeatedKeys(const QByteArray& json);

} // namespace norva
