// Shared by the network tests: a diagnostics listener that waits for lines, a plain UDP socket
// that plays a foreign computer, and wire-format builders.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/cosmail.h"
#include "zrobj/zrdiag.h"

namespace nettest {

constexpr int kWaitMs = 10000;

// Records every diagnostics line; waits (bounded) for a line to appear a number of times.
class LineWatch : public zr::DiagListener {
 public:
  LineWatch() : redirect_(this) {}
  void OnMessage(unsigned, unsigned, std::u16string_view text) override {
    std::lock_guard hold(mutex_);
    lines_.emplace_back(text);
    changed_.notify_all();
  }
  int Count(const std::u16string& line) {
    std::lock_guard hold(mutex_);
    return CountLocked(line);
  }
  int CountContaining(const std::u16string& part) {
    std::lock_guard hold(mutex_);
    int n = 0;
    for (const auto& l : lines_) n += l.find(part) != std::u16string::npos;
    return n;
  }
  bool WaitFor(const std::u16string& line, int times = 1, int ms = kWaitMs) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, std::chrono::milliseconds(ms), [&] { return CountLocked(line) >= times; });
  }
  bool WaitContaining(const std::u16string& part, int ms = kWaitMs) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, std::chrono::milliseconds(ms), [&] {
      for (const auto& l : lines_)
        if (l.find(part) != std::u16string::npos) return true;
      return false;
    });
  }

 private:
  int CountLocked(const std::u16string& line) {
    int n = 0;
    for (const auto& l : lines_) n += l == line;
    return n;
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::u16string> lines_;
  zr::ScopedDiagRedirect redirect_;
};

// "%08X" of an id, as the lines print it.
inline std::u16string Hex(DWORD id) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", id);
  return std::u16string(text, text + 8);
}

// A plain UDP socket on loopback.
class RawPeer {
 public:
  RawPeer() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    socklen_t length = sizeof sa;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &length);
    port_ = ntohs(sa.sin_port);
  }
  ~RawPeer() { ::close(fd_); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  std::uint16_t port() const { return port_; }
  bool SendTo(std::uint16_t port, const std::vector<BYTE>& bytes) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(port);
    return ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The next datagram within `ms`; empty on time-out.
  std::vector<BYTE> Receive(int ms = kWaitMs) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, ms) != 1) return {};
    std::vector<BYTE> bytes(65536);
    const ssize_t n = ::recv(fd_, bytes.data(), bytes.size(), 0);
    bytes.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return bytes;
  }
  // The next datagram of `type` within `ms`, skipping others.
  std::vector<BYTE> ReceiveType(LONG type, int ms = kWaitMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return {};
      std::vector<BYTE> bytes = Receive(static_cast<int>(left.count()));
      if (bytes.size() >= 16 && static_cast<LONG>(zr::LoadLE32(bytes.data() + 12)) == type) return bytes;
    }
  }

 private:
  int fd_;
  std::uint16_t port_ = 0;
};

// A message of `size` bytes (at most 64 KiB are made; the Size field says `size` in any case).
inline std::vector<BYTE> Header(DWORD size, DWORD id, DWORD tag, LONG type) {
  std::vector<BYTE> bytes(size < 16 ? 16 : (size > 65536 ? 16 : size), 0);
  zr::StoreLE32(bytes.data(), size);
  zr::StoreLE32(bytes.data() + 4, id);
  zr::StoreLE32(bytes.data() + 8, tag);
  zr::StoreLE32(bytes.data() + 12, static_cast<DWORD>(type));
  return bytes;
}

inline void PutText(std::vector<BYTE>& bytes, std::size_t offset, std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) zr::StoreLE16(bytes.data() + offset + 2 * i, text[i]);
}

inline std::vector<BYTE> Hello(DWORD id, DWORD tag, std::u16string_view name, LONG type = MAIL_HELLO,
                               DWORD size = MAIL_HELLO_SIZE, DWORD version = MAIL_INTERFACE_VERSION) {
  std::vector<BYTE> bytes = Header(size, id, tag, type);
  bytes.resize(size);
  if (size >= 48) PutText(bytes, 16, name);
  if (size >= 48 + 2 * 64) PutText(bytes, 48, u"raw user");
  if (size >= 180) zr::StoreLE32(bytes.data() + 176, version);
  return bytes;
}

inline std::u16string TextAt(const std::vector<BYTE>& bytes, std::size_t offset, std::size_t units) {
  std::u16string text;
  for (std::size_t i = 0; i < units && offset + 2 * i + 1 < bytes.size(); ++i) {
    const char16_t c = zr::LoadLE16(bytes.data() + offset + 2 * i);
    if (c == 0) break;
    text.push_back(c);
  }
  return text;
}

}  // namespace nettest
