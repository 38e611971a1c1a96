// Modules through dladdr/dl_iterate_phdr, the executable through /proc/self/exe, system values
// through sysconf.
#include "platform/module.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "platform/text.h"

namespace zr::os {

namespace {

struct PhdrSearch {
  std::uintptr_t base = 0;
  int index = 0;
  bool found = false;
  bool is_main = false;
  std::string name;
};

// The load base of an object: the page of its lowest PT_LOAD segment (what dladdr calls dli_fbase).
std::uintptr_t LoadBase(const dl_phdr_info* info) {
  std::uintptr_t lowest = UINTPTR_MAX;
  for (int i = 0; i < info->dlpi_phnum; ++i)
    if (info->dlpi_phdr[i].p_type == PT_LOAD && info->dlpi_addr + info->dlpi_phdr[i].p_vaddr < lowest)
      lowest = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  return lowest & ~(page - 1);
}

// dl_iterate_phdr lists the executable first.
int FindByBase(dl_phdr_info* info, size_t, void* data) {
  auto* search = static_cast<PhdrSearch*>(data);
  const int index = search->index++;
  if (LoadBase(info) != search->base) return 0;
  search->found = true;
  search->is_main = index == 0;
  search->name = info->dlpi_name ? info->dlpi_name : "";
  return 1;
}

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

// The file name the loader knows an object by, as it was given to it ("" for the executable).
std::string LoaderName(HMODULE module) {
  PhdrSearch search;
  search.base = reinterpret_cast<std::uintptr_t>(module);
  dl_iterate_phdr(FindByBase, &search);
  return search.found && !search.is_main ? search.name : std::string();
}

std::string ModuleFileName(HMODULE module) {
  if (!module) return MainExecutableFileName();
  PhdrSearch search;
  search.base = reinterpret_cast<std::uintptr_t>(module);
  dl_iterate_phdr(FindByBase, &search);
  if (!search.found) return {};
  if (search.is_main || search.name.empty()) return MainExecutableFileName();
  return Absolute(search.name);
}

}  // namespace

HMODULE ModuleFromAddress(const void* address) {
  Dl_info info{};
  if (!address || !dladdr(address, &info)) return nullptr;
  return info.dli_fbase;
}

HMODULE LibraryModule() {
  static const HMODULE self = ModuleFromAddress(reinterpret_cast<const void*>(&LibraryModule));
  return self;
}

std::string ModuleFileNameFromAddress(std::uintptr_t address) {
  return ModuleFileName(ModuleFromAddress(reinterpret_cast<const void*>(address)));
}

std::string MainExecutableFileName() {
  char path[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

bool IsInMainExecutable(const void* address) {
  Dl_info info{};
  if (!address || !dladdr(address, &info)) return false;
  PhdrSearch search;
  search.base = reinterpret_cast<std::uintptr_t>(info.dli_fbase);
  dl_iterate_phdr(FindByBase, &search);
  return search.found && search.is_main;
}

HMODULE LoadModule(const WCHAR* path) {
  if (!path || !*path) return nullptr;
  void* handle = ::dlopen(Utf16ToUtf8(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) return nullptr;
  link_map* map = nullptr;
  Dl_info info{};
  if (::dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || !map || !dladdr(map->l_ld, &info)) {
    ::dlclose(handle);
    return nullptr;
  }
  return info.dli_fbase;
}

// A handle for a module that is already loaded comes from dlopen with RTLD_NOLOAD under the name the
// loader knows it by; it takes a reference of its own, so the module's reference goes with it.
BOOL FreeModule(HMODULE module) {
  if (!module) return FALSE;
  const std::string name = LoaderName(module);
  if (name.empty()) return FALSE;
  void* handle = ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (!handle) return FALSE;
  ::dlclose(handle);
  return ::dlclose(handle) == 0;
}

void GetSystemInfo(SYSTEM_INFO* info) {
  if (!info) return;
  std::memset(info, 0, sizeof *info);
  const long page = ::sysconf(_SC_PAGESIZE);
  const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
  info->wProcessorArchitecture = 9;  // x64
  info->dwPageSize = page > 0 ? static_cast<DWORD>(page) : 4096;
  info->lpMinimumApplicationAddress = reinterpret_cast<void*>(std::uintptr_t{0x10000});
  info->lpMaximumApplicationAddress = reinterpret_cast<void*>(std::uintptr_t{0x7FFFFFFEFFFF});
  info->dwNumberOfProcessors = cpus > 0 ? static_cast<DWORD>(cpus) : 1;
  info->dwActiveProcessorMask =
      info->dwNumberOfProcessors >= 64 ? ~std::uintptr_t{0} : (std::uintptr_t{1} << info->dwNumberOfProcessors) - 1;
  info->dwProcessorType = 8664;
  info->dwAllocationGranularity = 65536;
}

DWORD GetModuleFileNameW(HMODULE module, WCHAR* buffer, DWORD size) {
  if (!buffer || size == 0) return 0;
  buffer[0] = 0;
  const std::string name = ModuleFileName(module);
  if (name.empty()) return 0;
  const std::u16string wide = Utf8ToUtf16(name);
  WStrCopy(buffer, size, wide);
  return wide.size() + 1 > size ? size : static_cast<DWORD>(wide.size());
}

}  // namespace zr::os
