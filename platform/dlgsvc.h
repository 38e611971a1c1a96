// Diagnostics output: wPrintf(channel, level, format, ...) into a replaceable sink with channel/level filtering.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/wformat.h"
#include "zrobj/export.h"

namespace zr::os {

// Receives every formatted message that passes the filter, one call per wPrintf.
class DiagSink {
 public:
  virtual ~DiagSink();
  virtual void Write(unsigned channel, unsigned level, std::u16string_view text) = 0;
};

// Installs `sink` (null restores the configured default) and returns the previous one.
// The sink is called with the output lock held, so messages never interleave.
DiagSink* SetDiagSink(DiagSink* sink);

// What passes to the sink: channels by bit (channel >= 31 uses bit 31), levels up to max_level.
// `active` is what Is_wPrintf_Active reports: a debugging consumer is listening.
struct DiagFilter {
  std::uint32_t channel_mask = 0xFFFFFFFFu;
  unsigned max_level = 9;
  bool active = false;
};
DiagFilter GetDiagFilter();
void SetDiagFilter(const DiagFilter& filter);

// Sends output to a file (appending) instead of standard error; empty path restores stderr.
bool SetDiagOutputFile(const std::string& path);

// Reads the configuration from the environment: ZROBJ_DIAG_ACTIVE, ZROBJ_DIAG_CHANNELS (mask, hex or
// decimal), ZROBJ_DIAG_LEVEL and ZROBJ_DIAG_FILE.
void ConfigureDiagFromEnvironment();

// Reads "ZRO.INI" section "Diagnostics" (keys "Active", "Channels", "MaxLevel", "File"; a relative
// file lies in the Windows directory), missing keys leave the filter as it is, then applies the
// environment on top. Called once at load.
void ConfigureDiag();

void wPrintfV(unsigned channel, unsigned level, std::u16string_view format, const FormatArg* args,
                        std::size_t count);
int Is_wPrintf_Active(unsigned channel);

template <class... Args>
void wPrintf(unsigned channel, unsigned level, const char16_t* format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg{FormatArg::Kind::kPointer}};
  wPrintfV(channel, level, format ? std::u16string_view(format) : std::u16string_view(), list, sizeof...(Args));
}

}  // namespace zr::os
