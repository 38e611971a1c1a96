// The object store: where a persistent object lives (Location), the reference through which it is
// opened, locked, committed and released (Locator), and the registry of projects (PrjRegistry).
#pragma once

#include "zrobj/chunkarc.h"
#include "zrobj/cpacl.h"
#include "zrobj/czrfile.h"
#include "zrobj/export.h"
#include "zrobj/prjloc.h"
#include "zrobj/zrtypes.h"

// Access words: what a locator holds on its object file, and the rights of access lists.
inline constexpr DWORD ZR_ACCESS_READ = 0x80000000u;
inline constexpr DWORD ZR_ACCESS_WRITE = 0x40000000u;
inline constexpr DWORD ZR_ACCESS_LIST = 0x20000000u;  // may change the object's access list
inline constexpr DWORD ZR_ACCESS_MASK = ZR_ACCESS_READ | ZR_ACCESS_WRITE;

// The five words that name an object in the store. Object files live at
// "<project directory>obj/<dwDir as %08X>/<dwFile as %08X>.<extension>".
struct Location {
  DWORD dwProject = 0;  // project id (PrjRegistry); 0 = no project
  DWORD dwDir = 0;      // directory number: always dwFile >> 8, so a directory holds 256 objects
  DWORD dwFile = 0;     // file number: the object id (unique in the project, from 1024 on)
  DWORD dwClass = 0;    // GetHashID of the stored object's class name; 0 when not known
  DWORD dwKind = 0;     // file extension, up to four ASCII letters, first at the lowest byte; 0 = "zro"

  // The location of object `objectId` of `project`.
  static Location ForObject(DWORD project, DWORD objectId, DWORD classHash = 0, DWORD kind = 0) {
    Location loc;
    loc.dwProject = project;
    loc.dwDir = objectId >> 8;
    loc.dwFile = objectId;
    loc.dwClass = classHash;
    loc.dwKind = kind;
    return loc;
  }
  bool IsEmpty() const { return dwProject == 0 && dwFile == 0; }
  // Names an object file: a project, an id of at least 1024 and the matching directory number.
  bool IsObject() const { return dwProject != 0 && dwFile >= 1024 && dwDir == (dwFile >> 8); }
  bool SameObject(const Location& other) const {
    return dwProject == other.dwProject && dwDir == other.dwDir && dwFile == other.dwFile;
  }
};
static_assert(sizeof(Location) == 20, "five 32-bit words");

// What the header chunks of an object file say (ReadHeader).
struct ObjectFileHeader {
  Location location;     // as stored by the last commit
  GUID classGuid;        // class of the object, all zero when the writer did not say
  char className[64];    // UTF-8, terminated
  DWORD commitCount;     // commits of the file so far (1 after the first)
  DWORD committerHash;   // GetUserHashIDW of the user who committed last
  UINT64 commitTime;     // file time (UTC) of the last commit
  DWORD dataSize;        // bytes of the object's own data chunk
};

// Writes (Commit) or reads (Load) an object's members through a chunk archive; non-zero = done.
using PFNOBJECTDATA = int (*)(void* object, CZRArchive* archive);

// A reference to an object file of a project with the access held on it. Write access is exclusive
// between all handles and processes (an exclusive byte-range lock on the file plus a share mode
// that refuses other writers); readers share. Commits and loads take a second byte lock for their
// duration, so a reader never sees half a commit. One thread uses a locator at a time.
class ZROBJ_API Locator {
 public:
  // Flags.
  static constexpr DWORD kFlagVirtual = 0x20000u;   // an object without a file: never opened or committed
  static constexpr DWORD kFlagUseACL = 0x800000u;   // access lists are to be honoured for this object
  static constexpr DWORD kFlagCreated = 0x1u;       // the file was created by this locator, not committed yet

  // Results of Access and CreateDiskImage.
  static constexpr DWORD kAccessGranted = 0;
  static constexpr DWORD kAccessInvalid = 1;   // no object location, unknown project, or a virtual object
  static constexpr DWORD kAccessNoFile = 2;    // the object file does not exist
  static constexpr DWORD kAccessBusy = 3;      // another holder writes it (still so after the time-out)
  static constexpr DWORD kAccessFailed = 4;    // the file could not be opened or created otherwise
  static constexpr DWORD kAccessNoIDs = 5;     // no id generator (no working project)

  // Commit flags.
  static constexpr DWORD kCommitRelease = 0x1u;  // release the access after a successful commit

  // Byte-range locks on every object file (beyond any content: files stay below 4 GiB).
  static constexpr DWORD kWriterLockOffset = 0xFFFFFFF0u;  // held with write access
  static constexpr DWORD kCommitLockOffset = 0xFFFFFFF1u;  // held while a commit writes or a load reads
  static constexpr DWORD kLockWaitMs = 2000;               // how long a load or commit waits for it

