// The thread register: a table of {thread id, name in "ThreadHeap"} growing by 16 entries, the
// "exited" and busy-statistics lines when a thread unregisters, dumps for crash records, and the
// library's thread attach and detach steps.
#include "zrobj/costhread.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "zrobj/byteorder.h"
#include "platform/clock.h"
#include "platform/crashio.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/platdiag.h"
#include "memory/heap/privheap_internal.h"
#include "platform/text.h"
#include "platform/threads.h"
#include "platform/threadtimes.h"
#include "platform/waitable.h"
#include "zrobj/cheap.h"
#include "zrobj/coslock.h"
#include "frame/frame_internal.h"
#include "os/threads/costhread_internal.h"
#include "zrobj/zrcrash.h"
#include "frame/services/zrcrash_internal.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr unsigned kGrowBy = 16;

struct Entry {
  DWORD thread_id;
  WCHAR* name;
};

struct RegisterTable {
  Entry* entries = nullptr;
  unsigned count = 0;
  unsigned capacity = 0;
  bool enabled = true;
};

RegisterTable g_register;

// Never destroyed: threads may unregister from thread-exit callbacks late in shutdown. A forked
// child makes it anew (its holder in the parent does not exist there).
alignas(COSCriticalSection) unsigned char g_lock_storage[sizeof(COSCriticalSection)];
COSCriticalSection* MakeRegisterLock() { return ::new (static_cast<void*>(g_lock_storage)) COSCriticalSection(); }
COSCriticalSection& RegisterLock() {
  static COSCriticalSection* lock = MakeRegisterLock();
  return *lock;
}

CHeap* NameHeap() { return zr::GetLibraryHeap("ThreadHeap"); }

std::size_t Length(const WCHAR* text) {
  std::size_t n = 0;
  while (text && text[n]) ++n;
  return n;
}

void FreeName(Entry& entry) {
  if (entry.name && NameHeap()) NameHeap()->Free(entry.name, 0);
  entry.name = nullptr;
}

// A copy in "ThreadHeap" (4 bytes per character plus 4); null for an empty name.
WCHAR* CopyName(const WCHAR* name) {
  const std::size_t n = Length(name);
  CHeap* heap = NameHeap();
  if (n == 0 || !heap) return nullptr;
  auto* copy = static_cast<WCHAR*>(heap->Alloc(static_cast<unsigned long>(4 * n + 4), 0, "src/zrobj/cosobj_thread", __LINE__, 0));
  if (!copy) return nullptr;
  std::memcpy(copy, name, n * sizeof(WCHAR));
  copy[n] = 0;
  return copy;
}

// Caller holds the lock.
Entry* Find(DWORD thread_id) {
  for (unsigned i = 0; i < g_register.count; ++i)
    if (g_register.entries[i].thread_id == thread_id) return &g_register.entries[i];
  return nullptr;
}

bool Grow() {
  const unsigned capacity = g_register.capacity + kGrowBy;
  auto* entries = new (std::nothrow) Entry[capacity]();
  if (!entries) return false;
  if (g_register.count) std::memcpy(entries, g_register.entries, g_register.count * sizeof(Entry));
  delete[] g_register.entries;
  g_register.entries = entries;
  g_register.capacity = capacity;
  return true;
}

// A duration as FileTimeToSystemTime shows it: hours wrap at 24.
struct Clock {
  int h, m, s, ms;
};
Clock ToClock(std::uint64_t units) {
  const std::uint64_t ms = units / 10000;
  return {static_cast<int>(ms / 3600000 % 24), static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
          static_cast<int>(ms % 1000)};
}

void WriteBusyLine(DWORD thread_id) {
  os::ThreadTimes times;
  if (!os::GetThreadTimesById(thread_id, &times)) return;
  const std::uint64_t now = os::GetSystemTimeAsFileTime();
  const std::uint64_t lifetime = now > times.creation ? now - times.creation : 0;
  const int busy = lifetime ? static_cast<int>((times.kernel + times.user) * 100 / lifetime) : 0;
  const Clock life = ToClock(lifetime), user = ToClock(times.user), kernel = ToClock(times.kernel);
  os::wPrintf(0, 15,
          u"\r  Busy=%3d%% Lifetime %2d:%02d:%02d.%03d (User:%2d:%02d:%02d.%03d, Kernel:%2d:%02d:%02d.%03d)\r\n",
          busy, life.h, life.m, life.s, life.ms, user.h, user.m, user.s, user.ms, kernel.h, kernel.m, kernel.s,
          kernel.ms);
}

