// The fault signal handlers (one owner for SIGSEGV/SIGBUS/SIGFPE/SIGILL/SIGTRAP/SIGABRT): guarded calls
// jump to their guard, everything else goes to the crash hook; alternate signal stacks; probed reads.
#include "platform/fault.h"

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/platdiag.h"

namespace zr::os {

namespace {

struct GuardFrame {
  sigjmp_buf jump;
  GuardFrame* outer;
  volatile std::uint32_t code;
};

thread_local GuardFrame* t_guard = nullptr;
thread_local FaultRecord t_last_fault;
thread_local bool t_has_last_fault = false;
thread_local bool t_passing_on = false;  // a fault is being handed to a foreign handler

constexpr int kHandledSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};
constexpr std::uint32_t kFatalAppExit = 0x40000015u;  // abort(): the application ended itself
constexpr std::uintptr_t kStackOverflowReach = 64 * 1024;
constexpr std::size_t kSignalStackSize = 256 * 1024;

std::mutex g_install_mutex;
std::once_flag g_install_once;
struct sigaction g_previous[NSIG];
bool g_owned[NSIG];
std::atomic<CrashHook> g_hook{nullptr};

void OnFault(int sig, siginfo_t* info, void* context);

bool IsOurs(const struct sigaction& sa) {
  return (sa.sa_flags & SA_SIGINFO) != 0 && sa.sa_sigaction == OnFault;
}

std::uintptr_t HandlerAddress(const struct sigaction& sa) {
  if (sa.sa_flags & SA_SIGINFO) return reinterpret_cast<std::uintptr_t>(sa.sa_sigaction);
  if (sa.sa_handler == SIG_DFL || sa.sa_handler == SIG_IGN) return 0;
  return reinterpret_cast<std::uintptr_t>(sa.sa_handler);
}

std::uint32_t ThreadId() { return static_cast<std::uint32_t>(::syscall(SYS_gettid)); }

// A fault just beside the stack pointer is the stack running into its guard.
bool LooksLikeStackOverflow(const FaultRecord& r) {
  if (!r.has_registers || (r.signal_code != SEGV_MAPERR && r.signal_code != SEGV_ACCERR)) return false;
  const std::uintptr_t sp = r.registers.rsp;
  return r.data_address + kStackOverflowReach >= sp && r.data_address <= sp + kStackOverflowReach;
}

std::uint32_t ExceptionCodeOf(const FaultRecord& r) {
  const int c = r.signal_code;
  switch (r.signal) {
    case SIGSEGV: return LooksLikeStackOverflow(r) ? 0xC00000FDu : 0xC0000005u;
    case SIGBUS: return c == BUS_ADRALN ? 0x80000002u : 0xC0000006u;
    case SIGFPE:
      switch (c) {
        case FPE_INTDIV: return 0xC0000094u;
        case FPE_INTOVF: return 0xC0000095u;
        case FPE_FLTDIV: return 0xC000008Eu;
        case FPE_FLTRES: return 0xC000008Fu;
        case FPE_FLTOVF: return 0xC0000091u;
        case FPE_FLTUND: return 0xC0000093u;
        case FPE_FLTSUB: return 0xC000008Cu;
        default: return 0xC0000090u;
      }
    case SIGILL: return c == ILL_PRVOPC || c == ILL_PRVREG ? 0xC0000096u : 0xC000001Du;
    case SIGTRAP: return c == TRAP_TRACE ? 0x80000004u : 0x80000003u;
    case SIGABRT: return kFatalAppExit;
    default: return 0xC0000005u;
  }
}

std::uint16_t SegmentDs() {
  std::uint16_t v = 0;
  asm volatile("mov %%ds, %0" : "=r"(v));
  return v;
}
std::uint16_t SegmentEs() {
  std::uint16_t v = 0;
  asm volatile("mov %%es, %0" : "=r"(v));
  return v;
}
std::uint16_t SegmentSs() {
  std::uint16_t v = 0;
  asm volatile("mov %%ss, %0" : "=r"(v));
  return v;
}

void CopyRegisters(const ucontext_t* uc, FaultRegisters& r) {
  const greg_t* g = uc->uc_mcontext.gregs;
  auto u = [g](int i) { return static_cast<std::uint64_t>(g[i]); };
  r.rax = u(REG_RAX), r.rbx = u(REG_RBX), r.rcx = u(REG_RCX), r.rdx = u(REG_RDX);
  r.rsi = u(REG_RSI), r.rdi = u(REG_RDI), r.rbp = u(REG_RBP), r.rsp = u(REG_RSP);
  r.r8 = u(REG_R8), r.r9 = u(REG_R9), r.r10 = u(REG_R10), r.r11 = u(REG_R11);
  r.r12 = u(REG_R12), r.r13 = u(REG_R13), r.r14 = u(REG_R14), r.r15 = u(REG_R15);
  r.rip = u(REG_RIP), r.eflags = u(REG_EFL);
  // cs, gs, fs and (with UC_SIGCONTEXT_SS) ss share one slot, 16 bits each.
  const std::uint64_t csgsfs = u(REG_CSGSFS);
  r.cs = static_cast<std::uint16_t>(csgsfs);
  r.gs = static_cast<std::uint16_t>(csgsfs >> 16);
  r.fs = static_cast<std::uint16_t>(csgsfs >> 32);
  constexpr unsigned long kSigcontextSs = 0x2;
  r.ss = (uc->uc_flags & kSigcontextSs) ? static_cast<std::uint16_t>(csgsfs >> 48) : SegmentSs();
  r.ds = SegmentDs();
  r.es = SegmentEs();
  r.has_fxsave = uc->uc_mcontext.fpregs != nullptr;
  if (r.has_fxsave) {
    static_assert(sizeof(*uc->uc_mcontext.fpregs) == sizeof r.fxsave);
    std::memcpy(r.fxsave, uc->uc_mcontext.fpregs, sizeof r.fxsave);
    r.mxcsr = uc->uc_mcontext.fpregs->mxcsr;
  } else {
    std::memset(r.fxsave, 0, sizeof r.fxsave);
    r.mxcsr = 0;
  }
}

void FillRecord(FaultRecord& r, int sig, const siginfo_t* info, const void* context) {
  r.signal = sig;
  r.signal_code = info ? info->si_code : 0;
  r.thread_id = ThreadId();
  r.data_address = info ? reinterpret_cast<std::uintptr_t>(info->si_addr) : 0;
  r.has_registers = context != nullptr;
  if (context) {
    const auto* uc = static_cast<const ucontext_t*>(context);
    CopyRegisters(uc, r.registers);
    r.address = r.registers.rip;
    r.fault_flags = static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_ERR]);
  } else {
    std::memset(&r.registers, 0, sizeof r.registers);
    r.address = r.data_address;
    r.fault_flags = 0;
  }
  r.code = ExceptionCodeOf(r);
  r.frame_count = r.has_registers ? CaptureCallStack(r.registers.rip, r.registers.rbp, r.frames, FaultRecord::kMaxFrames) : 0;
}

