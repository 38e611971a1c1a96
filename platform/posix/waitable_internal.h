// What the POSIX implementation of the waitable objects shares between its files: thread ids,
// failure helpers, the state rules of a core, the robust lock word, objects and the handle table.
#pragma once

#include <climits>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/posix/futex.h"
#include "platform/waitable.h"

namespace zr::os::posix {

// ---- Thread ids (identities.cpp)
extern __attribute__((tls_model("initial-exec"))) thread_local DWORD t_thread_id;
DWORD FetchTid();

inline DWORD CurrentTid() {
  const DWORD id = t_thread_id;
  return id != 0 ? id : FetchTid();
}

// ---- Failures: set the last error and return the failure value
inline DWORD Fail(DWORD error, DWORD result = WAIT_FAILED) {
  SetLastError(error);
  return result;
}

inline HANDLE FailNull(DWORD error) {
  SetLastError(error);
  return nullptr;
}

// ---- Core state rules (events.cpp, waits.cpp)
inline constexpr std::uint32_t kSignalled = 1u;
inline constexpr std::uint32_t kPulseToken = 2u;
inline std::uint32_t Generation(std::uint32_t w) { return w >> 2; }

inline void WakeSleepers(WaitCore* core) {
  if (core->waiters.load(std::memory_order_seq_cst) != 0) FutexWake(&core->word, core->shared != 0, INT_MAX);
}

// ---- The robust lock word shared between processes (robust_lock.cpp)
// The per-user prefix of the shared-memory names of this layer.
std::string UserPrefix();
bool LockControl();
void UnlockControl();

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

// ---- The lock of waits for all objects (waits.cpp)
// A wait for all objects takes them one by one and gives back what it took when one is missing.
// It does so holding this lock: the lock word shared between processes when any of the objects is
// shared, else a lock of this process. State changes that a give-back must not undo (resetting an
// event) take the same lock.
class WaitAllLock {
 public:
  explicit WaitAllLock(bool shared);
  ~WaitAllLock();
  WaitAllLock(const WaitAllLock&) = delete;
  WaitAllLock& operator=(const WaitAllLock&) = delete;

 private:
  bool shared_;
  bool held_;
};

// Gives back what a wait for all objects took from `core` before it found another one missing.
void GiveBack(WaitCore* core);

// ---- Objects and the handle table (handles.cpp)
inline constexpr int kMaxOpeners = 128;
inline constexpr std::size_t kKeyBytes = 1024;
inline constexpr std::uint32_t kNamedMagic = 0x5A524E31u;  // "ZRN1"
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

HandleTable& Table();
// Drops a reference; the last one destroys the object.
void Release(Object* object);

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

// ---- Named objects (named_objects.cpp)
// What a creator asks for when the name is new.
struct CreateParams {
  DWORD kind;
  bool manual;
  bool initial;
  LONG count;
  LONG maximum;
};

// Creates an object (named or not) and a handle to it; sets the last error to ERROR_ALREADY_EXISTS
// when the name existed.
HANDLE CreateObject(const WCHAR* name, const CreateParams& params, DWORD access);
HANDLE OpenObject(const WCHAR* name, DWORD kind, DWORD access);

}  // namespace zr::os::posix
