// Start-up and shut-down steps of the thread-local slots, called by the library's entry point.
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::steps {
BOOL InitThreadSlots();          // TlsManager::Init; FALSE fails process attach
void ExitThreadSlotsOfThread();  // TlsManager::ExitThread: the calling thread's slots
void ExitThreadSlots();          // TlsManager::Exit
}  // namespace zr::steps
