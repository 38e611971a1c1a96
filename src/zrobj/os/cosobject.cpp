// Kernel-object owners: COSObject and its verified waits, named events and semaphores, and the
// file-change notification that wakes only for changes of one file.
#include <atomic>
#include <cstring>

#include "platform/changenotify.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "platform/waitable.h"
#include "platform/wformat.h"
#include "zrobj/cosobject.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

// The number of named objects ever constructed. Not interlocked, as designed: two threads
// constructing at once may count one (atomic only so that the race is defined).
std::atomic<DWORD> g_named_objects{0};

constexpr std::size_t kDefaultNameLength = 32;

// Waits through `wait(remaining)` until a result that is not a rejected wake-up. Results below
// `verifiable` name an object, whose `verify` decides; 258 from it resumes the wait. The elapsed
// time is taken from the start each time and subtracted from the already reduced remainder, so a
// rejected wake-up shortens the rest of the wait by more than the time spent; this is intended.
template <class WaitFn, class VerifyFn>
DWORD WaitVerified(DWORD timeout, DWORD verifiable, WaitFn wait, VerifyFn verify) {
  const DWORD start = os::GetTickCount();
  DWORD remaining = timeout;
  for (;;) {
    DWORD result = wait(remaining);
    if (result >= verifiable) return result;
    result = verify(result);
    if (result != WAIT_TIMEOUT) return result;
    const DWORD elapsed = os::GetTickCount() - start;
    if (elapsed >= remaining) return WAIT_TIMEOUT;
    remaining -= elapsed;
  }
}

DWORD Refuse(const WCHAR* warning, DWORD error, std::uintptr_t caller, std::uintptr_t frame) {
  WarningMsg(warning, caller, frame);
  os::SetLastError(error);
  return WAIT_FAILED;
}

HANDLE Duplicate(HANDLE other) {
  HANDLE copy = nullptr;
  if (!other || !os::DuplicateHandle(os::GetCurrentProcess(), other, os::GetCurrentProcess(), &copy, 0, FALSE,
                                 DUPLICATE_SAME_ACCESS))
    return nullptr;
  return copy;
}

