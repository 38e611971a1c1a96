// The DF_ conversions between narrow (UTF-8) and wide (UTF-16) buffers and the loaded-field repair.
#include "zrobj/cpstr.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "platform/text.h"

namespace {

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }
bool IsUtf8Continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

std::u16string_view WideView(const WCHAR* text) { return {text, zr::os::WStrLen(text)}; }

// Copies `text` and its terminator into dest[0, capacity) when it fits; otherwise the longest prefix
// of whole characters that leaves room for the terminator, and the result is 0.
template <class Char, class IsCut>
UINT StoreConverted(Char* dest, std::basic_string_view<Char> text, UINT capacity, IsCut splits_character) {
  if (text.size() + 1 <= capacity) {
    std::memcpy(dest, text.data(), text.size() * sizeof(Char));
    dest[text.size()] = 0;
    return static_cast<UINT>(text.size() + 1);
  }
  std::size_t kept = capacity - 1;
  while (kept > 0 && splits_character(text, kept)) --kept;
  std::memcpy(dest, text.data(), kept * sizeof(Char));
  dest[kept] = 0;
  return 0;
}

UINT StoreWide(WCHAR* dest, std::u16string_view text, UINT units) {
  const UINT count = StoreConverted<char16_t>(dest, text, units, [](std::u16string_view t, std::size_t at) {
    return IsLowSurrogate(t[at]) && IsHighSurrogate(t[at - 1]);
  });
  dest[units - 1] = 0;
  return count;
}

UINT StoreNarrow(char* dest, std::string_view text, UINT bytes) {
  const UINT count = StoreConverted<char>(dest, text, bytes,
                                          [](std::string_view t, std::size_t at) { return IsUtf8Continuation(t[at]); });
  dest[bytes - 1] = 0;
  return count;
}

// The text with every unpaired surrogate replaced by '_'.
std::u16string WithoutLoneSurrogates(std::u16string_view text) {
  std::u16string out(text);
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (IsHighSurrogate(out[i]) && i + 1 < out.size() && IsLowSurrogate(out[i + 1])) {
      ++i;
      continue;
    }
    if (IsHighSurrogate(out[i]) || IsLowSurrogate(out[i])) out[i] = u'_';
  }
  return out;
}

// A field of n units that holds narrow text: its first n bytes become wide text in place.
int WidenField(WCHAR* field, UINT units) {
  std::unique_ptr<char[]> narrow(new (std::nothrow) char[units + 1]);
  if (!narrow) return DF_Init(field, units * 2);
  std::memcpy(narrow.get(), field, units);
  narrow[units] = 0;
  DF_ToWideBuffer(field, narrow.get(), units);
  field[units - 1] = 0;
  return 1;
}

// A field of n units that holds wide text meant to be narrow: converted into its first n bytes.
int NarrowField(WCHAR* field, UINT units) {
  std::unique_ptr<WCHAR[]> wide(new (std::nothrow) WCHAR[units + 1]);
  if (!wide) return 0;
  std::memcpy(wide.get(), field, units * sizeof(WCHAR));
  wide[units] = 0;
  DF_ToANSIBuffer(reinterpret_cast<char*>(field), wide.get(), units);
  field[units - 1] = 0;
  return 1;
}

}  // namespace

int DF_Init(void* buffer, UINT bytes) {
  if (!buffer || bytes < 3) return 0;
  auto* units = static_cast<WCHAR*>(buffer);
  units[0] = 0;
  units[bytes / 2 - 1] = 0;
  return 1;
}

int DF_LoadInit(void* buffer, UINT bytes) {
  if (!buffer || bytes < 3) return 1;
  auto* field = static_cast<WCHAR*>(buffer);
  const UINT units = bytes / 2;
  const WCHAR last = field[units - 1];
  if (last == 0) return 1;
  if (last == 1 || last == 2) return WidenField(field, units);
  return NarrowField(field, units);
}

UINT DF_WideBufferSize(const char* text) {
  if (!text) return 0;
  return (DF_WideLen(text) + 1) * sizeof(WCHAR);
}

UINT DF_ANSIBufferSize(const WCHAR* text) {
  if (!text) return 0;
  return DF_ANSILen(text) + 1;
}

UINT DF_WideLen(const char* text) {
  if (!text || !*text) return 0;
  return static_cast<UINT>(zr::os::Utf8ToUtf16(text).size());
}

UINT DF_ANSILen(const WCHAR* text) {
  if (!text || !*text) return 0;
  return static_cast<UINT>(zr::os::Utf16ToUtf8(WideView(text)).size());
}

UINT DF_ToWideBuffer(WCHAR* dest, const char* src, UINT units) {
  if (!dest || !src || units == 0) return 0;
  return StoreWide(dest, zr::os::Utf8ToUtf16(src), units);
}

UINT DF_ToANSIBuffer(char* dest, const WCHAR* src, UINT bytes) {
  if (!dest || !src || bytes == 0) return 0;
  return StoreNarrow(dest, zr::os::Utf16ToUtf8(WideView(src)), bytes);
}

UINT DF_ToANSIPath(char* dest, const WCHAR* src, UINT bytes) {
  if (!dest || !src || bytes == 0) return 0;
  return StoreNarrow(dest, zr::os::Utf16ToUtf8(WithoutLoneSurrogates(WideView(src))), bytes);
}
