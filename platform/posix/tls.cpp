// Thread-local storage indices over pthread keys (no destructor: owners free their data themselves).
#include "platform/tls.h"

#include <pthread.h>

namespace zr::os {

static_assert(sizeof(pthread_key_t) <= sizeof(DWORD), "a key must fit an index");

DWORD TlsAlloc() {
  pthread_key_t key;
  if (pthread_key_create(&key, nullptr) != 0) return TLS_OUT_OF_INDEXES;
  return static_cast<DWORD>(key);
}

BOOL TlsFree(DWORD index) {
  if (index == TLS_OUT_OF_INDEXES) return FALSE;
  return pthread_key_delete(static_cast<pthread_key_t>(index)) == 0 ? TRUE : FALSE;
}

void* TlsGetValue(DWORD index) {
  if (index == TLS_OUT_OF_INDEXES) return nullptr;
  return pthread_getspecific(static_cast<pthread_key_t>(index));
}

BOOL TlsSetValue(DWORD index, void* value) {
  if (index == TLS_OUT_OF_INDEXES) return FALSE;
  return pthread_setspecific(static_cast<pthread_key_t>(index), value) == 0 ? TRUE : FALSE;
}

}  // namespace zr::os
