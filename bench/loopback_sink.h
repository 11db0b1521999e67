// SPDX-License-Identifier: MIT
// A loopback HTTP server for benchmarks that answers without doing any work, so
// that what is measured is the client. It runs in a forked child process: its
// memory and time never count against the measured process.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

class LoopbackSink
{
public:
    // Downloads ("...downloadFile") are answered with `downloadBytes` bytes of a
    // file; every other request is drained and answered with a small JSON reply.
    explicit LoopbackSink(std::uint64_t downloadBytes = 0);
    ~LoopbackSink();
    LoopbackSink(const LoopbackSink&) = delete;
    LoopbackSink& operator=(const LoopbackSink&) = delete;

    int port() const { return boundPort; }
    std::string address() const { return "127.0.0.1:" + std::to_string(boundPort); }

    static const char* description()
    {
        return "loopback sink (forked child, thread per connection, keep-alive, drains the body "
               "and answers at once)";
    }

private:
    int boundPort = 0;
    int child = -1;
};

// Peak resident memory of this process so far (VmHWM), in KiB.
long peakResidentKiB();
// Resets the peak to the current resident size, where the kernel allows it.
void resetPeakResident();

} // namespace bench
