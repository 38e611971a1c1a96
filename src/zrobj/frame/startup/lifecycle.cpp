// The library's entry point: process attach and detach (load constructor and unload destructor),
// lazy thread attach with detach at thread end, application initialisation and exit, and the
// chain of init callbacks.
#include <atomic>
#include <string>

#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/module.h"
#include "platform/threadexit.h"
#include "platform/wformat.h"
#include "frame/frame_internal.h"
#include "frame/services/zrevent_internal.h"
#include "frame/startup/lifecycle_internal.h"
#include "memory/tlsmgr_internal.h"
#include "object/czrobj_internal.h"
#include "object/zrclass_internal.h"
#include "os/threads/costhread_internal.h"
#include "persistence/locator_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

DWORD g_init_count = 0;
ZROBJ_INITCALLBACK g_callback_head = nullptr;
DWORD g_callbacks_run = 0;  // never set by the library: registration always chains
std::atomic<DWORD> g_thread_exit_detaches{0};

constexpr UINT kThreadNameLength = 256;
constexpr int kLoadFailedExitStatus = 127;  // what the loader gives when a needed library fails

struct FileType {
  const WCHAR* extension;
  const WCHAR* type_name;
  const WCHAR* description;
  const WCHAR* icon;
  const WCHAR* open_command;
};

constexpr FileType kFileTypes[] = {
    {u".zro", u"vorn.ObjectFile", u"vorn. object file", nullptr, nullptr},
    {u".zrs", u"vorn.Shortcut", u"vorn. shortcut", nullptr, u"notepad.exe %1"},
    {u".ids", u"vorn.IDs", u"vorn. ID file", nullptr, nullptr},
};

BOOL ProcessDetach() {
  if (IsDebugOn()) os::wPrintf(3, 9, u"ZROBJ: Process detaching...\n");
  if (g_init_count != 0 && IsDebugOn())
    os::wPrintf(3, 9, u"\rClasses were not unregistered, dwInitCnt = %u\r\n", g_init_count);
  zr::steps::ExitEventLog();
  zr::steps::ExitThreadRegister();
  zr::steps::ExitThreadSlotsOfThread();
  zr::steps::ExitClassRegistry();
  zr::steps::ExitThreadSlots();
  zr::DestroySettingsFile();
  if (IsDebugOn()) os::wPrintf(3, 9, u"ZROBJ: detached\n");
  return 1;
}

BOOL ProcessAttach() {
  os::InitCommonControls();
  if (!zr::steps::InitThreadSlots() || !zr::steps::InitClassRegistry()) {
    ProcessDetach();
    return 0;
  }
  // A failed base-class registration undoes nothing.
  if (zr::steps::RegisterRTObjectClass(ZROBJ_GetModuleHandle()) != 0) return 0;
  if (zr::steps::RegisterObjectClass(ZROBJ_GetModuleHandle()) != 0) return 0;
  zr::steps::RegisterCurrentThread(u"<<Main>>");
  // The thread running process attach gets no thread attach of its own, but is detached at its
  // end like any other thread (unless it is the main thread, whose end is the process's end).
  zr::MarkCurrentThreadAttached();
  zr::steps::InitEventLog();
  if (g_callback_head) return g_callback_head();
  for (const FileType& t : kFileTypes)
    RegisterFileType(t.extension, t.type_name, t.description, t.icon, t.open_command);
  if (IsDebugOn()) os::wPrintf(3, 9, u"ZROBJ: Process attached successfully\r\n");
  return 1;
}

void ThreadAttach() {
  WCHAR name[kThreadNameLength];
  if (zr::steps::GetCurrentThreadName(name, kThreadNameLength)) return;  // named before it first ran here
  const double seconds = static_cast<double>(os::GetTickCount() - ZROBJ_GetStartTick()) / 1000.0;
  const std::u16string unknown = os::FormatWide(u"Unknown, created %f s after startup", seconds);
  zr::steps::RegisterCurrentThread(unknown.c_str());
}

void ThreadDetach() {
  zr::steps::ExitThreadSlotsOfThread();
  zr::steps::UnregisterCurrentThread();
}

void OnThreadAttach() { ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_THREAD_ATTACH, nullptr); }

void OnThreadEnd() {
  ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_THREAD_DETACH, nullptr);
  g_thread_exit_detaches.fetch_add(1, std::memory_order_relaxed);
}

