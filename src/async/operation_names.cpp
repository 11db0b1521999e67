// SPDX-License-Identifier: MIT
#include "async/operation_names.h"

#include "operation_table.h"

#include <algorithm>
#include <iterator>

namespace norva::async {

OperationFunction findOperation(const std::string& name)
{
    for (const OperationInfo& operation : operationTable) {
        const std::string full = operation.name;
        for (const char* prefix : {"norva_sdk_", "norva_tavlin_"}) {
            const std::string start = prefix;
            if (name == full || (full.compare(0, start.size(), start) == 0 && name == full.substr(start.size())))
                return operation.function;
        }
    }
    return nullptr;
}

bool isNamedOperation(OperationFunction function)
{
    return std::any_of(std::begin(operationTable), std::end(operationTable),
                       [function](const OperationInfo& operation) { return operation.function == function; });
}

} // namespace norva::async
