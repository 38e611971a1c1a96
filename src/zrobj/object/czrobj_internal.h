// Start-up and shut-down steps of the object base classes for the entry point: registering the
// class records of CZRRTObject and CZRObject and the free-watch range settings.
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::steps {

// Registers CZRRTObject (no base) / CZRObject (base CZRRTObject, with its object size) with the
// library's module; 0 = registered, else the registry's error code.
DWORD RegisterRTObjectClass(HMODULE module);
DWORD RegisterObjectClass(HMODULE module);

// CZRObject::SetFreeWatchRange / GetFreeWatchRange with the settings' integers.
void SetObjectFreeWatchRange(int min, int max, int traceVirtual);
void GetObjectFreeWatchRange(int* min, int* max, int* traceVirtual);

}  // namespace zr::steps
