// zrtool classes: the runtime class registry, after loading driver libraries on demand: its classes
// in registration order, the registry's own dump, and optionally the ordered shutdown.
#include <cstdio>
#include <string>
#include <vector>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/zrclass.h"
#include "zrobj/zrdiag.h"

namespace zrtool {
namespace {

int RunClasses(const Args& args);

const Command kClasses = {
    "classes", "list the class registry, loading driver libraries on demand",
    "usage: zrtool classes [--load DRIVER]... [--dump] [--shutdown]\n\n"
    "Loads each DRIVER (a file name such as zrdrv_demo.so, looked for in the \"driver\" folder\n"
    "beside the library, then beside the library, then as given, then through the system's\n"
    "search) and lists every visible class in registration order: order, name, hash id, GUID,\n"
    "flags, state, base class and module file. A driver that cannot be loaded, or that registers\n"
    "no class, is reported and remembered: asking for it again fails at once.\n"
    "  --dump      also print the registry's own dump of its classes\n"
    "  --shutdown  run the ordered shutdown (classes told in reverse order, drivers freed)\n"
    "Exit status 1 when a driver could not be loaded.\n",
    RunClasses};
ZRTOOL_COMMAND(kClasses);

// Prints what the registry writes to the diagnostics output, one line each, without carriage returns.
class LinePrinter : public zr::DiagListener {
 public:
  void OnMessage(unsigned, unsigned, std::u16string_view text) override {
    std::string line = ToNarrow(text);
    std::erase(line, '\r');
    while (!line.empty() && line.back() == '\n') line.pop_back();
    std::printf("  | %s\n", line.c_str());
  }
};

std::string GuidText(const GUID& g) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

std::string FileName(const WCHAR* path) {
  const std::string narrow = ToNarrow(path);
  const std::size_t slash = narrow.rfind('/');
  return slash == std::string::npos ? narrow : narrow.substr(slash + 1);
}

void PrintClasses() {
  DWORD count = 0;
  CZRRuntimeClass** list = CZRRuntimeClass::GetOrderedClassList(&count);
  if (!list) {
    std::printf("no class list\n");
    return;
  }
  std::printf("%-5s %-24s %-8s %-36s %-5s %-5s %-24s %s\n", "order", "class", "hash id", "GUID", "flags", "state",
              "base", "module");
  for (DWORD i = 0; i < count; ++i) {
    const CZRRuntimeClass* r = list[i];
    if (r->dwFlags & ZRCLASS_HIDDEN) continue;
    std::printf("%-5u %-24s %08X %-36s %-5X %-5d %-24s %s\n", r->dwOrder, r->szClassName, r->dwHashID,
                GuidText(r->guid).c_str(), r->dwFlags, r->lState, r->pBaseClass ? r->pBaseClass->szClassName : "-",
                FileName(r->szModulePath).c_str());
  }
  std::printf("%u registered\n", CZRRuntimeClass::GetRegisteredCount());
  CZRRuntimeClass::FreeOrderedClassList(list);
}

int RunClasses(const Args& args) {
  if (WantsHelp(args)) return UsageError(kClasses, "");
  std::vector<std::string> drivers;
  bool dump = false, shutdown = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--dump") {
      dump = true;
    } else if (args[i] == "--shutdown") {
      shutdown = true;
    } else if (args[i] == "--load" && i + 1 < args.size()) {
      drivers.push_back(args[++i]);
    } else {
      return UsageError(kClasses, "unexpected argument: " + args[i]);
    }
  }
  LinePrinter printer;
  int status = 0;
  for (const std::string& driver : drivers) {
    std::printf("loading %s\n", driver.c_str());
    zr::ScopedDiagRedirect redirect(&printer);
    if (CZRRuntimeClass::LoadClassLibrary(ToWide(driver).c_str(), 1)) continue;
    std::printf("  not loaded\n");
    status = 1;
  }
  std::printf("working directory: %s\n", ToNarrow(CZRRuntimeClass::GetWorkingDir()).c_str());
  PrintClasses();
  if (dump) {
    std::printf("dump:\n");
    zr::ScopedDiagRedirect redirect(&printer);
    CZRRuntimeClass::DumpClasses();
  }
  if (shutdown) {
    std::printf("shutdown:\n");
    {
      zr::ScopedDiagRedirect redirect(&printer);
      CZRRuntimeClass::UnloadClassLibs();
    }
    PrintClasses();
  }
  return status;
}

}  // namespace
}  // namespace zrtool
