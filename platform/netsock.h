// Datagram sockets, name resolution, echo requests and drive types: what the network messaging
// subsystem asks of the system (mailboxes are UDP sockets on IPv4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "zrobj/zrtypes.h"

namespace zr::os {

// An IPv4 address and port, both in host byte order.
struct NetAddress {
  std::uint32_t ipv4 = 0;
  std::uint16_t port = 0;
  bool operator==(const NetAddress&) const = default;
};

inline constexpr std::uint32_t kLoopbackIpv4 = 0x7F000001u;
inline constexpr int kNoSocket = -1;

// "a.b.c.d:port".
std::string FormatAddress(const NetAddress& address);
// Parses "a.b.c.d" (into ipv4) or "a.b.c.d:port"; false on anything else.
bool ParseAddress(const std::string& text, NetAddress* address);

// Opens a UDP socket bound to `bind` (port 0: any free port); *bound receives the address it got.
// kNoSocket on failure.
int UdpOpen(const NetAddress& bind, NetAddress* bound);
void UdpClose(int socket);
// Sends one datagram: 0 when it went out, else the errno value (EAGAIN-like values mean the
// socket's buffer is full).
int UdpSend(int socket, const void* data, std::size_t size, const NetAddress& to);
// Waits up to `timeout_ms` for a datagram: 1 one is waiting, 0 time-out, -1 error.
int UdpWait(int socket, std::uint32_t timeout_ms);
// Size of the next waiting datagram without taking it (-1 when none or on error).
long UdpNextSize(int socket);
// Takes the next datagram into `buffer` (at most `capacity` bytes); its full length, or -1.
long UdpReceive(int socket, void* buffer, std::size_t capacity, NetAddress* from);
// Whether `error` (from UdpSend) means the send would have had to wait.
bool IsSendBufferFull(int error);

// The first IPv4 address of `host` (a name or a dotted address), through getaddrinfo.
bool ResolveHost(const char* host, std::uint32_t* ipv4);
// The IPv4 address the kernel would send from to reach `ipv4` (a route exists); false when none.
bool RouteExists(std::uint32_t ipv4);

// ICMP echo. Which socket kind the process may open: unprivileged ping sockets (SOCK_DGRAM,
// allowed by net.ipv4.ping_group_range) first, else raw sockets (root or CAP_NET_RAW).
enum class EchoSocket { kNone, kDatagram, kRaw };
EchoSocket ProbeEchoSocket();
// One echo request with no data and time-to-live 255: 0 reply (*round_trip_ms set), 3 no reply in
// `timeout_ms`, 1 when no echo socket can be opened.
int IcmpEcho(std::uint32_t ipv4, std::uint32_t timeout_ms, std::uint32_t* round_trip_ms);

// Windows drive types of a path, from statfs of the path (or its nearest existing parent).
inline constexpr UINT kDriveUnknown = 0;
inline constexpr UINT kDriveRemovable = 2;
inline constexpr UINT kDriveFixed = 3;
inline constexpr UINT kDriveRemote = 4;
inline constexpr UINT kDriveCdrom = 5;
inline constexpr UINT kDriveRamdisk = 6;
// A path in network form ("//server/share/...", either separator) is remote without asking.
UINT GetDriveType(const std::string& path);
// The mount source of the file system holding `path` as network form "//server/export/rest":
// "server:/export" (NFS) and "//server/share" (SMB) sources; empty when it is not a network mount.
std::string NetworkFormOfPath(const std::string& path);

}  // namespace zr::os
