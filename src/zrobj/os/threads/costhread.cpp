// CThread, an owned thread whose status the object and its start function keep, and COSAutoThread,
// self-deleting threads with a creator handshake in a table of 128 that shutdown empties.
#include <cstring>
#include <new>

#include "platform/clock.h"
#include "platform/fault.h"
#include "memory/heap/privheap_internal.h"
#include "platform/text.h"
#include "platform/threads.h"
#include "platform/waitable.h"
#include "platform/wformat.h"
#include "zrobj/coslock.h"
#include "zrobj/costhread.h"
#include "frame/frame_internal.h"
#include "os/threads/costhread_internal.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr DWORD kCxxExceptionCode = 0xE06D7363u;  // the code C++ exceptions are raised with
constexpr DWORD kDestructorGraceMs = 20;
constexpr DWORD kAutoThreadExitWaitMs = 100;

struct ThreadCall {
  ZR_THREAD_FN fn;
  void* parameter;
  DWORD result;
  bool threw;
};

void CallCatchingExceptions(void* context) {
  auto* call = static_cast<ThreadCall*>(context);
  try {
    call->result = call->fn(call->parameter);
  } catch (...) {
    call->threw = true;
  }
}

// Runs a thread function; false when it ended by a C++ exception or a fault, which has then been
// reported through the exception analysis.
bool RunThreadFunction(ZR_THREAD_FN fn, void* parameter, DWORD* result) {
  ThreadCall call{fn, parameter, 0, false};
  const std::uint32_t fault = os::GuardedCall(CallCatchingExceptions, &call);
  *result = call.result;
  if (fault != 0) {
    CUnhandledException::AnalyseException(CUnhandledException::GetExceptionInfo(), 1);
    return false;
  }
  if (!call.threw) return true;
  EXCEPTION_RECORD record{};
  record.ExceptionCode = kCxxExceptionCode;
  record.ExceptionAddress = reinterpret_cast<void*>(fn);
  EXCEPTION_POINTERS pointers{&record, nullptr};
  CUnhandledException::AnalyseException(&pointers, 1);
  return false;
}

}  // namespace

// ---- CThread ----

CThread::CThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn, void* parameter,
                 unsigned long creationFlags)
    : m_function(fn), m_parameter(parameter) {
  // Always created at the start gate, so the status is set before the thread can report running.
  DWORD id = 0;
  m_hObject = os::CreateThread(security, stackSize, &CThread::StartThread, this, CREATE_SUSPENDED, &id);
  if (!m_hObject) {
    m_status.store(CTHREAD_CREATE_FAILED, std::memory_order_release);
    return;
  }
  m_id.store(id, std::memory_order_release);
  Label(os::FormatWide(u"ZROBJ::CThread (%08X)", id).c_str());
  if (creationFlags & CREATE_SUSPENDED) {
    m_status.store(CTHREAD_SUSPENDED, std::memory_order_release);
    return;
  }
  m_status.store(CTHREAD_CREATED, std::memory_order_release);
  os::ResumeThread(m_hObject);
}

// A thread that was resumed but has not reported running yet is treated like a running one: the
// object must not be freed under a start function that is about to use it.
bool CThread::IsLive() const {
  const unsigned int status = GetStatus();
  return status == CTHREAD_RUNNING || status == CTHREAD_SUSPENDED || status == CTHREAD_CREATED;
}

CThread::~CThread() {
  if (!m_hObject) return;
  if (IsLive()) {
    if (GetStatus() == CTHREAD_SUSPENDED) Resume();
    os::Sleep(kDestructorGraceMs);
    // A thread that cannot be stopped (it keeps the control signal blocked) must not outlive the
    // object its start function writes to: then the destructor waits for its end.
    if (IsLive() && !::zr::os::TerminateThread(m_hObject, 0)) os::WaitForSingleObject(m_hObject, INFINITE);
  }
  os::CloseHandle(m_hObject);
  m_hObject = nullptr;
}

