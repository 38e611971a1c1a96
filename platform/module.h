// Loaded modules (the load base of a shared object is its handle) and system information.
#pragma once

#include <cstdint>
#include <string>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

// Page size, processor count and the Windows allocation granularity (65536).
void GetSystemInfo(SYSTEM_INFO* info);

// The file name of a module (null: the main executable) as an absolute UTF-16 path. Returns the
// characters copied; when the buffer is too small the name is cut, terminated, and `size` is
// returned; 0 when the module is unknown.
DWORD GetModuleFileNameW(HMODULE module, WCHAR* buffer, DWORD size);

// The module whose mapping contains `address`; null when none does.
HMODULE ModuleFromAddress(const void* address);
// This library's own module handle.
HMODULE LibraryModule();
// The absolute file name of the module containing `address` ("" when none), UTF-8.
std::string ModuleFileNameFromAddress(std::uintptr_t address);
// The absolute file name of the main executable, UTF-8.
std::string MainExecutableFileName();
// True when `address` lies in a loaded segment of the main executable.
bool IsInMainExecutable(const void* address);

// Loads a shared object (dlopen, RTLD_NOW | RTLD_LOCAL): a path with a '/' is used as it is, a bare
// file name goes through the system's search. Returns its module handle (load base), null on
// failure. Each successful load takes one reference.
HMODULE LoadModule(const WCHAR* path);
// Drops one reference of a loaded module (given by its handle); the last one unloads it.
// FALSE when no loaded module has this handle.
BOOL FreeModule(HMODULE module);

}  // namespace zr::os
