// Facts about the process and the machine for crash records: thread ids, the program's file, memory
// figures, local and file times broken down, and the user and computer names. The functions marked
// "signal-safe" neither allocate nor take locks and may run inside the crash handler.
#pragma once

#include <cstddef>
#include <cstdint>


namespace zr::os {

// OS id of the calling thread (gettid); signal-safe.
std::uint32_t CurrentOsThreadId();
// The process id; signal-safe.
std::uint32_t CurrentProcessId();
// OS id of the thread that loaded the library.
std::uint32_t LoadingThreadId();

// Full file name of the program's executable, as found at load; "" when unknown. Signal-safe.
const char* ProcessImagePath();

// The library's version as its real file name carries it ("1.0.0" of libzrobju.so.1.0.0); false when
// the file name has none.
bool GetLibraryVersionText(char* buffer, std::size_t capacity);

// System figures as the crash record prints them (bytes, a percentage for the load).
struct SystemFigures {
  std::uint32_t processors = 0;
  std::uint32_t memory_load = 0;  // percent of physical memory in use
  std::uint64_t total_physical = 0, available_physical = 0;
  std::uint64_t total_pageable = 0, available_pageable = 0;  // commit limit and what is left of it
  std::uint64_t total_virtual = 0, available_virtual = 0;    // user address space and what is unused
};
// Signal-safe (reads /proc with plain system calls); false when /proc could not be read.
bool GetSystemFigures(SystemFigures* figures);

// A moment broken down like a Windows SYSTEMTIME.
struct CivilTime {
  std::uint16_t year = 0, month = 0, weekday = 0, day = 0;  // month 1..12, weekday 0 = Sunday
  std::uint16_t hour = 0, minute = 0, second = 0, millisecond = 0;
};
// The current local time. Reads the time zone once beforehand (PrepareLocalTime) so that the call
// inside the crash handler neither allocates nor opens files.
void PrepareLocalTime();
CivilTime LocalTimeNow();
// A file time (100 ns units since 1601-01-01 UTC) broken down in UTC; signal-safe.
CivilTime FileTimeToCivil(std::uint64_t file_time);

// The user's logon name and the computer name as UTF-8, from identity.h (ZROBJ_USERNAME and
// ZROBJ_COMPUTERNAME override them). "" when unknown. Not signal-safe: read them
// beforehand.
void GetUserLogonName(char* buffer, std::size_t capacity);
void GetComputerNameText(char* buffer, std::size_t capacity);

}  // namespace zr::os
