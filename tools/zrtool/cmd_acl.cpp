// zrtool acl: shows, grants and revokes the access list of a stored object, found from its object
// file's path (DIR/obj/XXXXXXXX/XXXXXXXX.ext) through the project registry.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cpacl.h"
#include "zrobj/locator.h"

namespace zrtool {
namespace {

int RunAcl(const Args& args);

const Command kAcl = {
    "acl", "show, grant and revoke the access list of a stored object",
    "usage: zrtool acl show OBJECTFILE [--project ID]\n"
    "       zrtool acl grant OBJECTFILE USER [RIGHT...] [--project ID]\n"
    "       zrtool acl revoke OBJECTFILE USER|--all [--project ID]\n"
    "\n"
    "OBJECTFILE is an object file of a project, DIR/obj/XXXXXXXX/XXXXXXXX.ext; its project is the\n"
    "one registered for DIR (zrtool project add DIR), or the one given with --project. The list\n"
    "is kept beside it in XXXXXXXX.acl, and the object file is marked hidden while it exists.\n"
    "Changes are made as the current user ($ZROBJ_USERNAME, else the account), who needs the right\n"
    "to change the list or administration of the project; nobody changes their own entry.\n"
    "  show    prints each user of the list with its rights, and whether the marker is set\n"
    "  grant   gives USER the RIGHTs: read, write, admin (may change the list), all; default read.\n"
    "          The first grant creates the list, its creator holding all rights\n"
    "  revoke  takes every right from USER (the entry stays, with none); --all removes the list\n",
    RunAcl};

ZRTOOL_COMMAND(kAcl);

constexpr DWORD kWriteWaitMs = 2000;  // how long to wait for another writer of the object

bool ParseId(const std::string& text, DWORD* value) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long long v = std::stoull(text);
  *value = static_cast<DWORD>(v);
  return v != 0 && v <= 0xFFFFFFFFull;
}

bool ParseHex8(const std::string& text, DWORD* value) {
  if (text.size() != 8 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
  *value = static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 16));
  return true;
}

// The kind word of an extension: up to four ASCII letters or digits, first in the lowest byte; "zro" is 0.
bool KindOf(const std::string& extension, DWORD* kind) {
  if (extension == "zro") {
    *kind = 0;
    return true;
  }
  if (extension.empty() || extension.size() > 4) return false;
  DWORD word = 0;
  for (std::size_t i = 0; i < extension.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(extension[i]);
    if (!std::isalnum(c)) return false;
    word |= DWORD{c} << (8 * i);
  }
  *kind = word;
  return true;
}

std::string RightsText(DWORD rights) {
  std::string text;
  for (const auto& [bit, name] : {std::pair{ACL_READ, "read"}, {ACL_WRITE, "write"}, {ACL_CHANGE_LIST, "admin"}})
    if (rights & bit) text += (text.empty() ? "" : ",") + std::string(name);
  return text.empty() ? "none" : text;
}

bool ParseRight(const std::string& name, DWORD* rights) {
  if (name == "read") *rights |= ACL_READ;
  else if (name == "write") *rights |= ACL_WRITE;
  else if (name == "admin") *rights |= ACL_CHANGE_LIST;
  else if (name == "all") *rights |= ACL_ALL_RIGHTS;
  else return false;
  return true;
}

// The object an object file names: its location in the project registered for the directory above
// "obj/" (or `project` when not 0). An empty string when found, else why not.
std::string LocateObject(const std::string& file, DWORD project, Location* location) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) return file + " does not exist or is not a file";
  const std::filesystem::path path = std::filesystem::absolute(file, ec).lexically_normal();
  const std::filesystem::path directory = path.parent_path();
  DWORD dir = 0, id = 0, kind = 0;
  std::string extension = path.extension().string();
  if (!extension.empty()) extension.erase(0, 1);
  if (directory.parent_path().filename() != "obj" || !ParseHex8(directory.filename().string(), &dir) ||
      !ParseHex8(path.stem().string(), &id) || !KindOf(extension, &kind))
    return file + " is not an object file (DIR/obj/XXXXXXXX/XXXXXXXX.ext)";
  const std::string projectDir = directory.parent_path().parent_path().string() + "/";
  if (project == 0) project = PrjRegistry::FindProject(ToWide(projectDir).c_str());
  if (project == 0) return projectDir + " is not a registered project (zrtool project add DIR, or --project ID)";
  WCHAR registered[ZR_MAX_PATH];
  if (!PrjRegistry::GetProjectDirectory(project, registered)) return "no project " + std::to_string(project);
  if (std::filesystem::path(ToNarrow(registered)) != std::filesystem::path(projectDir))
    return file + " is not inside project " + std::to_string(project) + " (" + ToNarrow(registered) + ")";
  *location = Location::ForObject(project, id, 0, kind);
  if (!location->IsObject()) return file + " names no object of the store (its numbers do not match)";
  return "";
}

