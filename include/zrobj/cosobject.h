// Owners of kernel objects with one wait protocol: events, semaphores and file-change notifications.
// A wait that wakes asks the object (VerifyWaitSuccessful) whether the wake-up counts; if not, the
// wait goes on with the remaining time.
#pragma once

#include <cstdint>

#include "zrobj/coswait.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Last-error values of the waits on objects that do not exist.
inline constexpr DWORD ZR_ERROR_OBJECT_MISSING = 0x80000000u;
inline constexpr DWORD ZR_ERROR_TOO_MANY_OBJECTS = 0x80000001u;
inline constexpr DWORD ZR_MAX_WAIT_OBJECTS = 64;

class ZROBJ_API COSObject {
 public:
  COSObject();
  // Waits for the object; 0 when it was signalled (and the wake-up verified), 258 on time-out,
  // 0xFFFFFFFF without a handle.
  virtual DWORD Wait(DWORD timeout);
  // Decides whether a wake-up counts: returns `waitResult` to end the wait, 258 to wait on.
  virtual DWORD VerifyWaitSuccessful(DWORD waitResult);
  virtual ~COSObject();
  COSObject(const COSObject&) = delete;
  COSObject& operator=(const COSObject&) = delete;

  HANDLE GetHandle() { return m_hObject; }
  int AssertValid() { return m_hObject != nullptr; }

  // Waits for any or all of up to 64 objects; the index of the object that ended the wait, 258 on
  // time-out, 0xFFFFFFFF on failure.
  static DWORD WaitMultiple(DWORD count, COSObject** objects, int waitAll, DWORD timeout);
  // The message form: waits on the first object's handle in every entry (there is no message queue).
  static DWORD MsgWaitMultiple(DWORD count, COSObject** objects, int waitAll, DWORD timeout, DWORD wakeMask);

 protected:
  HANDLE m_hObject = nullptr;
};

// A kernel object with a name; every construction counts, and unnamed objects take a default name.
class ZROBJ_API CNamedOSObject : public COSObject {
 public:
  CNamedOSObject();
  // Writes "CNamedOSObject<counter>" (room for 25 characters).
  void GetDefObjectName(WCHAR* buffer);
  static DWORD GetObjectCounter();
};

class ZROBJ_API COSEvent : public CNamedOSObject {
 public:
  // Auto-reset, not signalled, default name.
  COSEvent();
  // Duplicates `other` with the same access; no handle when `other` is null or duplication fails.
  explicit COSEvent(HANDLE other);
  // create == 0: opens the existing event of that name with access 0; else creates an auto-reset,
  // non-signalled event of that name.
  COSEvent(WCHAR* name, DWORD create);
  COSEvent(SECURITY_ATTRIBUTES* security, int manualReset, int initialState, WCHAR* name);
  ~COSEvent() override;

  int Set();
  int Reset();
  int Pulse();

 protected:
  void CloseOwnHandle();
};

// An event that refers to a handle received from elsewhere.
class ZROBJ_API COSExtEvent : public COSEvent {
 public:
  COSExtEvent();
  // Duplicates `other` unless a handle is held already or `other` is null; 1 on success.
  int Open(HANDLE other);
  int Close();
};

class ZROBJ_API COSSemaphore : public CNamedOSObject {
 public:
  // Count 1, maximum 1, default name.
  COSSemaphore();
  COSSemaphore(LONG initial, LONG maximum, WCHAR* name);
  COSSemaphore(SECURITY_ATTRIBUTES* security, LONG initial, LONG maximum, WCHAR* name);
  ~COSSemaphore() override;

  int Release(LONG count, LONG* previous);
};

// Watches one file through a notification on its directory: a wake-up counts only when the file
// changed in a way the filter names (0x1 name and deletion, 0x4 attributes, 0x8 size, 0x10 time).
class ZROBJ_API COSFileChangeNotify : public COSObject {
 public:
  COSFileChangeNotify(const WCHAR* path, DWORD filter);
  ~COSFileChangeNotify() override;
  DWORD VerifyWaitSuccessful(DWORD waitResult) override;

  DWORD GetFilter() const { return m_filter; }
  // The change bits of the last verified wake-up (1 name, 4 or 5 attributes, 8 size, 16 time).
  DWORD GetLastChange() const { return m_lastChange; }

 private:
  DWORD m_filter = 0;
  WCHAR m_path[ZR_MAX_PATH] = {};
  tagZRFINDDATA m_entry = {};
  DWORD m_lastChange = 0;
};