const WCHAR* Shown(const WCHAR* name) { return name ? name : u""; }

std::size_t EntryBytes(const Entry& e) { return (8 + (Length(e.name) + 1) * sizeof(WCHAR) + 3) & ~std::size_t{3}; }

// Caller holds the lock.
std::size_t DumpBytes() {
  std::size_t total = 4;
  for (unsigned i = 0; i < g_register.count; ++i) total += EntryBytes(g_register.entries[i]);
  return total;
}

// Writes the dump block (layout in costhread.h) into `out`, as many whole entries as fit; returns
// the bytes written. Caller holds the lock (or the crash handler gave up waiting for it).
std::size_t WriteDump(unsigned char* out, std::size_t capacity) {
  if (capacity < 4) return 0;
  DWORD count = 0;
  std::size_t at = 4;
  for (unsigned i = 0; i < g_register.count; ++i, ++count) {
    const Entry& e = g_register.entries[i];
    const std::size_t bytes = EntryBytes(e);
    if (at + bytes > capacity) break;
    const DWORD chars = static_cast<DWORD>(Length(e.name));
    std::memset(out + at, 0, bytes);
    zr::StoreLE32(out + at, e.thread_id);
    zr::StoreLE32(out + at + 4, chars);
    if (chars) std::memcpy(out + at + 8, e.name, chars * sizeof(WCHAR));
    at += bytes;
  }
  zr::StoreLE32(out, count);
  return at;
}

// Copies a registered name, terminated, at most length-1 characters. Caller holds the lock.
bool CopyTerminatedName(DWORD thread_id, WCHAR* buffer, unsigned length) {
  if (!buffer || length == 0) return false;
  buffer[0] = 0;
  const Entry* entry = Find(thread_id);
  if (!entry || !entry->name) return false;
  os::WStrCopy(buffer, length, entry->name);
  return true;
}

// ---- What the crash handler (and the event log) asks ----
// Read under the register lock. While a crash record is being written the lock is polled for at
// most 100 ms and then the register is read without it: a holder that crashed never leaves.

constexpr unsigned kCrashLockWaitMs = 100;

template <class F>
auto ReadRegister(F&& read) {
  COSCriticalSection& lock = RegisterLock();
  if (!zr::CrashRecordInProgress()) {
    COSAutoLock guard(&lock);
    return read();
  }
  const bool locked = zr::TryEnterPolled(lock, kCrashLockWaitMs);
  auto result = read();
  if (locked) lock.Leave();
  return result;
}

bool CrashThreadName(DWORD thread_id, WCHAR* buffer, unsigned length) {
  return ReadRegister([&] { return CopyTerminatedName(thread_id, buffer, length); });
}

void CrashThreadDump() {
  ReadRegister([] {
    char line[512];
    os::dmp_output("\rThreadList\r\n");
    for (unsigned i = 0; i < g_register.count; ++i) {
      os::FixedText text(line, sizeof line);
      text.Format("\r%08X %s\r\n", g_register.entries[i].thread_id, Shown(g_register.entries[i].name));
      os::dmp_output(line);
    }
    return 0;
  });
}

const void* CrashThreadBlock(unsigned long* size) {
  static unsigned char block[64 * 1024];
  const std::size_t n = ReadRegister([] { return WriteDump(block, sizeof block); });
  if (size) *size = static_cast<unsigned long>(n);
  return n ? block : nullptr;
}

constexpr zr::ThreadInfoProvider kRegisterProvider{CrashThreadName, CrashThreadDump, CrashThreadBlock};

// ---- Forks ----
// The forking thread keeps its entry in the child under the child's thread id; entries of the
// parent's other threads stay (their names are freed with the rest at exit).

void LockForFork() { RegisterLock().Enter(); }
void UnlockAfterFork() { RegisterLock().Leave(); }
void RekeyInChild(DWORD parent_thread_id) {
  MakeRegisterLock();
  if (Entry* entry = Find(parent_thread_id)) entry->thread_id = os::GetCurrentThreadId();
}

void InstallRegisterHooks() {
  static const bool installed = [] {
    zr::SetThreadInfoProvider(&kRegisterProvider);
    return os::AddForkHandlers(LockForFork, UnlockAfterFork, RekeyInChild);
  }();
  (void)installed;
}

}  // namespace

COSThreadRegister::COSThreadRegister(const WCHAR* name) : thread_id_(os::GetCurrentThreadId()) {
  Register(thread_id_, name);
}
COSThreadRegister::~COSThreadRegister() { Unregister(thread_id_); }

