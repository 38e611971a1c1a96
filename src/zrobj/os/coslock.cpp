// The library's locks: COSCriticalSection with its contention report, CSharedCriticalSection,
// COSRWInterlock (writer preference, 32 reader slots, upgrade, reads inside a write) and the guards.
#include <algorithm>
#include <new>
#include <optional>
#include <string>

#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/platdiag.h"
#include "platform/text.h"
#include "platform/waitable.h"
#include "zrobj/cheap.h"
#include "zrobj/coslock.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {
constexpr const char* kSourceFile = "src/zrobj/cosobj";  // the source named by beeps and heap records
constexpr UINT kBeepError = static_cast<UINT>(-1);
constexpr int kCSHeapLine = 147;
}  // namespace

namespace zr {

// Every critical section made with new lives in the "CSHeap" debug heap, recorded with `file` and
// `line`, so leaked sections show up in that heap's leak report.
namespace {
CHeap* CriticalSectionHeap() {
  static CHeap* const heap = GetLibraryHeap("CSHeap");
  return heap;
}
}  // namespace

void* CriticalSectionHeapAlloc(std::size_t size, const char* file, int line) {
  return CriticalSectionHeap()->Alloc(static_cast<unsigned long>(size), 0, file, line,
                                      reinterpret_cast<unsigned long>(__builtin_return_address(0)));
}

void CriticalSectionHeapFree(void* block) {
  if (block) CriticalSectionHeap()->Free(block, 0);
}

}  // namespace zr

namespace {

template <class T, std::size_t N>
T* In(zr::LockStorage<N>& storage) {
  static_assert(sizeof(T) <= N && alignof(T) <= alignof(zr::LockStorage<N>), "storage too small");
  return std::launder(reinterpret_cast<T*>(storage.bytes));
}

// The readable form of a code address, when it names a loaded module.
std::optional<std::u16string> ResolveSite(std::uintptr_t address) {
  os::ZrAddressInfo info;
  if (address == 0 || !os::GetAddressInfo(address, &info)) return std::nullopt;
  return os::Utf8ToUtf16(os::GetAddressInfoString(address));
}

// A breakpoint that only a debugger sees: without one, the guard swallows the trap.
void GuardedDebugBreak() {
  os::Guarded([] {
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("int3");
#elif defined(__aarch64__)
    asm volatile("brk #0");
#endif
  });
}

class SectionLock {
 public:
  explicit SectionLock(os::CRITICAL_SECTION* section) : section_(section) { os::lib::EnterSection(section_); }
  ~SectionLock() { os::lib::LeaveSection(section_); }
  SectionLock(const SectionLock&) = delete;
  SectionLock& operator=(const SectionLock&) = delete;

 private:
  os::CRITICAL_SECTION* section_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// COSCriticalSection

COSCriticalSection::COSCriticalSection() : COSCriticalSection(0) {}

COSCriticalSection::COSCriticalSection(int noInit) {
  new (m_section.bytes) os::CRITICAL_SECTION;
  if (!noInit) os::InitializeCriticalSection(In<os::CRITICAL_SECTION>(m_section));
}

COSCriticalSection::COSCriticalSection(unsigned long spinCount) {
  new (m_section.bytes) os::CRITICAL_SECTION;
  os::InitializeCriticalSectionAndSpinCount(In<os::CRITICAL_SECTION>(m_section),
                                        static_cast<DWORD>(std::min<unsigned long>(spinCount, 0xFFFFFFFFul)));
}

COSCriticalSection::~COSCriticalSection() {
  if (LockCnt.load(std::memory_order_relaxed) != 0 && IsDebugOn())
    os::wPrintf(3, 1, u"\r\nCOSCriticalSection::~COSCriticalSection: LockCnt!=0, possible deadlock");
  os::DeleteCriticalSection(In<os::CRITICAL_SECTION>(m_section));
  In<os::CRITICAL_SECTION>(m_section)->~CRITICAL_SECTION();
}

void COSCriticalSection::Init() {
  os::InitializeCriticalSection(In<os::CRITICAL_SECTION>(m_section));
  LockCnt.store(0, std::memory_order_relaxed);
}

void COSCriticalSection::Enter() { Enter(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0))); }

