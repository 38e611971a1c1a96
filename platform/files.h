// Disk files with Windows semantics: access, share modes enforced between handles and processes,
// creation dispositions, per-handle byte-range locks, attributes, file times, mappings, volume figures.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/lasterror.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

// --- Access, sharing, creation and flag words (the Windows values) --------------------------------
inline constexpr DWORD kGenericRead = 0x80000000u;
inline constexpr DWORD kGenericWrite = 0x40000000u;
inline constexpr DWORD kGenericAll = 0x10000000u;
inline constexpr DWORD kFileReadData = 0x0001u;
inline constexpr DWORD kFileWriteData = 0x0002u;
inline constexpr DWORD kFileAppendData = 0x0004u;
inline constexpr DWORD kDeleteAccess = 0x00010000u;

inline constexpr DWORD kFileShareRead = 0x1u;
inline constexpr DWORD kFileShareWrite = 0x2u;
inline constexpr DWORD kFileShareDelete = 0x4u;

inline constexpr DWORD kCreateNew = 1;
inline constexpr DWORD kCreateAlways = 2;
inline constexpr DWORD kOpenExisting = 3;
inline constexpr DWORD kOpenAlways = 4;
inline constexpr DWORD kTruncateExisting = 5;

inline constexpr DWORD kFileAttributeReadOnly = 0x01u;
inline constexpr DWORD kFileAttributeHidden = 0x02u;
inline constexpr DWORD kFileAttributeSystem = 0x04u;
inline constexpr DWORD kFileAttributeDirectory = 0x10u;
inline constexpr DWORD kFileAttributeArchive = 0x20u;
inline constexpr DWORD kFileAttributeNormal = 0x80u;
inline constexpr DWORD kFileAttributeTemporary = 0x100u;
inline constexpr DWORD kInvalidFileAttributes = 0xFFFFFFFFu;

inline constexpr DWORD kFileFlagWriteThrough = 0x80000000u;
inline constexpr DWORD kFileFlagNoBuffering = 0x20000000u;
inline constexpr DWORD kFileFlagRandomAccess = 0x10000000u;
inline constexpr DWORD kFileFlagSequentialScan = 0x08000000u;
inline constexpr DWORD kFileFlagDeleteOnClose = 0x04000000u;
inline constexpr DWORD kFileFlagBackupSemantics = 0x02000000u;

inline constexpr DWORD kFileBegin = 0;
inline constexpr DWORD kFileCurrent = 1;
inline constexpr DWORD kFileEnd = 2;

// Page protections of a mapping and access words of a view.
inline constexpr DWORD kPageReadOnly = 0x02u;
inline constexpr DWORD kPageReadWrite = 0x04u;
inline constexpr DWORD kPageWriteCopy = 0x08u;
inline constexpr DWORD kFileMapCopy = 0x01u;
inline constexpr DWORD kFileMapWrite = 0x02u;
inline constexpr DWORD kFileMapRead = 0x04u;
inline constexpr DWORD kFileMapAllAccess = 0x000F001Fu;

// --- Error codes reported by GetLastFileError (the Windows numbers) --------------------------------
inline constexpr DWORD kErrorSuccess = 0;
inline constexpr DWORD kErrorFileNotFound = 2;
inline constexpr DWORD kErrorPathNotFound = 3;
inline constexpr DWORD kErrorTooManyOpenFiles = 4;
inline constexpr DWORD kErrorAccessDenied = 5;
inline constexpr DWORD kErrorInvalidHandle = 6;
inline constexpr DWORD kErrorNotEnoughMemory = 8;
inline constexpr DWORD kErrorNotSameDevice = 17;
inline constexpr DWORD kErrorWriteProtect = 19;
inline constexpr DWORD kErrorGenFailure = 31;
inline constexpr DWORD kErrorSharingViolation = 32;
inline constexpr DWORD kErrorLockViolation = 33;
inline constexpr DWORD kErrorHandleEof = 38;
inline constexpr DWORD kErrorNotSupported = 50;
inline constexpr DWORD kErrorFileExists = 80;
inline constexpr DWORD kErrorInvalidParameter = 87;
inline constexpr DWORD kErrorDiskFull = 112;
inline constexpr DWORD kErrorNegativeSeek = 131;
inline constexpr DWORD kErrorDirNotEmpty = 145;
inline constexpr DWORD kErrorNotLocked = 158;
inline constexpr DWORD kErrorAlreadyExists = 183;
inline constexpr DWORD kErrorFilenameTooLong = 206;
inline constexpr DWORD kErrorFileInvalid = 1006;
inline constexpr DWORD kErrorMappedAlignment = 1132;

// Failures set the last error (platform/lasterror.h) to one of these; successes set it to 0.

// --- Handles ----------------------------------------------------------------------------------------
struct PlatformFile;
using FileHandle = PlatformFile*;
inline constexpr FileHandle kInvalidFile = nullptr;

// Opens or creates `path` (UTF-16). `access` takes the generic and specific bits above, `share` the
// share bits, `creation` one of the five dispositions, `flags_attributes` the attribute bits of a
// new file plus the flag bits. Fails with kErrorSharingViolation when the access or share mode clash
// with a handle that is open on the file anywhere (this process or another), kErrorPathNotFound when
// a directory of the path is missing, kErrorAccessDenied for write access to a read-only file.
FileHandle CreateFileW(const char16_t* path, DWORD access, DWORD share, DWORD creation,
                                 DWORD flags_attributes);
