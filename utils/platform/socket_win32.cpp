// winsock2.h must come before windows.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstring>

#include "platform/socket.h"
#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

// Starts Winsock once for the process; it stays up until the process ends.
bool StartWinsock() noexcept {
    static const bool started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return started;
}

sockaddr_in MakeAddress(uint32_t address, uint16_t port) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = ::htons(port);
    sa.sin_addr.s_addr = address;
    return sa;
}

SOCKET Sock(SocketHandle socket) {
    return static_cast<SOCKET>(socket);
}

}  // namespace

uint32_t LastSocketError() noexcept {
    return static_cast<uint32_t>(::WSAGetLastError());
}

SocketHandle OpenUdpSocket() noexcept {
    if (!StartWinsock()) return kNoSocket;
    const SOCKET s = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == INVALID_SOCKET) return kNoSocket;
    // Sends never wait for room; receives wait in select.
    u_long nonBlocking = 1;
    (void)::ioctlsocket(s, FIONBIO, &nonBlocking);
    return static_cast<SocketHandle>(s);
}

void CloseSocket(SocketHandle socket) noexcept {
    if (socket != kNoSocket) (void)::closesocket(Sock(socket));
}

bool BindSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept {
    const sockaddr_in sa = MakeAddress(address, port);
    return ::bind(Sock(socket), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0;
}

uint16_t SocketLocalPort(SocketHandle socket) noexcept {
    sockaddr_in sa;
    int length = sizeof sa;
    if (::getsockname(Sock(socket), reinterpret_cast<sockaddr*>(&sa), &length) != 0) return 0;
    return ::ntohs(sa.sin_port);
}

bool ConnectSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept {
    const sockaddr_in sa = MakeAddress(address, port);
    return ::connect(Sock(socket), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0;
}

bool ParseIPv4Address(const char* host, uint32_t* address) noexcept {
    if (host == nullptr || !StartWinsock()) return false;
    const unsigned long value = ::inet_addr(host);
    if (value == INADDR_NONE) return false;
    *address = static_cast<uint32_t>(value);
    return true;
}

bool ResolveIPv4Address(const char* host, uint32_t* address) noexcept {
    if (host == nullptr || !StartWinsock()) return false;
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
    const int sent =
        ::send(Sock(socket), static_cast<const char*>(data), static_cast<int>(size), 0);
    return sent == SOCKET_ERROR ? -1 : sent;
}

int64_t ReceiveDatagram(SocketHandle socket, void* buffer, size_t size,
                        uint32_t timeoutMs) noexcept {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(Sock(socket), &readable);
    timeval wait{static_cast<long>(timeoutMs / 1000), static_cast<long>(timeoutMs % 1000 * 1000)};
    const int ready =
        ::select(0, &readable, nullptr, nullptr, timeoutMs == 0xFFFFFFFFu ? nullptr : &wait);
    if (ready == SOCKET_ERROR) return -1;
    if (ready == 0) return 0;
    const int got = ::recv(Sock(socket), static_cast<char*>(buffer), static_cast<int>(size), 0);
    if (got == SOCKET_ERROR) {
        // A datagram longer than the buffer still hands over its first `size` bytes.
        return ::WSAGetLastError() == WSAEMSGSIZE ? static_cast<int64_t>(size) : -1;
    }
    return got;
}

}  // namespace TOLVEN::platform
