// Output that works inside a signal handler: a formatter over a fixed buffer and raw file writes.
// Nothing here allocates, so the crash handler can use it after the heap itself has failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/wformat.h"

namespace zr::os {

// Formats narrow (UTF-8) text into a caller's buffer, cutting what does not fit. The printf dialect of
// the library's messages, parsed by ParseFormatSpec: flags, width and precision (also "*"), the length
// modifiers, and the conversions d i u x X o c s S p n %; a real ("%f") needs the C library and is
// printed as written. A string argument prints whatever its width (UTF-16 is converted). An integer
// prints at the size its modifier names ("l" is 32-bit, "ll"/"I64"/"I"/"z" 64), without one at its own
// width (so an address passed as 64-bit prints in full under "%08X").
class FixedText {
 public:
  FixedText(char* buffer, std::size_t capacity);
  FixedText(const FixedText&) = delete;
  FixedText& operator=(const FixedText&) = delete;

  void Clear();
  void Append(std::string_view text);
  void AppendWide(std::u16string_view text);  // as UTF-8
  void FormatV(std::string_view format, const FormatArg* args, std::size_t count);
  template <class... Args>
  void Format(std::string_view format, const Args&... args) {
    const FormatArg list[] = {MakeFormatArg(args)..., FormatArg{FormatArg::Kind::kPointer}};
    FormatV(format, list, sizeof...(Args));
  }

  const char* c_str() const { return buffer_; }
  std::size_t size() const { return size_; }
  bool truncated() const { return truncated_; }

 private:
  void Put(char c);
  void PutRepeated(char c, std::size_t n);
  void PutCodePoint(char32_t c);

  char* buffer_;
  std::size_t capacity_;
  std::size_t size_ = 0;
  bool truncated_ = false;
};

// A file written with plain system calls (no user-space buffering).
class RawFile {
 public:
  enum class Mode { kAppend, kTruncate, kRead };
  RawFile() = default;
  ~RawFile() { Close(); }
  RawFile(const RawFile&) = delete;
  RawFile& operator=(const RawFile&) = delete;

  bool Open(const char* path, Mode mode);
  void Close();
  bool is_open() const { return fd_ >= 0; }
  bool Write(const void* data, std::size_t n);              // at the current position
  bool WriteAt(std::uint64_t offset, const void* data, std::size_t n);
  long Read(void* data, std::size_t n);                      // -1 on error, 0 at the end
  bool ReadAt(std::uint64_t offset, void* data, std::size_t n);  // exactly n bytes, or false

 private:
  int fd_ = -1;
};

// Removes a file with one system call; false when it could not be removed.
bool RemoveFileNow(const char* path);

// Converts UTF-8 into a buffer of `capacity` UTF-16 units, terminated and cut to fit (never inside a
// surrogate pair); malformed sequences become U+FFFD. Returns the units written.
std::size_t Utf8ToUtf16Fixed(std::string_view text, char16_t* out, std::size_t capacity);

// Reads at most capacity-1 bytes of a (small, e.g. /proc) file and terminates them; returns the count,
// or -1 when the file cannot be opened.
long ReadSmallFile(const char* path, char* buffer, std::size_t capacity);

}  // namespace zr::os
