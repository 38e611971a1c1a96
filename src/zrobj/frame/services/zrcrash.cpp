// CUnhandledException: the top-level crash handler (once per process, on the faulting thread's alternate
// signal stack), the crash record "CrashRecord.txt", and the exception analysis guarded code reports with.
#include "zrobj/zrcrash.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>

#include "platform/clock.h"
#include "platform/crashio.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/modules.h"
#include "platform/platdiag.h"
#include "platform/procinfo.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "frame/frame_internal.h"
#include "frame/services/zrcrash_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrevent.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

// The root directory comes from the lifecycle family; bound weakly so the handler also works in a
// library built without it (the record then goes to the working directory).
#pragma weak ZROBJ_GetAppRootDir

DWORD CUnhandledException::uLockCnt = 0;
BOOL CUnhandledException::bDisable = 0;
int CUnhandledException::iMiniDump = 0;
BOOL CUnhandledException::bShowStolen = 0;
WCHAR CUnhandledException::szState[CUnhandledException::kStateLength] = u"Startup";

namespace zr {
namespace {

constexpr const char* kWeekdays[7] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char* kBuildDate = __DATE__;
constexpr int kMatchedEntries = 21;  // entries 0..20 name exception codes
constexpr int kMaxTraceFrames = 128;
constexpr unsigned kEventLockWaitMs = 1000;
constexpr std::size_t kPathCapacity = 4096;

// Trap-mode bits of an entry, as guarded reports read them.
constexpr DWORD kTrapBreak = 0x1;      // break into the debugger after the report
constexpr DWORD kTrapSuppress = 0x2;   // no report
constexpr DWORD kTrapOneFrame = 0x4;   // trace one frame only
constexpr DWORD kTrapFilter = 0x8;     // report only when the stack passes the entry's module filter
constexpr DWORD kTrapFull = 0x10;      // add system figures and registers

// What the record needs and cannot safely gather once the process has crashed.
struct CrashFacts {
  char directory[kPathCapacity];  // where the files go, ending in '/'; empty: the working directory
  char fallback_directory[kPathCapacity];  // the settings directory, where they go when `directory` refuses them
  char override_directory[kPathCapacity];
  char user[256];
  char computer[256];
  char version[64];
};
CrashFacts g_facts;
std::mutex g_facts_mutex;

// Each phase of the handler has its own time: a minidump of a large process may take long, but
// the record must still be written after it. A crashing thread that finds the record being written
// waits for both.
std::atomic<unsigned> g_dump_budget_seconds{60};
std::atomic<unsigned> g_record_budget_seconds{30};
std::atomic<testing::CrashPhaseHook> g_phase_hook{nullptr};

std::atomic<bool> g_crash_started{false};
std::atomic<DWORD> g_crash_owner{0};
std::atomic<unsigned> g_parked{0};
thread_local const os::FaultRecord* t_fault = nullptr;  // the signal behind the exception being filtered

thread_local EXCEPTION_RECORD t_guard_record;
thread_local CONTEXT t_guard_context;
thread_local EXCEPTION_POINTERS t_guard_pointers;

// Formats one piece of the record on the stack and hands it to the dump output.
template <class... Args>
void Print(std::string_view format, const Args&... args) {
  char buffer[2048];
  os::FixedText text(buffer, sizeof buffer);
  text.Format(format, args...);
  os::dmp_output(buffer);
}

const char* OrUnknown(const char* text) { return text && *text ? text : "<<Unknown>>"; }

int ExitStatusOf(const EXCEPTION_POINTERS* p) {
  // A POSIX exit status keeps 8 bits: the code's low byte, or 255 when that is 0 or nothing is known.
  const DWORD low = p && p->ExceptionRecord ? (p->ExceptionRecord->ExceptionCode & 0xFFu) : 0;
  return low ? static_cast<int>(low) : 255;
}

int ExceptionIndex(DWORD code) {
  for (int i = 0; i < kMatchedEntries; ++i)
    if (DefaultExceptionTable()[i].dwCode == code) return i;
  return -1;
}

// ---- The thread register, as far as the crash handler needs it ----

bool DefaultThreadName(DWORD thread_id, WCHAR* buffer, unsigned length) {
  if (thread_id != os::LoadingThreadId()) return false;
  os::WStrCopy(buffer, length, u"<<Main>>");
  return true;
}

void DefaultThreadDump() {
  Print("\rThreadList\r\n");
  Print("\r%08X %s\r\n", os::LoadingThreadId(), u"<<Main>>");
}

// The default user stream block: a count, then per thread its id and 64 UTF-16 characters of name.
const void* DefaultThreadBlock(unsigned long* size) {
  static struct {
    DWORD count;
    DWORD thread_id;
    WCHAR name[64];
  } block;
  block.count = 1;
  block.thread_id = os::LoadingThreadId();
  os::WStrCopy(block.name, 64, u"<<Main>>");
  if (size) *size = sizeof block;
  return &block;
}

constexpr ThreadInfoProvider kDefaultProvider{DefaultThreadName, DefaultThreadDump, DefaultThreadBlock};
std::atomic<const ThreadInfoProvider*> g_provider{&kDefaultProvider};

// ---- Pieces of the analysis ----

void PrintThreadLine(DWORD thread_id) {
  WCHAR name[64];
  if (GetRegisteredThreadName(thread_id, name, 64))
    Print("\rThread: Thread <%s> (0x%08X)\r\n", static_cast<const WCHAR*>(name), thread_id);
  else if (thread_id == os::LoadingThreadId())
    Print("\rThread: Main (0x%08X)\r\n", thread_id);
  else
    Print("\rThread: Unspecified worker thread (0x%08X)\r\n", thread_id);
}

void PrintSystemFigures() {
  os::SystemFigures f;
  os::GetSystemFigures(&f);
  Print("\rNumber of processors: %u", f.processors);
  Print("\rMemory load         : %u%%", f.memory_load);
  Print("\rTotal physical      : %u", f.total_physical);
  Print("\rAvailable physical  : %u", f.available_physical);
  Print("\rTotal pageable      : %u", f.total_pageable);
  Print("\rAvailable pageable  : %u", f.available_pageable);
  Print("\rTotal virtual       : %u", f.total_virtual);
  Print("\rAvailable virtual   : %u", f.available_virtual);
}

void PrintRegisters(const CONTEXT* c) {
  if (!c) {
    Print("\rNo context available\r\n");
    return;
  }
  Print("\r\nGS =%08X FS =%08X ES =%08X DS =%08X SS =%08X", c->SegGs, c->SegFs, c->SegEs, c->SegDs, c->SegSs);
  Print("\r\nRAX=%016I64X RBX=%016I64X", c->Rax, c->Rbx);
  Print("\r\nRCX=%016I64X RDX=%016I64X", c->Rcx, c->Rdx);
  Print("\r\nRDI=%016I64X RSI=%016I64X", c->Rdi, c->Rsi);
  Print("\r\nRSP=%016I64X RBP=%016I64X", c->Rsp, c->Rbp);
  Print("\r\nR8 =%016I64X R9 =%016I64X", c->R8, c->R9);
  Print("\r\nR10=%016I64X R11=%016I64X", c->R10, c->R11);
  Print("\r\nR12=%016I64X R13=%016I64X", c->R12, c->R13);
  Print("\r\nR14=%016I64X R15=%016I64X", c->R14, c->R15);
  Print("\r\nRIP=%016I64X CS =%08X EFL=%08X", c->Rip, c->SegCs, c->EFlags);
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

void PrintModuleOffset(std::uintptr_t address) {
  os::ModuleInfo m;
  if (os::FindModule(address, &m))
    Print("\r\n%hs, offset %08X", m.path, static_cast<std::uint64_t>(address - m.base));
  else
    Print("\r\n<<Unknown>>, offset %08X", static_cast<std::uint64_t>(address));
}

// One frame of the stack trace: the symbol and the distance into it, else the module and the offset.
// Only the first frame may lie outside every module (a jump to a wild address); beyond it such an
// address means the walk has left the frame chain (code without frame pointers), and ends the trace.
void CopyRaw(char* out, std::size_t capacity, const char* text) {
  std::size_t n = 0;
  for (; text[n] && n + 1 < capacity; ++n) out[n] = text[n];
  out[n] = 0;
}

bool StartsWith(const char* text, const char* prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

// Functions of the allocator, under the names the C library, the sanitizers and C++ give them.
bool IsAllocatorSymbol(const char* name) {
  for (const char* prefix : {"_Znw", "_Zna", "_Zdl", "_Zda"})  // operator new, new[], delete, delete[]
    if (StartsWith(name, prefix)) return true;
  for (const char* prefix : {"__interceptor_", "___interceptor_", "__libc_", "_int_", "__"})
    if (StartsWith(name, prefix)) {
      name += std::strlen(prefix);
      break;
    }
  for (const char* base : {"malloc", "free", "calloc", "realloc", "reallocarray", "memalign", "posix_memalign",
                           "aligned_alloc", "valloc", "pvalloc", "cfree", "tcache", "arena_get", "sysmalloc"})
    if (StartsWith(name, base)) return true;
  return false;
}

// Whether to demangle the names of a trace: always, except in a crash record whose stack passes
// through the allocator (demangling allocates, and the crashed thread may hold its lock).
bool DemangleTrace(const std::uintptr_t* frames, int n) {
  return !CrashRecordInProgress() || !StackInsideAllocator(frames, n);
}

bool PrintFrame(std::uintptr_t address, bool first, bool demangle) {
  os::SymbolInfo s;
  if (!os::LookupSymbol(address, &s)) {
    if (first) Print("\r\n[<<Unknown>> + %ud]", static_cast<std::uint64_t>(address));
    return false;
  }
  if (!s.symbol) {
    Print("\r\n[%hs + %ud]", BaseName(s.module_path), static_cast<std::uint64_t>(address - s.module_base));
    return true;
  }
  char name[512];
  if (demangle)
    os::DemangleName(s.symbol, name, sizeof name);
  else
    CopyRaw(name, sizeof name, s.symbol);
  Print("\r\n[%hs + %ud]", static_cast<const char*>(name), static_cast<std::uint64_t>(address - s.symbol_address));
  return true;
}

// The fault behind exception information, when it came from a signal: the crash being handled on this
// thread, or the last guarded fault that GetExceptionInfo handed out.
const os::FaultRecord* FaultBehind(const EXCEPTION_POINTERS* p) {
  if (t_fault) return t_fault;
  return p == &t_guard_pointers ? os::LastGuardedFault() : nullptr;
}

// The stack of the faulting context: as taken when the fault happened (a guard has unwound it since),
// else walked now along the context's frame pointers. Returns the number of frames.
int FaultFrames(const EXCEPTION_POINTERS* p, std::uintptr_t (&walked)[kMaxTraceFrames], const std::uintptr_t** frames) {
  const os::FaultRecord* fault = FaultBehind(p);
  if (fault && fault->frame_count > 0) {
    *frames = fault->frames;
    return fault->frame_count;
  }
  *frames = walked;
  return os::CaptureCallStack(p->ContextRecord->Rip, p->ContextRecord->Rbp, walked, kMaxTraceFrames);
}

void TraceOutException(const EXCEPTION_POINTERS* p, int depth) {
  std::uintptr_t walked[kMaxTraceFrames];
  const std::uintptr_t* frames = nullptr;
  const int n = FaultFrames(p, walked, &frames);
  const bool demangle = DemangleTrace(frames, n);
  for (int i = 0; i < n && i < depth; ++i)
    if (!PrintFrame(frames[i], i == 0, demangle)) break;
}

bool ContainsNoCase(const char* text, const char* part) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  for (; *text; ++text) {
    std::size_t k = 0;
    while (part[k] && text[k] && lower(text[k]) == lower(part[k])) ++k;
    if (!part[k]) return true;
  }
  return !*part;
}

// Whether a frame of the faulting stack lies in a module whose file name contains `filter`.
bool StackPassesFilter(const EXCEPTION_POINTERS* p, const char* filter) {
  std::uintptr_t walked[kMaxTraceFrames];
  const std::uintptr_t* frames = nullptr;
  const int n = FaultFrames(p, walked, &frames);
  os::ModuleInfo m;
  for (int i = 0; i < n; ++i)
    if (os::FindModule(frames[i], &m) && ContainsNoCase(m.path, filter)) return true;
  return false;
}

// Whether a fault caught by guarded code is reported, by its entry's trap mode and address bounds.
bool GuardedReportWanted(const tagZREXCENTRY* entry, const EXCEPTION_POINTERS* p, std::uintptr_t address) {
  if (!entry) return true;
  if (entry->dwTrapMode & kTrapSuppress) return false;
  if (entry->lower < entry->upper && (address < entry->lower || address >= entry->upper)) return false;
  if ((entry->dwTrapMode & kTrapFilter) && p->ContextRecord) {
    char filter[sizeof entry->szFilter + 1] = {};
    std::memcpy(filter, entry->szFilter, sizeof entry->szFilter);
    if (!StackPassesFilter(p, filter)) return false;
  }
  return true;
}

// ---- Preparing, writing and ending ----

void AppendSeparator(char* path) {
  const std::size_t n = std::strlen(path);
  if (n && path[n - 1] != '/' && n + 1 < kPathCapacity) path[n] = '/', path[n + 1] = 0;
}

void PrepareFacts() {
  std::lock_guard lock(g_facts_mutex);
  CrashFacts& f = g_facts;
  f.directory[0] = 0;
  if (f.override_directory[0]) {
    std::memcpy(f.directory, f.override_directory, sizeof f.directory);
  } else if (ZROBJ_GetAppRootDir) {
    WCHAR root[ZR_MAX_PATH] = {};
    if (ZROBJ_GetAppRootDir(root)) {
      os::FixedText text(f.directory, sizeof f.directory);
      text.AppendWide(std::u16string_view(root, std::char_traits<char16_t>::length(root)));
    }
  }
  AppendSeparator(f.directory);
  os::FixedText fallback(f.fallback_directory, sizeof f.fallback_directory);
  fallback.Append(os::WindowsDirectory().c_str());
  AppendSeparator(f.fallback_directory);
  os::GetUserLogonName(f.user, sizeof f.user);
  os::GetComputerNameText(f.computer, sizeof f.computer);
  os::GetLibraryVersionText(f.version, sizeof f.version);
  os::PrepareLocalTime();
  os::PrepareSignalStack();
  os::SymbolInfo warm;  // loads what symbol lookup needs now rather than inside the handler
  os::LookupSymbol(reinterpret_cast<std::uintptr_t>(&PrepareFacts), &warm);
}

const char* FilePath(char* buffer, const char* directory, const char* name) {
  os::FixedText text(buffer, kPathCapacity);
  text.Append(directory);
  text.Append(name);
  return buffer;
}

void EnterPhase(testing::CrashPhase phase) {
  if (const testing::CrashPhaseHook hook = g_phase_hook.load()) hook(phase);
}

// Opens the record where the files go; when that directory refuses it, in the settings directory,
// and says so on standard error; failing both, the record goes to standard error. Returns the
// directory that took the record (the dump goes beside it).
const char* OpenRecord() {
  char path[kPathCapacity];
  if (os::dmp_BeginCrashOutput(FilePath(path, g_facts.directory, "CrashRecord.txt"))) return g_facts.directory;
  char line[2 * kPathCapacity + 128];
  os::FixedText text(line, sizeof line);
  const char* shown = g_facts.directory[0] ? g_facts.directory : "the working directory";
  if (os::dmp_BeginCrashOutput(FilePath(path, g_facts.fallback_directory, "CrashRecord.txt"))) {
    text.Format("zrobj: crash record not writable in %s, written to %s\n", shown, static_cast<const char*>(path));
    os::WriteStandardError(line);
    return g_facts.fallback_directory;
  }
  text.Format("zrobj: crash record not writable in %s nor in %s, written to standard error\n", shown,
              static_cast<const char*>(g_facts.fallback_directory));
  os::WriteStandardError(line);
  return g_facts.directory;
}

void WriteDump(const char* path, EXCEPTION_POINTERS* p) {
  MinidumpRequest q;
  EXCEPTION_RECORD record;
  CONTEXT context;
  if (!p || !p->ExceptionRecord || !p->ContextRecord) {
    // No exception information: a breakpoint raised inside a guard supplies this thread's context.
    os::CaptureCurrentContext();
    const os::FaultRecord* fault = os::LastGuardedFault();
    if (!fault || !ExceptionFromFault(*fault, &record, &context)) return;
    q.fault = fault;
  } else {
    record = *p->ExceptionRecord;
    context = *p->ContextRecord;
    q.fault = t_fault;
  }
  EXCEPTION_POINTERS pointers{&record, &context};
  q.path = path;
  q.pointers = &pointers;
  q.thread_id = os::CurrentOsThreadId();
  q.level = CUnhandledException::iMiniDump;
  const ThreadInfoProvider* provider = g_provider.load();
  if (provider->get_dump_block) q.user_block = provider->get_dump_block(&q.user_size);
  WriteMinidump(q);  // failures are silent
}

struct EventPrinter {
  static void Print(const tagEVENTRECORD& record, void*) {
    char line[2048];
    FormatEventRecord(record, line, sizeof line);
    os::dmp_output(line);
  }
};

void PrintHeader() {
  const os::CivilTime t = os::LocalTimeNow();
  Print("\r\n\n----- Crash record -----\r\n%s,%u.%s.%u %02u:%02u:%02u:%u\r\n", kWeekdays[t.weekday % 7], t.day,
        kMonths[(t.month + 11) % 12], t.year, t.hour, t.minute, t.second, t.millisecond);
}

struct DumpPhase {
  const char* path;
  EXCEPTION_POINTERS* pointers;
  static void Run(void* self) {
    auto* phase = static_cast<DumpPhase*>(self);
    EnterPhase(testing::CrashPhase::kDump);
    WriteDump(phase->path, phase->pointers);
  }
};

// The minidump within its own time; a dump cut short is removed rather than left half written.
void WriteDumpWithinBudget(const char* directory, EXCEPTION_POINTERS* p) {
  char path[kPathCapacity];
  DumpPhase phase{FilePath(path, directory, "crashdump.dmp"), p};
  const unsigned budget = g_dump_budget_seconds.load();
  if (os::RunWithinBudget(&DumpPhase::Run, &phase, budget)) return;
  os::RemoveFileNow(path);
  char line[kPathCapacity + 96];
  os::FixedText text(line, sizeof line);
  text.Format("zrobj: minidump abandoned after %u s, %s removed\n", budget, static_cast<const char*>(path));
  os::WriteStandardError(line);
}

// Steps 1 to 13 of the handler: everything but ending the process. Output goes straight to the
// record's file, past every lock: the crashed thread may hold the output's own.
void WriteCrashRecord(EXCEPTION_POINTERS* p) {
  os::Is_wPrintf_Active(1);
  SetDebugMode(1);
  const char* directory = OpenRecord();
  if (CUnhandledException::iMiniDump != 0) WriteDumpWithinBudget(directory, p);
  os::ArmCrashWatchdog(g_record_budget_seconds.load());
  EnterPhase(testing::CrashPhase::kRecord);
  PrintHeader();
  Print("\rApplication: %s\r\n", OrUnknown(os::ProcessImagePath()));
  if (CUnhandledException::szState[0])
    Print("\rState      : %s\r\n", static_cast<const WCHAR*>(CUnhandledException::szState));
  else
    Print("\rState      : <<Unknown>>\r\n");
  Print("\rUser       : %s\r\n", OrUnknown(g_facts.user));
  Print("\rComputer   : %s\r\n", OrUnknown(g_facts.computer));
  CUnhandledException::AnalyseException(p, 0);
  if (const ThreadInfoProvider* provider = g_provider.load(); provider->dump) provider->dump();
  Print("\r<<EventList>>\r\n");
  VisitEventRecords(EventPrinter::Print, nullptr, kEventLockWaitMs);
  CUnhandledException::DumpAppDLLs(1);
  if (CUnhandledException::bDisable) Print("\r >>> Invoking OS handler\r\n");
  Print("\r\n\n----- Crash record END -----\r\n");
  os::dmp_EndCrashOutput();
}

// A thread that crashed while another writes the record waits for the process to end with it.
[[noreturn]] void WaitForProcessEnd(int status) {
  g_parked.fetch_add(1);
  const unsigned wait_ms = (g_dump_budget_seconds.load() + g_record_budget_seconds.load() + 5) * 1000;
  for (unsigned waited = 0; waited < wait_ms; waited += 10) ::zr::os::Sleep(10);
  os::TerminateProcessNow(status);
}

}  // namespace

// Connects the fault handlers of the platform to the handler of this class.
class CrashHandler {
 public:
  static void OnFault(const os::FaultRecord& fault) {
    EXCEPTION_RECORD record;
    CONTEXT context;
    const bool has_context = ExceptionFromFault(fault, &record, &context);
    EXCEPTION_POINTERS pointers{&record, has_context ? &context : nullptr};
    t_fault = &fault;
    const long result = CUnhandledException::TopLevelExceptionFilter(&pointers);
    t_fault = nullptr;
    if (result == EXCEPTION_CONTINUE_SEARCH) return;  // the system's default action follows
    WaitForProcessEnd(ExitStatusOf(&pointers));
  }
};

bool CrashRecordInProgress() { return g_crash_owner.load() != 0; }

bool StackInsideAllocator(const std::uintptr_t* frames, int count) {
  for (int i = 0; i < count; ++i) {
    os::SymbolInfo s;
    if (os::LookupSymbol(frames[i], &s) && s.symbol && IsAllocatorSymbol(s.symbol)) return true;
  }
  return false;
}

const ThreadInfoProvider* SetThreadInfoProvider(const ThreadInfoProvider* provider) {
  return g_provider.exchange(provider ? provider : &kDefaultProvider);
}

bool GetRegisteredThreadName(DWORD thread_id, WCHAR* buffer, unsigned length) {
  if (!buffer || length == 0) return false;
  buffer[0] = 0;
  const ThreadInfoProvider* provider = g_provider.load();
  const bool known = provider->get_name && provider->get_name(thread_id, buffer, length);
  buffer[length - 1] = 0;
  if (!known) buffer[0] = 0;
  return known;
}

void SetCrashRecordDirectory(const WCHAR* directory) {
  {
    std::lock_guard lock(g_facts_mutex);
    os::FixedText text(g_facts.override_directory, sizeof g_facts.override_directory);
    if (directory) text.AppendWide(std::u16string_view(directory, std::char_traits<char16_t>::length(directory)));
  }
  PrepareFacts();
}

const tagZREXCENTRY* GetDefaultExceptionTable() { return DefaultExceptionTable(); }

unsigned GetParkedCrashThreadCount() { return g_parked.load(); }

void testing::SetCrashBudgets(unsigned dump_seconds, unsigned record_seconds) {
  g_dump_budget_seconds.store(dump_seconds);
  g_record_budget_seconds.store(record_seconds);
}

void testing::SetCrashPhaseHook(CrashPhaseHook hook) { g_phase_hook.store(hook); }

}  // namespace zr

CUnhandledException::CUnhandledException() {
  bDisable = ZROBJ_GetProfileInt("UnhandledException", "Disable", 0, 1) == 1;  // only 1 hands over
  iMiniDump = ZROBJ_GetProfileInt("UnhandledException", "MiniDump", 0, 1);
  bShowStolen = ZROBJ_GetProfileInt("UnhandledException", "ShowStolen", 0, 1) != 0;
  zr::PrepareFacts();
  os::InstallFaultHandlers();
  os::SetCrashHook(&zr::CrashHandler::OnFault);
  ++uLockCnt;
}

CUnhandledException::~CUnhandledException() {
  if (uLockCnt == 1) os::SetCrashHook(nullptr);
  if (uLockCnt != 0) --uLockCnt;
}

int CUnhandledException::ReInit() {
  if (uLockCnt == 0) return 0;
  std::uintptr_t foreign = os::InstallFaultHandlers();
  const os::CrashHook previous = os::SetCrashHook(&zr::CrashHandler::OnFault);
  if (!foreign && previous && previous != &zr::CrashHandler::OnFault) foreign = reinterpret_cast<std::uintptr_t>(previous);
  WCHAR module[ZR_MAX_PATH];
  unsigned char probe = 0;
  if (foreign && os::ProbeRead(reinterpret_cast<const void*>(foreign), &probe, 1) &&
      GetModuleFilenameFromAddress(reinterpret_cast<const void*>(foreign), module) && IsDebugOn())
    os::wPrintf(bShowStolen ? 0x80000000u : 0u, 0, u"\rUHE reset to Fluxor from module %s\r\n", static_cast<const WCHAR*>(module));
  return 1;
}

int CUnhandledException::SetState(const WCHAR* text) {
  os::WStrCopy(szState, kStateLength, text ? text : u"");
  return 1;
}

long CUnhandledException::TopLevelExceptionFilter(EXCEPTION_POINTERS* pointers) {
  const DWORD self = os::CurrentOsThreadId();
  if (zr::g_crash_started.exchange(true)) {
    // Only the first crash writes a record; a fault inside the handler itself ends the process now.
    if (zr::g_crash_owner.load() == self) os::TerminateProcessNow(zr::ExitStatusOf(pointers));
    return EXCEPTION_EXECUTE_HANDLER;
  }
  zr::g_crash_owner.store(self);
  zr::WriteCrashRecord(pointers);
  if (bDisable) {
    os::ArmCrashWatchdog(0);
    return EXCEPTION_CONTINUE_SEARCH;
  }
  os::TerminateProcessNow(zr::ExitStatusOf(pointers));
}

void CUnhandledException::AnalyseException(EXCEPTION_POINTERS* pointers, DWORD flag) {
  using namespace zr;
  const EXCEPTION_RECORD* record = pointers ? pointers->ExceptionRecord : nullptr;
  const CONTEXT* context = pointers ? pointers->ContextRecord : nullptr;
  const int index = record ? ExceptionIndex(record->ExceptionCode) : -1;
  const tagZREXCENTRY* entry = index >= 0 ? &ZROBJ_GetExceptionTable()[index] : nullptr;
  const DWORD mode = entry ? entry->dwTrapMode : 0;
  const std::uintptr_t address = record ? reinterpret_cast<std::uintptr_t>(record->ExceptionAddress) : 0;
  if (flag && !GuardedReportWanted(entry, pointers, address)) return;

  if (record)
    Print("\r\nException 0x%08X @ 0x%08X\r\n", record->ExceptionCode, static_cast<std::uint64_t>(address));
  else
    Print("\r\nException, NO EXCEPTION INFORMATION!!!!!\r\n");
  const os::CivilTime now = os::LocalTimeNow();
  Print("\r\n  %hd.%hd.%hd  %hd:%hd:%hd\r\n", now.day, now.month, now.year, now.hour, now.minute, now.second);
  PrintThreadLine(os::CurrentOsThreadId());
  if (g_facts.version[0]) Print("Build %s of %s\r\n", static_cast<const char*>(g_facts.version), kBuildDate);
  if (flag == 0 || (mode & kTrapFull)) {
    PrintSystemFigures();
    PrintRegisters(context);
  }
  if (record) {
    if (index >= 0)
      Print("\r\n%s @ 0x%08X", static_cast<const WCHAR*>(DefaultExceptionTable()[index].szName), static_cast<std::uint64_t>(address));
    else
      Print("\r\nException 0x%08X @ 0x%08X", record->ExceptionCode, static_cast<std::uint64_t>(address));
    PrintModuleOffset(address);
  }
  if (context) TraceOutException(pointers, flag && (mode & kTrapOneFrame) ? 1 : kMaxTraceFrames);
  Print("\r\n");
  if (flag && (mode & kTrapBreak)) os::BreakIntoDebugger();
}

EXCEPTION_POINTERS* CUnhandledException::GetExceptionInfo() {
  const os::FaultRecord* fault = os::LastGuardedFault();
  if (!fault) return nullptr;
  const bool has_context = zr::ExceptionFromFault(*fault, &zr::t_guard_record, &zr::t_guard_context);
  zr::t_guard_pointers = {&zr::t_guard_record, has_context ? &zr::t_guard_context : nullptr};
  return &zr::t_guard_pointers;
}

HMODULE CUnhandledException::GetModuleFilenameFromAddress(const void* address, WCHAR* buffer) {
  if (buffer) buffer[0] = 0;
  os::ModuleInfo m;
  if (!os::FindModule(reinterpret_cast<std::uintptr_t>(address), &m)) return nullptr;
  if (buffer) os::Utf8ToUtf16Fixed(m.path, buffer, ZR_MAX_PATH);
  return reinterpret_cast<HMODULE>(m.base);
}

void CUnhandledException::DumpAppDLLs(DWORD flag) {
  zr::Print("\r\n<<Loaded libraries>>\r\n");
  os::ForEachModule(
      [](const os::ModuleInfo& m, void* context) {
        const bool all = (*static_cast<const DWORD*>(context) & 1) != 0;
        if (all || m.is_main || !os::IsSystemModule(m.path))
          zr::Print("\r%016I64X %08I64X %hs\r\n", static_cast<std::uint64_t>(m.base), m.size, m.path);
        return true;
      },
      &flag);
}