  Locator();
  ~Locator();  // releases any access
  Locator(const Locator&) = delete;
  Locator& operator=(const Locator&) = delete;

  // Binds the locator to a location (releasing any access first); the object id becomes its file
  // number. 1; 0 when the location names no object file (the locator is then empty).
  int SetLocation(const Location& location);
  // Empties the locator (access released, location and flags cleared).
  void Reset();
  // An object without a file: flag 0x20000, no location, no access. 1.
  int SetVirtual(DWORD classHash);

  const Location& GetLocation() const { return location_; }
  DWORD GetObjID() const { return object_id_; }
  DWORD QueryAccess() const { return access_; }
  DWORD QueryFlags() const { return flags_; }
  void SetFlags(DWORD set, DWORD clear) { flags_ = (flags_ & ~clear) | set; }
  // Bound to an object file location (virtual locators are not valid).
  bool IsValid() const { return (flags_ & kFlagVirtual) == 0 && location_.IsObject(); }
  // The object file's path (ZR_MAX_PATH characters); 0 when not valid or the project is unknown.
  int GetObjectPath(WCHAR* buffer) const;
  // The open object file while access is held, else null. Writes through it belong to the holder.
  CZRFile* GetFile() { return access_ ? &file_ : nullptr; }

  // Creates a new object file in the working project with an id from its generator, and takes
  // write access on it (creating the object's directory as needed). kAccessGranted or a result.
  DWORD CreateDiskImage(DWORD classHash, DWORD kind = 0);
  // Takes `access` (read, write or both) on the bound object file, waiting up to `timeoutMs` while
  // another process writes it (polled every 5 ms). Write access includes read access. Access
  // already held is given up first.
  DWORD Access(DWORD access, DWORD timeoutMs = 0);
  // Gives up the access held (closing the file and its locks); 1, also when none was held.
  int ReleaseAccess();

  // Stores the object: its header chunks and, inside a "Data" chunk, what `store` writes, written
  // over the file's previous content under the commit lock. Needs write access. `className` and
  // `guid` name its class in the header (either may be null). 1 done, 0 failed.
  int Commit(DWORD flags, PFNOBJECTDATA store, void* object, const char* className = nullptr,
             const GUID* guid = nullptr);
  // Reads the object back: `load` reads from inside the "Data" chunk. Needs read (or write) access.
  int Load(PFNOBJECTDATA load, void* object);
  // Reads the header chunks only. Needs access; 1, or 0 for a file that is not an object file.
  int ReadHeader(ObjectFileHeader* header);

  // ---- access lists (the ".acl" file beside the object file; see cpacl.h) ----
  // Grants `access` (its bits 0xE0000000) to `user` on the object, or removes the object's list when
  // `user` is null, as the registry's current user. Needs write access ("Locator::GrantAccess:
  // Invalid access or rights" otherwise). Marks the object file changed; a created or removed list
  // is recorded in the active list and announced through the store notification sender. 1 / 0.
  int GrantAccess(const WCHAR* user, DWORD access);
  // Calls `callback` once per user of the object's list (name, rights, context); the number of
  // calls. Nothing for an invalid or virtual locator, an object file without the hidden marker, or
  // no list file.
  int EnumRights(zr::ACLENUMPROC callback, void* context);
  // Whether the object's list is to be consulted: valid, not virtual, and its file's attributes
  // can be read.
  int CheckACL();
  // Sets or clears kFlagUseACL; 1.
  int SetACLFlag(int on);
  // A private copy of the active list of the working project.
  static CPACLList GetActiveACLList();

  // The object file's change stamp (its last-write time) as this locator last saw it, in two
  // words: taken with the access, after each load and commit, cleared when an access-list change
  // marks the file changed. Whether the file's stamp now differs from it (0 when it cannot be read).
  int IsChangedOnDisk() const;
  DWORD GetSeenStampLow() const { return seen_stamp_[0]; }
  DWORD GetSeenStampHigh() const { return seen_stamp_[1]; }

  // Object ids in [min, max) print a watch line with a short stack when their access is taken or
  // released and when they are committed. Negative values are taken as 0 (written back).
  static void SetRWWatchRange(int& min, int& max);
  static void GetRWWatchRange(int* min, int* max);

 private:
  DWORD OpenFile(DWORD access, DWORD creation, DWORD timeoutMs);
  bool ReadWhole(CPMemoryFile* content);
  void Watch(const char* member) const;
  void RememberStamp();
  void MarkFileChanged();
  void SendACLNotification(DWORD flag) const;

