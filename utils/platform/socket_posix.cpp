#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/socket.h"

namespace TOLVEN::platform {
namespace {

sockaddr_in MakeAddress(uint32_t address, uint16_t port) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = address;
    return sa;
}

int Fd(SocketHandle socket) {
    return static_cast<int>(socket);
}

}  // namespace

uint32_t LastSocketError() noexcept {
    return static_cast<uint32_t>(errno);
}

SocketHandle OpenUdpSocket() noexcept {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    return fd < 0 ? kNoSocket : static_cast<SocketHandle>(fd);
}

void CloseSocket(SocketHandle socket) noexcept {
    if (socket != kNoSocket) (void)::close(Fd(socket));
}

bool BindSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept {
    const sockaddr_in sa = MakeAddress(address, port);
    return ::bind(Fd(socket), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0;
}

uint16_t SocketLocalPort(SocketHandle socket) noexcept {
    sockaddr_in sa;
    socklen_t length = sizeof sa;
    if (::getsockname(Fd(socket), reinterpret_cast<sockaddr*>(&sa), &length) != 0) return 0;
    return ntohs(sa.sin_port);
}

bool ConnectSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept {
    const sockaddr_in sa = MakeAddress(address, port);
    return ::connect(Fd(socket), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0;
}

bool ParseIPv4Address(const char* host, uint32_t* address) noexcept {
    if (host == nullptr) return false;
    const in_addr_t value = ::inet_addr(host);
    if (value == INADDR_NONE) return false;
    *address = value;
    return true;
}

bool ResolveIPv4Address(const char* host, uint32_t* address) noexcept {
    if (host == nullptr) return false;
    addrinfo* result = nullptr;
    if (::getaddrinfo(host, nullptr, nullptr, &result) != 0) return false;
    bool found = false;
    for (const addrinfo* ai = result; ai != nullptr && !found; ai = ai->ai_next) {
        if (ai->ai_family != AF_INET || ai->ai_addr == nullptr) continue;
        *address = reinterpret_cast<const sockaddr_in*>(ai->ai_addr)->sin_addr.s_addr;
        found = true;
    }
    ::freeaddrinfo(result);
    return found;
}

int64_t SendDatagram(SocketHandle socket, const void* data, size_t size) noexcept {
    ssize_t sent;
    do {
        sent = ::send(Fd(socket), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

int64_t ReceiveDatagram(SocketHandle socket, void* buffer, size_t size,
                        uint32_t timeoutMs) noexcept {
    pollfd pfd{Fd(socket), POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&pfd, 1, timeoutMs > 0x7FFFFFFFu ? -1 : static_cast<int>(timeoutMs));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return ready;
    ssize_t got;
    do {
        got = ::recv(Fd(socket), buffer, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace TOLVEN::platform
