// SPDX-License-Identifier: MIT
// Windows acknowledges every second segment, and after 200 ms at most; it has
// no per-read switch like Linux's TCP_QUICKACK.
#include "frame/quick_ack.h"

namespace norva {

void acknowledgeAtOnce(qintptr) {}

} // namespace norva
