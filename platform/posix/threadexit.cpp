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

}  // namespace

void SetThreadExitCallback(ThreadExitFn fn) { g_callback.store(fn); }

bool ArmThreadExitForCurrentThread() {
  std::lock_guard lock(g_key_mutex);
  if (!g_key_valid) g_key_valid = pthread_key_create(&g_key, OnThreadExit) == 0;
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
