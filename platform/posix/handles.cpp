// The handle table (handles are small multiples of four naming referenced objects), closing and
// duplicating handles, and the signal handles that other families of the layer own.
#include "platform/posix/waitable_internal.h"

#include <new>

namespace zr::os {

namespace posix {

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

}  // namespace posix

using namespace posix;

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

}  // namespace zr::os
