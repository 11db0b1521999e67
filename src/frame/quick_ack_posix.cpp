// SPDX-License-Identifier: MIT
#include "frame/quick_ack.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace norva {

void acknowledgeAtOnce(qintptr socketDescriptor)
{
#ifdef TCP_QUICKACK
    if (socketDescriptor < 0)
        return;
    const int on = 1;
    ::setsockopt(int(socketDescriptor), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
#else
    Q_UNUSED(socketDescriptor)
#endif
}

} // namespace norva
