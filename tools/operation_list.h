// SPDX-License-Identifier: MIT
// The operations the norva command can call (the library's one table of them,
// operation_table.h), found by name, and the check of an argument document's
// keys against what its operation reads.
#pragma once

#include "operation_table.h"

#include <QJsonObject>

#include <string>
#include <vector>

namespace norva::command {

using OperationEntry = norva::OperationInfo;

// Every operation, in the order of the public header.
const OperationEntry* operationsBegin();
const OperationEntry* operationsEnd();

// The operation of that name, with or without its "norva_sdk_" or
// "norva_tavlin_" prefix; nullptr when there is none.
const OperationEntry* findOperation(const std::string& name);

// The operation's keys, as the table lists them.
std::vector<std::string> keysOf(const OperationEntry& entry);

// A key of a document that its operation does not read (the operation would
// drop it without a word), with the nearest key it does read, if any is near.
struct UnknownKey {
    std::string key; // dotted: "data.userid"
    std::string nearest;
};
std::vector<UnknownKey> unknownKeys(const OperationEntry& entry, const QJsonObject& document);

} // namespace norva::command
