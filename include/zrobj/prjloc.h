// Projects: the unique ids of a project (the "PRJ.IDS" counter file that every process with the
// project open shares through byte-range locks on it), directories for this process, project archives.
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

// Registers a directory (kept ending in '/') under a project id for this process only, in front
// of the projects of the registry file (PrjRegistry, "zrobj/locator.h"). 1 done; 0 for a too long
// directory. A null directory forgets the id.
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_SetProjectDirectory(DWORD projectId, const WCHAR* directory);
// Copies the directory of `projectId` (PrjRegistry::GetProjectDirectory) into `buffer`
// (ZR_MAX_PATH characters); 0 when unregistered.
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetProjectDirectory(DWORD projectId, WCHAR* buffer);

// A project packed into one archive file ("jPvo", a 532-byte header, then one entry per file and
// directory with its relative name, attributes, time and, usually compressed, contents) and back.
class ZROBJ_API PrjLocator {
 public:
  static constexpr DWORD kHeaderSize = 532;
  static constexpr DWORD kRecordSize = 28;

  // Packs the project into a new archive (written unnamed and named only when whole), holding the
  // project's lock throughout; 1 done, 0 failed (nothing left at the archive path).
  static int PackProject(const WCHAR* archivePath, DWORD projectId);
  // Unpacks the archive into DESTINATION/NAME (NAME from the header), replacing what was there;
  // 1 done, 0 failed (no target directory left behind).
  static int UnpackProject(const WCHAR* archivePath, const WCHAR* destination);

  // One entry of an archive, as ListArchive shows it.
  struct ArchiveEntry {
    const WCHAR* name;
    DWORD attributes;
    UINT64 time;  // last write, file time
    DWORD storedSize;
    DWORD fileSize;
  };
  using EntryVisitor = void (*)(const ArchiveEntry& entry, void* context);
  // Reads the header (projectName: ZR_MAX_PATH characters) and visits every entry without
  // unpacking anything; 1 when the archive was read to its end, 0 when it is not an archive or
  // is damaged (the entries before the damage have been visited).
  static int ListArchive(const WCHAR* archivePath, WCHAR* projectName, EntryVisitor visit, void* context);

  // Called after each entry that PackProject writes or UnpackProject writes out, with the entries
  // and bytes of file data done so far; null switches it off. One callback for the process.
  using ProgressCallback = void (*)(DWORD entries, UINT64 bytes, void* context);
  static void SetProgressCallback(ProgressCallback callback, void* context);
};

