// zrtool hash: the library's 32-bit hash ids of names, users and paths, and the computer id.
#include <cstdio>
#include <string>

#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "zrobj/zrhash.h"

namespace zrtool {
namespace {

int RunHash(const Args& args);

const Command kHash = {
    "hash", "print hash ids of names, users, paths or this computer",
    "usage: zrtool hash [FORM] TEXT...\n"
    "       zrtool hash --computer\n\n"
    "Prints the 32-bit hash id of each TEXT (UTF-8) in hexadecimal, one line each.\n"
    "FORM:\n"
    "  --narrow       the bytes of the text, as is (GetHashID; the default)\n"
    "  --folded       the bytes, with a-z and '{' folded to A-Z and '[' (GetHashIDi)\n"
    "  --wide         the UTF-16 text, two bytes per unit, as is (GetHashIDW)\n"
    "  --wide-folded  the UTF-16 text, folded (GetHashIDTi)\n"
    "  --user         a user id (GetUserHashIDA; FC00 for an empty name)\n"
    "  --path         a path id (GetPathHash; FC00 for a path shorter than 2 characters)\n"
    "  --computer     this computer's id and name (no TEXT)\n",
    RunHash};

ZRTOOL_COMMAND(kHash);

enum class Form { kNarrow, kFolded, kWide, kWideFolded, kUser, kPath, kComputer };

bool ParseForm(const std::string& option, Form* form) {
  static const std::pair<const char*, Form> kForms[] = {
      {"--narrow", Form::kNarrow}, {"--folded", Form::kFolded}, {"--wide", Form::kWide},
      {"--wide-folded", Form::kWideFolded}, {"--user", Form::kUser}, {"--path", Form::kPath},
      {"--computer", Form::kComputer}};
  for (const auto& [name, value] : kForms) {
    if (option == name) {
      *form = value;
      return true;
    }
  }
  return false;
}

DWORD HashText(Form form, const std::string& text) {
  const std::u16string wide = zr::os::Utf8ToUtf16(text);
  switch (form) {
    case Form::kNarrow: return GetHashID(text.c_str());
    case Form::kFolded: return GetHashIDi(text.c_str());
    case Form::kWide: return GetHashIDW(wide.c_str());
    case Form::kWideFolded: return GetHashIDTi(wide.c_str());
    case Form::kUser: return GetUserHashIDA(text.c_str());
    case Form::kPath: return GetPathHash(wide.c_str());
    case Form::kComputer: break;
  }
  return ZR_NO_ID;
}

int PrintComputer() {
  WCHAR name[16] = {};
  if (!GetCreateComputerName(name, 16)) return Fail("this computer has no name and none could be made");
  std::printf("%08X  %s\n", GetComputerID(), zr::os::Utf16ToUtf8(name).c_str());
  return 0;
}

int RunHash(const Args& args) {
  Form form = Form::kNarrow;
  std::size_t first = 0;
  bool form_given = false;
  for (; first < args.size() && args[first].rfind("--", 0) == 0; ++first) {
    if (args[first] == "--") {
      ++first;
      break;
    }
    if (form_given) return UsageError(kHash, "only one FORM may be given");
    if (!ParseForm(args[first], &form)) return UsageError(kHash, "unknown option '" + args[first] + "'");
    form_given = true;
  }
  if (form == Form::kComputer) {
    if (first != args.size()) return UsageError(kHash, "--computer takes no TEXT");
    return PrintComputer();
  }
  if (first == args.size()) return UsageError(kHash, "missing TEXT");
  for (std::size_t i = first; i < args.size(); ++i) std::printf("%08X\n", HashText(form, args[i]));
  return 0;
}

}  // namespace
}  // namespace zrtool
