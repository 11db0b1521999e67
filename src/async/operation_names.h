// The free operations by name, for the asynchronous face.
#pragma once

#include <string>

namespace norva::async {

using OperationFunction = std::string (*)(std::string);

struct NamedOperation {
    const char* name; // as in the public header
    OperationFunction function;
};

// Every free operation, in the order of the public header.
const NamedOperation* namedOperationsBegin();
const NamedOperation* namedOperationsEnd();

// The operation of that name, with or without its "norva_sdk_" or
// "norva_tavlin_" prefix; nullptr when there is none.
OperationFunction findOperation(const std::string& name);
bool isNamedOperation(OperationFunction function);

} // namespace norva::async
