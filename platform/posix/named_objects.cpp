// Named events and semaphores: one shared-memory segment per name (scoped per user, and per
// settings directory unless "Global\"), with the processes that have it open; creation and
// opening by name for the handle functions.
#include "platform/posix/waitable_internal.h"
#include "platform/text.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace zr::os {

namespace posix {
namespace {

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

}  // namespace

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

namespace {

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

// ---- fork: the child becomes an opener of the inherited named objects.

std::vector<NamedSegment*> g_fork_segments;

void BeforeFork() { Table().mutex().lock(); }
void AfterForkParent() { Table().mutex().unlock(); }
void AfterForkChild() {
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

}  // namespace

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

}  // namespace posix

}  // namespace zr::os
