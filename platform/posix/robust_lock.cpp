// The robust lock word shared between processes: a process-shared robust mutex in a per-user
// control segment. Wait-all on named objects and the name table run under it; a holder that dies
// releases it.
#include "platform/posix/waitable_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace zr::os {

namespace posix {
namespace {

struct ControlSegment {
  std::uint32_t magic;
  std::uint32_t reserved;
  pthread_mutex_t mutex;  // robust, process-shared
};
constexpr std::uint32_t kControlMagic = 0x5A524331u;  // "ZRC1"

ControlSegment* OpenControlSegment() {
  const std::string name = UserPrefix() + "-ctl";
  const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  ::flock(fd, LOCK_EX);  // serialises the one-time initialisation between processes
  struct stat st{};
  void* map = MAP_FAILED;
  if (::fstat(fd, &st) == 0 && (st.st_size >= static_cast<off_t>(sizeof(ControlSegment)) ||
                                ::ftruncate(fd, sizeof(ControlSegment)) == 0))
    map = ::mmap(nullptr, sizeof(ControlSegment), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ControlSegment* control = map == MAP_FAILED ? nullptr : static_cast<ControlSegment*>(map);
  if (control && control->magic != kControlMagic) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&control->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    control->magic = kControlMagic;
  }
  ::flock(fd, LOCK_UN);
  ::close(fd);
  return control;
}

ControlSegment* Control() {
  static ControlSegment* control = OpenControlSegment();
  return control;
}

}  // namespace

std::string UserPrefix() { return "/zrobj-" + std::to_string(::getuid()); }

bool LockControl() {
  ControlSegment* control = Control();
  if (!control) return false;
  const int r = pthread_mutex_lock(&control->mutex);
  if (r == EOWNERDEAD) {
    // The previous holder died; everything it guards is re-validated by its users.
    pthread_mutex_consistent(&control->mutex);
    return true;
  }
  return r == 0;
}

void UnlockControl() {
  if (ControlSegment* control = Control()) pthread_mutex_unlock(&control->mutex);
}

}  // namespace posix

bool LockSharedWaitWord() { return posix::LockControl(); }
void UnlockSharedWaitWord() { posix::UnlockControl(); }

}  // namespace zr::os