  Location location_;  // the first five words
  DWORD object_id_;    // the object id: the file number, or 0
  DWORD access_;       // ZR_ACCESS_READ / ZR_ACCESS_WRITE held now
  DWORD flags_;
  DWORD commit_count_;  // as read or written last
  DWORD seen_stamp_[2];  // the object file's last-write time as last seen (low, high); 0 = unknown
  CZRFile file_;
};

namespace zr {

// Store notifications (the access-list change message, a mail item with its header) go to the other
// computers through a sender installed by the messaging layer above the store. Until one is
// installed, nothing is sent. Install null to stop sending; the previous sender is returned.
using STORENOTIFYSENDER = int (*)(const void* message, DWORD size);
ZROBJ_API STORENOTIFYSENDER SetStoreNotifySender(STORENOTIFYSENDER sender);
// Hands a message to the installed sender: its result, 0 when none is installed.
ZROBJ_API int SendStoreNotification(const void* message, DWORD size);

}  // namespace zr

// The registry of projects: project id -> directory (ending in '/') and name, kept in
// "PROJECTS.INI" in the settings directory; the current user; each project's administrators (kept
// in "PROJECT.INI" in the project directory, so they travel with it); and the working project of
// this process with its id generator.
class ZROBJ_API PrjRegistry {
 public:
  static constexpr DWORD kMaxUserName = 64;  // characters of a user name, without the terminator

  // Registers `directory` as a project (the directory is created when missing; PRJ.IDS is not).
  // `name` null or empty takes the directory's last component. An already registered directory
  // keeps its id (its name is updated). Returns the id (1, 2, ...), 0 on failure.
  static DWORD AddProject(const WCHAR* directory, const WCHAR* name);
  // Forgets a project (its files stay). 1 removed, 0 not registered.
  static int RemoveProject(DWORD projectId);
  // The directory ending in '/' (ZR_MAX_PATH characters); 0 when unknown.
  static int GetProjectDirectory(DWORD projectId, WCHAR* buffer);
  // The name in its directory form, ending in '/' (ZR_MAX_PATH characters); 0 when unknown.
  static int GetProjectName(DWORD projectId, WCHAR* buffer);
  // The project registered for `directory` (any spelling of the same path), 0 when none.
  static DWORD FindProject(const WCHAR* directory);
  // Calls `visit` for every registered project in ascending id order until it answers 0; returns the
  // number of projects visited.
  using ProjectVisitor = int (*)(DWORD projectId, const WCHAR* directory, const WCHAR* name, void* context);
  static DWORD EnumProjects(ProjectVisitor visit, void* context);

  // The largest object id among the project's object files, 0 when there is none.
  static DWORD FindLargestObjectID(DWORD projectId);

  // Makes `projectId` the working project of this process: its PRJ.IDS is opened, or created from
  // the largest existing object id + 1 and opened. 1 done; 0 (and no working project) on failure.
  // 0 as the id closes the working project. Listeners are told in either case.
  static int SetWorkingProject(DWORD projectId);
  static DWORD GetWorkingProject();
  // The next object id of the working project; 0xFFFFFFFF without one.
  static DWORD NewObjectID();
  // Reserves `count` ids for this process; 0 without a working project.
  static int ReserveObjectIDs(DWORD count);
  // Runs `fn(generator, context)` on the working project's id generator under the registry's lock
  // (null generator without a working project); returns what `fn` returns.
  using GeneratorFn = DWORD (*)(CProjUniID* generator, void* context);
  static DWORD WithIDGenerator(GeneratorFn fn, void* context);
  // Called with the new working project id (0 = none) whenever it is set. Up to 16 listeners.
  using WorkingProjectListener = void (*)(DWORD projectId);
  static int AddWorkingProjectListener(WorkingProjectListener listener);
  static int RemoveWorkingProjectListener(WorkingProjectListener listener);

  // The user of this process (ZROBJ_USERNAME, else the account), at most 64 characters; its hash.
  static int GetCurrentUser(WCHAR* buffer, DWORD capacity);
  static DWORD GetCurrentUserHash();
  // Administrators of a project (stored with GetUserHashIDW of the name). A null user means the
  // current user. 1 done / is one; 0 otherwise.
  static int AddAdministrator(DWORD projectId, const WCHAR* user);
  static int RemoveAdministrator(DWORD projectId, const WCHAR* user);
  static int IsAdministrator(DWORD projectId, const WCHAR* user);
  // Whether the current user administers the working project.
  static int IsCurrentUserAdministrator();

  // The registry file's path (UTF-8).
  static const char* GetRegistryFileName() { return "PROJECTS.INI"; }
};