// Gives the signal its default action. A fault raised by the kernel is left to happen again when the
// handler returns (so a core shows the faulting state); anything else is raised anew.
void DefaultAction(int sig, const siginfo_t* info) {
  struct sigaction sa{};
  sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  sigaction(sig, &sa, nullptr);
  const bool repeats = info && info->si_code > 0 && sig != SIGTRAP && sig != SIGABRT;
  if (repeats) return;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  raise(sig);
  _exit(128 + sig);
}

// No crash hook: the handler that was there before the library's gets the fault.
void PassOn(int sig, siginfo_t* info, void* context) {
  const struct sigaction prev = g_previous[sig];
  const bool callable = (prev.sa_flags & SA_SIGINFO) ? prev.sa_sigaction != nullptr
                                                     : prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN;
  if (!callable || t_passing_on) {
    DefaultAction(sig, info);
    return;
  }
  t_passing_on = true;  // a handler that hands the fault back to us must not loop
  if (prev.sa_flags & SA_SIGINFO)
    prev.sa_sigaction(sig, info, context);
  else
    prev.sa_handler(sig);
  t_passing_on = false;
}

void OnFault(int sig, siginfo_t* info, void* context) {
  if (sig != SIGABRT) {
    if (GuardFrame* g = t_guard) {
      FillRecord(t_last_fault, sig, info, context);
      t_has_last_fault = true;
      g->code = t_last_fault.code;
      // The guard did not save the signal mask (that costs a system call on every guarded call):
      // the interrupted code's mask is put back here, on the rare path that needs it.
      if (context) pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t*>(context)->uc_sigmask, nullptr);
      siglongjmp(g->jump, 1);
    }
  }
  if (CrashHook hook = g_hook.load(std::memory_order_acquire)) {
    FaultRecord record;
    FillRecord(record, sig, info, context);
    hook(record);
    DefaultAction(sig, info);
    return;
  }
  PassOn(sig, info, context);
}

