// Projects: the unique ids of a project (the "PRJ.IDS" counter file that every process with the
// project open shares through byte-range locks on it) and the directories of registered projects.
#pragma once

#include "zrobj/coslock.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The id allocator of one project. An object is used by one thread at a time (only Touch locks);
// byte locks belong to the object's own handle, so two objects in one process are two users.
class ZROBJ_API CProjUniID {
 public:
  static constexpr DWORD kFirstID = 1024;          // no id below it is ever handed out
  static constexpr DWORD kUserSlots = 256;         // a user slot of 256: none could be taken
  static constexpr unsigned kLockWaitMs = 2000;    // how long the counter lock is waited for

  CProjUniID();
  ~CProjUniID();  // closes nothing: call Close first, or the handle and slot stay held
  CProjUniID(const CProjUniID&) = delete;
  CProjUniID& operator=(const CProjUniID&) = delete;

  // 0 opened; 1 no file; 2 counter lock timed out or all user slots taken; 3 id not readable.
  unsigned int Open(DWORD projectId);                // "PRJ.IDS" in the registered directory
  unsigned int Open(const WCHAR* directory);         // "%PRJ.IDS" after the normalised path
  // Creates (or truncates) the project's "PRJ.IDS" holding max(startId, 1024), then closes it:
  // 0 done; 1 not created; 2 counter lock timed out.
  unsigned int Create(DWORD projectId, DWORD startId);
  void Close();

  unsigned long GetNextID();  // 0xFFFFFFFF on failure
  int ReserveIDs(DWORD count);
  int SetStartID(DWORD id);
  int HasChanged();
  // 0 locked (or locked once more); 256 closed; 0xFFFFFFFE counter lock timed out; else the number
  // of other users, and the project is not locked.
  unsigned int LockProject();
  int UnlockProject();
  int Touch();

  DWORD GetUserSlot() const { return user_slot_; }
  DWORD GetLockCount() const { return lock_count_; }
  DWORD GetCurrentID() const { return current_id_; }
  bool IsOpen() const { return file_ != nullptr; }

 private:
  unsigned int OpenFile(const WCHAR* path);
  bool LockCounter();
  void UnlockCounter();
  bool LockByte(DWORD offset, DWORD length);
  bool UnlockByte(DWORD offset, DWORD length);
  bool ReadNext(DWORD* value);
  void WriteNext(DWORD value);

  DWORD current_id_;
  DWORD reserved_end_;
  DWORD reserved_next_;
  DWORD user_slot_;
  DWORD lock_count_;
  HANDLE file_;
  COSCriticalSection touch_section_;
  WCHAR name_[ZR_MAX_PATH];  // the file's name, for the messages
};

// The project registry, as far as the id files need it: the directory (ending in '/') registered
// for a project id. 1 done; 0 for a null or too long directory. A null directory forgets the id.
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_SetProjectDirectory(DWORD projectId, const WCHAR* directory);
// Copies the directory of `projectId` into `buffer` (ZR_MAX_PATH characters); 0 when unregistered.
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetProjectDirectory(DWORD projectId, WCHAR* buffer);
