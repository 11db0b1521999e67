// The few socket calls the test service makes, on loopback: one file per
// platform stands behind this header (BSD sockets, Winsock), chosen by the
// build. Plain sockets rather than Qt's: the service's threads must not make
// QObjects while a call of the test builds and ends its temporary application.
#pragma once

#include <cstdint>

namespace testing_support::net {

using Handle = std::intptr_t;
constexpr Handle invalid = -1;

// A socket listening on 127.0.0.1 at a free port, which `port` receives.
Handle listenOnLoopback(std::uint16_t& port);
// The next connection, or `invalid` when none came within `milliseconds`.
Handle acceptWithin(Handle listener, int milliseconds);
// recv() and send(): the count, 0 at the end of the stream, below 0 on errors.
long receive(Handle socket, char* data, long size);
long sendSome(Handle socket, const char* data, long size);
// Whether the peer closed its end, looking for up to `milliseconds`.
bool peerClosedWithin(Handle socket, int milliseconds);
// The peer sees the end of the stream.
void shutdownSending(Handle socket);
void close(Handle socket);
// A loopback port where nothing listens.
std::uint16_t unusedPort();

} // namespace testing_support::net
