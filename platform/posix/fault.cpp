// Probed reads through process_vm_readv and guarded calls through a per-thread sigsetjmp target.
#include "platform/fault.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace zr {
namespace {

struct GuardFrame {
  sigjmp_buf jump;
  GuardFrame* outer;
  volatile std::uint32_t code;
};

thread_local GuardFrame* t_guard = nullptr;

struct sigaction g_previous[32];
std::once_flag g_install_once;

std::uint32_t ExceptionCodeOf(int sig, const siginfo_t* info) {
  switch (sig) {
    case SIGSEGV: return 0xC0000005u;
    case SIGBUS: return info && info->si_code == BUS_ADRALN ? 0x80000002u : 0xC0000006u;
    case SIGFPE:
      if (!info) return 0xC0000090u;
      switch (info->si_code) {
        case FPE_INTDIV: return 0xC0000094u;
        case FPE_INTOVF: return 0xC0000095u;
        case FPE_FLTDIV: return 0xC000008Eu;
        case FPE_FLTRES: return 0xC000008Fu;
        case FPE_FLTOVF: return 0xC0000091u;
        case FPE_FLTUND: return 0xC0000093u;
        default: return 0xC0000090u;
      }
    case SIGILL: return info && (info->si_code == ILL_PRVOPC || info->si_code == ILL_PRVREG) ? 0xC0000096u : 0xC000001Du;
    case SIGTRAP: return info && info->si_code == TRAP_TRACE ? 0x80000004u : 0x80000003u;
    default: return 0xC0000005u;
  }
}

void OnFault(int sig, siginfo_t* info, void* context) {
  if (GuardFrame* g = t_guard) {
    g->code = ExceptionCodeOf(sig, info);
    siglongjmp(g->jump, 1);
  }
  // No guard: hand the signal to whoever had it before (the crash handler or the default action).
  const struct sigaction& prev = g_previous[sig];
  if ((prev.sa_flags & SA_SIGINFO) && prev.sa_sigaction) {
    prev.sa_sigaction(sig, info, context);
    return;
  }
  if (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN && prev.sa_handler) {
    prev.sa_handler(sig);
    return;
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

void InstallHandlers() {
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) {
    struct sigaction sa{};
    sa.sa_sigaction = OnFault;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, &g_previous[sig]);
  }
}

}  // namespace

bool ProbeRead(const void* address, void* out, std::size_t n) {
  if (n == 0) return true;
  if (!address) return false;
  iovec local{out, n};
  iovec remote{const_cast<void*>(address), n};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
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

std::uint32_t GuardedCall(GuardedFn fn, void* context) {
  std::call_once(g_install_once, InstallHandlers);
  GuardFrame frame;
  frame.outer = t_guard;
  frame.code = 0;
  if (sigsetjmp(frame.jump, 1) == 0) {
    t_guard = &frame;
    fn(context);
    t_guard = frame.outer;
    return 0;
  }
  t_guard = frame.outer;
  return frame.code;
}

}  // namespace zr
