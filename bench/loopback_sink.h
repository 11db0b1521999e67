// SPDX-License-Identifier: MIT
// A loopback HTTP server for benchmarks that answers without doing any work, so
// that what is measured is the client. It runs in a forked child process: its
// memory and time never count against the measured process.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

// How the server treats its connections, TCP-wise.
enum class Manner {
    // As the local service: TCP_NODELAY, each reply in one write, and every
    // read acknowledged at once (TCP_QUICKACK), which hides a client that
    // writes its request in two pieces.
    AcknowledgesAtOnce,
    // An ordinary server tuned for latency: TCP_NODELAY and one write per
    // reply, but ACKs delayed as the kernel likes.
    OneWrite,
    // An ordinary server as many are: head and body in two writes, Nagle on,
    // ACKs delayed.
    HeadThenBody,
};

class LoopbackSink
{
public:
    // Downloads ("...downloadFile") are answered with `downloadBytes` bytes of a
    // file; every other request is drained and answered with a small JSON reply.
    explicit LoopbackSink(std::uint64_t downloadBytes = 0, Manner manner = Manner::AcknowledgesAtOnce);
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
