// SPDX-License-Identifier: MIT
// The free operations by name, for the asynchronous face (operation_table.h).
#pragma once

#include <string>

namespace norva::async {

using OperationFunction = std::string (*)(std::string);

// The operation of that name, with or without its "norva_sdk_" or
// "norva_tavlin_" prefix; nullptr when there is none.
OperationFunction findOperation(const std::string& name);
bool isNamedOperation(OperationFunction function);

} // namespace norva::async