BOOL CloseFile(FileHandle file);
// A file without a name in `directory`, for reading and writing: when the process ends before it is
// named, nothing of it is left. NameUnnamedFileW gives it `path`, replacing what was there.
FileHandle CreateUnnamedFileW(const char16_t* directory);
BOOL NameUnnamedFileW(FileHandle file, const char16_t* path);

// Whole transfers: a read stops only at the end of the file, a write fails unless all bytes went out.
BOOL ReadFile(FileHandle file, void* buffer, DWORD count, DWORD* done);
BOOL WriteFile(FileHandle file, const void* data, DWORD count, DWORD* done);
BOOL SetFilePointer(FileHandle file, INT64 distance, DWORD method, UINT64* new_position);
// Copies `count` bytes from `from`'s position to `to`'s, both advancing, without passing them
// through user memory; FALSE when fewer could be copied (the end of `from`, a failed write).
BOOL CopyFileData(FileHandle from, FileHandle to, UINT64 count);
BOOL GetFileSize(FileHandle file, UINT64* size);
BOOL SetEndOfFile(FileHandle file);   // ends the file at the handle's position
BOOL FlushFileBuffers(FileHandle file);
DWORD GetFileHandleAccess(FileHandle file);  // the access the handle was opened with

// Exclusive byte-range locks, owned by the handle (another handle of the same process is excluded
// too). A range may not overlap one this handle holds already; unlocking needs the exact range.
BOOL LockFile(FileHandle file, UINT64 offset, UINT64 length);
BOOL UnlockFile(FileHandle file, UINT64 offset, UINT64 length);

// File times: 100 ns units since 1601-01-01 UTC; null pointers are skipped.
BOOL GetFileTime(FileHandle file, UINT64* creation, UINT64* last_access, UINT64* last_write);
BOOL SetFileTime(FileHandle file, const UINT64* creation, const UINT64* last_access,
                           const UINT64* last_write);

// --- By name ----------------------------------------------------------------------------------------
struct FileInfo {
  DWORD attributes = 0;
  UINT64 size = 0;
  UINT64 creation_time = 0;
  UINT64 last_access_time = 0;
  UINT64 last_write_time = 0;
};
BOOL GetFileInfoW(const char16_t* path, FileInfo* info);
DWORD GetFileAttributesW(const char16_t* path);  // kInvalidFileAttributes when missing
// Sets the last-access and last-write time of a file or directory by name.
BOOL SetPathWriteTime(const char16_t* path, UINT64 last_write);
BOOL SetFileAttributesW(const char16_t* path, DWORD attributes);
BOOL DeleteFileW(const char16_t* path);
BOOL MoveFileW(const char16_t* from, const char16_t* to);  // fails when `to` exists
BOOL CopyFileW(const char16_t* from, const char16_t* to, BOOL fail_if_exists);
BOOL CreateDirectoryW(const char16_t* path);
BOOL CreateDirectoryTreeW(const char16_t* path);  // with every missing parent
BOOL DirectoryExistsW(const char16_t* path);

// --- Mappings ---------------------------------------------------------------------------------------
// Views start at multiples of the allocation granularity (the Windows value, 65536).
DWORD GetAllocationGranularity();
struct FileMapping;
// `maximum_size` 0 maps the file's current size (an empty file cannot be mapped); a larger size grows
// the file when the protection allows writing, and fails otherwise. `name` is accepted and unused:
// views of one file are shared between processes without one.
FileMapping* CreateFileMappingW(FileHandle file, DWORD protection, UINT64 maximum_size,
                                          const char16_t* name);
BOOL CloseFileMapping(FileMapping* mapping);
// `length` 0 maps from `offset` to the end of the mapping.
void* MapViewOfFile(FileMapping* mapping, DWORD access, UINT64 offset, std::size_t length);
BOOL UnmapViewOfFile(const void* view);
// Writes the pages of [address, address + length) of a view to disk; length 0 = to the view's end.
BOOL FlushViewOfFile(const void* address, std::size_t length);

// --- Volumes ----------------------------------------------------------------------------------------
struct DiskFreeSpace {
  DWORD sectors_per_cluster = 0;
  DWORD bytes_per_sector = 0;
  UINT64 free_clusters = 0;   // available to this user
  UINT64 total_clusters = 0;
};
BOOL GetDiskFreeSpaceW(const char16_t* path, DiskFreeSpace* space);
// Replaces the volume query (tests feed extreme figures); null restores the system's.
using DiskFreeSpaceSource = BOOL (*)(const char16_t* path, DiskFreeSpace* space);
DiskFreeSpaceSource SetDiskFreeSpaceSource(DiskFreeSpaceSource source);

// --- Observing system writes ------------------------------------------------------------------------
// Number of WriteFile calls that reached the system since the process started.
UINT64 GetFileWriteCount();
// A hook consulted before every system write: returns how many of `count` bytes may be written (a
// smaller value simulates a full disk). Null removes it. Returns the previous hook.
using FileWriteHook = DWORD (*)(FileHandle file, DWORD count);
FileWriteHook SetFileWriteHook(FileWriteHook hook);

}  // namespace zr::os
