// The operations the norva command can call, with what --list and --help say of
// them.
#pragma once

#include <string>

namespace norva::command {

using OperationFunction = std::string (*)(std::string);

struct OperationEntry {
    const char* name;
    OperationFunction function;
    const char* summary;
    // The argument keys, blank-separated; "data.id" stands inside the object "data".
    const char* keys;
};

// Every operation, in the order of the public header.
const OperationEntry* operationsBegin();
const OperationEntry* operationsEnd();

// The operation of that name, with or without its "norva_sdk_" or
// "norva_tavlin_" prefix; nullptr when there is none.
const OperationEntry* findOperation(const std::string& name);

} // namespace norva::command
