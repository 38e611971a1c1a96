// POSIX side of the network calls: UDP sockets, getaddrinfo, ICMP echo sockets and statfs.
#include "platform/netsock.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace zr::os {
namespace {

sockaddr_in ToSockaddr(const NetAddress& address) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(address.ipv4);
  sa.sin_port = htons(address.port);
  return sa;
}

NetAddress FromSockaddr(const sockaddr_in& sa) {
  return NetAddress{ntohl(sa.sin_addr.s_addr), ntohs(sa.sin_port)};
}

std::uint64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

std::uint16_t Checksum(const std::uint8_t* data, std::size_t size) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 1 < size; i += 2) sum += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
  if (size % 2) sum += static_cast<std::uint32_t>(data[size - 1] << 8);
  while (sum >> 16) sum = (sum & 0xFFFFu) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

int OpenEchoSocket(EchoSocket kind) {
  if (kind == EchoSocket::kDatagram) return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_ICMP);
  if (kind == EchoSocket::kRaw) return ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  return -1;
}

// A reply matches when it is an echo reply with our identifier (raw sockets see every reply; the
// kernel rewrites the identifier of datagram sockets, so only the sequence is checked there).
bool IsOurReply(const std::uint8_t* data, long size, EchoSocket kind, std::uint16_t id, std::uint16_t seq) {
  long offset = 0;
  if (kind == EchoSocket::kRaw) {
    if (size < 20) return false;
    offset = (data[0] & 0x0F) * 4;
  }
  if (size < offset + 8) return false;
  const std::uint8_t* icmp = data + offset;
  if (icmp[0] != ICMP_ECHOREPLY) return false;
  const std::uint16_t reply_id = static_cast<std::uint16_t>(icmp[4] << 8 | icmp[5]);
  const std::uint16_t reply_seq = static_cast<std::uint16_t>(icmp[6] << 8 | icmp[7]);
  return reply_seq == seq && (kind == EchoSocket::kDatagram || reply_id == id);
}

std::string Unprefix(const std::string& path) {
  std::string p = path;
  for (char& c : p)
    if (c == '\\') c = '/';
  return p;
}

bool IsNetworkForm(const std::string& path) {
  const std::string p = Unprefix(path);
  return p.size() > 2 && p[0] == '/' && p[1] == '/' && p[2] != '/';
}

// statfs of the path or of its nearest existing parent.
bool StatNearest(const std::string& path, struct statfs* out) {
  std::string p = path;
  while (!p.empty()) {
    if (::statfs(p.c_str(), out) == 0) return true;
    const std::size_t slash = p.find_last_of('/');
    if (slash == std::string::npos) break;
    p = slash == 0 ? "/" : p.substr(0, slash);
    if (p == "/" && ::statfs("/", out) == 0) return true;
  }
  return false;
}

constexpr long kNfsMagic = 0x6969;
constexpr long kSmbMagic = 0x517B;
constexpr long kCifsMagic = 0xFF534D42;
constexpr long kSmb2Magic = 0xFE534D42;
constexpr long kTmpfsMagic = 0x01021994;
constexpr long kRamfsMagic = 0x858458F6;
constexpr long kIso9660Magic = 0x9660;
constexpr long kUdfMagic = 0x15013346;

}  // namespace

std::string FormatAddress(const NetAddress& address) {
  char text[32];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", address.ipv4 >> 24, (address.ipv4 >> 16) & 0xFF,
                (address.ipv4 >> 8) & 0xFF, address.ipv4 & 0xFF, address.port);
  return text;
}

bool ParseAddress(const std::string& text, NetAddress* address) {
  const std::size_t colon = text.find(':');
  const std::string host = text.substr(0, colon);
  in_addr in{};
  if (::inet_pton(AF_INET, host.c_str(), &in) != 1) return false;
  NetAddress result{ntohl(in.s_addr), 0};
  if (colon != std::string::npos) {
    const std::string port = text.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long value = std::stoul(port);
    if (value == 0 || value > 65535) return false;
    result.port = static_cast<std::uint16_t>(value);
  }
  *address = result;
  return true;
}

int UdpOpen(const NetAddress& bind, NetAddress* bound) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kNoSocket;
  const int size = 1 << 20;  // room for bursts; the kernel caps it at its maximum
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  sockaddr_in sa = ToSockaddr(bind);
  socklen_t length = sizeof sa;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &length) != 0) {
    ::close(fd);
    return kNoSocket;
  }
  if (bound) *bound = FromSockaddr(sa);
  return fd;
}

void UdpClose(int socket) {
  if (socket >= 0) ::close(socket);
}

