// Internal interface of the library frame: the entry point, lazy thread attach, the start-up of
// the diagnostics modes, and narrowly named hooks that let tests reset process-wide state.
#pragma once

#include <utility>

#include "platform/fault.h"
#include "zrobj/export.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD DLL_PROCESS_DETACH = 0;
inline constexpr DWORD DLL_PROCESS_ATTACH = 1;
inline constexpr DWORD DLL_THREAD_ATTACH = 2;
inline constexpr DWORD DLL_THREAD_DETACH = 3;

// The library's entry point; the load constructor, the unload destructor and the thread hooks
// call it with the reason code. Exported so that tests can drive it directly.
ZROBJ_EXTERN_C BOOL ZROBJ_DllMain(HMODULE module, DWORD reason, void* reserved);

namespace zr {

// Records the module handle, the start tick and the system information at process attach.
void SetProcessAttachState(HMODULE module, DWORD start_tick);

// What thread attach runs (the entry point's thread-attach step); null runs nothing more.
using ThreadAttachHandler = void (*)();
void SetThreadAttachHandler(ThreadAttachHandler handler);

// Marks the calling thread attached and arms its detach at thread end, without running attach.
void MarkCurrentThreadAttached();

// Runs thread attach once for the calling thread (on its first use of the library) and arranges
// thread detach at its end. Cheap after the first call: one thread_local test.
void EnsureThreadAttached();

// Start-up of the diagnostics modes: debug mode from the output's activity, debug keys and the
// exception table's trap modes from "ZRO.INI". Runs at load, before process attach.
void InitDiagnostics();

// The exception table as it starts (codes and names; trap modes 0), constant for the whole run.
const tagZREXCENTRY* DefaultExceptionTable();

// Destroys the settings file object (process detach); the next use creates it again.
void DestroySettingsFile();

// The first test of an object assertion ("BAD ACCESS"): true when calling `query` faulted.
template <class F>
bool FaultsOnCall(F&& query) {
  return os::Guarded(std::forward<F>(query)) != 0;
}

namespace testing {
// Forgets the settings file object, so the next current-setting call builds it from the current
// Windows directory.
void ResetSettingsFile();
// Empties the cached product name.
void ResetProductName();
// Replaces the library file name used by ZROBJ_GetAppRootDir and ZROBJ_GetProductName
// (null restores the real one).
void SetLibraryFileNameOverride(const WCHAR* path);
// Number of thread detaches run from thread ends since load.
DWORD ThreadExitDetachCount();
}  // namespace testing

}  // namespace zr
