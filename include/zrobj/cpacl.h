// Access control lists of stored objects: the ".acl" settings file beside an object file (one
// section per user: rights and name), the hidden-attribute marker, CPACLList of the objects that
// carry a list, and the process-wide active list of the working project.
#pragma once

#include <array>
#include <string>

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class CZRFile;

// Rights bits of a list entry.
inline constexpr DWORD ACL_READ = 0x80000000u;
inline constexpr DWORD ACL_WRITE = 0x40000000u;
inline constexpr DWORD ACL_CHANGE_LIST = 0x20000000u;  // may change the list itself
inline constexpr DWORD ACL_ALL_RIGHTS = 0xE0000000u;

// An object named by its location pair: directory number, file number.
struct tagACLLISTENTRY {
  DWORD dwFirst;
  DWORD dwSecond;
};
static_assert(sizeof(tagACLLISTENTRY) == 8, "access list entry layout");

// Entries sorted by the second number only. Find and Add test the list's first entry against the
// key (not the entry the search lands on): a key is found only while it is the first entry, and
// adding a pair that is present but not first inserts it again.
class ZROBJ_API CPACLList : public CPMemory {
 public:
  static constexpr unsigned long kGrowthBytes = 512;  // 64 entries

  CPACLList() = default;
  CPACLList(const CPACLList& other);
  CPACLList& operator=(const CPACLList& other);
  ~CPACLList() override;
  const char* GetClassID() const override { return "CPACLList"; }

  tagACLLISTENTRY* GetList();  // null when empty
  const tagACLLISTENTRY* GetCList() const;
  DWORD GetNItems() const { return GetSize() / sizeof(tagACLLISTENTRY); }

  tagACLLISTENTRY* Find(DWORD first, DWORD second);
  // 1 when the pair is (judged) present afterwards, 0 when the memory could not grow.
  int Add(DWORD first, DWORD second);
  int Delete(DWORD first, DWORD second);  // always 1

 private:
  DWORD SearchIndex(DWORD second) const;
  bool FirstEntryIs(DWORD index, DWORD first, DWORD second) const;
};

namespace zr {

// ---- the active list ----
// Sets the working project (its directory; a missing final separator is added) and forgets the
// list; the next use scans "<project>obj/" again. Null or empty leaves no project: the list stays
// empty.
ZROBJ_API void ResetActiveACLList(const WCHAR* projectPath);
// A private copy of the active list, scanning the project first if that has not been done.
ZROBJ_API CPACLList GetActiveACLList();
// After a list file was created or removed; nothing while the project has not been scanned.
ZROBJ_API void RecordNewACLList(DWORD first, DWORD second);
ZROBJ_API void RecordRemovedACLList(DWORD first, DWORD second);
ZROBJ_API bool IsActiveACLListScanned();

// ---- list files ----
inline constexpr int kACLUserChars = 64;  // user names are kept to 64 characters
inline constexpr std::size_t kACLMaxUsers = 256;

// The list file of an object file: the object path with its extension replaced by ".acl".
ZROBJ_API std::u16string ACLFilePath(const WCHAR* objectPath);
// The location pair named by an object path: the file name (less its extension) and its
// directory's name, each read as hexadecimal as "%x" does. False when either does not parse.
ZROBJ_API bool ACLLocationFromPath(const WCHAR* objectPath, DWORD* first, DWORD* second);

// What a grant did beyond its result; the caller bumps the object file's change stamp, records the
// created or removed list and sends the notification.
enum class ACLChange { kNone, kCreated, kRemoved };
struct ACLGrantOutcome {
  int result = 0;           // what GrantAccess returns
  bool stampChanged = false;  // the object file is to be marked as changed
  ACLChange list = ACLChange::kNone;
};
// Grants `access` & 0xE0000000 to `targetUser` on the object file, or removes its list when
// `targetUser` is null, as `currentUser` (an administrator of the working project when `isAdmin`).
// An existing list is changed only by a user holding ACL_CHANGE_LIST or an administrator; nobody
// changes their own entry (granting all three rights to oneself answers 1, anything else 0). The
// first grant creates the list with the current user's section (all rights) and the target's,
// and sets the object file's hidden attribute; removing the list clears it. An empty target name
// is refused.
ZROBJ_API ACLGrantOutcome ACLGrantAccess(const WCHAR* objectPath, const WCHAR* currentUser, bool isAdmin,
                                         const WCHAR* targetUser, DWORD access);

// Called once per user of a list with the name, the rights and the context.
using ACLENUMPROC = void (*)(const WCHAR* user, DWORD rights, void* context);
// Enumerates the list of an object file that exists and carries the hidden attribute: up to 256
// sections whose names are hexadecimal user ids, in file order. The number of calls made.
ZROBJ_API int ACLEnumRights(const WCHAR* objectPath, ACLENUMPROC callback, void* context);
// The rights of one user in an object's list (0 when absent).
ZROBJ_API DWORD ACLGetUserRights(const WCHAR* objectPath, const WCHAR* user);

// The change stamp: a last-access time later than the last-write time becomes the last-write time,
// otherwise the last-write time advances by one tick (100 ns).
ZROBJ_API UINT64 ACLNextWriteTime(UINT64 lastAccess, UINT64 lastWrite);
// Applies it to an open file, writing the last-write time only. 0 for a closed file (last error 6,
// invalid handle) or when the times cannot be read or written.
ZROBJ_API int ACLBumpChangeStamp(CZRFile& file);

// The 40-byte change notification: the message header (size 40, computer id 0, tag 0, type 2),
// the five words of the object's location and the flag (1 created, 0 removed), little-endian.
inline constexpr std::size_t kACLNotificationSize = 40;
ZROBJ_API std::array<BYTE, kACLNotificationSize> ACLChangeNotification(const DWORD location[5], DWORD flag);

}  // namespace zr
