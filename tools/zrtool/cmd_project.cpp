// zrtool project: the registered projects and the object files of one; and the demo section that
// creates, commits and reloads a persistent object.
#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/demo.h"
#include "tools/zrtool/text.h"
#include "zrobj/czrobj.h"
#include "zrobj/locator.h"

namespace zrtool {
namespace {

int RunProject(const Args& args);

const Command kProject = {
    "project", "register projects and list them and their objects",
    "usage: zrtool project list\n"
    "       zrtool project add DIR [NAME]\n"
    "       zrtool project remove ID\n"
    "       zrtool project objects ID\n"
    "\n"
    "Projects are kept in PROJECTS.INI of the settings directory; their objects are the files\n"
    "DIR/obj/XXXXXXXX/XXXXXXXX.zro (directory and file number in hex).\n"
    "  list     prints every project: id, name and directory\n"
    "  add      registers DIR (created if missing) and prints its id\n"
    "  remove   forgets a project (its files stay)\n"
    "  objects  prints each object file of the project: id, class, commits, data bytes\n",
    RunProject};

ZRTOOL_COMMAND(kProject);

bool ParseNumber(const std::string& text, DWORD* value) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long long v = std::stoull(text);
  *value = static_cast<DWORD>(v);
  return v <= 0xFFFFFFFFull && v != 0;
}

int List() {
  const DWORD count = PrjRegistry::EnumProjects(
      [](DWORD id, const WCHAR* directory, const WCHAR* name, void*) {
        std::printf("%u\t%s\t%s\n", id, ToNarrow(name).c_str(), ToNarrow(directory).c_str());
        return 1;
      },
      nullptr);
  if (count == 0) std::printf("no projects registered (zrtool project add DIR)\n");
  return 0;
}

int Add(const std::string& dir, const std::string& name) {
  const std::string absolute = std::filesystem::absolute(dir).lexically_normal().string();
  const DWORD id = PrjRegistry::AddProject(ToWide(absolute).c_str(), name.empty() ? nullptr : ToWide(name).c_str());
  if (id == 0) return Fail("cannot register " + absolute);
  std::printf("%u\n", id);
  return 0;
}

// One line per object file; files that are no object files are named as such.
int Objects(DWORD projectId) {
  WCHAR directory[ZR_MAX_PATH];
  if (!PrjRegistry::GetProjectDirectory(projectId, directory)) return Fail("no project " + std::to_string(projectId));
  const std::filesystem::path objects = std::filesystem::path(ToNarrow(directory)) / "obj";
  std::error_code error;
  unsigned listed = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(objects, error)) {
    if (!entry.is_regular_file()) continue;
    const std::string stem = entry.path().stem().string();
    const unsigned long id = stem.size() == 8 ? std::strtoul(stem.c_str(), nullptr, 16) : 0;
    Locator locator;
    ObjectFileHeader header;
    const bool read = locator.SetLocation(Location::ForObject(projectId, static_cast<DWORD>(id))) &&
                      locator.Access(ZR_ACCESS_READ) == Locator::kAccessGranted && locator.ReadHeader(&header);
    if (read)
      std::printf("%lu\t%s\t%u commit(s)\t%u bytes\n", id, header.className, header.commitCount, header.dataSize);
    else
      std::printf("?\t%s: not an object file\n", entry.path().string().c_str());
    ++listed;
  }
  if (listed == 0) std::printf("no objects\n");
  return 0;
}

int RunProject(const Args& args) {
  if (args.empty()) return UsageError(kProject, "missing verb");
  const std::string& verb = args[0];
  DWORD id = 0;
  if (verb == "list") return args.size() == 1 ? List() : UsageError(kProject, "list takes no arguments");
  if (verb == "add") {
    if (args.size() < 2 || args.size() > 3) return UsageError(kProject, "add takes DIR and an optional NAME");
    return Add(args[1], args.size() == 3 ? args[2] : "");
  }
  if (verb != "remove" && verb != "objects") return UsageError(kProject, "unknown verb '" + verb + "'");
  if (args.size() != 2 || !ParseNumber(args[1], &id)) return UsageError(kProject, verb + " takes a project ID");
  if (verb == "objects") return Objects(id);
  return PrjRegistry::RemoveProject(id) ? 0 : Fail("no project " + args[1]);
}

// --- demo ---------------------------------------------------------------------------------------

int DemoObjects(DemoContext& demo) {
  const std::string dir = demo.home() + "/DemoProject";
  const DWORD project = PrjRegistry::AddProject(ToWide(dir).c_str(), u"Demo");
  if (!project || !PrjRegistry::SetWorkingProject(project)) return Fail("cannot open the demo project");
  demo.Say("project " + std::to_string(project) + " at " + dir + " is the working project");

  auto* object = static_cast<CZRObject*>(CZRObject::CreateObject());
  if (!object || object->CreateDiskImage() != Locator::kAccessGranted) return Fail("cannot create an object");
  WCHAR path[ZR_MAX_PATH];
  object->GetLocator().GetObjectPath(path);
  demo.Say("new object " + std::to_string(object->GetObjID()) + ": " + ToNarrow(path));
  object->SetParentLocation(Location::ForObject(project, 4242));
  object->SetChanged(0, 3);
  demo.Say("changed, grade " + std::to_string(object->QueryChangeGrade()) + "; committing");
  const int committed = object->Commit(Locator::kCommitRelease);
  demo.Say(std::string("committed: ") + (committed ? "yes" : "no") + ", grade now " +
           std::to_string(object->QueryChangeGrade()));
  const Location location = object->GetLocator().GetLocation();
  object->DelObject();

  auto* again = static_cast<CZRObject*>(CZRObject::CreateObject());
  const int reloaded = again && again->SetLocation(location) && again->Reload();
  demo.Say("reloaded into a fresh object: " + std::string(reloaded ? "yes" : "no") + ", parent object " +
           std::to_string(reloaded ? again->GetParentLocation().dwFile : 0));
  if (again) again->DelObject();
  PrjRegistry::SetWorkingProject(0);
  PrjRegistry::RemoveProject(project);
  return committed && reloaded ? 0 : 1;
}

ZRTOOL_DEMO_SECTION("objects", 65, "Persistent objects in a project", DemoObjects);

}  // namespace
}  // namespace zrtool