// Load and unload of libzrobju.so stand for the loader's process attach and detach.
__attribute__((constructor)) void LibraryLoaded() {
  os::ConfigureDiag();
  zr::InitDiagnostics();
  os::SetThreadExitCallback(&OnThreadEnd);
  zr::SetThreadAttachHandler(&OnThreadAttach);
  if (ZROBJ_DllMain(os::LibraryModule(), DLL_PROCESS_ATTACH, nullptr)) return;
  // A failed attach fails the load. A constructor cannot make the loader refuse the library, so the
  // process ends as it does when a library it needs cannot be loaded, rather than going on with
  // the library half torn down.
  os::wPrintf(3, 0, u"ZROBJ: Process attach failed, the library cannot be loaded\r\n");
  os::TerminateProcessNow(kLoadFailedExitStatus);
}

__attribute__((destructor)) void LibraryUnloading() {
  os::SetThreadExitCallback(nullptr);
  zr::SetThreadAttachHandler(nullptr);
  os::DisarmThreadExit();
  ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_PROCESS_DETACH, nullptr);
}

}  // namespace

BOOL ZROBJ_DllMain(HMODULE module, DWORD reason, void*) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      zr::SetProcessAttachState(module, os::GetTickCount());
      return ProcessAttach();
    case DLL_PROCESS_DETACH:
      return ProcessDetach();
    case DLL_THREAD_ATTACH:
      ThreadAttach();
      return 1;
    case DLL_THREAD_DETACH:
      ThreadDetach();
      return 1;
    default:
      return 1;
  }
}

namespace zr {

DWORD testing::ThreadExitDetachCount() { return g_thread_exit_detaches.load(); }

namespace steps {
void MemoryMonitorClassControl(int, int) {}  // no window system: no window class to (un)register
}  // namespace steps

}  // namespace zr

DWORD ZROBJ_GetInitCount() { return g_init_count; }

int ZROBJ_RegisterInitCallback(ZROBJ_INITCALLBACK callback, ZROBJ_INITCALLBACK* previous) {
  if (g_callbacks_run) return callback ? callback() : 0;
  if (previous) *previous = g_callback_head;
  g_callback_head = callback;
  return 1;
}

int ZROBJ_UnregisterInitCallback(ZROBJ_INITCALLBACK previous) {
  if (previous) return previous();  // the head stays as it is
  g_callback_head = nullptr;
  return 1;
}

void ZROBJ_AppInitialize() {
  if (g_init_count == 0) {
    zr::steps::AutoThreadsAppInit();
    const int min = ZROBJ_GetProfileInt("CZRObject", "MinFreeWatch", 0, 1);
    const int max = ZROBJ_GetProfileInt("CZRObject", "MaxFreeWatch", 0, 1);
    const int trace_virtual = ZROBJ_GetProfileInt("CZRObject", "TraceVirtual", 0, 1);
    zr::steps::SetObjectFreeWatchRange(min, max, trace_virtual);
    int locator_min = ZROBJ_GetProfileInt("Locator", "MinFreeWatch", 0, 1);
    int locator_max = ZROBJ_GetProfileInt("Locator", "MaxFreeWatch", 0, 1);
    zr::steps::SetLocatorWatchRange(locator_min, locator_max);
    zr::steps::MemoryMonitorClassControl(1, 0);
    zr::steps::SanitizeClassLoads();
  }
  ++g_init_count;
}

void ZROBJ_AppExit() {
  if (g_init_count == 0) return;
  if (--g_init_count != 0) return;
  int min = 0, max = 0, trace_virtual = 0;
  zr::steps::GetObjectFreeWatchRange(&min, &max, &trace_virtual);
  ZROBJ_WriteProfileInt("CZRObject", "MinFreeWatch", min);
  ZROBJ_WriteProfileInt("CZRObject", "MaxFreeWatch", max);
  ZROBJ_WriteProfileInt("CZRObject", "TraceVirtual", trace_virtual);
  int locator_min = 0, locator_max = 0;
  zr::steps::GetLocatorWatchRange(&locator_min, &locator_max);
  ZROBJ_WriteProfileInt("Locator", "MinFreeWatch", locator_min);
  ZROBJ_WriteProfileInt("Locator", "MaxFreeWatch", locator_max);
  zr::steps::MemoryMonitorClassControl(2, 0);
  zr::steps::UnloadClassLibs();
  zr::steps::AutoThreadsAppExit();
}
