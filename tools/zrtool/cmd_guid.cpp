// zrtool guid: converts between the library's GUID text and the usual braced form, or makes a new GUID.
#include <cstdio>
#include <exception>
#include <random>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/guidcv.h"

namespace zrtool {
namespace {

int RunGuid(const Args& args);

const Command kGuid = {
    "guid", "convert a GUID between the library's text and the braced form, or make one",
    "usage: zrtool guid TEXT\n"
    "       zrtool guid --new\n\n"
    "TEXT in the braced form {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx} is printed in the library's\n"
    "form, lower case, each of the last eight bytes a field of its own:\n"
    "  xxxxxxxx-xxxx-xxxx-xx-xx-xx-xx-xx-xx-xx-xx\n"
    "Any other TEXT is read as the library reads its form (fields need not be padded; text after\n"
    "the eleventh field is ignored) and printed in the braced form, upper case.\n"
    "--new makes a random GUID (version 4) and prints both forms: the library's, then the braced.\n"
    "Exit status 1 when TEXT is neither form.\n",
    RunGuid};

ZRTOOL_COMMAND(kGuid);

constexpr int kBracedLength = 38;
constexpr int kGroupEnds[] = {9, 14, 19, 24};  // positions of the dashes in the braced form

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsDashPosition(int i) {
  for (int end : kGroupEnds)
    if (i == end) return true;
  return false;
}

// The braced form, exactly: 38 characters, hexadecimal digits of either case.
bool ParseBraced(const std::string& text, GUID* guid) {
  if (text.size() != kBracedLength || text.front() != '{' || text.back() != '}') return false;
  BYTE bytes[16] = {};
  int nibble = 0;
  for (int i = 1; i < kBracedLength - 1; ++i) {
    if (IsDashPosition(i)) {
      if (text[i] != '-') return false;
      continue;
    }
    const int v = HexValue(text[i]);
    if (v < 0) return false;
    bytes[nibble / 2] = static_cast<BYTE>(bytes[nibble / 2] << 4 | v);
    ++nibble;
  }
  // The digits are written most significant first, field by field.
  guid->Data1 = static_cast<DWORD>(bytes[0]) << 24 | static_cast<DWORD>(bytes[1]) << 16 |
                static_cast<DWORD>(bytes[2]) << 8 | bytes[3];
  guid->Data2 = static_cast<WORD>(bytes[4] << 8 | bytes[5]);
  guid->Data3 = static_cast<WORD>(bytes[6] << 8 | bytes[7]);
  for (int i = 0; i < 8; ++i) guid->Data4[i] = bytes[8 + i];
  return true;
}

std::string BracedText(const GUID& g) {
  char text[kBracedLength + 1];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2,
                g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                g.Data4[7]);
  return text;
}

std::string LibraryText(const GUID& guid) {
  GUIDcv cv(guid);
  return ToNarrow(static_cast<const WCHAR*>(cv));
}

// A version 4 (random) GUID with the standard variant bits.
GUID NewGuid() {
  std::random_device device;
  GUID g;
  g.Data1 = device();
  const DWORD middle = device();
  g.Data2 = static_cast<WORD>(middle >> 16);
  g.Data3 = static_cast<WORD>((middle & 0x0FFF) | 0x4000);
  for (int i = 0; i < 8; i += 4) {
    const DWORD word = device();
    for (int b = 0; b < 4; ++b) g.Data4[i + b] = static_cast<BYTE>(word >> (8 * b));
  }
  g.Data4[0] = static_cast<BYTE>((g.Data4[0] & 0x3F) | 0x80);
  return g;
}

int PrintNew() {
  GUID guid;
  try {
    guid = NewGuid();
  } catch (const std::exception& e) {
    return Fail(std::string("no random source: ") + e.what());
  }
  std::printf("%s %s\n", LibraryText(guid).c_str(), BracedText(guid).c_str());
  return 0;
}

int Convert(const std::string& text) {
  GUID guid;
  if (ParseBraced(text, &guid)) {
    std::printf("%s\n", LibraryText(guid).c_str());
    return 0;
  }
  const std::u16string wide = ToWide(text);
  if (GUIDcv::Parse(wide.c_str(), &guid)) {
    std::printf("%s\n", BracedText(guid).c_str());
    return 0;
  }
  return Fail("not a GUID: \"" + text +
              "\" (expected {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx} or xxxxxxxx-xxxx-xxxx-xx-xx-xx-xx-xx-xx-xx-xx)");
}

int RunGuid(const Args& args) {
  if (args.empty()) return UsageError(kGuid, "missing TEXT or --new");
  if (args.size() > 1) return UsageError(kGuid, "too many arguments");
  const std::string& arg = args[0];
  if (arg == "--new") return PrintNew();
  if (arg.rfind("--", 0) == 0) return UsageError(kGuid, "unknown option " + arg);
  return Convert(arg);
}

}  // namespace
}  // namespace zrtool
