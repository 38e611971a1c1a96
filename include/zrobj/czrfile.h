// CZRFile: a named disk file with a position, a cached size, an optional write-behind cache,
// counted byte-range locks and an optional memory-mapped view; it keeps its name when closed.
#pragma once


#include "zrobj/coslock.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

#ifndef ZROBJ_FILETIME_DEFINED
#define ZROBJ_FILETIME_DEFINED
// A file time: 100-nanosecond units since 1601-01-01 UTC, split in two 32-bit halves.
struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
#endif

class ZROBJ_API CZRFile {
 public:
  // Result codes of the two Open forms.
  static constexpr unsigned int kOpened = 0;
  static constexpr unsigned int kAlreadyOpen = 1;
  static constexpr unsigned int kOpenFailed = 2;
  static constexpr unsigned int kNoName = 4;
  static constexpr unsigned int kSharingViolation = 5;

  // Values of `creation` for Open (also taken by CChunkArchive::Open).
  static constexpr DWORD kCreateNew = 1;
  static constexpr DWORD kCreateAlways = 2;
  static constexpr DWORD kOpenExisting = 3;
  static constexpr DWORD kOpenAlways = 4;
  static constexpr DWORD kTruncateExisting = 5;

  // Values of GetStatus.
  static constexpr int kStatusNeverOpened = -1;
  static constexpr int kStatusReady = 0;
  static constexpr int kStatusMapped = 1;
  static constexpr int kStatusFailed = 2;

  CZRFile();
  explicit CZRFile(const WCHAR* name);
  ~CZRFile();
  CZRFile(const CZRFile&) = delete;
  CZRFile& operator=(const CZRFile&) = delete;

  // Opening: `access` 0x80000000 read / 0x40000000 write, `share` 1 read / 2 write / 4 delete,
  // `creation` 1 new, 2 always, 3 existing, 4 open always, 5 truncate; `cacheSize` bytes of write
  // cache (used only for files opened exclusively for writing).
  unsigned int Open(const WCHAR* path, DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD cacheSize);
  unsigned int Open(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD cacheSize);
  int Close();

  DWORD GetAccess() const { return access_; }
  int GetStatus() const { return status_; }
  DWORD GetSize();
  const WCHAR* GetFilename() const { return name_; }
  DWORD GetFilePtr() const { return position_; }
  int SetFilePtr(LONG offset, DWORD method);
  DWORD Write(const void* data, DWORD count);
  DWORD Read(void* data, DWORD count);
  int FlushCache();
  int SetEOF(DWORD position);  // always 0

  // Byte-range locks; a length of 0 means the whole file, from `offset` to the end of the 32-bit
  // range (lock and unlock name the same range however the file grows). A time-out of 0xFFFFFFFF
  // waits without limit and does not count the lock.
  int WaitFileLock(DWORD offset, DWORD length, DWORD timeout);
  int FileLock(DWORD offset, DWORD length);
  int FileUnlock(DWORD offset, DWORD length);

  // By name.
  int Delete();
  int Name(const WCHAR* newPath);
  int Move(const WCHAR* newPath);
  int Copy(const WCHAR* targetPath, BOOL failIfExists);
  int Rename(const WCHAR* newFileName);
  int Touch(const WCHAR* newPath = nullptr);
  int GetTime(FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite);
  int SetTime(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite);

  // Mapping. The returned address is that of the byte at `offset`; the view itself starts at the
  // offset rounded down to the allocation granularity (GetViewOffset, GetViewAddress).
  void* MapFile(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD pageProtection, DWORD offset,
                DWORD size, const WCHAR* mappingName, DWORD viewAccess, DWORD mapFlags);
  void* MapFileR(DWORD size, DWORD offset = 0, DWORD mapFlags = 0);
  void* MapFileRW(BOOL create, DWORD size, DWORD offset = 0, DWORD mapFlags = 0);
  void* RemapFile(DWORD size, DWORD offset = 0, DWORD mapFlags = 0);
  int UnmapFile();  // always 0
  int FlushView(const void* address, DWORD length);
  void* GetViewAddress() const { return view_address_; }
  DWORD GetViewOffset() const { return view_offset_; }
  DWORD GetViewSize() const { return view_size_; }

  int TransferFrom(CZRFile& other);

