// A callback run when a thread ends (a pthread key destructor), for the library's thread detach.
#pragma once

#include "zrobj/export.h"

namespace zr::os {

using ThreadExitFn = void (*)();

// Sets the process-wide callback (null disables it). Call before arming any thread.
ZROBJ_API void SetThreadExitCallback(ThreadExitFn fn);
// Makes the callback run when the calling thread ends. Not for the main thread's own end: the
// process ends first. C++ thread_local objects with destructors are already gone when it runs.
ZROBJ_API bool ArmThreadExitForCurrentThread();
// Runs the calling thread's callback now if it is armed, and disarms it (threads that must finish
// their detach before they signal their own end).
ZROBJ_API void RunThreadExitNow();
// Stops every pending thread-exit callback (library unload); arming works again afterwards.
ZROBJ_API void DisarmThreadExit();

}  // namespace zr::os
