// Fuzzes the GUID text parser: arbitrary UTF-16 text (or ASCII widened, chosen by the first byte)
// is parsed; an accepted text's GUID must round-trip through its written form, and wherever the C
// library's scanner reads the same language (ASCII, no "0x" prefixes, numbers of at most 16 digits)
// its verdict and numbers must agree.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zrobj/guidcv.h"

namespace {

std::u16string TextFromInput(const std::uint8_t* data, std::size_t size) {
  std::u16string text;
  if (size == 0) return text;
  const bool widened = (data[0] & 1) != 0;
  ++data;
  --size;
  if (widened) {
    for (std::size_t i = 0; i < size; ++i) text.push_back(static_cast<char16_t>(data[i]));
  } else {
    for (std::size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | data[i + 1] << 8));
  }
  return text.substr(0, text.find(u'\0'));
}

bool IsHex(char16_t c) { return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F'); }

// Texts on which the C library's "%x" and the parser read the same numbers: ASCII only, no 'x'
// (glibc accepts a "0x" prefix without digits) and no run of more than 16 digits (glibc saturates).
bool OracleApplies(const std::u16string& text) {
  std::size_t run = 0;
  for (char16_t c : text) {
    if (c >= 0x80 || c == u'x' || c == u'X') return false;
    run = IsHex(c) ? run + 1 : 0;
    if (run > 16) return false;
  }
  return true;
}

void CheckAgainstScanf(const std::u16string& text, bool accepted, const GUID& guid) {
  const std::string narrow(text.begin(), text.end());
  unsigned int first = 0;
  unsigned short f[10] = {};
  const int n = std::sscanf(narrow.c_str(), "%x-%hx-%hx-%hx-%hx-%hx-%hx-%hx-%hx-%hx-%hx", &first, &f[0], &f[1], &f[2],
                            &f[3], &f[4], &f[5], &f[6], &f[7], &f[8], &f[9]);
  if ((n == 11) != accepted) std::abort();
  if (!accepted) return;
  if (guid.Data1 != first || guid.Data2 != f[0] || guid.Data3 != f[1]) std::abort();
  for (int i = 0; i < 8; ++i)
    if (guid.Data4[i] != static_cast<BYTE>(f[2 + i])) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::u16string text = TextFromInput(data, size);
  GUID guid = {};
  const bool accepted = GUIDcv::Parse(text.c_str(), &guid);
  GUIDcv constructed(text.c_str());
  const GUID from_constructor = constructed;
  if (from_constructor != (accepted ? guid : GUID{})) std::abort();
  if (OracleApplies(text)) CheckAgainstScanf(text, accepted, guid);
  if (!accepted) return 0;
  GUIDcv written(guid);
  const std::u16string form = static_cast<const WCHAR*>(written);
  if (form.size() != static_cast<std::size_t>(GUIDcv::kTextLength)) std::abort();
  GUID again = {};
  if (!GUIDcv::Parse(form.c_str(), &again) || again != guid) std::abort();
  return 0;
}
