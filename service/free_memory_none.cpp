// SPDX-License-Identifier: MIT
#include "free_memory.h"

namespace norva::service {

// This C library gives large blocks back by itself, or has no call for it.
void returnFreeMemory() {}

} // namespace norva::service
