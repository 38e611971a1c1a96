// Start-up and shut-down steps of the entry point itself. Each family declares its own steps in its
// internal header.
// Contract for every step: process detach followed by a new process attach must work (the
// lifecycle tests run the entry point again in a child process).
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::steps {

// The debug memory monitor's window class: command 1 registers it, 2 unregisters it. There is
// no window system, so this is a no-op kept for the call sequence (defined in lifecycle.cpp).
void MemoryMonitorClassControl(int command, int argument);

}  // namespace zr::steps