void InstallOnce() { InstallFaultHandlers(); }

// The alternate signal stack of one thread, released when the thread ends (unless someone else has
// replaced or released it meanwhile).
struct ThreadSignalStack {
  void* mapping = nullptr;
  std::size_t mapping_size = 0;
  bool ready = false;
  ~ThreadSignalStack() {
    if (!mapping) return;
    stack_t current{};
    const long page = sysconf(_SC_PAGESIZE);
    if (sigaltstack(nullptr, &current) != 0 || current.ss_sp != static_cast<char*>(mapping) + page ||
        (current.ss_flags & SS_ONSTACK))
      return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    munmap(mapping, mapping_size);
  }
};
thread_local ThreadSignalStack t_signal_stack;

__attribute__((constructor)) void PrepareLoadingThread() { PrepareSignalStack(); }

}  // namespace

bool ProbeRead(const void* address, void* out, std::size_t n) {
  if (n == 0) return true;
  if (!address) return false;
  iovec local{out, n};
  iovec remote{const_cast<void*>(address), n};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
}

std::size_t ReadUntilFault(const void* address, void* out, std::size_t n) {
  if (n == 0 || !address) return 0;
  // One vector element per page: the kernel stops at the first element it cannot read whole.
  constexpr std::size_t kPage = 4096;
  constexpr int kBatch = 256;
  std::size_t done = 0;
  while (done < n) {
    iovec local[kBatch];
    iovec remote[kBatch];
    int count = 0;
    std::size_t batch = 0;
    for (std::size_t at = done; at < n && count < kBatch; ++count) {
      const auto address_at = reinterpret_cast<std::uintptr_t>(address) + at;
      const std::size_t to_page_end = kPage - address_at % kPage;
      const std::size_t chunk = n - at < to_page_end ? n - at : to_page_end;
      local[count] = {static_cast<unsigned char*>(out) + at, chunk};
      remote[count] = {reinterpret_cast<void*>(address_at), chunk};
      at += chunk;
      batch += chunk;
    }
    const ssize_t read = process_vm_readv(getpid(), local, count, remote, count, 0);
    if (read <= 0) break;
    done += static_cast<std::size_t>(read);
    if (static_cast<std::size_t>(read) < batch) break;
  }
  return done;
}

bool ProbeWritable(void* address, std::size_t n) {
  if (n == 0) return true;
  if (!address) return false;
  // Read then write back the same bytes: the kernel checks the page protection without a signal.
  unsigned char buffer[256];
  for (std::size_t done = 0; done < n;) {
    const std::size_t chunk = n - done < sizeof buffer ? n - done : sizeof buffer;
    void* at = static_cast<unsigned char*>(address) + done;
    if (!ProbeRead(at, buffer, chunk)) return false;
    iovec local{buffer, chunk};
    iovec remote{at, chunk};
    if (process_vm_writev(getpid(), &local, 1, &remote, 1, 0) != static_cast<ssize_t>(chunk)) return false;
    done += chunk;
  }
  return true;
}

std::uintptr_t InstallFaultHandlers() {
  std::lock_guard lock(g_install_mutex);
  std::uintptr_t foreign = 0;
  for (int sig : kHandledSignals) {
    struct sigaction current{};
    sigaction(sig, nullptr, &current);
    if (IsOurs(current)) continue;
    if (g_owned[sig] && !foreign) foreign = HandlerAddress(current);
    struct sigaction sa{};
    sa.sa_sigaction = OnFault;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&sa.sa_mask);
    struct sigaction previous{};
    if (sigaction(sig, &sa, &previous) != 0) continue;
    g_previous[sig] = previous;
    g_owned[sig] = true;
  }
  return foreign;
}

