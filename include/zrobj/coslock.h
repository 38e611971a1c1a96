// Locks of the library: the recursive critical section with contention diagnostics, the shared
// reference-counted critical section, the reader/writer interlock with writer preference, and their
// scoped guards.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr {
// Room for a lock object of the platform layer inside an exported class; the library constructs the
// object in it and clients never look inside.
template <std::size_t Size>
struct alignas(8) LockStorage {
  unsigned char bytes[Size];
};
}  // namespace zr

// A recursive lock that counts its own locks. While debug output is on it records its owner and the
// call site of the outermost Enter, and reports every contended entry (who holds, who waits, how long).
class ZROBJ_API COSCriticalSection {
 public:
  COSCriticalSection();
  // Initialises the lock unless `noInit` is non-zero (then Init must be called before use).
  explicit COSCriticalSection(int noInit);
  // With a spin count: the stated type (unsigned long) and the 32-bit word both select this form.
  explicit COSCriticalSection(unsigned long spinCount);
  explicit COSCriticalSection(DWORD spinCount) : COSCriticalSection(static_cast<unsigned long>(spinCount)) {}
  ~COSCriticalSection();
  COSCriticalSection(const COSCriticalSection&) = delete;
  COSCriticalSection& operator=(const COSCriticalSection&) = delete;

  void Init();
  // `callSite` is a code address identifying the caller (widened to a full address).
  void Enter(std::uintptr_t callSite);
  // Enter with the caller's return address as call site.
  void Enter();
  int TryEnter();
  void Leave();
  DWORD GetOwningThread() const;
  DWORD GetLockCnt() const { return LockCnt.load(std::memory_order_relaxed); }

  // Instances made with new live in the debug heap "CSHeap".
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block) noexcept;
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void*, void*) noexcept {}

 private:
  void EnterWithDiagnostics(std::uintptr_t callSite);
  void ReportContention(DWORD count, DWORD owner, DWORD self, std::uintptr_t callSite) const;
  void LeaveUnheld();

  zr::LockStorage<16> m_section;               // the system critical section
  std::atomic<DWORD> m_owningThread{0};         // last debug-mode or TryEnter owner; Leave keeps it
  std::atomic<DWORD> LockCnt{0};                // current recursion depth
  std::atomic<std::uintptr_t> m_entryAddress{0};  // call site of the outermost debug-mode Enter
};

// A critical section shared by several owners: made by Create with one reference, freed by the
// Destroy that drops the last one.
class ZROBJ_API CSharedCriticalSection : public COSCriticalSection {
 public:
  static CSharedCriticalSection* Create();
  // Adds a reference (takes no lock); returns 1.
  int Lock();
  void Destroy();
  DWORD GetRefCount() const { return m_refCount.load(std::memory_order_relaxed); }

 private:
  CSharedCriticalSection();
  ~CSharedCriticalSection() = default;

  std::atomic<DWORD> m_refCount{0};
};

namespace zr {
// Enters `section` if it is free or becomes free within `wait_ms` milliseconds (looked at every
// millisecond); false when it stayed held. For readers inside the crash handler, which must not
// hang on a holder that crashed.
ZROBJ_API bool TryEnterPolled(COSCriticalSection& section, unsigned wait_ms);
}  // namespace zr

// Enters a critical section for the lifetime of the guard.
class ZROBJ_API COSAutoLock {
 public:
  explicit COSAutoLock(COSCriticalSection* cs);
  ~COSAutoLock();
  COSAutoLock(const COSAutoLock&) = delete;
  COSAutoLock& operator=(const COSAutoLock&) = delete;

 private:
  COSCriticalSection* m_cs;
};

// Many readers or one writer, recursive on both sides, with writer preference (new readers wait
// while a writer waits), up to 32 reader threads at once, read-to-write upgrade and reads inside a
// write.
class ZROBJ_API COSRWInterlock {
 public:
  static constexpr int kReaderSlots = 32;
  static constexpr DWORD kUpgradePending = 0x80000000u;

  COSRWInterlock();
  ~COSRWInterlock();
  COSRWInterlock(const COSRWInterlock&) = delete;
  COSRWInterlock& operator=(const COSRWInterlock&) = delete;

  void EnterRead();
  void LeaveRead();
  void EnterWrite();
  void LeaveWrite();

  // The counters, for diagnostics.
  DWORD GetWriteCount() const { return uWrite.load(std::memory_order_relaxed); }
  DWORD GetReadCount() const { return uRead.load(std::memory_order_relaxed); }
  DWORD GetWaitingWriters() const { return m_waitingWriters.load(std::memory_order_relaxed); }
  DWORD GetWriteReadRecursion() const { return WriteReadRecursion.load(std::memory_order_relaxed); }
  DWORD GetWriteOwner() const { return m_writeOwner.load(std::memory_order_relaxed); }

 private:
  void RegisterRead(DWORD threadId);
  int FindReaderSlot(DWORD threadId) const;
  bool OthersReading() const;
  void DropWaitingWriter();

  zr::LockStorage<16> m_section;       // guards the counters (spin count 4000)
  zr::LockStorage<24> m_writeSem;      // held by the writer or by the readers as a group
  zr::LockStorage<24> m_upgradeSem;    // taken by a reader that asks for write access
  zr::LockStorage<24> m_readerSlots;   // one unit per registered reader thread
  zr::LockStorage<24> m_readerGate;    // manual reset; reset while writers want the lock
  std::atomic<DWORD> uWrite{0};
  std::atomic<DWORD> uRead{0};
  std::atomic<DWORD> m_waitingWriters{0};
  std::atomic<DWORD> WriteReadRecursion{0};
  std::atomic<DWORD> m_writeOwner{0};
  std::atomic<DWORD> OwningThreadRead[kReaderSlots] = {};
  std::atomic<DWORD> m_readRecursion[kReaderSlots] = {};  // bit 31: upgrade pending
};

class COSRWRAutoLock {
 public:
  explicit COSRWRAutoLock(COSRWInterlock& lock) : m_lock(lock) { m_lock.EnterRead(); }
  ~COSRWRAutoLock() { m_lock.LeaveRead(); }
  COSRWRAutoLock(const COSRWRAutoLock&) = delete;
  COSRWRAutoLock& operator=(const COSRWRAutoLock&) = delete;

 private:
  COSRWInterlock& m_lock;
};

class COSRWWAutoLock {
 public:
  explicit COSRWWAutoLock(COSRWInterlock& lock) : m_lock(lock) { m_lock.EnterWrite(); }
  ~COSRWWAutoLock() { m_lock.LeaveWrite(); }
  COSRWWAutoLock(const COSRWWAutoLock&) = delete;
  COSRWWAutoLock& operator=(const COSRWWAutoLock&) = delete;

 private:
  COSRWInterlock& m_lock;
};
