// Thread-exit callbacks through one pthread key whose destructor calls the registered function.
#include "platform/threadexit.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace zr::os {

namespace {

std::atomic<ThreadExitFn> g_callback{nullptr};
std::mutex g_key_mutex;
pthread_key_t g_key;
bool g_key_valid = false;

void OnThreadExit(void*) {
  if (const ThreadExitFn fn = g_callback.load()) fn();
}

// The key is made when the callback is set, before the library allocates any slot of its own: at a
// thread's end the C library clears the keys in the order they were made, and the callback must
// still find the thread's slot values.
void CreateKeyLocked() {
  if (!g_key_valid) g_key_valid = pthread_key_create(&g_key, OnThreadExit) == 0;
}

}  // namespace

void SetThreadExitCallback(ThreadExitFn fn) {
  g_callback.store(fn);
  if (!fn) return;
  std::lock_guard lock(g_key_mutex);
  CreateKeyLocked();
}

bool ArmThreadExitForCurrentThread() {
  std::lock_guard lock(g_key_mutex);
  CreateKeyLocked();
  // Any non-null value makes the destructor run; the key's own address is a convenient one.
  return g_key_valid && pthread_setspecific(g_key, &g_key) == 0;
}

void RunThreadExitNow() {
  {
    std::lock_guard lock(g_key_mutex);
    if (!g_key_valid || pthread_getspecific(g_key) == nullptr) return;
    pthread_setspecific(g_key, nullptr);
  }
  OnThreadExit(nullptr);
}

void DisarmThreadExit() {
  std::lock_guard lock(g_key_mutex);
  if (!g_key_valid) return;
  pthread_key_delete(g_key);
  g_key_valid = false;
}

}  // namespace zr::os
