// SPDX-License-Identifier: MIT
#include "free_memory.h"

#include <malloc.h>

namespace norva::service {

void returnFreeMemory()
{
    malloc_trim(0);
}

} // namespace norva::service
