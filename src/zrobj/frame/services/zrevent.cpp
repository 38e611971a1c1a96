// CEventLogger: the ring of recent events, its formatting buffer, and the copies the crash record reads.
#include "zrobj/zrevent.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <new>
#include <string>

#include "platform/clock.h"
#include "platform/crashio.h"
#include "platform/fault.h"
#include "platform/formatspec.h"
#include "platform/procinfo.h"
#include "platform/wformat.h"
#include "zrobj/coslock.h"
#include "frame/frame_internal.h"
#include "frame/services/zrevent_internal.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrobj.h"

namespace {


constexpr int kDefaultHistory = 1024;
constexpr int kMaxHistory = 65536;             // ~76 MB of records; larger settings are clipped
constexpr std::size_t kFormatBufferChars = 2048;  // the 4096-byte formatting buffer
constexpr char16_t kNoDescription[] = u"No description";

struct EventLogState {
  COSCriticalSection lock;
  std::atomic<DWORD> capacity{0};
  DWORD next_number = 0;
  DWORD write_index = 0;
  tagEVENTRECORD* ring = nullptr;
  WCHAR* format_buffer = nullptr;
  std::u16string scratch;  // the formatter's working text, kept so that logging rarely allocates
};

EventLogState& State() {
  static EventLogState* state = new EventLogState;  // never destroyed: logging works during unload
  return *state;
}

// Copies at most capacity-1 units of `text` and terminates within the field.
void CopyField(WCHAR* field, std::size_t capacity, std::u16string_view text) {
  const std::size_t n = std::min(text.size(), capacity - 1);
  std::copy_n(text.data(), n, field);
  std::fill(field + n, field + capacity, u'\0');
}

// The text of a fixed field up to its terminator (or the whole field when it has none).
std::u16string_view FieldText(const WCHAR* field, std::size_t capacity) {
  const std::u16string_view all(field, capacity);
  return all.substr(0, all.find(u'\0'));
}

void ReleaseRing(EventLogState& s) {
  s.capacity.store(0);
  delete[] s.ring;
  delete[] s.format_buffer;
  s.ring = nullptr;
  s.format_buffer = nullptr;
}

// Visits the records in use oldest first; the caller holds the lock (or gave up waiting for it).
std::size_t VisitRing(const EventLogState& s, zr::EventVisitor visit, void* context) {
  const DWORD capacity = s.capacity.load();
  if (!s.ring || capacity == 0) return 0;
  std::size_t visited = 0;
  for (DWORD k = 0; k < capacity; ++k) {
    const tagEVENTRECORD& r = s.ring[(s.write_index + k) % capacity];
    if (r.dwEventNo == ZR_EVENT_UNUSED) continue;
    visit(r, context);
    ++visited;
  }
  return visited;
}

}  // namespace

void CEventLogger::Init() {
  const int history = ZROBJ_GetCurrentSettingInt("EventLog", "HistorySize", kDefaultHistory, 1);
  EventLogState& s = State();
  COSAutoLock lock(&s.lock);
  if (s.ring) return;  // already running
  if (history <= 0) return;
  const DWORD capacity = static_cast<DWORD>(std::min(history, kMaxHistory));
  s.ring = new (std::nothrow) tagEVENTRECORD[capacity]();
  s.format_buffer = new (std::nothrow) WCHAR[kFormatBufferChars]();
  if (!s.ring || !s.format_buffer) {
    ReleaseRing(s);
    return;
  }
  for (DWORD i = 0; i < capacity; ++i) s.ring[i].dwEventNo = ZR_EVENT_UNUSED;
  s.next_number = 0;
  s.write_index = 0;
  s.scratch.reserve(kFormatBufferChars);
  s.capacity.store(capacity);
}

void CEventLogger::Exit() {
  EventLogState& s = State();
  COSAutoLock lock(&s.lock);
  ReleaseRing(s);
  s.scratch = std::u16string();
}

void CEventLogger::LogEvent(const WCHAR* format, ...) {
  EventLogState& s = State();
  zr::EnsureThreadAttached();  // a thread's first use of the library names it
  if (s.capacity.load(std::memory_order_relaxed) == 0) return;
  const DWORD thread_id = zr::os::CurrentOsThreadId();
  WCHAR name[64];
  zr::GetRegisteredThreadName(thread_id, name, 64);
  zr::EventArgs args;
  if (format && *format) {
    std::va_list ap;
    va_start(ap, format);
    zr::CollectEventArgs(format, ap, args);
    va_end(ap);
  }

  COSAutoLock lock(&s.lock);
  const DWORD capacity = s.capacity.load();
  if (capacity == 0) return;
  tagEVENTRECORD& r = s.ring[s.write_index];
  r.dwEventNo = s.next_number++;
  if (s.next_number == ZR_EVENT_UNUSED) s.next_number = 0;  // the unused marker is never a number
  r.dwThreadId = thread_id;
  CopyField(r.szThreadName, 64, name);
  if (!format || !*format) {
    CopyField(r.szText, 512, kNoDescription);
  } else {
    s.scratch.clear();
    zr::os::AppendFormatWide(s.scratch, format, args.items, args.count);
    const std::size_t n = std::min(s.scratch.size(), kFormatBufferChars - 1);
    std::copy_n(s.scratch.data(), n, s.format_buffer);
    s.format_buffer[n] = 0;
    CopyField(r.szText, 512, std::u16string_view(s.format_buffer, n));
    if (s.scratch.capacity() > 4 * kFormatBufferChars) s.scratch = std::u16string();  // drop a giant one
  }
  const std::uint64_t now = zr::os::GetSystemTimeAsFileTime();
  r.ftTime.dwLowDateTime = static_cast<DWORD>(now);
  r.ftTime.dwHighDateTime = static_cast<DWORD>(now >> 32);
  s.write_index = (s.write_index + 1) % capacity;
}

