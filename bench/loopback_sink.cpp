// SPDX-License-Identifier: MIT
#include "loopback_sink.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bench {

namespace {

bool sendAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

std::string lowered(std::string text)
{
    for (char& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Acknowledging at once spares a client that writes a request in two pieces
// (Qt 5 writes the head, then the body) the wait for a delayed ACK.
ssize_t receive(int fd, char* into, size_t size, Manner manner)
{
    if (manner == Manner::AcknowledgesAtOnce) {
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }
    return ::recv(fd, into, size, 0);
}

void serve(int fd, std::uint64_t downloadBytes, Manner manner)
{
    std::string buffer;
    char chunk[1 << 16];
    for (;;) {
        size_t headEnd;
        while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            const ssize_t n = receive(fd, chunk, sizeof chunk, manner);
            if (n <= 0) {
                ::close(fd);
                return;
            }
            buffer.append(chunk, size_t(n));
        }
        const std::string head = lowered(buffer.substr(0, headEnd));
        buffer.erase(0, headEnd + 4);
        std::uint64_t length = 0;
        const size_t at = head.find("content-length:");
        if (at != std::string::npos)
            length = std::strtoull(head.c_str() + at + 15, nullptr, 10);
        if (head.find("expect: 100-continue") != std::string::npos && !sendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n", 25))
            break;
        // Drain the body without keeping it.
        std::uint64_t have = std::min<std::uint64_t>(length, buffer.size());
        buffer.erase(0, size_t(have));
        while (have < length) {
            const ssize_t n = receive(fd, chunk, size_t(std::min<std::uint64_t>(sizeof chunk, length - have)), manner);
            if (n <= 0) {
                ::close(fd);
                return;
            }
            have += std::uint64_t(n);
        }
        if (head.find("downloadfile") != std::string::npos) {
            const std::string replyHead = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                                          "Content-Disposition: attachment;filename=bench%20board.bin\r\n"
                                          "Content-Length: " + std::to_string(downloadBytes) + "\r\n\r\n";
            if (!sendAll(fd, replyHead.data(), replyHead.size()))
                break;
            std::memset(chunk, 'b', sizeof chunk);
            for (std::uint64_t sent = 0; sent < downloadBytes;) {
                const size_t n = size_t(std::min<std::uint64_t>(sizeof chunk, downloadBytes - sent));
                if (!sendAll(fd, chunk, n))
                    break;
                sent += n;
            }
        } else {
            static const std::string body = R"({"code":200,"msg":"ok","data":"bench-token"})";
            static const std::string replyHead = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                                                 + std::to_string(body.size()) + "\r\n\r\n";
            static const std::string reply = replyHead + body;
            const bool sent = manner == Manner::HeadThenBody
                                  ? sendAll(fd, replyHead.data(), replyHead.size()) && sendAll(fd, body.data(), body.size())
                                  : sendAll(fd, reply.data(), reply.size());
            if (!sent)
                break;
        }
    }
    ::close(fd);
}

} // namespace

LoopbackSink::LoopbackSink(std::uint64_t downloadBytes, Manner manner)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 128) != 0) {
        std::perror("bench sink");
        std::exit(1);
    }
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    boundPort = ntohs(address.sin_port);
    std::fflush(nullptr);
    child = ::fork();
    if (child == 0) {
        for (;;) {
            const int fd = ::accept(listener, nullptr, nullptr);
            if (fd < 0)
                continue;
            if (manner != Manner::HeadThenBody)
                ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            std::thread(serve, fd, downloadBytes, manner).detach();
        }
    }
    ::close(listener);
}

LoopbackSink::~LoopbackSink()
{
    if (child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

long peakResidentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

void resetPeakResident()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

} // namespace bench
