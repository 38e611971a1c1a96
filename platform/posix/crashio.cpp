// Raw file output and small-file reads on plain system calls, usable inside a signal handler.
#include "platform/crashio.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace zr::os {

bool RemoveFileNow(const char* path) { return path && ::unlink(path) == 0; }

bool RawFile::Open(const char* path, Mode mode) {
  Close();
  if (!path || !*path) return false;
  int flags = O_CLOEXEC;
  switch (mode) {
    case Mode::kAppend: flags |= O_WRONLY | O_CREAT | O_APPEND; break;
    case Mode::kTruncate: flags |= O_RDWR | O_CREAT | O_TRUNC; break;
    case Mode::kRead: flags |= O_RDONLY; break;
  }
  do {
    fd_ = ::open(path, flags, 0644);
  } while (fd_ < 0 && errno == EINTR);
  return fd_ >= 0;
}

void RawFile::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

namespace {

// Repeats a transfer (write, pwrite, pread) until all n bytes are done; false on an error or at the end.
template <class Byte, class Op>
bool TransferAll(Byte* p, std::size_t n, std::uint64_t offset, Op op) {
  while (n > 0) {
    const ssize_t done = op(p, n, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    p += done;
    offset += static_cast<std::uint64_t>(done);
    n -= static_cast<std::size_t>(done);
  }
  return true;
}

}  // namespace

bool RawFile::Write(const void* data, std::size_t n) {
  return fd_ >= 0 && TransferAll(static_cast<const char*>(data), n, 0,
                                 [this](const char* p, std::size_t k, off_t) { return ::write(fd_, p, k); });
}

bool RawFile::WriteAt(std::uint64_t offset, const void* data, std::size_t n) {
  return fd_ >= 0 && TransferAll(static_cast<const char*>(data), n, offset,
                                 [this](const char* p, std::size_t k, off_t at) { return ::pwrite(fd_, p, k, at); });
}

bool RawFile::ReadAt(std::uint64_t offset, void* data, std::size_t n) {
  return fd_ >= 0 && TransferAll(static_cast<char*>(data), n, offset,
                                 [this](char* p, std::size_t k, off_t at) { return ::pread(fd_, p, k, at); });
}

long RawFile::Read(void* data, std::size_t n) {
  if (fd_ < 0) return -1;
  for (;;) {
    const ssize_t done = ::read(fd_, data, n);
    if (done < 0 && errno == EINTR) continue;
    return static_cast<long>(done);
  }
}

long ReadSmallFile(const char* path, char* buffer, std::size_t capacity) {
  if (!buffer || capacity == 0) return -1;
  buffer[0] = 0;
  RawFile file;
  if (!file.Open(path, RawFile::Mode::kRead)) return -1;
  std::size_t total = 0;
  while (total + 1 < capacity) {
    const long n = file.Read(buffer + total, capacity - 1 - total);
    if (n <= 0) break;
    total += static_cast<std::size_t>(n);
  }
  buffer[total] = 0;
  return static_cast<long>(total);
}

}  // namespace zr::os