namespace zr {
namespace {

// The integer argument of a conversion: int or unsigned, or 64-bit for a modifier that names it.
os::FormatArg IntegerArg(const os::FormatSpec& s, std::va_list& ap) {
  const bool wide = os::IntegerBytes(s.length) == 8;
  if (s.kind == os::FormatKind::kSigned)
    return wide ? os::MakeFormatArg(va_arg(ap, long long)) : os::MakeFormatArg(va_arg(ap, int));
  return wide ? os::MakeFormatArg(va_arg(ap, unsigned long long)) : os::MakeFormatArg(va_arg(ap, unsigned));
}

// In a wide format "%s" is UTF-16 and "%S" narrow; "h" and "l" say it explicitly.
os::FormatArg StringArg(const os::FormatSpec& s, std::va_list& ap) {
  const void* text = va_arg(ap, const void*);
  const os::FormatTextWidth width = os::TextWidth(s.length);
  const bool narrow = width == os::FormatTextWidth::kNarrow || (width == os::FormatTextWidth::kDefault && s.conversion == 'S');
  return narrow ? os::MakeFormatArg(static_cast<const char*>(text)) : os::MakeFormatArg(static_cast<const char16_t*>(text));
}

void CollectArg(const os::FormatSpec& s, std::va_list& ap, EventArgs& out) {
  switch (s.kind) {
    case os::FormatKind::kSigned:
    case os::FormatKind::kUnsigned: out.Push(IntegerArg(s, ap)); break;
    case os::FormatKind::kChar: out.Push(os::MakeFormatArg(va_arg(ap, int))); break;
    case os::FormatKind::kString: out.Push(StringArg(s, ap)); break;
    case os::FormatKind::kPointer:
    case os::FormatKind::kCount: out.Push(os::MakeFormatArg(va_arg(ap, const void*))); break;
    case os::FormatKind::kReal:
      out.Push(s.length == os::FormatLength::kLongDouble ? os::MakeFormatArg(static_cast<double>(va_arg(ap, long double)))
                                                     : os::MakeFormatArg(va_arg(ap, double)));
      break;
    case os::FormatKind::kPercent:
    case os::FormatKind::kUnknown:
    case os::FormatKind::kTruncated: break;  // no argument
  }
}

}  // namespace

void CollectEventArgs(std::u16string_view format, std::va_list& ap, EventArgs& out) {
  for (std::size_t i = format.find(u'%'); i != std::u16string_view::npos; i = format.find(u'%', i)) {
    const os::FormatSpec s = os::ParseFormatSpec(format.substr(i));
    i += s.size;
    if (s.width_from_arg) out.Push(os::MakeFormatArg(va_arg(ap, int)));
    if (s.precision_from_arg) out.Push(os::MakeFormatArg(va_arg(ap, int)));
    CollectArg(s, ap, out);
  }
}

}  // namespace zr

CPMemory CEventLogger::GetEventList() {
  CPMemory list;
  EventLogState& s = State();
  COSAutoLock lock(&s.lock);
  if (!list.Alloc(static_cast<unsigned long>(s.capacity.load() * sizeof(tagEVENTRECORD)))) return list;
  struct Copy {
    tagEVENTRECORD* out;
    DWORD count;
  } copy{static_cast<tagEVENTRECORD*>(list.GetDataPtr()), 0};
  VisitRing(
      s, [](const tagEVENTRECORD& r, void* c) {
        auto* to = static_cast<Copy*>(c);
        to->out[to->count++] = r;
      },
      &copy);
  list.SetSize(static_cast<unsigned long>(copy.count * sizeof(tagEVENTRECORD)));
  return list;
}

DWORD CEventLogger::GetCapacity() { return State().capacity.load(); }

namespace zr {

std::size_t VisitEventRecords(EventVisitor visit, void* context, unsigned wait_ms) {
  if (!visit) return 0;
  EventLogState& s = State();
  const bool locked = TryEnterPolled(s.lock, wait_ms);
  const std::size_t n = VisitRing(s, visit, context);
  if (locked) s.lock.Leave();
  return n;
}

std::size_t FormatEventRecord(const tagEVENTRECORD& r, char* buffer, std::size_t capacity) {
  // The fields are copied first so that a record being rewritten can never be read past its end.
  char16_t name[64];
  char16_t text[512];
  CopyField(name, 64, FieldText(r.szThreadName, 64));
  CopyField(text, 512, FieldText(r.szText, 512));
  const std::uint64_t ft = (static_cast<std::uint64_t>(r.ftTime.dwHighDateTime) << 32) | r.ftTime.dwLowDateTime;
  const os::CivilTime t = os::FileTimeToCivil(ft);
  os::FixedText out(buffer, capacity);
  out.Format("\r* %-5u %hu.%hu.%hu %hu:%hu:%hu:%hu Thread %08X [%s] %s\r\n", r.dwEventNo, t.day, t.month, t.year,
             t.hour, t.minute, t.second, t.millisecond, r.dwThreadId, static_cast<const char16_t*>(name),
             static_cast<const char16_t*>(text));
  return out.size();
}

}  // namespace zr

// The event log's steps of the library's attach and detach sequence.
void zr::steps::InitEventLog() { CEventLogger::Init(); }
void zr::steps::ExitEventLog() { CEventLogger::Exit(); }
