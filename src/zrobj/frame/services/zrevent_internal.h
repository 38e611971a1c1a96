// Start-up and shut-down steps of the event log, called by the library's entry point.
#pragma once


namespace zr::steps {
void InitEventLog();  // CEventLogger::Init
void ExitEventLog();  // CEventLogger::Exit
}  // namespace zr::steps