int UdpSend(int socket, const void* data, std::size_t size, const NetAddress& to) {
  const sockaddr_in sa = ToSockaddr(to);
  const ssize_t sent =
      ::sendto(socket, data, size, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
  if (sent == static_cast<ssize_t>(size)) return 0;
  return sent < 0 ? errno : EMSGSIZE;
}

bool IsSendBufferFull(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS; }

int UdpWait(int socket, std::uint32_t timeout_ms) {
  pollfd p{socket, POLLIN, 0};
  const int r = ::poll(&p, 1, static_cast<int>(timeout_ms));
  if (r < 0) return errno == EINTR ? 0 : -1;
  return r > 0 ? 1 : 0;
}

long UdpNextSize(int socket) {
  char probe = 0;
  const ssize_t n = ::recv(socket, &probe, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  return n < 0 ? -1 : static_cast<long>(n);
}

long UdpReceive(int socket, void* buffer, std::size_t capacity, NetAddress* from) {
  sockaddr_in sa{};
  socklen_t length = sizeof sa;
  const ssize_t n =
      ::recvfrom(socket, buffer, capacity, MSG_TRUNC | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sa), &length);
  if (n < 0) return -1;
  if (from) *from = FromSockaddr(sa);
  return static_cast<long>(n);
}

bool ResolveHost(const char* host, std::uint32_t* ipv4) {
  if (host == nullptr || *host == 0) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  if (::getaddrinfo(host, nullptr, &hints, &list) != 0 || list == nullptr) return false;
  *ipv4 = ntohl(reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr.s_addr);
  ::freeaddrinfo(list);
  return true;
}

bool RouteExists(std::uint32_t ipv4) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const sockaddr_in sa = ToSockaddr(NetAddress{ipv4, 9});
  const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0;
  ::close(fd);
  return ok;
}

EchoSocket ProbeEchoSocket() {
  for (EchoSocket kind : {EchoSocket::kDatagram, EchoSocket::kRaw}) {
    const int fd = OpenEchoSocket(kind);
    if (fd >= 0) {
      ::close(fd);
      return kind;
    }
  }
  return EchoSocket::kNone;
}

int IcmpEcho(std::uint32_t ipv4, std::uint32_t timeout_ms, std::uint32_t* round_trip_ms) {
  const EchoSocket kind = ProbeEchoSocket();
  const int fd = OpenEchoSocket(kind);
  if (fd < 0) return 1;
  const int ttl = 255;
  ::setsockopt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
  static std::atomic<std::uint16_t> sequence{0};
  const std::uint16_t seq = ++sequence;
  const std::uint16_t id = static_cast<std::uint16_t>(::getpid());
  std::uint8_t request[8] = {ICMP_ECHO, 0, 0, 0, static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id),
                             static_cast<std::uint8_t>(seq >> 8), static_cast<std::uint8_t>(seq)};
  const std::uint16_t sum = Checksum(request, sizeof request);
  request[2] = static_cast<std::uint8_t>(sum >> 8);
  request[3] = static_cast<std::uint8_t>(sum);
  const sockaddr_in sa = ToSockaddr(NetAddress{ipv4, 0});
  const std::uint64_t start = NowMs();
  if (::sendto(fd, request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) < 0) {
    ::close(fd);
    return 3;
  }
  std::uint8_t reply[128];
  for (;;) {
    const std::uint64_t spent = NowMs() - start;
    if (spent >= timeout_ms || UdpWait(fd, static_cast<std::uint32_t>(timeout_ms - spent)) != 1) break;
    const ssize_t n = ::recv(fd, reply, sizeof reply, MSG_DONTWAIT);
    if (n > 0 && IsOurReply(reply, n, kind, id, seq)) {
      *round_trip_ms = static_cast<std::uint32_t>(NowMs() - start);
      ::close(fd);
      return 0;
    }
  }
  ::close(fd);
  return 3;
}

UINT GetDriveType(const std::string& path) {
  if (path.empty()) return kDriveUnknown;
  if (IsNetworkForm(path)) return kDriveRemote;
  struct statfs info{};
  if (!StatNearest(Unprefix(path), &info)) return kDriveUnknown;
  switch (static_cast<long>(info.f_type)) {
    case kNfsMagic: case kSmbMagic: case kCifsMagic: case kSmb2Magic: return kDriveRemote;
    case kTmpfsMagic: case kRamfsMagic: return kDriveRamdisk;
    case kIso9660Magic: case kUdfMagic: return kDriveCdrom;
    default: return kDriveFixed;
  }
}

std::string NetworkFormOfPath(const std::string& path) {
  const std::string p = Unprefix(path);
  if (IsNetworkForm(p)) return p;
  std::ifstream mounts("/proc/self/mounts");
  std::string line, best_source, best_point;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string source, point, type;
    fields >> source >> point >> type;
    if (type != "nfs" && type != "nfs4" && type != "cifs" && type != "smb3") continue;
    const bool inside = p == point || (p.compare(0, point.size(), point) == 0 &&
                                       (point.back() == '/' || p[point.size()] == '/'));
    if (inside && point.size() > best_point.size()) {
      best_point = point;
      best_source = source;
    }
  }
  if (best_source.empty()) return {};
  std::string rest = p.substr(best_point.size());
  if (!rest.empty() && rest[0] != '/') rest = "/" + rest;
  if (best_source.rfind("//", 0) == 0) return best_source + rest;
  const std::size_t colon = best_source.find(':');
  if (colon == std::string::npos) return {};
  std::string exported = best_source.substr(colon + 1);
  if (exported.empty() || exported[0] != '/') exported = "/" + exported;
  return "//" + best_source.substr(0, colon) + exported + rest;
}

}  // namespace zr::os
