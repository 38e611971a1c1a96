// GUID text: the library's dash-separated hexadecimal form of a GUID, written and parsed.
#include "zrobj/guidcv.h"

#include <algorithm>
#include <string>

#include "platform/dlgsvc.h"
#include "platform/wformat.h"
#include "zrobj/zrdiag.h"

namespace zr {
namespace {

constexpr int kFieldCount = 11;

bool IsScanSpace(WCHAR c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

int HexDigit(WCHAR c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// One "%x" conversion at `p`: white space, an optional sign, an optional "0x" prefix that a digit
// follows, then hexadecimal digits (the value wraps at 32 bits; a minus sign negates it). False when
// no digit follows; `p` moves past what was read.
bool ScanHex(const WCHAR*& p, DWORD* value) {
  while (IsScanSpace(*p)) ++p;
  const bool negative = *p == u'-';
  if (*p == u'-' || *p == u'+') ++p;
  if (p[0] == u'0' && (p[1] == u'x' || p[1] == u'X') && HexDigit(p[2]) >= 0) p += 2;
  if (HexDigit(*p) < 0) return false;
  DWORD v = 0;
  for (int d; (d = HexDigit(*p)) >= 0; ++p) v = (v << 4) | static_cast<DWORD>(d);
  *value = negative ? 0u - v : v;
  return true;
}

// The 11 numbers, '-' between them.
bool ScanFields(const WCHAR* p, DWORD (&fields)[kFieldCount]) {
  for (int i = 0; i < kFieldCount; ++i) {
    if (i > 0 && *p++ != u'-') return false;
    if (!ScanHex(p, &fields[i])) return false;
  }
  return true;
}

}  // namespace
}  // namespace zr

GUIDcv::GUIDcv(const GUID& guid) : m_guid(guid), m_text{} {}

GUIDcv::GUIDcv(const WCHAR* text) : m_guid{}, m_text{} {
  if (Parse(text, &m_guid)) return;
  if (IsDebugOn()) zr::os::wPrintf(3, 5, u"\rGUIDcv::GUIDcv(%s): Invalid GUID format\r\n", text);
}

bool GUIDcv::Parse(const WCHAR* text, GUID* guid) {
  DWORD fields[zr::kFieldCount];
  if (!text || !guid || !zr::ScanFields(text, fields)) return false;
  guid->Data1 = fields[0];
  guid->Data2 = static_cast<WORD>(fields[1]);
  guid->Data3 = static_cast<WORD>(fields[2]);
  for (int i = 0; i < 8; ++i) guid->Data4[i] = static_cast<BYTE>(fields[3 + i]);
  return true;
}

GUIDcv::operator const WCHAR*() {
  const GUID& g = m_guid;
  const std::u16string text = zr::os::FormatWide(
      u"%08x-%04hx-%04hx-%02hx-%02hx-%02hx-%02hx-%02hx-%02hx-%02hx-%02hx", g.Data1, g.Data2, g.Data3,
      g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  const std::size_t n = std::min<std::size_t>(text.size(), kTextLength);
  std::copy_n(text.data(), n, m_text);
  m_text[n] = 0;
  return m_text;
}
