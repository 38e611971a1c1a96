// Waitable objects on futex words: the handle table, events, semaphores, waits for one or several
// objects (futex_waitv), critical sections, named objects in shared memory and the robust lock word
// that wait-all and the name table share between processes.
#include "platform/waitable.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/posix/futex.h"
#include "platform/text.h"

namespace zr::os {

namespace {

// ---------------------------------------------------------------------------------------------
// Thread ids

__attribute__((tls_model("initial-exec"))) thread_local DWORD t_thread_id = 0;

[[gnu::noinline, gnu::cold]] DWORD FetchTid() { return t_thread_id = static_cast<DWORD>(::gettid()); }

inline DWORD CurrentTid() {
  const DWORD id = t_thread_id;
  return id != 0 ? id : FetchTid();
}

DWORD Fail(DWORD error, DWORD result = WAIT_FAILED) {
  SetLastError(error);
  return result;
}

HANDLE FailNull(DWORD error) {
  SetLastError(error);
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Futex calls (the single-word ones come from futex.h)

using posix::Deadline;
using posix::FutexWaitUntil;
using posix::FutexWake;
using posix::PrivateFlag;
using posix::WordAddress;

#ifndef SYS_futex_waitv
#define SYS_futex_waitv 449
#endif

std::atomic<bool> g_waitv_missing{false};

// Sleeps until one of the words differs from its expected value; false when the deadline passed.
bool FutexWaitAny(DWORD count, WaitCore* const* cores, const std::uint32_t* expected, const Deadline& deadline) {
  if (count == 1 || g_waitv_missing.load(std::memory_order_relaxed)) {
    // Without futex_waitv, sleep on the first word in short slices and rescan the others.
    if (count == 1) return FutexWaitUntil(&cores[0]->word, expected[0], cores[0]->shared, deadline);
    Deadline slice(1);
    if (!deadline.infinite && (deadline.at.tv_sec < slice.at.tv_sec ||
                               (deadline.at.tv_sec == slice.at.tv_sec && deadline.at.tv_nsec < slice.at.tv_nsec)))
      slice = deadline;
    FutexWaitUntil(&cores[0]->word, expected[0], cores[0]->shared, slice);
    return !deadline.Passed();
  }
  futex_waitv waiters[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) {
    waiters[i] = {};
    waiters[i].val = expected[i];
    waiters[i].uaddr = reinterpret_cast<std::uintptr_t>(WordAddress(&cores[i]->word));
    waiters[i].flags = FUTEX_32 | static_cast<std::uint32_t>(PrivateFlag(cores[i]->shared));
  }
  const long r = ::syscall(SYS_futex_waitv, waiters, count, 0, deadline.Absolute(), CLOCK_MONOTONIC);
  if (r == -1 && errno == ENOSYS) {
    g_waitv_missing.store(true, std::memory_order_relaxed);
    return true;
  }
  return !(r == -1 && errno == ETIMEDOUT);
}

// ---------------------------------------------------------------------------------------------
// Core state rules

constexpr std::uint32_t kSignalled = 1u;
constexpr std::uint32_t kPulseToken = 2u;
inline std::uint32_t Generation(std::uint32_t w) { return w >> 2; }

void WakeSleepers(WaitCore* core) {
  if (core->waiters.load(std::memory_order_seq_cst) != 0) FutexWake(&core->word, core->shared != 0, INT_MAX);
}

// Whether a waiter that began at `start` may return now, judging by the word value `w` alone.
bool IsReady(const WaitCore* core, std::uint32_t start, std::uint32_t w) {
  if (core->type == WaitCore::kSemaphore) return w != 0;
  if (w & kSignalled) return true;
  if (Generation(w) == Generation(start)) return false;
  return core->manual_reset || (w & kPulseToken);
}

// Takes the object for a waiter that began at `start`: signalled now, or pulsed while it waited.
bool Acquire(WaitCore* core, std::uint32_t start) {
  if (core->TryAcquire()) return true;
  if (core->type != WaitCore::kEvent) return false;
  std::uint32_t w = core->word.load(std::memory_order_acquire);
  if (Generation(w) == Generation(start)) return false;
  if (core->manual_reset) return true;
  while ((w & kPulseToken) && Generation(w) != Generation(start))
    if (core->word.compare_exchange_weak(w, w & ~kPulseToken, std::memory_order_acquire)) return true;
  return false;
}

// Gives back what a partial wait-all took.
void Restore(WaitCore* core) {
  if (core->type == WaitCore::kSemaphore) {
    core->word.fetch_add(1, std::memory_order_seq_cst);
    WakeSleepers(core);
  } else if (!core->manual_reset) {
    CoreSetEvent(core);
  }
}

// ---------------------------------------------------------------------------------------------
// The robust lock word shared between processes (in a per-user control segment)

struct ControlSegment {
  std::uint32_t magic;
  std::uint32_t reserved;
  pthread_mutex_t mutex;  // robust, process-shared
};
constexpr std::uint32_t kControlMagic = 0x5A524331u;  // "ZRC1"

std::string UserPrefix() { return "/zrobj-" + std::to_string(::getuid()); }

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

class ControlLock {
 public:
  ControlLock() : held_(LockControl()) {}
  ~ControlLock() {
    if (held_) UnlockControl();
  }
  ControlLock(const ControlLock&) = delete;
  ControlLock& operator=(const ControlLock&) = delete;
  bool held() const { return held_; }

 private:
  bool held_;
};

std::mutex g_local_wait_all;

// Consumes every core at once, under the lock word of their processes; false when one of them was
// taken in between (what was taken is given back).
bool AcquireAll(DWORD count, WaitCore* const* cores) {
  bool shared = false;
  for (DWORD i = 0; i < count; ++i) shared = shared || cores[i]->shared;
  std::unique_lock<std::mutex> local;
  std::optional<ControlLock> across;
  if (shared)
    across.emplace();
  else
    local = std::unique_lock<std::mutex>(g_local_wait_all);
  for (DWORD i = 0; i < count; ++i) {
    if (cores[i]->TryAcquire()) continue;
    while (i > 0) Restore(cores[--i]);
    return false;
  }
  return true;
}

bool AllSignalled(DWORD count, WaitCore* const* cores, const std::uint32_t* words) {
  for (DWORD i = 0; i < count; ++i) {
    const bool on = cores[i]->type == WaitCore::kSemaphore ? words[i] != 0 : (words[i] & kSignalled) != 0;
    if (!on) return false;
  }
  return true;
}

DWORD WaitLoop(DWORD count, WaitCore* const* cores, bool wait_all, DWORD milliseconds) {
  std::uint32_t start[MAXIMUM_WAIT_OBJECTS];
  std::uint32_t now[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) start[i] = now[i] = cores[i]->word.load(std::memory_order_acquire);
  const Deadline deadline(milliseconds);
  for (;;) {
    if (!wait_all) {
      for (DWORD i = 0; i < count; ++i)
        if (Acquire(cores[i], start[i])) return WAIT_OBJECT_0 + i;
    } else if (AllSignalled(count, cores, now) && AcquireAll(count, cores)) {
      return WAIT_OBJECT_0;
    }
    if (milliseconds == 0 || deadline.Passed()) return WAIT_TIMEOUT;

    // Announce the sleep before the last look at the words, so a signal either shows in the look or
    // finds a sleeper to wake.
    for (DWORD i = 0; i < count; ++i) cores[i]->waiters.fetch_add(1, std::memory_order_seq_cst);
    bool ready = false;
    for (DWORD i = 0; i < count; ++i) {
      now[i] = cores[i]->word.load(std::memory_order_seq_cst);
      if (!wait_all) ready = ready || IsReady(cores[i], start[i], now[i]);
    }
    if (wait_all) ready = AllSignalled(count, cores, now);
    if (!ready) FutexWaitAny(count, cores, now, deadline);
    for (DWORD i = 0; i < count; ++i) {
      cores[i]->waiters.fetch_sub(1, std::memory_order_relaxed);
      now[i] = cores[i]->word.load(std::memory_order_acquire);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Objects and the handle table

constexpr int kMaxOpeners = 128;
constexpr std::size_t kKeyBytes = 1024;
constexpr std::uint32_t kNamedMagic = 0x5A524E31u;  // "ZRN1"

// One named object in shared memory: its core, the processes that have it open, and its key.
struct NamedSegment {
  std::uint32_t magic;
  std::uint32_t kind;
  WaitCore core;
  std::uint32_t opener_used;
  struct {
    std::int32_t pid;
    std::uint32_t count;
  } openers[kMaxOpeners];
  char key[kKeyBytes];
};

struct Object {
  std::atomic<std::int32_t> refs{1};  // one per handle plus one per operation in progress
  DWORD kind = 0;
  WaitCore local;
  WaitCore* core = &local;
  NamedSegment* segment = nullptr;  // named objects only
  std::string shm_name;
  std::string key;
  void* context = nullptr;  // signal handles of other families
  HandleDestroyFn destroy = nullptr;
};

void CloseNamedSegment(Object* object);

struct Entry {
  Object* object = nullptr;
  DWORD access = 0;
};

// Handle values are (index + 1) * 4, like the small multiples of four of the system.
class HandleTable {
 public:
  HANDLE Insert(Object* object, DWORD access) {
    std::lock_guard lock(mutex_);
    std::size_t index;
    if (!free_.empty()) {
      index = free_.back();
      free_.pop_back();
    } else {
      index = entries_.size();
      entries_.emplace_back();
    }
    entries_[index] = {object, access};
    return reinterpret_cast<HANDLE>((index + 1) * 4);
  }

  // Adds an operation reference to the object of `handle`; null when the handle is invalid.
  Object* Reference(HANDLE handle, DWORD* access) {
    std::lock_guard lock(mutex_);
    Entry* entry = Find(handle);
    if (!entry) return nullptr;
    entry->object->refs.fetch_add(1, std::memory_order_relaxed);
    if (access) *access = entry->access;
    return entry->object;
  }

  // Removes the entry; returns the object whose handle reference the caller now drops.
  Object* Remove(HANDLE handle) {
    std::lock_guard lock(mutex_);
    Entry* entry = Find(handle);
    if (!entry) return nullptr;
    Object* object = entry->object;
    *entry = {};
    free_.push_back((reinterpret_cast<std::uintptr_t>(handle) >> 2) - 1);
    return object;
  }

  // The live object of a name in this process, referenced; null when none.
  Object* FindNamed(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto it = named_.find(key);
    if (it == named_.end()) return nullptr;
    std::int32_t refs = it->second->refs.load(std::memory_order_relaxed);
    while (refs > 0)
      if (it->second->refs.compare_exchange_weak(refs, refs + 1, std::memory_order_acquire)) return it->second;
    return nullptr;  // being destroyed
  }

  // Records `object` as the process's object of its name unless a live one is there (returned
  // referenced instead).
  Object* PublishNamed(Object* object) {
    std::lock_guard lock(mutex_);
    Object*& slot = named_[object->key];
    if (slot) {
      std::int32_t refs = slot->refs.load(std::memory_order_relaxed);
      while (refs > 0)
        if (slot->refs.compare_exchange_weak(refs, refs + 1, std::memory_order_acquire)) return slot;
    }
    slot = object;
    return nullptr;
  }

  void ForgetNamed(Object* object) {
    std::lock_guard lock(mutex_);
    auto it = named_.find(object->key);
    if (it != named_.end() && it->second == object) named_.erase(it);
  }

  std::vector<NamedSegment*> NamedSegmentsLocked() {
    std::vector<NamedSegment*> out;
    for (auto& [key, object] : named_)
      if (object->segment) out.push_back(object->segment);
    return out;
  }
  std::mutex& mutex() { return mutex_; }

 private:
  Entry* Find(HANDLE handle) {
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || (value & 3) != 0) return nullptr;
    const std::size_t index = (value >> 2) - 1;
    if (index >= entries_.size() || !entries_[index].object) return nullptr;
    return &entries_[index];
  }

  std::mutex mutex_;
  std::vector<Entry> entries_;
  std::vector<std::size_t> free_;
  std::unordered_map<std::string, Object*> named_;
};

HandleTable& Table() {
  static HandleTable* table = new HandleTable;  // never destroyed: handles may be closed at exit
  return *table;
}

void Release(Object* object) {
  if (object->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (object->destroy) object->destroy(object->context);
  if (!object->key.empty()) Table().ForgetNamed(object);
  if (object->segment) CloseNamedSegment(object);
  delete object;
}

// An operation's reference to the object of a handle, checked for kind and access.
class ObjectRef {
 public:
  ObjectRef(HANDLE handle, DWORD needed_access, DWORD kind = 0) {
    DWORD access = 0;
    object_ = Table().Reference(handle, &access);
    if (!object_) {
      SetLastError(ERROR_INVALID_HANDLE);
    } else if (kind != 0 && object_->kind != kind) {
      SetLastError(ERROR_INVALID_HANDLE);
      Drop();
    } else if ((access & needed_access) != needed_access) {
      SetLastError(ERROR_ACCESS_DENIED);
      Drop();
    }
  }
  ~ObjectRef() { Drop(); }
  ObjectRef(const ObjectRef&) = delete;
  ObjectRef& operator=(const ObjectRef&) = delete;

  explicit operator bool() const { return object_ != nullptr; }
  Object* operator->() const { return object_; }
  Object* get() const { return object_; }

 private:
  void Drop() {
    if (object_) Release(object_);
    object_ = nullptr;
  }
  Object* object_;
};

// ---------------------------------------------------------------------------------------------
// Named objects

// Scope of a name: "Global\" names are per user, other names per user and settings directory.
std::string KeyOf(std::u16string_view name) {
  static constexpr std::u16string_view kGlobal = u"Global\\";
  static constexpr std::u16string_view kLocal = u"Local\\";
  std::string scope;
  if (name.substr(0, kGlobal.size()) == kGlobal) {
    name.remove_prefix(kGlobal.size());
    scope = "G";
  } else {
    if (name.substr(0, kLocal.size()) == kLocal) name.remove_prefix(kLocal.size());
    const char* home = std::getenv("ZROBJ_HOME");
    scope = std::string("L") + (home ? home : "");
  }
  return scope + '\n' + Utf16ToUtf8(name);
}

std::uint64_t Fnv1a64(const std::string& text) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : text) h = (h ^ c) * 1099511628211ull;
  return h;
}

std::string SegmentName(const std::string& key) {
  char hex[24];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(Fnv1a64(key)));
  return UserPrefix() + "-" + hex;
}

bool ProcessAlive(std::int32_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

// Drops openers that died; true when a live one remains. Caller holds the control lock.
bool PruneOpeners(NamedSegment* s) {
  if (s->opener_used > kMaxOpeners) s->opener_used = kMaxOpeners;  // hostile or damaged count
  bool alive = false;
  for (std::uint32_t i = 0; i < s->opener_used; ++i) {
    if (s->openers[i].count != 0 && !ProcessAlive(s->openers[i].pid)) s->openers[i] = {0, 0};
    alive = alive || s->openers[i].count != 0;
  }
  return alive;
}

void AddOpener(NamedSegment* s, std::int32_t pid) {
  std::uint32_t free_slot = kMaxOpeners;
  for (std::uint32_t i = 0; i < s->opener_used; ++i) {
    if (s->openers[i].count != 0 && s->openers[i].pid == pid) {
      ++s->openers[i].count;
      return;
    }
    if (s->openers[i].count == 0 && free_slot == kMaxOpeners) free_slot = i;
  }
  if (free_slot == kMaxOpeners && s->opener_used < kMaxOpeners) free_slot = s->opener_used++;
  if (free_slot < kMaxOpeners) s->openers[free_slot] = {pid, 1};
}

void DropOpener(NamedSegment* s, std::int32_t pid) {
  for (std::uint32_t i = 0; i < s->opener_used && i < kMaxOpeners; ++i) {
    if (s->openers[i].count != 0 && s->openers[i].pid == pid) {
      if (--s->openers[i].count == 0) s->openers[i].pid = 0;
      return;
    }
  }
}

// What a creator asks for when the name is new.
struct CreateParams {
  DWORD kind;
  bool manual;
  bool initial;
  LONG count;
  LONG maximum;
};

void InitSegment(NamedSegment* s, const std::string& key, const CreateParams& p) {
  std::memset(static_cast<void*>(s), 0, sizeof *s);
  s->kind = p.kind;
  if (p.kind == kHandleSemaphore)
    s->core.InitSemaphore(p.count, p.maximum, true);
  else
    s->core.InitEvent(p.manual, p.initial, true);
  std::strncpy(s->key, key.c_str(), kKeyBytes - 1);
  s->magic = kNamedMagic;
}

bool SegmentValid(const NamedSegment* s, const std::string& key) {
  if (s->magic != kNamedMagic) return false;
  if (s->kind != kHandleEvent && s->kind != kHandleSemaphore) return false;
  const bool semaphore = s->core.type == WaitCore::kSemaphore;
  if (semaphore != (s->kind == kHandleSemaphore) || s->core.shared != 1) return false;
  if (semaphore && (s->core.max_count <= 0 ||
                    s->core.word.load(std::memory_order_relaxed) > static_cast<std::uint32_t>(s->core.max_count)))
    return false;
  return std::strncmp(s->key, key.c_str(), kKeyBytes - 1) == 0;
}

// Not a system error: the shared-memory file system cannot be used (named objects then stay
// inside the process).
constexpr DWORD kSharedMemoryUnavailable = 0xFFFF0001u;

// Opens (or, with `create`, creates) the segment of `key`. Returns the object referenced once, or
// null with *error set. *existed tells whether a live object of that name was there.
Object* OpenNamed(const std::string& key, const CreateParams* create, DWORD* error, bool* existed) {
  const std::string shm_name = SegmentName(key);
  ControlLock lock;
  if (!lock.held()) {
    *error = kSharedMemoryUnavailable;
    return nullptr;
  }
  const int fd = ::shm_open(shm_name.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
  if (fd < 0) {
    *error = errno == ENOENT && !create ? ERROR_FILE_NOT_FOUND : kSharedMemoryUnavailable;
    return nullptr;
  }
  struct stat st{};
  const bool sized = ::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(NamedSegment));
  if (!sized && (!create || ::ftruncate(fd, sizeof(NamedSegment)) != 0)) {
    ::close(fd);
    *error = create ? ERROR_NOT_ENOUGH_MEMORY : ERROR_FILE_NOT_FOUND;
    return nullptr;
  }
  void* map = ::mmap(nullptr, sizeof(NamedSegment), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) {
    *error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  auto* s = static_cast<NamedSegment*>(map);
  // A segment nobody alive has open (its processes died) is as good as gone.
  const bool live = sized && s->magic == kNamedMagic && PruneOpeners(s);
  *existed = live;
  if (live && std::strncmp(s->key, key.c_str(), kKeyBytes - 1) != 0) {
    ::munmap(map, sizeof(NamedSegment));
    *error = ERROR_INVALID_HANDLE;  // another name with the same hash
    return nullptr;
  }
  if (!live) {
    if (!create) {
      ::munmap(map, sizeof(NamedSegment));
      ::shm_unlink(shm_name.c_str());
      *error = ERROR_FILE_NOT_FOUND;
      return nullptr;
    }
    InitSegment(s, key, *create);
  } else if (!SegmentValid(s, key) || (create && s->kind != create->kind)) {
    ::munmap(map, sizeof(NamedSegment));
    *error = ERROR_INVALID_HANDLE;
    return nullptr;
  }
  AddOpener(s, static_cast<std::int32_t>(::getpid()));
  auto* object = new Object;
  object->kind = s->kind;
  object->segment = s;
  object->core = &s->core;
  object->shm_name = shm_name;
  object->key = key;
  return object;
}

void CloseNamedSegment(Object* object) {
  {
    ControlLock lock;
    DropOpener(object->segment, static_cast<std::int32_t>(::getpid()));
    if (!PruneOpeners(object->segment)) {
      object->segment->magic = 0;
      ::shm_unlink(object->shm_name.c_str());
    }
  }
  ::munmap(object->segment, sizeof(NamedSegment));
}

// Validates a name: empty means unnamed; too long or with a path separator is refused.
bool CheckName(const WCHAR* name, DWORD* error) {
  const std::size_t n = WStrLen(name);
  if (n > ZR_MAX_PATH) {
    *error = ERROR_FILENAME_EXCED_RANGE;
    return false;
  }
  std::u16string_view view(name ? name : u"", n);
  for (std::u16string_view prefix : {std::u16string_view(u"Global\\"), std::u16string_view(u"Local\\")})
    if (view.substr(0, prefix.size()) == prefix) view.remove_prefix(prefix.size());
  if (view.find(u'\\') != std::u16string_view::npos || view.find(u'/') != std::u16string_view::npos) {
    *error = ERROR_INVALID_NAME;
    return false;
  }
  return true;
}

Object* NewLocalObject(const CreateParams& params) {
  auto* object = new (std::nothrow) Object;
  if (!object) return nullptr;
  object->kind = params.kind;
  if (params.kind == kHandleSemaphore)
    object->local.InitSemaphore(params.count, params.maximum, false);
  else
    object->local.InitEvent(params.manual, params.initial, false);
  return object;
}

HANDLE CreateObject(const WCHAR* name, const CreateParams& params, DWORD access) {
  DWORD error = ERROR_SUCCESS;
  if (!CheckName(name, &error)) return FailNull(error);
  if (WStrLen(name) == 0) {
    Object* object = NewLocalObject(params);
    if (!object) return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    SetLastError(ERROR_SUCCESS);
    return Table().Insert(object, access);
  }
  const std::string key = KeyOf(name);
  bool existed = true;
  Object* object = Table().FindNamed(key);
  if (!object) {
    object = OpenNamed(key, &params, &error, &existed);
    if (!object && error == kSharedMemoryUnavailable && (object = NewLocalObject(params))) {
      object->key = key;  // named within this process only
      existed = false;
    }
    if (!object) return FailNull(error == kSharedMemoryUnavailable ? ERROR_NOT_ENOUGH_MEMORY : error);
    if (Object* other = Table().PublishNamed(object)) {  // another thread of ours was quicker
      Release(object);
      object = other;
      existed = true;
    }
  }
  if (object->kind != params.kind) {
    Release(object);
    return FailNull(ERROR_INVALID_HANDLE);
  }
  SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return Table().Insert(object, access);
}

HANDLE OpenObject(const WCHAR* name, DWORD kind, DWORD access) {
  DWORD error = ERROR_SUCCESS;
  if (WStrLen(name) == 0) return FailNull(ERROR_INVALID_PARAMETER);
  if (!CheckName(name, &error)) return FailNull(error);
  const std::string key = KeyOf(name);
  Object* object = Table().FindNamed(key);
  if (!object) {
    bool existed = false;
    object = OpenNamed(key, nullptr, &error, &existed);
    if (!object) return FailNull(error == kSharedMemoryUnavailable ? ERROR_FILE_NOT_FOUND : error);
    if (Object* other = Table().PublishNamed(object)) {
      Release(object);
      object = other;
    }
  }
  if (object->kind != kind) {
    Release(object);
    return FailNull(ERROR_INVALID_HANDLE);
  }
  SetLastError(ERROR_SUCCESS);
  return Table().Insert(object, access);
}

// ---------------------------------------------------------------------------------------------
// fork: the child gets a thread id of its own and becomes an opener of the inherited named objects.

std::vector<NamedSegment*> g_fork_segments;

void BeforeFork() { Table().mutex().lock(); }
void AfterForkParent() { Table().mutex().unlock(); }
void AfterForkChild() {
  t_thread_id = 0;
  g_fork_segments = Table().NamedSegmentsLocked();
  Table().mutex().unlock();
  if (g_fork_segments.empty()) return;
  ControlLock lock;
  for (NamedSegment* s : g_fork_segments) AddOpener(s, static_cast<std::int32_t>(::getpid()));
  g_fork_segments.clear();
}

[[maybe_unused]] const bool g_fork_handlers = [] {
  Table();
  ::pthread_atfork(BeforeFork, AfterForkParent, AfterForkChild);
  return true;
}();

DWORD WaitHandles(DWORD count, const HANDLE* handles, bool wait_all, DWORD milliseconds, DWORD limit) {
  if (count == 0 || count > limit || !handles) return Fail(ERROR_INVALID_PARAMETER);
  Object* objects[MAXIMUM_WAIT_OBJECTS];
  WaitCore* cores[MAXIMUM_WAIT_OBJECTS] = {};
  DWORD held = 0;
  DWORD error = ERROR_SUCCESS;
  for (; held < count && error == ERROR_SUCCESS; ++held) {
    DWORD access = 0;
    objects[held] = Table().Reference(handles[held], &access);
    if (!objects[held]) {
      error = ERROR_INVALID_HANDLE;
      break;
    }
    cores[held] = objects[held]->core;
    if (!(access & SYNCHRONIZE)) error = ERROR_ACCESS_DENIED;
  }
  const DWORD result =
      error == ERROR_SUCCESS ? CoreWaitMultiple(count, cores, wait_all, milliseconds) : Fail(error);
  for (DWORD i = 0; i < held; ++i) Release(objects[i]);
  return result;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Identities and the last error

DWORD GetCurrentThreadId() { return CurrentTid(); }
DWORD GetCurrentProcessId() { return static_cast<DWORD>(::getpid()); }
HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(~std::uintptr_t{0}); }
BOOL SwitchToThread() {
  ::sched_yield();
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
// Cores

void WaitCore::InitEvent(bool manual, bool initial, bool is_shared) {
  word.store(initial ? kSignalled : 0u, std::memory_order_relaxed);
  waiters.store(0, std::memory_order_relaxed);
  type = kEvent;
  manual_reset = manual ? 1u : 0u;
  max_count = 0;
  shared = is_shared ? 1u : 0u;
}

void WaitCore::InitSemaphore(std::int32_t initial, std::int32_t maximum, bool is_shared) {
  word.store(static_cast<std::uint32_t>(initial), std::memory_order_relaxed);
  waiters.store(0, std::memory_order_relaxed);
  type = kSemaphore;
  manual_reset = 0;
  max_count = maximum;
  shared = is_shared ? 1u : 0u;
}

void CoreSetEvent(WaitCore* core) {
  const std::uint32_t previous = core->word.fetch_or(kSignalled, std::memory_order_seq_cst);
  if (!(previous & kSignalled)) WakeSleepers(core);
}

void CoreResetEvent(WaitCore* core) { core->word.fetch_and(~(kSignalled | kPulseToken), std::memory_order_seq_cst); }

void CorePulseEvent(WaitCore* core) {
  // A new generation releases whoever waited before it; an auto-reset event leaves one token.
  std::uint32_t w = core->word.load(std::memory_order_relaxed);
  std::uint32_t next;
  do {
    next = (Generation(w) + 1) << 2;
    if (!core->manual_reset && core->waiters.load(std::memory_order_seq_cst) != 0) next |= kPulseToken;
  } while (!core->word.compare_exchange_weak(w, next, std::memory_order_seq_cst));
  WakeSleepers(core);
}

bool CoreReleaseSemaphore(WaitCore* core, std::int32_t count, std::int32_t* previous) {
  if (count <= 0) return false;
  std::uint32_t w = core->word.load(std::memory_order_relaxed);
  do {
    if (static_cast<std::int64_t>(w) + count > core->max_count) return false;
  } while (!core->word.compare_exchange_weak(w, w + static_cast<std::uint32_t>(count), std::memory_order_seq_cst));
  if (previous) *previous = static_cast<std::int32_t>(w);
  WakeSleepers(core);
  return true;
}

DWORD CoreWait(WaitCore* core, DWORD milliseconds) { return WaitLoop(1, &core, false, milliseconds); }

DWORD CoreWaitMultiple(DWORD count, WaitCore* const* cores, bool waitAll, DWORD milliseconds) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !cores) return Fail(ERROR_INVALID_PARAMETER);
  if (waitAll)
    for (DWORD i = 0; i < count; ++i)
      for (DWORD j = i + 1; j < count; ++j)
        if (cores[i] == cores[j]) return Fail(ERROR_INVALID_PARAMETER);
  return WaitLoop(count, cores, waitAll, milliseconds);
}

// ---------------------------------------------------------------------------------------------
// Signal handles of other families

HANDLE CreateSignalHandle(DWORD kind, void* context, HandleDestroyFn destroy) {
  if (kind == kHandleEvent || kind == kHandleSemaphore || kind == 0) return FailNull(ERROR_INVALID_PARAMETER);
  auto* object = new (std::nothrow) Object;
  if (!object) return FailNull(ERROR_NOT_ENOUGH_MEMORY);
  object->kind = kind;
  object->local.InitEvent(true, false, false);
  object->context = context;
  object->destroy = destroy;
  return Table().Insert(object, SYNCHRONIZE | EVENT_ALL_ACCESS);
}

BOOL SetSignalHandle(HANDLE handle) {
  ObjectRef object(handle, 0);
  if (!object || object->kind <= kHandleSemaphore) return FALSE;
  CoreSetEvent(object->core);
  return TRUE;
}

BOOL ResetSignalHandle(HANDLE handle) {
  ObjectRef object(handle, 0);
  if (!object || object->kind <= kHandleSemaphore) return FALSE;
  CoreResetEvent(object->core);
  return TRUE;
}

void* GetSignalHandleContext(HANDLE handle, DWORD kind) {
  ObjectRef object(handle, 0, kind);
  return object ? object->context : nullptr;
}

WaitCore* GetSignalHandleCore(HANDLE handle, DWORD kind) {
  ObjectRef object(handle, 0, kind);
  return object && kind > kHandleSemaphore ? object->core : nullptr;
}

DWORD GetHandleKind(HANDLE handle) {
  ObjectRef object(handle, 0);
  return object ? object->kind : 0;
}

bool LockSharedWaitWord() { return LockControl(); }
void UnlockSharedWaitWord() { UnlockControl(); }

// ---------------------------------------------------------------------------------------------
// Handles, events, semaphores, waits

BOOL CloseHandle(HANDLE handle) {
  Object* object = Table().Remove(handle);
  if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
  Release(object);
  return TRUE;
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target, DWORD desiredAccess,
                     BOOL, DWORD options) {
  if (sourceProcess != GetCurrentProcess() || targetProcess != GetCurrentProcess())
    return Fail(ERROR_INVALID_HANDLE, FALSE);
  DWORD access = 0;
  Object* object = Table().Reference(source, &access);
  if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
  if (!target) {
    Release(object);
    return Fail(ERROR_INVALID_PARAMETER, FALSE);
  }
  *target = Table().Insert(object, (options & DUPLICATE_SAME_ACCESS) ? access : desiredAccess);
  if (options & DUPLICATE_CLOSE_SOURCE) CloseHandle(source);
  return TRUE;
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const WCHAR* name) {
  const CreateParams params{kHandleEvent, manualReset != 0, initialState != 0, 0, 0};
  return CreateObject(name, params, EVENT_ALL_ACCESS);
}

HANDLE OpenEventW(DWORD desiredAccess, BOOL, const WCHAR* name) {
  return OpenObject(name, kHandleEvent, desiredAccess);
}

namespace {
template <class Fn>
BOOL OnEvent(HANDLE event, Fn fn) {
  ObjectRef object(event, EVENT_MODIFY_STATE, kHandleEvent);
  if (!object) return FALSE;
  fn(object->core);
  return TRUE;
}
}  // namespace

BOOL SetEvent(HANDLE event) { return OnEvent(event, CoreSetEvent); }
BOOL ResetEvent(HANDLE event) { return OnEvent(event, CoreResetEvent); }
BOOL PulseEvent(HANDLE event) { return OnEvent(event, CorePulseEvent); }

HANDLE CreateSemaphoreW(SECURITY_ATTRIBUTES*, LONG initialCount, LONG maximumCount, const WCHAR* name) {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount)
    return FailNull(ERROR_INVALID_PARAMETER);
  const CreateParams params{kHandleSemaphore, false, false, initialCount, maximumCount};
  return CreateObject(name, params, SEMAPHORE_ALL_ACCESS);
}

HANDLE OpenSemaphoreW(DWORD desiredAccess, BOOL, const WCHAR* name) {
  return OpenObject(name, kHandleSemaphore, desiredAccess);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount) {
  ObjectRef object(semaphore, SEMAPHORE_MODIFY_STATE, kHandleSemaphore);
  if (!object) return FALSE;
  if (releaseCount <= 0) return Fail(ERROR_INVALID_PARAMETER, FALSE);
  std::int32_t previous = 0;
  if (!CoreReleaseSemaphore(object->core, releaseCount, &previous)) return Fail(ERROR_TOO_MANY_POSTS, FALSE);
  if (previousCount) *previousCount = previous;
  return TRUE;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  return WaitHandles(1, &handle, false, milliseconds, 1);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
  return WaitHandles(count, handles, waitAll != 0, milliseconds, MAXIMUM_WAIT_OBJECTS);
}

DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds, DWORD) {
  return WaitHandles(count, handles, waitAll != 0, milliseconds, MAXIMUM_WAIT_OBJECTS - 1);
}

// ---------------------------------------------------------------------------------------------
// Critical sections

namespace {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

[[gnu::noinline]] void LockSlow(CRITICAL_SECTION* cs) {
  for (std::uint32_t spin = cs->spin_count; spin != 0; --spin) {
    std::uint32_t expected = 0;
    if (cs->lock_word.load(std::memory_order_relaxed) == 0 &&
        cs->lock_word.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return;
    CpuRelax();
  }
  // 2 = held with sleepers: whoever releases it must wake one.
  const Deadline forever(INFINITE);
  while (cs->lock_word.exchange(2, std::memory_order_acquire) != 0) FutexWaitUntil(&cs->lock_word, 2, false, forever);
}

}  // namespace

void InitializeCriticalSection(CRITICAL_SECTION* section) { InitializeCriticalSectionAndSpinCount(section, 0); }

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) {
  section->lock_word.store(0, std::memory_order_relaxed);
  section->owner.store(0, std::memory_order_relaxed);
  section->recursion = 0;
  section->spin_count = spinCount & 0x00FFFFFFu;  // the high byte holds flags on the system
  return TRUE;
}

namespace lib {

DWORD CurrentThreadId() { return CurrentTid(); }

void EnterSection(CRITICAL_SECTION* section) {
  const DWORD me = CurrentTid();
  if (section->owner.load(std::memory_order_relaxed) == me) {
    ++section->recursion;
    return;
  }
  std::uint32_t expected = 0;
  if (!section->lock_word.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
    LockSlow(section);
  section->owner.store(me, std::memory_order_relaxed);
  section->recursion = 1;
}

BOOL TryEnterSection(CRITICAL_SECTION* section) {
  const DWORD me = CurrentTid();
  if (section->owner.load(std::memory_order_relaxed) == me) {
    ++section->recursion;
    return TRUE;
  }
  std::uint32_t expected = 0;
  if (!section->lock_word.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
    return FALSE;
  section->owner.store(me, std::memory_order_relaxed);
  section->recursion = 1;
  return TRUE;
}

void LeaveSection(CRITICAL_SECTION* section) {
  if (section->owner.load(std::memory_order_relaxed) != CurrentTid()) return;  // not ours: nothing to leave
  if (--section->recursion != 0) return;
  section->owner.store(0, std::memory_order_relaxed);
  if (section->lock_word.exchange(0, std::memory_order_release) == 2) FutexWake(&section->lock_word, false, 1);
}

}  // namespace lib

void EnterCriticalSection(CRITICAL_SECTION* section) { lib::EnterSection(section); }
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) { return lib::TryEnterSection(section); }
void LeaveCriticalSection(CRITICAL_SECTION* section) { lib::LeaveSection(section); }

void DeleteCriticalSection(CRITICAL_SECTION* section) { section->spin_count = 0; }

}  // namespace zr::os
