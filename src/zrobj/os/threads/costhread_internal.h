// Start-up and shut-down steps of the thread register and the auto threads, called by the
// library's entry point (thread attach and detach, application initialise and exit).
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::steps {
// Copies the calling thread's registered name (at most len-1 characters); FALSE when it has none.
BOOL GetCurrentThreadName(WCHAR* buffer, UINT len);
void RegisterCurrentThread(const WCHAR* name);
void UnregisterCurrentThread();
void ExitThreadRegister();       // COSThreadRegister::AppExit
void AutoThreadsAppInit();       // COSAutoThread::AppInit
void AutoThreadsAppExit();       // COSAutoThread::AppExit
}  // namespace zr::steps
