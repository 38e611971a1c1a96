// Diagnostics output: formatting, filtering and the default stderr/file sink.
#include "platform/dlgsvc.h"

#include <unistd.h>
#include <fcntl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <mutex>

#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/text.h"

namespace zr::os {

namespace {

// Writes each line of a message tagged "zrobj[channel:level] ", with carriage returns dropped.
class FdSink final : public DiagSink {
 public:
  void SetFd(int fd) { fd_ = fd; }
  int fd() const { return fd_; }
  void Write(unsigned channel, unsigned level, std::u16string_view text) override {
    const std::string utf8 = Utf16ToUtf8(text);
    const std::string tag = "zrobj[" + std::to_string(channel) + ":" + std::to_string(level) + "] ";
    std::string out;
    std::size_t start = 0;
    while (start <= utf8.size()) {
      std::size_t end = utf8.find('\n', start);
      if (end == std::string::npos) end = utf8.size();
      std::string line;
      for (std::size_t k = start; k < end; ++k)
        if (utf8[k] != '\r') line.push_back(utf8[k]);
      if (!line.empty()) out += tag + line + "\n";
      start = end + 1;
    }
    for (std::size_t done = 0; done < out.size();) {
      const ssize_t n = ::write(fd_, out.data() + done, out.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
  }

 private:
  int fd_ = 2;
};

struct DiagState {
  std::mutex mutex;
  FdSink default_sink;
  DiagSink* sink = nullptr;  // null = default_sink
  std::atomic<std::uint32_t> channel_mask{0xFFFFFFFFu};
  std::atomic<unsigned> max_level{9};
  std::atomic<bool> active{false};
};

DiagState& State() {
  static DiagState* state = new DiagState;  // never destroyed: output works during unload
  return *state;
}

std::uint32_t ChannelBit(unsigned channel) { return 1u << (channel < 31 ? channel : 31); }

bool Passes(unsigned channel, unsigned level) {
  DiagState& s = State();
  return (s.channel_mask.load(std::memory_order_relaxed) & ChannelBit(channel)) != 0 &&
         level <= s.max_level.load(std::memory_order_relaxed);
}

// The messages that reach standard error while nobody listens: warnings and errors of the general
// channel (levels 1-3; its level 0 carries listings and traces) and of the library's own channel
// (levels 0-3: assertion reports, damaged memory).
bool IsAlarm(unsigned channel, unsigned level) {
  if (channel == 0) return level >= 1 && level <= 3;
  if (channel == 3) return level <= 3;
  return false;
}

// The default sink writes everything to a file, and to standard error only the alarms unless a
// listener is active. Called with the output lock held.
bool DefaultSinkTakes(const DiagState& s, unsigned channel, unsigned level) {
  return s.default_sink.fd() != 2 || s.active.load(std::memory_order_relaxed) || IsAlarm(channel, level);
}

}  // namespace

DiagSink::~DiagSink() = default;

DiagSink* SetDiagSink(DiagSink* sink) {
  DiagState& s = State();
  std::lock_guard lock(s.mutex);
  DiagSink* previous = s.sink;
  s.sink = sink;
  return previous;
}

DiagFilter GetDiagFilter() {
  DiagState& s = State();
  return {s.channel_mask.load(), s.max_level.load(), s.active.load()};
}

void SetDiagFilter(const DiagFilter& filter) {
  DiagState& s = State();
  s.channel_mask = filter.channel_mask;
  s.max_level = filter.max_level;
  s.active = filter.active;
}

bool SetDiagOutputFile(const std::string& path) {
  DiagState& s = State();
  std::lock_guard lock(s.mutex);
  int fd = 2;
  if (!path.empty()) {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
  }
  if (s.default_sink.fd() != 2) ::close(s.default_sink.fd());
  s.default_sink.SetFd(fd);
  return true;
}

void ConfigureDiag() {
  const std::string ini = ProfileFilePath("ZRO.INI");
  auto number = [&](const char* key, auto* out) {
    if (const auto v = IniRead(ini, "Diagnostics", key); v && !v->empty())
      *out = static_cast<std::remove_pointer_t<decltype(out)>>(std::strtoul(v->c_str(), nullptr, 0));
  };
  DiagFilter f = GetDiagFilter();
  unsigned long active = f.active ? 1 : 0;
  number("Active", &active);
  number("Channels", &f.channel_mask);
  number("MaxLevel", &f.max_level);
  f.active = active != 0;
  SetDiagFilter(f);
  if (const auto file = IniRead(ini, "Diagnostics", "File"); file && !file->empty())
    SetDiagOutputFile((*file)[0] == '/' ? *file : WindowsDirectory() + "/" + *file);
  ConfigureDiagFromEnvironment();
}

void ConfigureDiagFromEnvironment() {
  DiagFilter f = GetDiagFilter();
  if (const char* v = std::getenv("ZROBJ_DIAG_ACTIVE")) f.active = std::strtol(v, nullptr, 0) != 0;
  if (const char* v = std::getenv("ZROBJ_DIAG_CHANNELS")) f.channel_mask = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 0));
  if (const char* v = std::getenv("ZROBJ_DIAG_LEVEL")) f.max_level = static_cast<unsigned>(std::strtoul(v, nullptr, 0));
  SetDiagFilter(f);
  if (const char* v = std::getenv("ZROBJ_DIAG_FILE")) SetDiagOutputFile(v);
}

void wPrintfV(unsigned channel, unsigned level, std::u16string_view format, const FormatArg* args,
              std::size_t count) {
  if (!Passes(channel, level)) return;
  std::u16string text;
  AppendFormatWide(text, format, args, count);
  DiagState& s = State();
  std::lock_guard lock(s.mutex);
  if (s.sink) {
    s.sink->Write(channel, level, text);
    return;
  }
  if (DefaultSinkTakes(s, channel, level)) s.default_sink.Write(channel, level, text);
}

int Is_wPrintf_Active(unsigned channel) {
  DiagState& s = State();
  return s.active.load() && (s.channel_mask.load() & ChannelBit(channel)) ? 1 : 0;
}

}  // namespace zr::os
