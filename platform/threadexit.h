// A callback run when a thread ends (a pthread key destructor), for the library's thread detach.
#pragma once


namespace zr::os {

using ThreadExitFn = void (*)();

// Sets the process-wide callback (null disables it). Call before arming any thread.
void SetThreadExitCallback(ThreadExitFn fn);
// Makes the callback run when the calling thread ends. Not for the main thread's own end: the
// process ends first. C++ thread_local objects with destructors are already gone when it runs.
bool ArmThreadExitForCurrentThread();
// Runs the calling thread's callback now if it is armed, and disarms it (threads that must finish
// their detach before they signal their own end).
void RunThreadExitNow();
// Stops every pending thread-exit callback (library unload); arming works again afterwards.
void DisarmThreadExit();

}  // namespace zr::os
