// zrtool ids: the unique ids of a project directory ("PRJ.IDS"), as the object store allocates them.
#include <cstdio>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/prjloc.h"

namespace zrtool {
namespace {

int RunIds(const Args& args);

const Command kIds = {
    "ids", "create, take and show the unique ids of a project directory",
    "usage: zrtool ids create DIR [START]\n"
    "       zrtool ids next DIR\n"
    "       zrtool ids reserve N DIR\n"
    "       zrtool ids show DIR\n"
    "\n"
    "DIR/PRJ.IDS holds the next free id of the project in DIR; every process that has the project\n"
    "open takes ids from it under a byte-range lock, so no id is ever given twice.\n"
    "  create   writes a new PRJ.IDS starting at START (at least and by default 1024)\n"
    "  next     takes one id and prints it\n"
    "  reserve  takes a block of N ids and prints its first and last id\n"
    "  show     prints the next free id and how many other processes have the project open\n",
    RunIds};

ZRTOOL_COMMAND(kIds);

constexpr DWORD kToolProject = 1;  // the project id under which DIR is registered for this run

bool ParseId(const std::string& text, DWORD* value) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long long v = std::stoull(text);
  if (v > 0xFFFFFFFFull) return false;
  *value = static_cast<DWORD>(v);
  return true;
}

const char* OpenFailure(unsigned int result) {
  switch (result) {
    case 1: return "no PRJ.IDS there (create it with `zrtool ids create DIR`)";
    case 2: return "the project is locked or all 256 user slots are taken";
    default: return "PRJ.IDS holds no id (damaged file)";
  }
}

int Create(const std::string& dir, DWORD start) {
  CProjUniID ids;
  const unsigned int result = ids.Create(kToolProject, start);
  if (result == 1) return Fail("cannot create " + dir + "/PRJ.IDS");
  if (result == 2) return Fail(dir + "/PRJ.IDS is locked by another process");
  std::printf("%s/PRJ.IDS: next id %u\n", dir.c_str(), start < CProjUniID::kFirstID ? CProjUniID::kFirstID : start);
  return 0;
}

// Runs `work` on the opened project and closes it again.
template <class Work>
int WithProject(const std::string& dir, Work work) {
  CProjUniID ids;
  const unsigned int result = ids.Open(kToolProject);
  if (result != 0) return Fail(dir + ": " + OpenFailure(result));
  const int status = work(ids);
  ids.Close();
  return status;
}

int Next(CProjUniID& ids) {
  const unsigned long id = ids.GetNextID();
  if (id == 0xFFFFFFFFul) return Fail("the id counter stayed locked");
  std::printf("%lu\n", id);
  return 0;
}

int Reserve(CProjUniID& ids, DWORD count) {
  if (!ids.ReserveIDs(count)) return Fail("the id counter stayed locked");
  const unsigned long first = ids.GetNextID();
  std::printf("%lu-%lu\n", first, first + count - 1);
  return 0;
}

int Show(CProjUniID& ids, const std::string& dir) {
  ids.HasChanged();  // reads the counter as it is now
  const unsigned int others = ids.LockProject();
  if (others == 0) ids.UnlockProject();
  if (others == 0xFFFFFFFEu) return Fail("the id counter stayed locked");
  std::printf("%s/PRJ.IDS: next id %u, %u other process(es) have the project open\n", dir.c_str(),
              ids.GetCurrentID(), others);
  return 0;
}

// Registers DIR for this run, so that the project is opened the way the object store opens it.
bool Register(const std::string& dir) { return ZROBJ_SetProjectDirectory(kToolProject, ToWide(dir).c_str()) != 0; }

int RunIds(const Args& args) {
  if (args.size() < 2) return UsageError(kIds, "missing arguments");
  const std::string& verb = args[0];
  DWORD number = 0;
  if (verb == "create") {
    if (args.size() > 3 || (args.size() == 3 && !ParseId(args[2], &number)))
      return UsageError(kIds, "create takes DIR and an optional START id");
    return Register(args[1]) ? Create(args[1], number) : Fail("directory name too long: " + args[1]);
  }
  const std::string& dir = args.back();
  if (verb == "reserve" && (args.size() != 3 || !ParseId(args[1], &number) || number == 0))
    return UsageError(kIds, "reserve takes a count of at least 1 and DIR");
  if (verb != "reserve" && args.size() != 2) return UsageError(kIds, "too many arguments");
  if (verb != "next" && verb != "reserve" && verb != "show") return UsageError(kIds, "unknown verb '" + verb + "'");
  if (!Register(dir)) return Fail("directory name too long: " + dir);
  if (verb == "next") return WithProject(dir, Next);
  if (verb == "reserve") return WithProject(dir, [&](CProjUniID& ids) { return Reserve(ids, number); });
  return WithProject(dir, [&](CProjUniID& ids) { return Show(ids, dir); });
}

}  // namespace
}  // namespace zrtool