std::string CurrentUser() {
  WCHAR user[PrjRegistry::kMaxUserName + 1];
  return PrjRegistry::GetCurrentUser(user, PrjRegistry::kMaxUserName + 1) ? ToNarrow(user) : "?";
}

int Show(Locator& locator, const std::string& file) {
  WCHAR path[ZR_MAX_PATH];
  locator.GetObjectPath(path);
  const bool marked = (CZRFile::GetAttributes(path) & CZRFile::kAttributeHidden) != 0;
  const bool listed = CZRFile::GetAttributes(zr::ACLFilePath(path).c_str()) != CZRFile::kInvalidAttributes;
  std::printf("%s: %s, marker %s\n", file.c_str(), listed ? "access list" : "no access list", marked ? "set" : "not set");
  const int users = locator.EnumRights(
      [](const WCHAR* user, DWORD rights, void*) {
        std::printf("%s\t0x%08X\t%s\n", ToNarrow(user).c_str(), rights, RightsText(rights).c_str());
      },
      nullptr);
  if (listed && !marked) std::printf("(the list is not honoured while the marker is missing)\n");
  else if (listed && users == 0) std::printf("(the list names no user)\n");
  return 0;
}

// The stored class joins the location, so that the change notification names it as the store does.
void TakeStoredClass(Locator& locator) {
  ObjectFileHeader header;
  Location location = locator.GetLocation();
  if (locator.Access(ZR_ACCESS_READ) != Locator::kAccessGranted || !locator.ReadHeader(&header) ||
      !header.location.SameObject(location))
    return;
  location.dwClass = header.location.dwClass;
  locator.SetLocation(location);
}

// Grants `rights` to `user`, or removes the list when `user` is null, holding write access.
int Change(Locator& locator, const std::string& file, const char16_t* user, DWORD rights) {
  TakeStoredClass(locator);
  const DWORD access = locator.Access(ZR_ACCESS_WRITE, kWriteWaitMs);
  if (access == Locator::kAccessBusy) return Fail(file + " is being written by another holder; try again");
  if (access != Locator::kAccessGranted) return Fail("cannot open " + file + " for writing");
  if (!locator.GrantAccess(user, rights))
    return Fail("the access list of " + file + " was not changed: " + CurrentUser() +
                " needs the right to change it or administration of the project, and cannot change their own entry");
  return 0;
}

struct Options {
  Args operands;
  DWORD project = 0;
  bool all = false;
};

// Splits the options from the operands; an empty string when they are fine, else the problem.
std::string ParseOptions(const Args& args, Options* options) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--all") {
      options->all = true;
    } else if (args[i] == "--project") {
      if (i + 1 >= args.size() || !ParseId(args[++i], &options->project)) return "--project takes a project ID";
    } else if (args[i].rfind("--", 0) == 0) {
      return "unknown option " + args[i];
    } else {
      options->operands.push_back(args[i]);
    }
  }
  return "";
}

int RunAcl(const Args& args) {
  if (args.empty()) return UsageError(kAcl, "missing verb");
  const std::string& verb = args[0];
  if (verb != "show" && verb != "grant" && verb != "revoke") return UsageError(kAcl, "unknown verb '" + verb + "'");
  Options options;
  if (const std::string problem = ParseOptions(args, &options); !problem.empty()) return UsageError(kAcl, problem);
  const Args& operands = options.operands;
  if (options.all && verb != "revoke") return UsageError(kAcl, "--all belongs to revoke");
  if (verb == "show" && operands.size() != 1) return UsageError(kAcl, "show takes one OBJECTFILE");
  if (verb == "grant" && operands.size() < 2) return UsageError(kAcl, "grant takes OBJECTFILE, USER and RIGHTs");
  if (verb == "revoke" && operands.size() != (options.all ? 1u : 2u))
    return UsageError(kAcl, "revoke takes OBJECTFILE and USER, or OBJECTFILE and --all");

  DWORD rights = operands.size() > 2 ? 0 : ACL_READ;
  for (std::size_t i = 2; verb == "grant" && i < operands.size(); ++i)
    if (!ParseRight(operands[i], &rights)) return UsageError(kAcl, "unknown right '" + operands[i] + "'");

  const std::string& file = operands[0];
  Location location;
  if (const std::string problem = LocateObject(file, options.project, &location); !problem.empty()) return Fail(problem);
  Locator locator;
  if (!locator.SetLocation(location)) return Fail(file + " names no object of the store");
  if (verb == "show") return Show(locator, file);
  if (options.all) return Change(locator, file, nullptr, 0);
  const std::u16string user = ToWide(operands[1]);
  if (user.empty()) return UsageError(kAcl, "USER is empty");
  return Change(locator, file, user.c_str(), verb == "grant" ? rights : 0);
}

}  // namespace
}  // namespace zrtool