DWORD CThread::StartThread(void* self) {
  auto* thread = static_cast<CThread*>(self);
  zr::EnsureThreadAttached();
  thread->m_status.store(CTHREAD_RUNNING, std::memory_order_release);
  DWORD result = 0;
  const bool returned = RunThreadFunction(thread->m_function, thread->m_parameter, &result);
  thread->m_id.store(0xFFFFFFFFu, std::memory_order_release);
  // The last touch of the object: its owner may delete it from here on.
  thread->m_status.store(returned ? CTHREAD_ENDED : CTHREAD_EXCEPTION, std::memory_order_release);
  return returned ? result : 0;
}

// Changes running to suspended or back, unless the thread has reported its end meanwhile.
void CThread::SetLiveStatus(unsigned int status) {
  unsigned int seen = GetStatus();
  while ((seen == CTHREAD_RUNNING || seen == CTHREAD_SUSPENDED) &&
         !m_status.compare_exchange_weak(seen, status, std::memory_order_acq_rel)) {
  }
}

int CThread::GetExitCode(unsigned long* code) {
  if (!m_hObject || !code) return 0;
  DWORD value = 0;
  if (!os::GetExitCodeThread(m_hObject, &value)) return 0;
  *code = value;
  return 1;
}

int CThread::GetPriority() {
  if (!m_hObject || GetStatus() < CTHREAD_RUNNING) return THREAD_PRIORITY_ERROR_RETURN;
  return os::GetThreadPriority(m_hObject);
}

int CThread::SetPriority(int priority) {
  const unsigned int status = GetStatus();
  if (!m_hObject || status == CTHREAD_CREATE_FAILED || status == CTHREAD_ENDED || status == CTHREAD_EXCEPTION)
    return 0;
  return os::SetThreadPriority(m_hObject, priority);
}

unsigned long CThread::Resume() {
  const unsigned int status = GetStatus();
  if (status != CTHREAD_RUNNING && status != CTHREAD_SUSPENDED) return 0xFFFFFFFFul;
  const DWORD previous = os::ResumeThread(m_hObject);
  if (previous == 0xFFFFFFFFu) return previous;  // the thread has ended meanwhile: its status says so
  SetLiveStatus(previous > 1 ? CTHREAD_SUSPENDED : CTHREAD_RUNNING);
  return previous;
}

unsigned long CThread::Suspend() {
  const unsigned int status = GetStatus();
  if (status != CTHREAD_RUNNING && status != CTHREAD_SUSPENDED) return 0xFFFFFFFFul;
  const DWORD result = os::SuspendThread(m_hObject);
  if (result == 0xFFFFFFFFu) return result;  // ended meanwhile
  SetLiveStatus(CTHREAD_SUSPENDED);
  return result;
}

int CThread::Terminate(unsigned long exitCode) {
  const unsigned int status = GetStatus();
  if (status != CTHREAD_RUNNING && status != CTHREAD_SUSPENDED) return 0;
  if (!::zr::os::TerminateThread(m_hObject, static_cast<DWORD>(exitCode))) return 0;
  m_status.store(CTHREAD_ENDED, std::memory_order_release);
  return 1;
}

int CThread::Label(const WCHAR* name) { return COSThreadRegister::Register(GetID(), name); }

void* CThread::operator new(std::size_t size) noexcept { return zr::HeapAlloc(zr::GetProcessHeap(), 0, size); }
void CThread::operator delete(void* block) noexcept {
  if (block) zr::HeapFree(zr::GetProcessHeap(), 0, block);
}

// ---- COSAutoThread ----

namespace {

struct AutoThreadTable {
  COSAutoThread* slots[COSAutoThread::kMaxAutoThreads] = {};
  std::atomic<bool> exiting{false};
};

AutoThreadTable g_auto_threads;

// Never destroyed: an auto thread may still leave after the library's exit step.
COSCriticalSection& AutoThreadLock() {
  alignas(COSCriticalSection) static unsigned char storage[sizeof(COSCriticalSection)];
  static COSCriticalSection* lock = ::new (static_cast<void*>(storage)) COSCriticalSection();
  return *lock;
}

// Takes the table lock for a leaving thread, unless the library starts exiting meanwhile: AppExit
// holds the lock while it waits for the threads, so a leaving thread must not queue for it then
// (it would be terminated as a straggler).
bool LockTableUnlessExiting() {
  COSCriticalSection& lock = AutoThreadLock();
  for (;;) {
    if (g_auto_threads.exiting.load()) return false;
    if (lock.TryEnter()) {
      if (!g_auto_threads.exiting.load()) return true;
      lock.Leave();
      return false;
    }
    os::Sleep(1);
  }
}

COSAutoThread** FreeSlot() {
  for (COSAutoThread*& slot : g_auto_threads.slots)
    if (!slot) return &slot;
  return nullptr;
}

}  // namespace

