// Threads of the library: CThread (an owned thread that tracks its own status), COSAutoThread
// (self-deleting threads with a start handshake, stopped at shutdown) and the thread register
// (readable names for thread ids, CPU statistics when a thread leaves).
#pragma once

#include <atomic>
#include <cstddef>

#include "zrobj/cosobject.h"
#include "zrobj/coswait.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Creation flag of CThread (the Windows value); the priorities are in zrtypes.h.
#ifndef CREATE_SUSPENDED
#define CREATE_SUSPENDED 0x4u
#endif

// A thread function: its result is the thread's exit code.
using ZR_THREAD_FN = DWORD (*)(void* parameter);

// Status values of a CThread.
enum : unsigned int {
  CTHREAD_CREATED = 0,        // created, has not reported running yet
  CTHREAD_CREATE_FAILED = 1,
  CTHREAD_ENDED = 2,          // the function returned, or Terminate
  CTHREAD_EXCEPTION = 3,      // the function ended by an exception or a fault
  CTHREAD_RUNNING = 4,
  CTHREAD_SUSPENDED = 5,
};

// An owned thread. The status is kept by the object and by the thread's start function; the id
// reads 0xFFFFFFFF once the function has returned.
class ZROBJ_API CThread : public COSObject {
 public:
  // creationFlags: CREATE_SUSPENDED (4) starts the thread suspended (status 5).
  CThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn, void* parameter,
          unsigned long creationFlags);
  // A thread still running or suspended is resumed, given 20 ms, then terminated.
  ~CThread() override;

  unsigned int GetStatus() const { return m_status.load(std::memory_order_acquire); }
  unsigned long GetID() const { return m_id.load(std::memory_order_acquire); }
  int GetExitCode(unsigned long* code);
  // 0x7FFFFFFF without a handle or before the thread reported running.
  int GetPriority();
  int SetPriority(int priority);
  // Both return the previous suspend count, 0xFFFFFFFF unless running or suspended.
  unsigned long Resume();
  unsigned long Suspend();
  int Terminate(unsigned long exitCode);
  int Label(const WCHAR* name);

  // Objects made with new live on the process heap.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block) noexcept;

 private:
  static DWORD StartThread(void* self);
  bool IsLive() const;
  void SetLiveStatus(unsigned int status);

  std::atomic<unsigned int> m_status{CTHREAD_CREATED};
  std::atomic<DWORD> m_id{0xFFFFFFFFu};
  ZR_THREAD_FN m_function = nullptr;
  void* m_parameter = nullptr;
};

// What an auto thread's function receives: the creator's handshake event (set it to release the
// creator early) and the caller's parameter.
struct AUTOTHREADINFO {
  HANDLE hEvent;
  void* pParam;
};

// A fire-and-forget thread: the creator waits until the function sets the handshake event (or
// returns), the object deletes itself when the function returns, and the library terminates
// stragglers at exit. At most 128 exist at once.
class ZROBJ_API COSAutoThread : public COSObject {
 public:
  // 1 when the thread ran, 0 when it was refused (table full, shutting down) or not created.
  static int CreateAutoThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn,
                              void* parameter);
  static void AppInit();
  static void AppExit();
  ~COSAutoThread() override;

  static constexpr unsigned kMaxAutoThreads = 128;

 private:
  COSAutoThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn, void* parameter,
                HANDLE handshake);
  static DWORD StartThread(void* self);

  ZR_THREAD_FN m_function;
  void* m_parameter;
  COSEvent m_event;  // the creator's handshake event
};

// Process-wide table of registered threads. An object of the class is a scoped registration of the
// calling thread. GetThreadDump block layout (little-endian, 4-byte aligned, process heap; free with
// FreeThreadDump):
//   DWORD count; then `count` entries of { DWORD threadId; DWORD chars; WCHAR name[chars + 1] }
//   where the name is 0-terminated and each entry is padded to a multiple of 4 bytes.
class ZROBJ_API COSThreadRegister {
 public:
  explicit COSThreadRegister(const WCHAR* name);
  ~COSThreadRegister();
  COSThreadRegister(const COSThreadRegister&) = delete;
  COSThreadRegister& operator=(const COSThreadRegister&) = delete;

  static int Register(unsigned long threadId, const WCHAR* name);
  static int Unregister(unsigned long threadId);
  static int GetName(unsigned long threadId, WCHAR* buffer, unsigned int length);
  static int GetCurrentName(WCHAR* buffer, unsigned int length);
  static int AppExit();
  static void DumpRegistered();
  static void* GetThreadDump(unsigned long& size);
  static void FreeThreadDump(void* block);  // null is ignored

 private:
  unsigned long thread_id_;
};

ZROBJ_EXTERN_C ZROBJ_API int COS_RegisterThread(unsigned long threadId, const WCHAR* name);
