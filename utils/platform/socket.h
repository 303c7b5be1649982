// IPv4 datagram sockets and the name look-up they need.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TOLVEN::platform {

// A socket of the platform; kNoSocket when there is none.
using SocketHandle = intptr_t;
inline constexpr SocketHandle kNoSocket = -1;

// The error of the last failed socket call on this thread (errno, WSAGetLastError).
uint32_t LastSocketError() noexcept;

// A UDP socket over IPv4; kNoSocket on failure. The first call starts the platform's
// socket library where it needs starting.
SocketHandle OpenUdpSocket() noexcept;
// Closes the socket; kNoSocket is ignored.
void CloseSocket(SocketHandle socket) noexcept;

// Binds the socket to `address` (network order; 0 for any) and `port` (0 for a free one).
bool BindSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept;
// The port the socket is bound to; 0 when unknown.
uint16_t SocketLocalPort(SocketHandle socket) noexcept;
// Makes `address` (network order) and `port` the destination of SendDatagram.
bool ConnectSocket(SocketHandle socket, uint32_t address, uint16_t port) noexcept;

// Reads `host` as a numeric IPv4 address the way inet_addr does ("127.0.0.1", also "127.1");
// false for anything else, "255.255.255.255" included. No name service is asked.
bool ParseIPv4Address(const char* host, uint32_t* address) noexcept;
// The first IPv4 address the resolver (getaddrinfo) gives for `host`; false when none.
bool ResolveIPv4Address(const char* host, uint32_t* address) noexcept;

// Sends one datagram to the connected destination without waiting for room in the
// socket's buffer: the bytes sent, or -1.
int64_t SendDatagram(SocketHandle socket, const void* data, size_t size) noexcept;
// Waits up to `timeoutMs` for one datagram and copies at most `size` bytes of it: its
// length, 0 after the time-out, -1 on an error.
int64_t ReceiveDatagram(SocketHandle socket, void* buffer, size_t size,
                        uint32_t timeoutMs) noexcept;

}  // namespace TOLVEN::platform