void COSCriticalSection::Enter(std::uintptr_t callSite) {
  if (IsDebugOn()) return EnterWithDiagnostics(callSite);
  os::lib::EnterSection(In<os::CRITICAL_SECTION>(m_section));
  LockCnt.store(LockCnt.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void COSCriticalSection::EnterWithDiagnostics(std::uintptr_t callSite) {
  os::CRITICAL_SECTION* section = In<os::CRITICAL_SECTION>(m_section);
  // Owner and count are read without the lock: a diagnostic that may misreport under races.
  const DWORD self = os::lib::CurrentThreadId();
  const DWORD count = LockCnt.load(std::memory_order_relaxed);
  const DWORD owner = m_owningThread.load(std::memory_order_relaxed);
  if (count != 0 && owner != self) {
    ReportContention(count, owner, self, callSite);
    const DWORD start = os::GetTickCount();
    os::lib::EnterSection(section);
    os::wPrintf(3, 5, u"\r%08X entered CS previously blocked by %08X after %u ms", self, owner, os::GetTickCount() - start);
  } else {
    os::lib::EnterSection(section);
  }
  m_owningThread.store(self, std::memory_order_relaxed);
  const DWORD held = LockCnt.load(std::memory_order_relaxed);
  if (held == 0) m_entryAddress.store(callSite, std::memory_order_relaxed);
  LockCnt.store(held + 1, std::memory_order_relaxed);
}

void COSCriticalSection::ReportContention(DWORD count, DWORD owner, DWORD self, std::uintptr_t callSite) const {
  os::wPrintf(3, 5, u"\rCS [LockCnt=%u] owned by %08X ", count, owner);
  if (auto owner_site = ResolveSite(m_entryAddress.load(std::memory_order_relaxed)))
    os::wPrintf(3, 5, u"<< %s >>\r\n", *owner_site);
  os::wPrintf(3, 5, u"is blocking thread %08X ", self);
  if (auto own_site = ResolveSite(callSite))
    os::wPrintf(3, 5, u"<< %s >>\r\n", *own_site);
  else
    os::wPrintf(3, 5, u"\r");
}

bool zr::TryEnterPolled(COSCriticalSection& section, unsigned wait_ms) {
  for (unsigned waited = 0; !section.TryEnter(); ++waited) {
    if (waited >= wait_ms) return false;
    ::zr::os::Sleep(1);
  }
  return true;
}

int COSCriticalSection::TryEnter() {
  const int entered = os::lib::TryEnterSection(In<os::CRITICAL_SECTION>(m_section));
  if (entered) {
    m_owningThread.store(os::lib::CurrentThreadId(), std::memory_order_relaxed);
    LockCnt.store(LockCnt.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  return entered;
}

void COSCriticalSection::Leave() {
  const DWORD count = LockCnt.load(std::memory_order_relaxed);
  if (count == 0) return LeaveUnheld();
  LockCnt.store(count - 1, std::memory_order_relaxed);
  os::lib::LeaveSection(In<os::CRITICAL_SECTION>(m_section));
}

void COSCriticalSection::LeaveUnheld() {
  if (IsDebugOn()) os::wPrintf(3, 1, u"\r\nCOSCriticalSection::Leave: LockCnt==0 on leave, possible deadlock");
  GuardedDebugBreak();
  os::lib::LeaveSection(In<os::CRITICAL_SECTION>(m_section));
}

DWORD COSCriticalSection::GetOwningThread() const { return m_owningThread.load(std::memory_order_relaxed); }

void* COSCriticalSection::operator new(std::size_t size) noexcept {
  return zr::CriticalSectionHeapAlloc(size, kSourceFile, kCSHeapLine);
}

void COSCriticalSection::operator delete(void* block) noexcept { zr::CriticalSectionHeapFree(block); }

// ---------------------------------------------------------------------------------------------
// CSharedCriticalSection and COSAutoLock

CSharedCriticalSection::CSharedCriticalSection() = default;

CSharedCriticalSection* CSharedCriticalSection::Create() {
  auto* section = new CSharedCriticalSection;  // class operator new: null when the heap is exhausted
  if (section) section->m_refCount.store(1, std::memory_order_relaxed);
  return section;
}

int CSharedCriticalSection::Lock() {
  m_refCount.fetch_add(1, std::memory_order_relaxed);
  return 1;
}

void CSharedCriticalSection::Destroy() {
  DWORD refs = m_refCount.load(std::memory_order_relaxed);
  do {
    if (refs == 0) return;
  } while (!m_refCount.compare_exchange_weak(refs, refs - 1, std::memory_order_acq_rel));
  if (refs == 1) delete this;
}

COSAutoLock::COSAutoLock(COSCriticalSection* cs) : m_cs(cs) {
  // The guard identifies itself by an address of its own code.
here:
  if (m_cs) m_cs->Enter(reinterpret_cast<std::uintptr_t>(&&here));
}

COSAutoLock::~COSAutoLock() {
  if (m_cs) m_cs->Leave();
}

// ---------------------------------------------------------------------------------------------
// COSRWInterlock

namespace {
constexpr DWORD kInterlockSpin = 4000;

os::CRITICAL_SECTION* AsSection(zr::LockStorage<16>& storage) { return In<os::CRITICAL_SECTION>(storage); }
os::LocalSemaphore* AsSemaphore(zr::LockStorage<24>& storage) { return In<os::LocalSemaphore>(storage); }
os::LocalEvent* AsEvent(zr::LockStorage<24>& storage) { return In<os::LocalEvent>(storage); }
}  // namespace


COSRWInterlock::COSRWInterlock() {
  os::InitializeCriticalSectionAndSpinCount(new (m_section.bytes) os::CRITICAL_SECTION, kInterlockSpin);
  new (m_writeSem.bytes) os::LocalSemaphore(1, 1);
  new (m_upgradeSem.bytes) os::LocalSemaphore(1, 1);
  new (m_readerSlots.bytes) os::LocalSemaphore(kReaderSlots, kReaderSlots);
  new (m_readerGate.bytes) os::LocalEvent(true, true);
}

COSRWInterlock::~COSRWInterlock() {
  if (IsDebugOn()) {
    if (uWrite.load(std::memory_order_relaxed)) os::wPrintf(0, 4, u"\rCOSRWInterlock::~COSRWInterlock: uWrite != 0\r\n");
    if (uRead.load(std::memory_order_relaxed)) os::wPrintf(0, 4, u"\rCOSRWInterlock::~COSRWInterlock: uRead != 0\r\n");
    if (WriteReadRecursion.load(std::memory_order_relaxed))
      os::wPrintf(0, 4, u"\rCOSRWInterlock::~COSRWInterlock: WriteReadRecursion != 0\r\n");
  }
  os::DeleteCriticalSection(AsSection(m_section));
  AsSection(m_section)->~CRITICAL_SECTION();
  AsSemaphore(m_writeSem)->~LocalSemaphore();
  AsSemaphore(m_upgradeSem)->~LocalSemaphore();
  AsSemaphore(m_readerSlots)->~LocalSemaphore();
  AsEvent(m_readerGate)->~LocalEvent();
}

int COSRWInterlock::FindReaderSlot(DWORD threadId) const {
  for (int i = 0; i < kReaderSlots; ++i)
    if (OwningThreadRead[i].load(std::memory_order_acquire) == threadId) return i;
  return -1;
}

// Whether a slot holds a reader that is not waiting to upgrade.
bool COSRWInterlock::OthersReading() const {
  for (int i = 0; i < kReaderSlots; ++i) {
    if (OwningThreadRead[i].load(std::memory_order_acquire) == 0) continue;
    if (!(m_readRecursion[i].load(std::memory_order_acquire) & kUpgradePending)) return true;
  }
  return false;
}

void COSRWInterlock::DropWaitingWriter() {
  SectionLock lock(AsSection(m_section));
  const DWORD waiting = m_waitingWriters.load(std::memory_order_relaxed) - 1;
  m_waitingWriters.store(waiting, std::memory_order_relaxed);
  if (waiting == 0) AsEvent(m_readerGate)->Set();
}

void COSRWInterlock::EnterWrite() {
  const DWORD self = os::lib::CurrentThreadId();
  if (m_writeOwner.load(std::memory_order_relaxed) == self) {
    uWrite.store(uWrite.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  if (AsSemaphore(m_writeSem)->Wait(0) == WAIT_OBJECT_0) {
    AsEvent(m_readerGate)->Reset();
    m_writeOwner.store(self, std::memory_order_relaxed);
    uWrite.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  {
    SectionLock lock(AsSection(m_section));
    AsEvent(m_readerGate)->Reset();
    m_waitingWriters.store(m_waitingWriters.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  const int slot = uRead.load(std::memory_order_acquire) != 0 ? FindReaderSlot(self) : -1;
  if (slot >= 0) {
    // Upgrade: the readers keep the write semaphore; wait until the other readers have gone.
    m_readRecursion[slot].fetch_or(kUpgradePending, std::memory_order_acq_rel);
    AsSemaphore(m_upgradeSem)->Wait(INFINITE);
    while (OthersReading()) os::SwitchToThread();
    m_writeOwner.store(self, std::memory_order_relaxed);
    uWrite.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  AsSemaphore(m_writeSem)->Wait(INFINITE);
  m_writeOwner.store(self, std::memory_order_relaxed);
  uWrite.fetch_add(1, std::memory_order_relaxed);
  SectionLock lock(AsSection(m_section));
  m_waitingWriters.store(m_waitingWriters.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
}

void COSRWInterlock::LeaveWrite() {
  const DWORD depth = uWrite.load(std::memory_order_relaxed);
  if (depth == 0) {
    if (IsDebugOn()) os::wPrintf(0, 1, u"\rCOSRWInterlock::LeaveWrite: Called without according lock\r\n");
    return;
  }
  uWrite.store(depth - 1, std::memory_order_relaxed);
  if (depth != 1) return;

  const DWORD self = os::lib::CurrentThreadId();
  m_writeOwner.store(0, std::memory_order_relaxed);
  if (m_waitingWriters.load(std::memory_order_relaxed) == 0) {
    SectionLock lock(AsSection(m_section));
    if (m_waitingWriters.load(std::memory_order_relaxed) == 0) AsEvent(m_readerGate)->Set();
  }
  if (WriteReadRecursion.load(std::memory_order_relaxed) != 0) {
    if (IsDebugOn()) {
      os::wPrintf(0, 1, u"\rCOSRWInterlock::LeaveWrite: Called while recursive reads pending\r\n");
      DetailedMessageBeep(kBeepError, kSourceFile, 3027);
    }
    WriteReadRecursion.store(0, std::memory_order_relaxed);
  }
  if (uRead.load(std::memory_order_acquire) != 0) {
    // An upgraded reader: it goes back to reading; the readers still hold the write semaphore.
    for (int i = 0; i < kReaderSlots; ++i) {
      if (OwningThreadRead[i].load(std::memory_order_relaxed) != self) continue;
      m_readRecursion[i].fetch_and(~kUpgradePending, std::memory_order_acq_rel);
      AsSemaphore(m_upgradeSem)->Release();
      DropWaitingWriter();
    }
    return;
  }
  AsSemaphore(m_writeSem)->Release();
}

void COSRWInterlock::EnterRead() {
  const DWORD self = os::lib::CurrentThreadId();
  if (m_writeOwner.load(std::memory_order_relaxed) == self) {
    WriteReadRecursion.store(WriteReadRecursion.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  for (;;) {
    while (AsSemaphore(m_writeSem)->Wait(0) != WAIT_OBJECT_0) {
      if (uWrite.load(std::memory_order_acquire) != 0) {
        AsEvent(m_readerGate)->Wait(INFINITE);
        continue;
      }
      // The readers hold the lock.
      if (uRead.load(std::memory_order_acquire) != 0 && FindReaderSlot(self) >= 0) {
        SectionLock lock(AsSection(m_section));
        const int slot = FindReaderSlot(self);
        if (slot >= 0) {  // recursive read, admitted even while writers wait
          uRead.store(uRead.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
          m_readRecursion[slot].fetch_add(1, std::memory_order_relaxed);
          return;
        }
      }
      AsSemaphore(m_readerSlots)->Wait(INFINITE);
      if (m_waitingWriters.load(std::memory_order_acquire) != 0) {
        AsSemaphore(m_readerSlots)->Release();  // writers go first
        AsEvent(m_readerGate)->Wait(INFINITE);
        continue;
      }
      {
        // Join the readers. The waiting writers are looked at again under the lock: an upgrading
        // reader counts itself under this lock before it looks for other readers, so a reader that
        // joined after that look would read while it writes.
        SectionLock lock(AsSection(m_section));
        if (uRead.load(std::memory_order_relaxed) != 0 && m_waitingWriters.load(std::memory_order_relaxed) == 0) {
          RegisterRead(self);
          return;
        }
      }
      AsSemaphore(m_readerSlots)->Release();
      os::SwitchToThread();  // the semaphore changes hands; let its holder finish
    }
    // The write semaphore is ours: as the first reader, hold it for all readers.
    if (m_waitingWriters.load(std::memory_order_acquire) == 0) {
      AsSemaphore(m_readerSlots)->Wait(INFINITE);
      SectionLock lock(AsSection(m_section));
      RegisterRead(self);
      return;
    }
    AsSemaphore(m_writeSem)->Release();
    AsEvent(m_readerGate)->Wait(INFINITE);
  }
}

void COSRWInterlock::RegisterRead(DWORD threadId) {
  int slot = FindReaderSlot(0);
  if (slot >= 0) {
    m_readRecursion[slot].store(1, std::memory_order_relaxed);
    OwningThreadRead[slot].store(threadId, std::memory_order_release);
  } else if (IsDebugOn()) {
    os::wPrintf(0, 1, u"\rCOSRWInterlock::RegisterRead: OwningThreadRead contention\r\n");
  }
  uRead.store(uRead.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void COSRWInterlock::LeaveRead() {
  const DWORD self = os::lib::CurrentThreadId();
  if (m_writeOwner.load(std::memory_order_relaxed) == self) {
    const DWORD reads = WriteReadRecursion.load(std::memory_order_relaxed);
    if (reads == 0) {
      if (IsDebugOn())
        os::wPrintf(0, 1, u"\rCOSRWInterlock::LeaveRead (write-recursive): Called without according lock\r\n");
      DetailedMessageBeep(kBeepError, kSourceFile, 3080);
    } else {
      WriteReadRecursion.store(reads - 1, std::memory_order_relaxed);
    }
    return;
  }
  SectionLock lock(AsSection(m_section));
  const int slot = FindReaderSlot(self);
  if (slot < 0) {
    if (IsDebugOn()) os::wPrintf(0, 1, u"\rCOSRWInterlock::LeaveRead: Leave called for unregistered ThreadID\r\n");
  } else if (const DWORD count = m_readRecursion[slot].load(std::memory_order_relaxed); count == 0) {
    if (IsDebugOn()) os::wPrintf(0, 1, u"\rCOSRWInterlock::LeaveRead: Recursion count was already 0\r\n");
  } else {
    m_readRecursion[slot].store(count - 1, std::memory_order_release);
    if (count == 1) {
      OwningThreadRead[slot].store(0, std::memory_order_release);
      AsSemaphore(m_readerSlots)->Release();
    }
  }
  const DWORD reads = uRead.load(std::memory_order_relaxed);
  if (reads != 0) {
    uRead.store(reads - 1, std::memory_order_relaxed);
    if (reads == 1) AsSemaphore(m_writeSem)->Release();
  }
}
