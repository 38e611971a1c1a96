// What the library knows of its own load: module handle, start tick, system information, and the
// lazy thread attach that every family runs on a thread's first use of the library.
#include "frame/frame_internal.h"
#include "platform/fault.h"
#include "platform/module.h"
#include "platform/threadexit.h"
#include "zrobj/zrobj.h"

namespace {

HMODULE g_module = nullptr;
DWORD g_start_tick = 0;
SYSTEM_INFO g_system_info{};
zr::ThreadAttachHandler g_thread_attach_handler = nullptr;

thread_local bool t_attached = false;

}  // namespace

namespace zr {

void SetProcessAttachState(HMODULE module, DWORD start_tick) {
  g_module = module;
  g_start_tick = start_tick;
  os::GetSystemInfo(&g_system_info);
}

void SetThreadAttachHandler(ThreadAttachHandler handler) { g_thread_attach_handler = handler; }

void MarkCurrentThreadAttached() {
  t_attached = true;
  os::ArmThreadExitForCurrentThread();
}

void EnsureThreadAttached() {
  if (t_attached) return;
  MarkCurrentThreadAttached();
  os::PrepareSignalStack();  // so a fault on this thread, even a stack overflow, reaches the crash handler
  if (g_thread_attach_handler) g_thread_attach_handler();
}

}  // namespace zr

HMODULE ZROBJ_GetModuleHandle() { return g_module; }
DWORD ZROBJ_GetModuleFileName(HMODULE module, WCHAR* buffer, DWORD length) {
  return zr::os::GetModuleFileNameW(module, buffer, length);
}
DWORD ZROBJ_GetStartTick() { return g_start_tick; }
const SYSTEM_INFO* ZROBJ_GetSystemInfo() { return &g_system_info; }