int COSThreadRegister::Register(unsigned long threadId, const WCHAR* name) {
  if (!g_register.enabled) return 0;
  COSAutoLock lock(&RegisterLock());
  Entry* entry = Find(static_cast<DWORD>(threadId));
  if (!entry) {
    if (g_register.count == g_register.capacity && !Grow()) return 0;
    entry = &g_register.entries[g_register.count++];
    *entry = Entry{static_cast<DWORD>(threadId), nullptr};
  }
  FreeName(*entry);
  entry->name = CopyName(name);
  return 1;
}

int COSThreadRegister::Unregister(unsigned long threadId) {
  const auto id = static_cast<DWORD>(threadId);
  {
    COSAutoLock lock(&RegisterLock());
    Entry* entry = Find(id);
    if (entry) {
      if (entry->name) os::wPrintf(0, 15, u"\rThread %s exited\r\n", entry->name);
      FreeName(*entry);
      *entry = g_register.entries[--g_register.count];
    }
  }
  WriteBusyLine(id);
  return 1;
}

int COSThreadRegister::GetName(unsigned long threadId, WCHAR* buffer, unsigned int length) {
  if (!buffer) return 0;
  COSAutoLock lock(&RegisterLock());
  const Entry* entry = Find(static_cast<DWORD>(threadId));
  if (!entry || !entry->name) return 0;
  const std::size_t n = std::min<std::size_t>(Length(entry->name), length);
  std::memcpy(buffer, entry->name, n * sizeof(WCHAR));
  if (n < length) buffer[n] = 0;
  return 1;
}

int COSThreadRegister::GetCurrentName(WCHAR* buffer, unsigned int length) {
  zr::EnsureThreadAttached();  // a thread that asks for its name before anything else gets one
  return GetName(os::GetCurrentThreadId(), buffer, length);
}

int COSThreadRegister::AppExit() {
  COSAutoLock lock(&RegisterLock());
  for (unsigned i = 0; i < g_register.count; ++i) {
    Entry& entry = g_register.entries[i];
    os::wPrintf(0, 0, u"\rCOSThreadRegister::AppExit: %08X %s", entry.thread_id, Shown(entry.name));
    FreeName(entry);
  }
  delete[] g_register.entries;
  g_register = RegisterTable{};
  return 1;
}

void COSThreadRegister::DumpRegistered() {
  if (!g_register.enabled) return;
  if (IsDebugOn()) os::wPrintf(0, 0, u"\rCOSThreadRegister::DumpRegistered\r\n");
  COSAutoLock lock(&RegisterLock());
  os::wPrintf(0, 0, u"\rThreadList\r\n");
  for (unsigned i = 0; i < g_register.count; ++i)
    os::wPrintf(0, 0, u"\r%08X %s\r\n", g_register.entries[i].thread_id, Shown(g_register.entries[i].name));
}

void COSThreadRegister::FreeThreadDump(void* block) {
  if (block) zr::HeapFree(zr::GetProcessHeap(), 0, block);
}

void* COSThreadRegister::GetThreadDump(unsigned long& size) {
  size = 0;
  if (!g_register.enabled) return nullptr;
  COSAutoLock lock(&RegisterLock());
  if (g_register.count == 0) return nullptr;
  const std::size_t total = DumpBytes();
  auto* block = static_cast<unsigned char*>(zr::HeapAlloc(zr::GetProcessHeap(), zr::HEAP_ZERO_MEMORY, total));
  if (!block) return nullptr;
  size = static_cast<unsigned long>(WriteDump(block, total));
  return block;
}

int COS_RegisterThread(unsigned long threadId, const WCHAR* name) {
  int result = 0;
  const std::uint32_t code = os::Guarded([&] { result = COSThreadRegister::Register(threadId, name); });
  if (code != 0) os::wPrintf(0, 0, u"\r>>>COSRegisterThread::Exception\r\n");
  return result;
}

// ---- The library's thread attach and detach steps ----

BOOL zr::steps::GetCurrentThreadName(WCHAR* buffer, UINT len) {
  COSAutoLock lock(&RegisterLock());
  return CopyTerminatedName(os::GetCurrentThreadId(), buffer, len) ? TRUE : FALSE;
}

void zr::steps::RegisterCurrentThread(const WCHAR* name) {
  InstallRegisterHooks();
  COSThreadRegister::Register(os::GetCurrentThreadId(), name);
}

void zr::steps::UnregisterCurrentThread() { COSThreadRegister::Unregister(os::GetCurrentThreadId()); }

void zr::steps::ExitThreadRegister() { COSThreadRegister::AppExit(); }
