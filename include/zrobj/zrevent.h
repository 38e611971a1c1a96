// The event log: a process-wide ring of the most recent events (number, thread, text, UTC time) that
// a crash record shows, so that it tells what the process did last.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// One event, 1168 bytes.
struct tagEVENTRECORD {
  DWORD dwEventNo;          // running number since start-up; 0xFFFFFFFF marks an unused record
  DWORD dwThreadId;         // the logging thread (OS thread id)
  WCHAR szThreadName[64];   // its name in the thread register, terminated within the field
  WCHAR szText[512];        // the formatted text, terminated within the field
  struct {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
  } ftTime;                 // FILETIME: UTC, 100 ns units since 1601-01-01
};
static_assert(sizeof(tagEVENTRECORD) == 1168, "event record layout");

inline constexpr DWORD ZR_EVENT_UNUSED = 0xFFFFFFFFu;

namespace zr {
// The records of a block that CEventLogger::GetEventList returned.
inline std::span<const tagEVENTRECORD> EventRecords(const CPMemory& list) {
  const void* data = list.GetCDataPtr();
  if (!data) return {};
  return {static_cast<const tagEVENTRECORD*>(data), list.GetSize() / sizeof(tagEVENTRECORD)};
}
}  // namespace zr

class ZROBJ_API CEventLogger {
 public:
  // Start-up and shut-down steps of the library's attach and detach sequence. Init reads "HistorySize"
  // (section "EventLog" of "ZRO.VST", default 1024; 0 switches logging off) and does nothing while the
  // log is running; Exit stops logging and releases the ring.
  static void Init();
  static void Exit();

  // Records one event: a wide printf-style format (the library's dialect: "%s" UTF-16, "%hs" narrow,
  // "%I64d", ...) and its arguments. A null or empty format records "No description". Never fails
  // towards the caller.
  static void LogEvent(const WCHAR* format, ...);

  // A new block holding a copy of the records in use, oldest first (unused records are not
  // copied); its size is a whole number of records, 0 while logging is off. See zr::EventRecords.
  static CPMemory GetEventList();

  // Number of records of the ring (0 while logging is off).
  static DWORD GetCapacity();
};

namespace zr {
// Calls `visit` for each record in use, oldest first, under the log's lock, waiting for the lock at most
// `wait_ms` milliseconds (after that the records are read without it: the crash handler must not hang
// on a lock whose holder crashed). Returns the number visited. Allocates nothing.
using EventVisitor = void (*)(const tagEVENTRECORD& record, void* context);
ZROBJ_API std::size_t VisitEventRecords(EventVisitor visit, void* context, unsigned wait_ms);

// One record as the crash record prints it: "\r* %-5u %hu.%hu.%hu %hu:%hu:%hu:%hu Thread %08X [%s] %s\r\n"
// (number, UTC date and time, thread id and name, text), UTF-8, cut to fit; returns the length.
ZROBJ_API std::size_t FormatEventRecord(const tagEVENTRECORD& record, char* buffer, std::size_t capacity);
}  // namespace zr