// The directory part of a path (up to its last separator); empty when there is none.
std::u16string DirectoryOf(const WCHAR* path) {
  const std::u16string text(path);
  const std::size_t slash = text.find_last_of(u'/');
  if (slash == std::u16string::npos) return {};
  return slash == 0 ? u"/" : text.substr(0, slash);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// COSObject

COSObject::COSObject() = default;
COSObject::~COSObject() = default;

DWORD COSObject::VerifyWaitSuccessful(DWORD waitResult) { return waitResult; }

DWORD COSObject::Wait(DWORD timeout) {
  if (!m_hObject)
    return Refuse(u"ObjectWait: Object does not exist", ZR_ERROR_OBJECT_MISSING, ZR_CALLER_ADDRESS(),
                  ZR_CURRENT_FRAME());
  return WaitVerified(
      timeout, 1, [this](DWORD ms) { return os::WaitForSingleObject(m_hObject, ms); },
      [this](DWORD result) { return VerifyWaitSuccessful(result); });
}

DWORD COSObject::WaitMultiple(DWORD count, COSObject** objects, int waitAll, DWORD timeout) {
  if (count > ZR_MAX_WAIT_OBJECTS)
    return Refuse(u"ObjectWaitMultiple: Too many objects", ZR_ERROR_TOO_MANY_OBJECTS, ZR_CALLER_ADDRESS(),
                  ZR_CURRENT_FRAME());
  HANDLE handles[ZR_MAX_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) {
    handles[i] = objects && objects[i] ? objects[i]->m_hObject : nullptr;
    if (!handles[i])
      return Refuse(u"ObjectWaitMultiple: Object(s) do(es) not exist", ZR_ERROR_OBJECT_MISSING, ZR_CALLER_ADDRESS(),
                    ZR_CURRENT_FRAME());
  }
  return WaitVerified(
      timeout, count, [&](DWORD ms) { return os::WaitForMultipleObjects(count, handles, waitAll, ms); },
      [&](DWORD result) { return objects[result]->VerifyWaitSuccessful(result); });
}

DWORD COSObject::MsgWaitMultiple(DWORD count, COSObject** objects, int waitAll, DWORD timeout, DWORD wakeMask) {
  if (count > ZR_MAX_WAIT_OBJECTS)
    return Refuse(u"MsgObjectWaitMultiple: Too many objects", ZR_ERROR_TOO_MANY_OBJECTS, ZR_CALLER_ADDRESS(),
                  ZR_CURRENT_FRAME());
  // Every entry carries the first object's handle, and only that one is checked: kept as designed.
  HANDLE first = count && objects && objects[0] ? objects[0]->m_hObject : nullptr;
  if (!first)
    return Refuse(u"MsgObjectWaitMultiple: Object(s) do(es) not exist", ZR_ERROR_OBJECT_MISSING,
                  ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
  HANDLE handles[ZR_MAX_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) handles[i] = first;
  return WaitVerified(
      timeout, count, [&](DWORD ms) { return os::MsgWaitForMultipleObjects(count, handles, waitAll, ms, wakeMask); },
      [&](DWORD result) { return objects[result]->VerifyWaitSuccessful(result); });
}

// ---------------------------------------------------------------------------------------------
// Named objects

CNamedOSObject::CNamedOSObject() {
  g_named_objects.store(g_named_objects.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void CNamedOSObject::GetDefObjectName(WCHAR* buffer) {
  if (!buffer) return;
  const std::u16string name = os::FormatWide(u"CNamedOSObject%u", GetObjectCounter());
  os::WStrCopy(buffer, name.size() + 1, name);
}

DWORD CNamedOSObject::GetObjectCounter() { return g_named_objects.load(std::memory_order_relaxed); }

COSEvent::COSEvent() {
  WCHAR name[kDefaultNameLength];
  GetDefObjectName(name);
  m_hObject = os::CreateEventW(nullptr, FALSE, FALSE, name);
}

COSEvent::COSEvent(HANDLE other) { m_hObject = Duplicate(other); }

COSEvent::COSEvent(WCHAR* name, DWORD create) {
  if (!create) {
    m_hObject = os::OpenEventW(0, FALSE, name);  // access 0 is what this constructor asks for
    return;
  }
  WCHAR fallback[kDefaultNameLength];
  if (!name) GetDefObjectName(name = fallback);
  m_hObject = os::CreateEventW(nullptr, FALSE, FALSE, name);
}

COSEvent::COSEvent(SECURITY_ATTRIBUTES* security, int manualReset, int initialState, WCHAR* name) {
  WCHAR fallback[kDefaultNameLength];
  if (!name) GetDefObjectName(name = fallback);
  m_hObject = os::CreateEventW(security, manualReset, initialState, name);
}

COSEvent::~COSEvent() { CloseOwnHandle(); }

void COSEvent::CloseOwnHandle() {
  if (m_hObject) os::CloseHandle(m_hObject);
  m_hObject = nullptr;
}

int COSEvent::Set() { return m_hObject ? os::SetEvent(m_hObject) : 0; }
int COSEvent::Reset() { return m_hObject ? os::ResetEvent(m_hObject) : 0; }
int COSEvent::Pulse() { return m_hObject ? os::PulseEvent(m_hObject) : 0; }

COSExtEvent::COSExtEvent() : COSEvent(static_cast<HANDLE>(nullptr)) {}

int COSExtEvent::Open(HANDLE other) {
  if (m_hObject || !other) return 0;
  m_hObject = Duplicate(other);
  return m_hObject != nullptr;
}

int COSExtEvent::Close() {
  CloseOwnHandle();
  return 1;
}

COSSemaphore::COSSemaphore() : COSSemaphore(nullptr, 1, 1, nullptr) {}

COSSemaphore::COSSemaphore(LONG initial, LONG maximum, WCHAR* name) : COSSemaphore(nullptr, initial, maximum, name) {}

COSSemaphore::COSSemaphore(SECURITY_ATTRIBUTES* security, LONG initial, LONG maximum, WCHAR* name) {
  WCHAR fallback[kDefaultNameLength];
  if (!name) GetDefObjectName(name = fallback);
  m_hObject = os::CreateSemaphoreW(security, initial, maximum, name);
}

COSSemaphore::~COSSemaphore() {
  if (m_hObject) os::CloseHandle(m_hObject);
}

int COSSemaphore::Release(LONG count, LONG* previous) {
  return m_hObject ? os::ReleaseSemaphore(m_hObject, count, previous) : 0;
}

// ---------------------------------------------------------------------------------------------
// COSFileChangeNotify

namespace {
constexpr DWORD kWatchableChanges = 0x1Du;  // file name, attributes, size, last write
}

COSFileChangeNotify::COSFileChangeNotify(const WCHAR* path, DWORD filter) : m_filter(filter & kWatchableChanges) {
  if (os::WStrLen(path) == 0 || m_filter == 0) return;
  os::WStrCopy(m_path, ZR_MAX_PATH, path);
  const std::u16string directory = DirectoryOf(m_path);
  if (directory.empty()) return;
  HANDLE handle = os::FindFirstChangeNotificationW(directory.c_str(), FALSE, m_filter);
  if (handle == INVALID_HANDLE_VALUE) return;
  m_hObject = handle;
  os::GetFindData(m_path, &m_entry);
}

COSFileChangeNotify::~COSFileChangeNotify() {
  if (m_hObject) os::FindCloseChangeNotification(m_hObject);
}

DWORD COSFileChangeNotify::VerifyWaitSuccessful(DWORD waitResult) {
  if (!m_hObject) return WAIT_FAILED;
  os::FindNextChangeNotification(m_hObject);
  tagZRFINDDATA now;
  if (!os::GetFindData(m_path, &now)) {
    const bool existed = m_entry.cFileName[0] != 0;
    m_entry = {};
    m_lastChange = existed ? 1u : 0u;
    return existed && (m_filter & 1u) ? waitResult : WAIT_TIMEOUT;
  }
  DWORD changes = std::u16string_view(now.cFileName) != std::u16string_view(m_entry.cFileName) ? 1u : 0u;
  // The attribute test sets the bits to 4, or 5 with a name change: it replaces the name bit.
  if (now.dwFileAttributes != m_entry.dwFileAttributes) changes = changes ? 5u : 4u;
  if (now.nFileSizeHigh != m_entry.nFileSizeHigh || now.nFileSizeLow != m_entry.nFileSizeLow) changes |= 8u;
  if (std::memcmp(now.ftLastWriteTime, m_entry.ftLastWriteTime, sizeof now.ftLastWriteTime) != 0) changes |= 16u;
  m_entry = now;
  m_lastChange = changes;
  return (changes & m_filter) ? waitResult : WAIT_TIMEOUT;
}
