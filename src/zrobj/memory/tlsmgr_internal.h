// Start-up and shut-down steps of the thread-local slots, called by the library's entry point.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::steps {
ZROBJ_API BOOL InitThreadSlots();          // TlsManager::Init; FALSE fails process attach
ZROBJ_API void ExitThreadSlotsOfThread();  // TlsManager::ExitThread: the calling thread's slots
ZROBJ_API void ExitThreadSlots();          // TlsManager::Exit
}  // namespace zr::steps