COSAutoThread::COSAutoThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn,
                             void* parameter, HANDLE handshake)
    : m_function(fn), m_parameter(parameter), m_event(handshake) {
  DWORD id = 0;
  m_hObject = os::CreateThread(security, stackSize, &COSAutoThread::StartThread, this, CREATE_SUSPENDED, &id);
  if (m_hObject) COSThreadRegister::Register(id, u"ZROBJ::COSAutoThread");
}

COSAutoThread::~COSAutoThread() {
  if (m_hObject) os::CloseHandle(m_hObject);
  m_hObject = nullptr;
}

int COSAutoThread::CreateAutoThread(SECURITY_ATTRIBUTES* security, unsigned long stackSize, ZR_THREAD_FN fn,
                                    void* parameter) {
  COSEvent started(nullptr, 1, 0, nullptr);
  if (!started.GetHandle() || g_auto_threads.exiting.load()) return 0;
  // The creator's own reference to the thread: AppExit may end the thread before the handshake and
  // delete its object (closing the object's handle), and the creator must still wake up.
  HANDLE thread = nullptr;
  {
    COSAutoLock lock(&AutoThreadLock());
    if (g_auto_threads.exiting.load()) return 0;
    COSAutoThread** slot = FreeSlot();
    if (!slot) return 0;
    auto* object = new (std::nothrow) COSAutoThread(security, stackSize, fn, parameter, started.GetHandle());
    if (!object) return 0;
    if (!object->GetHandle() || !os::DuplicateHandle(os::GetCurrentProcess(), object->GetHandle(), os::GetCurrentProcess(),
                                                 &thread, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
      delete object;
      return 0;
    }
    *slot = object;
    os::ResumeThread(thread);  // under the lock: AppExit sees only threads that were resumed
  }
  const HANDLE handshake[2] = {started.GetHandle(), thread};
  os::WaitForMultipleObjects(2, handshake, FALSE, INFINITE);  // the handshake, or the thread's end
  os::CloseHandle(thread);
  return 1;
}

DWORD COSAutoThread::StartThread(void* self) {
  auto* object = static_cast<COSAutoThread*>(self);
  zr::EnsureThreadAttached();
  AUTOTHREADINFO info{object->m_event.GetHandle(), object->m_parameter};
  DWORD ignored = 0;
  RunThreadFunction(object->m_function, &info, &ignored);
  object->m_event.Set();
  if (!LockTableUnlessExiting()) return 0;  // AppExit owns the object now
  for (COSAutoThread*& slot : g_auto_threads.slots)
    if (slot == object) slot = nullptr;
  delete object;
  AutoThreadLock().Leave();
  return 0;
}

void COSAutoThread::AppInit() {
  COSAutoLock lock(&AutoThreadLock());
  g_auto_threads.exiting.store(false);
  for (COSAutoThread*& slot : g_auto_threads.slots) slot = nullptr;
}

void COSAutoThread::AppExit() {
  g_auto_threads.exiting.store(true);
  COSAutoLock lock(&AutoThreadLock());
  for (COSAutoThread*& slot : g_auto_threads.slots) {
    if (!slot) continue;
    const bool ended = os::WaitForSingleObject(slot->GetHandle(), kAutoThreadExitWaitMs) == WAIT_OBJECT_0 ||
                       ::zr::os::TerminateThread(slot->GetHandle(), 0);
    // A thread that could not be stopped still uses its object: it is left to it (a leak, not a
    // use after free).
    if (ended) delete slot;
    slot = nullptr;
  }
}

// The auto-thread table's steps of the library's application initialise and exit.
void zr::steps::AutoThreadsAppInit() { COSAutoThread::AppInit(); }
void zr::steps::AutoThreadsAppExit() { COSAutoThread::AppExit(); }
