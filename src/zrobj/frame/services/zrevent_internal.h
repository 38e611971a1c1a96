// Start-up and shut-down steps of the event log, called by the library's entry point.
#pragma once

#include "zrobj/export.h"

namespace zr::steps {
ZROBJ_API void InitEventLog();  // CEventLogger::Init
ZROBJ_API void ExitEventLog();  // CEventLogger::Exit
}  // namespace zr::steps