  static DWORD GetFreeDiskSpace(const WCHAR* path);
  static BOOL WasModifiedSince(const WCHAR* path, const FILETIME* time);
  static BOOL TouchFile(const WCHAR* path);

  // Attribute bits kept beside a file (read-only files refuse writes and deletion).
  static constexpr DWORD kAttributeReadOnly = 0x01u;
  static constexpr DWORD kAttributeHidden = 0x02u;
  static constexpr DWORD kAttributeSystem = 0x04u;
  static constexpr DWORD kAttributeDirectory = 0x10u;
  static constexpr DWORD kAttributeArchive = 0x20u;
  static constexpr DWORD kAttributeNormal = 0x80u;  // no other bit set
  static constexpr DWORD kInvalidAttributes = 0xFFFFFFFFu;

  // Error numbers of GetLastError (the Windows numbering); others may occur.
  static constexpr DWORD kErrorFileNotFound = 2;
  static constexpr DWORD kErrorPathNotFound = 3;
  static constexpr DWORD kErrorAccessDenied = 5;
  static constexpr DWORD kErrorSharingViolation = 32;  // another holder's access or share mode clash
  static constexpr DWORD kErrorNotSupported = 50;      // the file system cannot keep attributes

  // A file by name: size, attributes and times.
  struct Info {
    UINT64 size;
    DWORD attributes;
    FILETIME creation;
    FILETIME lastAccess;
    FILETIME lastWrite;
  };
  static BOOL GetInfo(const WCHAR* path, Info* info);
  static DWORD GetAttributes(const WCHAR* path);  // kInvalidAttributes when it cannot be read
  // Stores the attribute bits; the directory and normal bits are ignored (they are not stored).
  static BOOL SetAttributes(const WCHAR* path, DWORD attributes);
  // The volume holding `path`: bytes free to this user (the full figure, where GetFreeDiskSpace
  // reports at most 4 GiB - 1) and its cluster size.
  static BOOL GetVolumeSpace(const WCHAR* path, UINT64* freeBytes, DWORD* clusterBytes);
  // The error of the calling thread's last failed file operation (this class's and the statics').
  static DWORD GetLastError();

  void ThreadLockAccess() { section_.Enter(); }
  void ThreadUnlockAccess() { section_.Leave(); }

 private:
  // The object's critical section (recursive, with owner diagnostics).
  using CriticalSection = COSCriticalSection;

  unsigned int OpenStored(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD cacheSize);
  bool StoreName(const WCHAR* path);
  void Reset();
  bool IsOpen() const;
  bool IsWritable() const { return (access_ & 0x40000000u) != 0; }
  bool IsReadable() const { return (access_ & 0x80000000u) != 0; }
  bool SeekTo(long long target);
  DWORD WriteDirect(const void* data, DWORD count);
  bool ResolveLockLength(DWORD* length);
  void RememberWholeLock(DWORD offset, DWORD requested, DWORD locked);
  DWORD WholeUnlockLength(DWORD offset);
  void RemoveView();
  void* MapOpenFile(bool writable, DWORD offset, DWORD size, DWORD mapFlags);
  template <class Fn>
  int WithTimeHandle(bool write, Fn&& fn);

  HANDLE file_;                // the platform handle; null when closed
  HANDLE mapping_;             // the mapping object while a view exists
  DWORD view_offset_;          // file offset of the view, a multiple of the allocation granularity
  DWORD view_size_;
  void* view_address_;
  DWORD size_;                 // the file's size as last known
  DWORD access_;
  DWORD share_;
  DWORD map_flags_;            // bit 0: the file was open before the view and stays open after it
  WCHAR name_[ZR_MAX_PATH];
  LONG status_;
  DWORD position_;             // the position as the object sees it, cached bytes included
  DWORD creation_;
  DWORD flags_;
  DWORD view_access_;
  BYTE* cache_;                // write-behind cache
  DWORD cache_capacity_;
  DWORD cache_offset_;         // file offset of the cache's first byte
  DWORD cache_fill_;
  DWORD lock_count_;           // counted byte-range locks not yet unlocked
  DWORD whole_lock_offset_;    // the last lock of the whole file: its offset and the length it took
  DWORD whole_lock_length_;    // (0: none), so that its unlock names the same range
  CriticalSection section_;
};
