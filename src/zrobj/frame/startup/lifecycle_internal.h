// Start-up and shut-down steps of families not written yet (defined in pending_steps.cpp) and of
// the entry point itself. Each written family declares its own steps in its internal header.
// Contract for every step: process detach followed by a new process attach must work (the
// lifecycle tests run the entry point again in a child process).
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::steps {

// The two base class records (the registry's own steps: object/zrclass_internal.h).
// Register CZRRTObject (no base, version 0) / CZRObject (base CZRRTObject, version 12) with the
// library's module; 0 = registered, else the registry's error code.
DWORD RegisterRTObjectClass(HMODULE module);
DWORD RegisterObjectClass(HMODULE module);

// Watch ranges of freed objects (CZRObject) and of the locators (Locator).
void SetObjectFreeWatchRange(int min, int max, int traceVirtual);  // CZRObject::SetFreeWatchRange
void GetObjectFreeWatchRange(int* min, int* max, int* traceVirtual);
void SetLocatorWatchRange(int& min, int& max);                      // Locator::SetRWWatchRange
void GetLocatorWatchRange(int* min, int* max);                      // Locator::GetRWWatchRange

// The debug memory monitor's window class: command 1 registers it, 2 unregisters it. There is
// no window system, so this is a no-op kept for the call sequence (defined in lifecycle.cpp).
void MemoryMonitorClassControl(int command, int argument);

}  // namespace zr::steps