std::uint32_t GuardedCall(GuardedFn fn, void* context) {
  std::call_once(g_install_once, InstallOnce);
  PrepareSignalStack();
  GuardFrame frame;
  frame.outer = t_guard;
  frame.code = 0;
  if (sigsetjmp(frame.jump, 0) == 0) {  // the fault handler restores the mask itself
    t_guard = &frame;
    fn(context);
    t_guard = frame.outer;
    return 0;
  }
  t_guard = frame.outer;
  return frame.code;
}

int SignalOfExceptionCode(std::uint32_t code) {
  switch (code) {
    case 0xC0000005u:
    case 0xC00000FDu: return SIGSEGV;
    case 0xC0000006u:
    case 0x80000002u: return SIGBUS;
    case 0xC000001Du:
    case 0xC0000096u: return SIGILL;
    case 0x80000003u:
    case 0x80000004u: return SIGTRAP;
    case kFatalAppExit: return SIGABRT;
    default: return (code >= 0xC000008Cu && code <= 0xC0000095u) ? SIGFPE : 0;
  }
}

const FaultRecord* LastGuardedFault() { return t_has_last_fault ? &t_last_fault : nullptr; }

CrashHook SetCrashHook(CrashHook hook) {
  std::call_once(g_install_once, InstallOnce);
  return g_hook.exchange(hook, std::memory_order_acq_rel);
}

CrashHook GetCrashHook() { return g_hook.load(std::memory_order_acquire); }

bool PrepareSignalStack() {
  ThreadSignalStack& s = t_signal_stack;
  if (s.ready) return true;
  stack_t current{};
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE) && current.ss_size >= kSignalStackSize) {
    s.ready = true;
    return true;
  }
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t total = kSignalStackSize + page;
  void* mem = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) return false;
  mprotect(mem, page, PROT_NONE);  // guard page: an overflowing handler faults instead of corrupting
  stack_t ss{};
  ss.ss_sp = static_cast<char*>(mem) + page;
  ss.ss_size = kSignalStackSize;
  if (sigaltstack(&ss, nullptr) != 0) {
    munmap(mem, total);
    return false;
  }
  s.mapping = mem;
  s.mapping_size = total;
  s.ready = true;
  return true;
}

void TerminateProcessNow(int status) { _exit(status); }

namespace {
// Installs `handler` for SIGALRM and lets the calling thread receive it.
void PrepareAlarm(void (*handler)(int), int flags) {
  struct sigaction sa{};
  sa.sa_handler = handler;
  sa.sa_flags = flags;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGALRM, &sa, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
}  // namespace

void ArmCrashWatchdog(unsigned seconds) {
  PrepareAlarm(SIG_DFL, 0);
  alarm(seconds);
}

namespace {
thread_local sigjmp_buf* t_budget_exit = nullptr;

void OnBudgetSpent(int) {
  if (sigjmp_buf* exit = t_budget_exit) siglongjmp(*exit, 1);
  _exit(128 + SIGALRM);  // no budget runs on this thread: end as the default action would
}
}  // namespace

bool RunWithinBudget(void (*fn)(void*), void* context, unsigned seconds) {
  PrepareAlarm(OnBudgetSpent, SA_ONSTACK);
  sigjmp_buf exit;
  bool finished = false;
  if (sigsetjmp(exit, 1) == 0) {
    t_budget_exit = &exit;
    alarm(seconds);
    fn(context);
    finished = true;
  }
  alarm(0);
  t_budget_exit = nullptr;
  return finished;
}

void CaptureCurrentContext() {
  GuardedCall([](void*) { asm volatile("int3"); }, nullptr);
}

void BreakIntoDebugger() {
  char text[4096];
  const int fd = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  const ssize_t n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (n <= 0) return;
  text[n] = 0;
  const char* tracer = std::strstr(text, "TracerPid:");
  if (!tracer) return;
  tracer += 10;
  while (*tracer == ' ' || *tracer == '\t') ++tracer;
  if (*tracer != '0') raise(SIGTRAP);
}

}  // namespace zr::os
