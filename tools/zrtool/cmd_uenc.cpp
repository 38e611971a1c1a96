// zrtool uenc and udec: the library's escaping of text into printable ASCII (UEnc) and back (UDec).
#include <cstdio>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cpstr.h"

namespace zrtool {
namespace {

int RunUEnc(const Args& args);
int RunUDec(const Args& args);

const Command kUEnc = {
    "uenc", "escape text into printable ASCII (UEnc)",
    "usage: zrtool uenc [--wide] [--] TEXT\n\n"
    "Prints TEXT escaped into printable ASCII: characters 32..127 stand for themselves, a caret\n"
    "is doubled, and any other character c becomes a caret and four hexadecimal digits of c.\n"
    "  (default)  TEXT's bytes through the narrow encoder, which takes printable ASCII only:\n"
    "             TEXT with any byte outside 32..127 is refused (status 1)\n"
    "  --wide     TEXT (UTF-8) as UTF-16 units through the wide encoder, which takes any text\n"
    "             (a character beyond U+FFFF gives the two escapes of its surrogate pair)\n",
    RunUEnc};

const Command kUDec = {
    "udec", "decode text escaped by uenc (UDec)",
    "usage: zrtool udec [--units] [--] TEXT\n\n"
    "Decodes TEXT (UTF-8, read as UTF-16 units): \"^^\" gives a caret, a caret and four\n"
    "hexadecimal digits give that unit, a caret followed by anything that cannot be read as\n"
    "hexadecimal gives \"_\", and every other character stands for itself.\n"
    "Prints the result as UTF-8: units that form no character print as U+FFFD, and a unit 0\n"
    "(\"^0000\") ends the text.\n"
    "  --units    print the decoded UTF-16 units in hexadecimal instead, separated by spaces\n",
    RunUDec};

ZRTOOL_COMMAND(kUEnc);
ZRTOOL_COMMAND(kUDec);

// Splits [OPTION] [--] TEXT; false (with the usage error in *status) for anything else.
bool ParseArgs(const Command& command, const Args& args, const char* option, bool* given, std::string* text,
               int* status) {
  std::size_t i = 0;
  *given = false;
  for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
    if (args[i] == "--") {
      ++i;
      break;
    }
    if (args[i] != option || *given) {
      *status = UsageError(command, "unexpected option '" + args[i] + "'");
      return false;
    }
    *given = true;
  }
  if (args.size() - i != 1) {
    *status = UsageError(command, i == args.size() ? "missing TEXT" : "too many arguments");
    return false;
  }
  *text = args[i];
  return true;
}

// The narrow encoder must see only bytes 32..127 (it would never return on any other): the first
// byte outside, or npos.
std::size_t FirstUnprintable(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 32 || byte > 127) return i;
  }
  return std::string::npos;
}

int RunUEnc(const Args& args) {
  bool wide = false;
  std::string text;
  int status = 0;
  if (!ParseArgs(kUEnc, args, "--wide", &wide, &text, &status)) return status;
  if (!wide) {
    const std::size_t at = FirstUnprintable(text);
    if (at != std::string::npos) {
      char byte[8];
      std::snprintf(byte, sizeof byte, "0x%02X", static_cast<unsigned char>(text[at]));
      return Fail("uenc: byte " + std::string(byte) + " at offset " + std::to_string(at) +
                  " is outside 32..127; the narrow encoder takes printable ASCII only (--wide encodes any text)");
    }
  }
  const UEnc encoded = wide ? UEnc(ToWide(text).c_str()) : UEnc(text.c_str());
  std::printf("%s\n", ToNarrow(static_cast<const WCHAR*>(encoded)).c_str());
  return 0;
}

int RunUDec(const Args& args) {
  bool units = false;
  std::string text;
  int status = 0;
  if (!ParseArgs(kUDec, args, "--units", &units, &text, &status)) return status;
  const std::u16string wide = ToWide(text);
  // Decoded by length rather than through the terminator: a "^0000" gives a unit 0 of its own.
  const unsigned long length = UDec::DecLen(wide.c_str());
  std::u16string decoded(length, u'\0');
  UDec::Decode(decoded.data(), wide.c_str(), length);
  decoded.pop_back();
  if (!units) {
    std::printf("%s\n", ToNarrow(decoded.c_str()).c_str());
    return 0;
  }
  std::string line;
  for (char16_t unit : decoded) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "%s%04X", line.empty() ? "" : " ", static_cast<unsigned>(unit));
    line += hex;
  }
  std::printf("%s\n", line.c_str());
  return 0;
}

}  // namespace
}  // namespace zrtool
