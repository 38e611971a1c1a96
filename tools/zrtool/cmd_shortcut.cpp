// zrtool shortcut: creates ".zrs" shortcut files and reads their target path and legacy tag.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cshortcut.h"

namespace zrtool {
namespace {

extern const Command kShortcutCommand;

constexpr int kValueChars = 4096;

bool HasZrsExtension(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  for (char& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return extension.rfind(".zrs", 0) == 0;
}

// Why the library would refuse the pair, for the message; empty when it should not.
std::string CreateProblem(const std::string& shortcut, const std::string& target) {
  std::error_code ec;
  if (!std::filesystem::path(shortcut).has_extension()) return shortcut + " has no extension (use NAME.zrs)";
  if (!std::filesystem::exists(target, ec)) return "target " + target + " does not exist";
  if (!std::filesystem::is_regular_file(target, ec)) return "target " + target + " is not a file";
  return "";
}

int Create(const Args& operands, const std::string& legacy, bool haveLegacy) {
  if (operands.size() != 2) return UsageError(kShortcutCommand, "create takes SHORTCUT and TARGET");
  const std::string& shortcut = operands[0];
  if (const std::string problem = CreateProblem(shortcut, operands[1]); !problem.empty())
    return Fail("cannot create " + shortcut + ": " + problem);
  std::error_code ec;
  const std::string target = std::filesystem::absolute(operands[1], ec).lexically_normal().string();
  const std::u16string wideLegacy = ToWide(legacy);
  if (!CShortCut::Create(ToWide(shortcut).c_str(), ToWide(target).c_str(), haveLegacy ? wideLegacy.c_str() : nullptr))
    return Fail("cannot write " + shortcut);
  if (!HasZrsExtension(shortcut))
    std::fprintf(stderr, "zrtool: note: %s does not end in .zrs, so resolve and legacy will not read it\n",
                 shortcut.c_str());
  return 0;
}

int Read(const std::string& action, const Args& operands) {
  if (operands.size() != 1) return UsageError(kShortcutCommand, action + " takes one SHORTCUT");
  const std::string& shortcut = operands[0];
  if (!HasZrsExtension(shortcut)) return Fail(shortcut + " is not a shortcut: its extension must begin with .zrs");
  std::u16string buffer(kValueChars, u'\0');
  const std::u16string path = ToWide(shortcut);
  const bool resolve = action == "resolve";
  const int found = resolve ? CShortCut::ResolvePath(path.c_str(), buffer.data(), kValueChars)
                            : CShortCut::GetLegacy(path.c_str(), buffer.data(), kValueChars);
  if (!found) {
    std::error_code ec;
    if (!std::filesystem::exists(shortcut, ec)) return Fail(shortcut + " does not exist");
    return Fail(shortcut + " names no target (its [Driver] Path is empty or missing)");
  }
  std::printf("%s\n", ToNarrow(buffer.c_str()).c_str());
  return 0;
}

int RunShortcut(const Args& args) {
  std::string action, legacy;
  bool haveLegacy = false;
  Args operands;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--legacy") {
      if (i + 1 == args.size()) return UsageError(kShortcutCommand, "--legacy needs a TAG");
      legacy = args[++i];
      haveLegacy = true;
    } else if (a.rfind("--", 0) == 0) {
      return UsageError(kShortcutCommand, "unknown option " + a);
    } else if (action.empty()) {
      action = a;
    } else {
      operands.push_back(a);
    }
  }
  if (action.empty()) return UsageError(kShortcutCommand, "missing action");
  if (haveLegacy && action != "create") return UsageError(kShortcutCommand, "--legacy belongs to create");
  if (action == "create") return Create(operands, legacy, haveLegacy);
  if (action == "resolve" || action == "legacy") return Read(action, operands);
  return UsageError(kShortcutCommand, "unknown action " + action);
}

const Command kShortcutCommand{
    "shortcut", "create a .zrs shortcut or read its target and legacy tag",
    "usage: zrtool shortcut create [--legacy TAG] SHORTCUT TARGET\n"
    "       zrtool shortcut resolve SHORTCUT\n"
    "       zrtool shortcut legacy SHORTCUT\n\n"
    "A shortcut is a small profile file (section [Driver], keys Legacy and Path) that points to a\n"
    "target file, typically a driver library. `create` needs an existing TARGET, which it stores\n"
    "as an absolute path, and a SHORTCUT name with an extension (NAME.zrs); the legacy tag is\n"
    "ZROBJ unless --legacy gives one. `resolve` prints the target path, `legacy` the tag (ZROBJ\n"
    "when the file names none); both read only names whose extension begins with .zrs (any case).\n",
    RunShortcut};

}  // namespace

ZRTOOL_COMMAND(kShortcutCommand);

}  // namespace zrtool
