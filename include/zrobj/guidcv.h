// GUID text: a GUID and the library's own text form of it, converted both ways.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The text form is lower-case hexadecimal, the first three fields and then each of the eight last
// bytes as a field of its own, all joined by '-' (not the usual grouped form):
//   35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46
// It is read as a scanning format "%x-%hx-...-%hx" of 11 numbers would read it: each number may have
// white space in front, a sign and a "0x" prefix; the last eight keep only their low byte, and text
// after the eleventh number is ignored. Text that does not give all 11 numbers is refused.
class ZROBJ_API GUIDcv {
 public:
  static constexpr int kTextLength = 42;  // characters of the text form, without the terminator

  explicit GUIDcv(const GUID& guid);
  // Parses `text`; a refused (or null) text gives the all-zero GUID and, in debug mode,
  // "\rGUIDcv::GUIDcv(%s): Invalid GUID format\r\n" on channel 3, level 5.
  explicit GUIDcv(const WCHAR* text);

  operator GUID() const { return m_guid; }
  // The text form, written into this object's buffer (valid while the object lives).
  operator const WCHAR*();

  // Parses `text` into `guid` without a report; false (and `guid` untouched) when refused.
  static bool Parse(const WCHAR* text, GUID* guid);

 private:
  GUID m_guid;
  WCHAR m_text[kTextLength + 2];
};
