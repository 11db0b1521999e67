// SPDX-License-Identifier: MIT
// Acknowledging what came at once. A server that writes a reply's head and
// body in two writes, without TCP_NODELAY, holds the body back until the head
// is acknowledged; a client that delays its ACK (as Linux does on a kept
// connection) then waits 40 ms for each such reply. One file per platform,
// chosen by the build: Linux has TCP_QUICKACK, which must be set again after
// each read; elsewhere this does nothing.
#pragma once

#include <QtGlobal>

namespace norva {

void acknowledgeAtOnce(qintptr socketDescriptor);

} // namespace norva
