#include "support/loopback_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace testing_support::net {

namespace {

Handle boundToLoopback(std::uint16_t& port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return invalid;
    }
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

} // namespace

Handle listenOnLoopback(std::uint16_t& port)
{
    const Handle fd = boundToLoopback(port);
    if (fd != invalid && ::listen(int(fd), 64) != 0) {
        ::close(int(fd));
        return invalid;
    }
    return fd;
}

Handle acceptWithin(Handle listener, int milliseconds)
{
    pollfd ready{int(listener), POLLIN, 0};
    if (::poll(&ready, 1, milliseconds) <= 0)
        return invalid;
    const int connection = ::accept4(int(listener), nullptr, nullptr, SOCK_CLOEXEC);
    return connection < 0 ? invalid : connection;
}

long receive(Handle socket, char* data, long size)
{
    return long(::recv(int(socket), data, size_t(size), 0));
}

long sendSome(Handle socket, const char* data, long size)
{
    return long(::send(int(socket), data, size_t(size), MSG_NOSIGNAL));
}

bool peerClosedWithin(Handle socket, int milliseconds)
{
    pollfd ready{int(socket), POLLIN, 0};
    char byte;
    return ::poll(&ready, 1, milliseconds) > 0 && ::recv(int(socket), &byte, 1, MSG_PEEK) <= 0;
}

void shutdownSending(Handle socket)
{
    ::shutdown(int(socket), SHUT_WR);
}

void close(Handle socket)
{
    ::close(int(socket));
}

std::uint16_t unusedPort()
{
    std::uint16_t port = 0;
    const Handle fd = boundToLoopback(port);
    if (fd != invalid)
        ::close(int(fd));
    return port;
}

} // namespace testing_support::net
