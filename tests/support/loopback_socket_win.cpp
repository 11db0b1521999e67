#include "support/loopback_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace testing_support::net {

namespace {

void startWinsockOnce()
{
    static const bool started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    (void)started;
}

Handle boundToLoopback(std::uint16_t& port)
{
    startWinsockOnce();
    const SOCKET s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (s == INVALID_SOCKET || ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::closesocket(s);
        return invalid;
    }
    int length = sizeof address;
    ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return Handle(s);
}

} // namespace

Handle listenOnLoopback(std::uint16_t& port)
{
    const Handle s = boundToLoopback(port);
    if (s != invalid && ::listen(SOCKET(s), 64) != 0) {
        ::closesocket(SOCKET(s));
        return invalid;
    }
    return s;
}

Handle acceptWithin(Handle listener, int milliseconds)
{
    WSAPOLLFD ready{SOCKET(listener), POLLRDNORM, 0};
    if (::WSAPoll(&ready, 1, milliseconds) <= 0)
        return invalid;
    const SOCKET connection = ::accept(SOCKET(listener), nullptr, nullptr);
    return connection == INVALID_SOCKET ? invalid : Handle(connection);
}

long receive(Handle socket, char* data, long size)
{
    return ::recv(SOCKET(socket), data, int(size), 0);
}

long sendSome(Handle socket, const char* data, long size)
{
    return ::send(SOCKET(socket), data, int(size), 0);
}

bool peerClosedWithin(Handle socket, int milliseconds)
{
    WSAPOLLFD ready{SOCKET(socket), POLLRDNORM, 0};
    char byte;
    return ::WSAPoll(&ready, 1, milliseconds) > 0 && ::recv(SOCKET(socket), &byte, 1, MSG_PEEK) <= 0;
}

void shutdownSending(Handle socket)
{
    ::shutdown(SOCKET(socket), SD_SEND);
}

void close(Handle socket)
{
    ::closesocket(SOCKET(socket));
}

std::uint16_t unusedPort()
{
    std::uint16_t port = 0;
    const Handle s = boundToLoopback(port);
    if (s != invalid)
        ::closesocket(SOCKET(s));
    return port;
}

} // namespace testing_support::net
