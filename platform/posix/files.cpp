// POSIX file layer with Windows semantics. Share modes and byte-range locks are open-file-description
// locks, so they belong to one handle (one open()) and are seen by every process; attributes live in
// an extended attribute; mappings are mmap views registered by address.
#include "platform/files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/text.h"

namespace zr::os {

struct PlatformFile {
  int fd = -1;
  DWORD access = 0;        // as requested
  DWORD rights = 0;        // normalised: kRightRead | kRightWrite | kRightDelete
  bool writable_fd = false;
  std::string delete_on_close;
  std::mutex locks_mutex;  // a handle may be shared by threads
  std::vector<std::pair<UINT64, UINT64>> locks;  // ranges [offset, offset + length) held
};

struct FileMapping {
  int fd = -1;             // a duplicate: the mapping keeps the file (and its share flags) alive
  DWORD protection = 0;
  UINT64 size = 0;
};

namespace {

// Normalised rights share their bit positions with the share-mode bits (read 1, write 2, delete 4).
constexpr DWORD kRightRead = kFileShareRead;
constexpr DWORD kRightWrite = kFileShareWrite;
constexpr DWORD kRightDelete = kFileShareDelete;

// Share-mode flags: bytes far above any byte a caller may lock. A handle holds a shared lock on
// "has right X" for each right it was opened with and on "denies X" for each share bit it lacks.
constexpr off_t kShareBase = off_t{1} << 62;
constexpr off_t kShareGate = 0;     // exclusive while one opener checks and publishes its flags
constexpr off_t kShareHas = 1;      // + right index (0 read, 1 write, 2 delete)
constexpr off_t kShareDenies = 4;   // + right index
constexpr UINT64 kLockLimit = static_cast<UINT64>(kShareBase);

constexpr const char* kAttributesXattr = "user.zrobj.attributes";
constexpr const char* kCreationXattr = "user.zrobj.creation";
constexpr DWORD kStorableAttributes = kFileAttributeReadOnly | kFileAttributeHidden | kFileAttributeSystem |
                                      kFileAttributeArchive | kFileAttributeTemporary | 0x2000u;
constexpr UINT64 kUnixEpochAsFileTime = 116444736000000000ull;
constexpr DWORD kGranularity = 65536;

std::atomic<UINT64> g_write_count{0};
std::atomic<FileWriteHook> g_write_hook{nullptr};
std::atomic<DiskFreeSpaceSource> g_disk_source{nullptr};

std::mutex g_views_mutex;
std::map<std::uintptr_t, std::size_t>& Views() {
  static auto* views = new std::map<std::uintptr_t, std::size_t>();  // outlives static destructors
  return *views;
}

bool Fail(DWORD error) {
  SetLastError(error);
  return false;
}
bool Succeed() {
  SetLastError(0);
  return true;
}

DWORD ErrorFromErrno(int e) {
  switch (e) {
    case 0: return kErrorSuccess;
    case ENOENT: return kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES: case EPERM: case EISDIR: case ETXTBSY: return kErrorAccessDenied;
    case EMFILE: case ENFILE: return kErrorTooManyOpenFiles;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EXDEV: return kErrorNotSameDevice;
    case EROFS: return kErrorWriteProtect;
    case EAGAIN: return kErrorLockViolation;
    case EEXIST: return kErrorAlreadyExists;
    case EINVAL: case EFBIG: case EOVERFLOW: return kErrorInvalidParameter;
    case ENOSPC: case EDQUOT: return kErrorDiskFull;
    case ENOTEMPTY: return kErrorDirNotEmpty;
    case ENAMETOOLONG: return kErrorFilenameTooLong;
    case ENOTSUP: return kErrorNotSupported;
    default: return kErrorGenFailure;
  }
}
bool FailErrno() { return Fail(ErrorFromErrno(errno)); }
// For the functions that answer with a pointer: records the error and gives null.
std::nullptr_t FailNull(DWORD error) {
  Fail(error);
  return nullptr;
}

std::string ToPath(const char16_t* path) { return path ? Utf16ToUtf8(path) : std::string(); }

std::string ParentOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A missing entry is "file not found" when its directory exists, "path not found" otherwise.
DWORD MissingError(const std::string& path) {
  return IsDirectory(ParentOf(path)) ? kErrorFileNotFound : kErrorPathNotFound;
}
bool FailMissing(const std::string& path, int e) {
  return Fail(e == ENOENT ? MissingError(path) : ErrorFromErrno(e));
}

DWORD RightsOf(DWORD access) {
  DWORD rights = 0;
  if (access & (kGenericRead | kGenericAll | kFileReadData)) rights |= kRightRead;
  if (access & (kGenericWrite | kGenericAll | kFileWriteData | kFileAppendData)) rights |= kRightWrite;
  if (access & (kDeleteAccess | kGenericAll)) rights |= kRightDelete;
  return rights;
}

// --- Open-file-description locks ---------------------------------------------------------------------

int OfdLock(int fd, int command, short type, off_t start, off_t length) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = start;
  fl.l_len = length;
  int r;
  do {
    r = ::fcntl(fd, command, &fl);
  } while (r < 0 && errno == EINTR);
  return r;
}

// True when another open file description (any process) holds a lock on the byte.
bool HeldElsewhere(int fd, off_t byte) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = byte;
  fl.l_len = 1;
  return ::fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
}

// Publishes the handle's rights and denials, then checks them against everybody else's. Publishing
// before checking means two racing openers can never both succeed; the gate (taken when the
// descriptor is writable) keeps racing openers from both failing.
bool AcquireShareFlags(int fd, bool writable_fd, DWORD rights, DWORD share) {
  const bool gated = writable_fd && OfdLock(fd, F_OFD_SETLKW, F_WRLCK, kShareBase + kShareGate, 1) == 0;
  for (int i = 0; i < 3; ++i) {
    const DWORD bit = 1u << i;
    if (rights & bit) OfdLock(fd, F_OFD_SETLK, F_RDLCK, kShareBase + kShareHas + i, 1);
    if (!(share & bit)) OfdLock(fd, F_OFD_SETLK, F_RDLCK, kShareBase + kShareDenies + i, 1);
  }
  bool conflict = false;
  for (int i = 0; i < 3 && !conflict; ++i) {
    const DWORD bit = 1u << i;
    conflict = ((rights & bit) && HeldElsewhere(fd, kShareBase + kShareDenies + i)) ||
               (!(share & bit) && HeldElsewhere(fd, kShareBase + kShareHas + i));
  }
  if (gated) OfdLock(fd, F_OFD_SETLK, F_UNLCK, kShareBase + kShareGate, 1);
  if (conflict) OfdLock(fd, F_OFD_SETLK, F_UNLCK, kShareBase + kShareHas, 6);
  return !conflict;
}

// Deleting or moving a file needs delete access: refused while a handle that does not share delete
// is open. A file we cannot open for the check is left to the system's own rules.
bool CheckDeleteAllowed(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return true;
  const bool allowed =
      AcquireShareFlags(fd, false, kRightDelete, kFileShareRead | kFileShareWrite | kFileShareDelete);
  ::close(fd);
  return allowed || Fail(kErrorSharingViolation);
}

// --- Attributes and times -------------------------------------------------------------------------------

std::optional<DWORD> ParseAttributes(const char* text, ssize_t length) {
  if (length <= 0 || length > 8) return std::nullopt;
  DWORD value = 0;
  for (ssize_t i = 0; i < length; ++i) {
    const char c = text[i];
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else return std::nullopt;
    value = value << 4 | static_cast<DWORD>(digit);
  }
  return value;
}

std::optional<DWORD> StoredAttributes(const std::string& path, int fd) {
  char text[16];
  const ssize_t n = fd >= 0 ? ::fgetxattr(fd, kAttributesXattr, text, sizeof text)
                            : ::getxattr(path.c_str(), kAttributesXattr, text, sizeof text);
  return ParseAttributes(text, n);
}

DWORD ComposeAttributes(const struct stat& st, std::optional<DWORD> stored) {
  DWORD attributes = 0;
  if (stored) {
    attributes = *stored & kStorableAttributes;
  } else if ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) {
    attributes = kFileAttributeReadOnly;
  }
  if (S_ISDIR(st.st_mode)) attributes |= kFileAttributeDirectory;
  return attributes ? attributes : kFileAttributeNormal;
}

// Writes the attribute word (or removes it when nothing beyond "normal" is left) and mirrors the
// read-only bit into the permission bits so that other programs respect it too.
bool StoreAttributes(const std::string& path, int fd, const struct stat& st, DWORD attributes) {
  const DWORD stored = attributes & kStorableAttributes;
  int r;
  if (stored == 0) {
    r = fd >= 0 ? ::fremovexattr(fd, kAttributesXattr) : ::removexattr(path.c_str(), kAttributesXattr);
    if (r != 0 && errno == ENODATA) r = 0;
  } else {
    char text[9];
    std::snprintf(text, sizeof text, "%08X", stored);
    r = fd >= 0 ? ::fsetxattr(fd, kAttributesXattr, text, 8, 0)
                : ::setxattr(path.c_str(), kAttributesXattr, text, 8, 0);
  }
  const bool xattr_unsupported = r != 0 && (errno == ENOTSUP || errno == EPERM);
  if (r != 0 && !xattr_unsupported) return FailErrno();
  if (xattr_unsupported && (stored & ~kFileAttributeReadOnly)) return Fail(kErrorNotSupported);
  if (!S_ISDIR(st.st_mode)) {
    mode_t mode = st.st_mode & 07777;
    mode = (stored & kFileAttributeReadOnly) ? (mode & ~(S_IWUSR | S_IWGRP | S_IWOTH)) : (mode | S_IWUSR);
    if (mode != (st.st_mode & 07777)) {
      r = fd >= 0 ? ::fchmod(fd, mode) : ::chmod(path.c_str(), mode);
      if (r != 0) return FailErrno();
    }
  }
  return Succeed();
}

UINT64 FileTimeFrom(const struct timespec& ts) {
  const INT64 units = static_cast<INT64>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100 +
                      static_cast<INT64>(kUnixEpochAsFileTime);
  return units < 0 ? 0 : static_cast<UINT64>(units);
}

// Any 64-bit file time converts (the difference to the Unix epoch is taken unsigned: a hostile
// archive may carry any value).
struct timespec TimespecFrom(UINT64 file_time) {
  const UINT64 epoch = kUnixEpochAsFileTime;
  const bool after = file_time >= epoch;
  const UINT64 units = after ? file_time - epoch : epoch - file_time;
  INT64 seconds = static_cast<INT64>(units / 10000000);
  INT64 rest = static_cast<INT64>(units % 10000000);
  if (!after) {
    seconds = -seconds;
    if (rest != 0) {
      rest = 10000000 - rest;
      --seconds;
    }
  }
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(seconds);
  ts.tv_nsec = static_cast<long>(rest * 100);
  return ts;
}

// Creation time: the one this layer stored, else the file system's birth time, else the earlier of
// modification and status change.
UINT64 CreationTime(const std::string& path, int fd, const struct stat& st) {
  char text[17];
  const ssize_t n = fd >= 0 ? ::fgetxattr(fd, kCreationXattr, text, 16)
                            : ::getxattr(path.c_str(), kCreationXattr, text, 16);
  if (n == 16) {
    UINT64 value = 0;
    bool valid = true;
    for (int i = 0; i < 16 && valid; ++i) {
      const std::optional<DWORD> digit = ParseAttributes(text + i, 1);
      valid = digit.has_value();
      if (valid) value = value << 4 | *digit;
    }
    if (valid) return value;
  }
  struct statx sx {};
  const int r = fd >= 0 ? ::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &sx)
                        : ::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &sx);
  if (r == 0 && (sx.stx_mask & STATX_BTIME)) {
    return FileTimeFrom(timespec{static_cast<time_t>(sx.stx_btime.tv_sec), static_cast<long>(sx.stx_btime.tv_nsec)});
  }
  return std::min(FileTimeFrom(st.st_mtim), FileTimeFrom(st.st_ctim));
}

void FillInfo(const std::string& path, int fd, const struct stat& st, FileInfo* info) {
  info->attributes = ComposeAttributes(st, StoredAttributes(path, fd));
  info->size = S_ISDIR(st.st_mode) ? 0 : static_cast<UINT64>(st.st_size);
  info->creation_time = CreationTime(path, fd, st);
  info->last_access_time = FileTimeFrom(st.st_atim);
  info->last_write_time = FileTimeFrom(st.st_mtim);
}

bool ValidHandle(FileHandle file) { return file != kInvalidFile && file->fd >= 0; }
bool HasRight(FileHandle file, DWORD right) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  return (file->rights & right) || Fail(kErrorAccessDenied);
}

int OpenDescriptor(const std::string& path, int flags, DWORD rights, bool* writable) {
  // Read handles are opened read-write where the system allows it, so that their byte-range locks
  // can be exclusive as on Windows; the layer itself enforces the access asked for.
  int fd = ::open(path.c_str(), flags | O_RDWR, 0666);
  *writable = fd >= 0;
  if (fd < 0 && (errno == EACCES || errno == EROFS || errno == ETXTBSY || errno == EPERM)) {
    if (rights & kRightWrite) {
      if (errno != EROFS) fd = ::open(path.c_str(), flags | O_WRONLY, 0666);
      *writable = fd >= 0;
    } else {
      fd = ::open(path.c_str(), flags | O_RDONLY, 0666);
    }
  }
  return fd;
}

}  // namespace


// --- Handles ----------------------------------------------------------------------------------------------

FileHandle CreateFileW(const char16_t* wide_path, DWORD access, DWORD share, DWORD creation,
                       DWORD flags_attributes) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return FailNull(kErrorPathNotFound);
  if (creation < kCreateNew || creation > kTruncateExisting) return FailNull(kErrorInvalidParameter);
  const DWORD rights = RightsOf(access);
  if (creation == kTruncateExisting && !(rights & kRightWrite)) return FailNull(kErrorInvalidParameter);

  struct stat st {};
  const bool existed = ::stat(path.c_str(), &st) == 0;
  if (!existed && (creation == kOpenExisting || creation == kTruncateExisting)) {
    FailMissing(path, errno);
    return nullptr;
  }
  if (existed && creation == kCreateNew) return FailNull(kErrorFileExists);

  auto handle = std::make_unique<PlatformFile>();
  handle->access = access;
  handle->rights = rights;
  if (existed && S_ISDIR(st.st_mode)) {
    // Directories open only with backup semantics (for their times); they take no share flags.
    if (!(flags_attributes & kFileFlagBackupSemantics)) return FailNull(kErrorAccessDenied);
    handle->fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle->fd < 0) return FailNull(ErrorFromErrno(errno));
    Succeed();
    return handle.release();
  }
  const bool replaces = existed && (creation == kCreateAlways || creation == kTruncateExisting);
  if (existed && ((rights & kRightWrite) || replaces) &&
      (ComposeAttributes(st, StoredAttributes(path, -1)) & kFileAttributeReadOnly)) {
    return FailNull(kErrorAccessDenied);
  }

  int flags = O_CLOEXEC | O_NOCTTY;
  if (creation == kCreateNew) flags |= O_CREAT | O_EXCL;
  if (creation == kCreateAlways || creation == kOpenAlways) flags |= O_CREAT;
  if (flags_attributes & kFileFlagWriteThrough) flags |= O_DSYNC;
  handle->fd = OpenDescriptor(path, flags, rights, &handle->writable_fd);
  if (handle->fd < 0) {
    if (errno == EEXIST) return FailNull(kErrorFileExists);
    FailMissing(path, errno);
    return nullptr;
  }
  if (!AcquireShareFlags(handle->fd, handle->writable_fd, rights, share)) {
    CloseFile(handle.release());
    return FailNull(kErrorSharingViolation);
  }
  if (replaces && ::ftruncate(handle->fd, 0) != 0) {
    const DWORD error = errno == EBADF || errno == EINVAL ? kErrorAccessDenied : ErrorFromErrno(errno);
    CloseFile(handle.release());
    return FailNull(error);
  }
  if (!existed || creation == kCreateAlways) {
    struct stat now {};
    if (::fstat(handle->fd, &now) == 0) StoreAttributes(path, handle->fd, now, flags_attributes & 0xFFFFu);
  }
  if (flags_attributes & kFileFlagRandomAccess) ::posix_fadvise(handle->fd, 0, 0, POSIX_FADV_RANDOM);
  if (flags_attributes & kFileFlagSequentialScan) ::posix_fadvise(handle->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  if (flags_attributes & kFileFlagDeleteOnClose) handle->delete_on_close = path;
  SetLastError(existed && (creation == kCreateAlways || creation == kOpenAlways) ? kErrorAlreadyExists : 0);
  return handle.release();
}

FileHandle CreateUnnamedFileW(const char16_t* wide_directory) {
  const std::string directory = ToPath(wide_directory);
  if (directory.empty()) return FailNull(kErrorPathNotFound);
  auto handle = std::make_unique<PlatformFile>();
  handle->access = kGenericRead | kGenericWrite;
  handle->rights = kRightRead | kRightWrite;
  handle->writable_fd = true;
  handle->fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
  if (handle->fd < 0) return FailNull(ErrorFromErrno(errno));
  Succeed();
  return handle.release();
}

BOOL NameUnnamedFileW(FileHandle file, const char16_t* wide_path) {
  const std::string path = ToPath(wide_path);
  if (!file || path.empty()) return Fail(kErrorInvalidParameter);
  // Linked under a name of its own first, then renamed over whatever `path` was: the file appears
  // whole, in one step.
  const std::string linked = path + ".part";
  const std::string source = "/proc/self/fd/" + std::to_string(file->fd);
  ::unlink(linked.c_str());
  if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, linked.c_str(), AT_SYMLINK_FOLLOW) != 0) return FailErrno();
  if (::rename(linked.c_str(), path.c_str()) != 0) {
    const BOOL failed = FailErrno();
    ::unlink(linked.c_str());
    return failed;
  }
  return Succeed();
}

BOOL CloseFile(FileHandle file) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  const int r = ::close(file->fd);  // releases the handle's share flags and byte-range locks
  const int e = errno;
  if (!file->delete_on_close.empty()) ::unlink(file->delete_on_close.c_str());
  delete file;
  return r == 0 || e == EINTR ? true : Fail(ErrorFromErrno(e));  // success keeps the last error
}

BOOL ReadFile(FileHandle file, void* buffer, DWORD count, DWORD* done) {
  if (done) *done = 0;
  if (!HasRight(file, kRightRead)) return false;
  if (!buffer && count) return Fail(kErrorInvalidParameter);
  DWORD total = 0;
  while (total < count) {
    const ssize_t n = ::read(file->fd, static_cast<char*>(buffer) + total, count - total);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (done) *done = total;
      return FailErrno();
    }
    if (n == 0) break;
    total += static_cast<DWORD>(n);
  }
  if (done) *done = total;
  return Succeed();
}

BOOL WriteFile(FileHandle file, const void* data, DWORD count, DWORD* done) {
  if (done) *done = 0;
  if (!HasRight(file, kRightWrite)) return false;
  if (!data && count) return Fail(kErrorInvalidParameter);
  g_write_count.fetch_add(1, std::memory_order_relaxed);
  DWORD allowed = count;
  if (const FileWriteHook hook = g_write_hook.load()) allowed = std::min(count, hook(file, count));
  DWORD total = 0;
  while (total < allowed) {
    const ssize_t n = ::write(file->fd, static_cast<const char*>(data) + total, allowed - total);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (done) *done = total;
      return n < 0 ? FailErrno() : Fail(kErrorDiskFull);
    }
    total += static_cast<DWORD>(n);
  }
  if (done) *done = total;
  return total == count ? Succeed() : Fail(kErrorDiskFull);
}

BOOL SetFilePointer(FileHandle file, INT64 distance, DWORD method, UINT64* new_position) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  INT64 base = 0;
  if (method == kFileCurrent) {
    base = ::lseek(file->fd, 0, SEEK_CUR);
  } else if (method == kFileEnd) {
    struct stat st {};
    base = ::fstat(file->fd, &st) == 0 ? st.st_size : -1;
  } else if (method != kFileBegin) {
    return Fail(kErrorInvalidParameter);
  }
  if (base < 0) return FailErrno();
  INT64 target;
  if (__builtin_add_overflow(base, distance, &target)) return Fail(kErrorInvalidParameter);
  if (target < 0) return Fail(kErrorNegativeSeek);
  if (::lseek(file->fd, target, SEEK_SET) < 0) return FailErrno();
  if (new_position) *new_position = static_cast<UINT64>(target);
  return Succeed();
}

BOOL GetFileSize(FileHandle file, UINT64* size) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  struct stat st {};
  if (::fstat(file->fd, &st) != 0) return FailErrno();
  if (size) *size = static_cast<UINT64>(st.st_size);
  return Succeed();
}

BOOL SetEndOfFile(FileHandle file) {
  if (!HasRight(file, kRightWrite)) return false;
  const off_t position = ::lseek(file->fd, 0, SEEK_CUR);
  if (position < 0 || ::ftruncate(file->fd, position) != 0) return FailErrno();
  return Succeed();
}

BOOL FlushFileBuffers(FileHandle file) {
  if (!HasRight(file, kRightWrite)) return false;
  return ::fsync(file->fd) == 0 ? Succeed() : FailErrno();
}

DWORD GetFileHandleAccess(FileHandle file) { return ValidHandle(file) ? file->access : 0; }

// --- Byte-range locks ----------------------------------------------------------------------------------------

BOOL LockFile(FileHandle file, UINT64 offset, UINT64 length) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  if (length == 0 || offset >= kLockLimit || length > kLockLimit - offset) return Fail(kErrorInvalidParameter);
  std::lock_guard guard(file->locks_mutex);
  for (const auto& [start, size] : file->locks) {
    if (offset < start + size && start < offset + length) return Fail(kErrorLockViolation);
  }
  if (OfdLock(file->fd, F_OFD_SETLK, F_WRLCK, static_cast<off_t>(offset), static_cast<off_t>(length)) != 0) {
    return Fail(errno == EAGAIN || errno == EACCES ? kErrorLockViolation
                : errno == EBADF                  ? kErrorAccessDenied
                                                  : ErrorFromErrno(errno));
  }
  file->locks.emplace_back(offset, length);
  return Succeed();
}

BOOL UnlockFile(FileHandle file, UINT64 offset, UINT64 length) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  std::lock_guard guard(file->locks_mutex);
  const auto it = std::find(file->locks.begin(), file->locks.end(), std::make_pair(offset, length));
  if (it == file->locks.end()) return Fail(kErrorNotLocked);
  if (OfdLock(file->fd, F_OFD_SETLK, F_UNLCK, static_cast<off_t>(offset), static_cast<off_t>(length)) != 0) {
    return FailErrno();
  }
  file->locks.erase(it);
  return Succeed();
}

// --- Times ---------------------------------------------------------------------------------------------------

BOOL GetFileTime(FileHandle file, UINT64* creation, UINT64* last_access, UINT64* last_write) {
  if (!ValidHandle(file)) return Fail(kErrorInvalidHandle);
  struct stat st {};
  if (::fstat(file->fd, &st) != 0) return FailErrno();
  if (creation) *creation = CreationTime(std::string(), file->fd, st);
  if (last_access) *last_access = FileTimeFrom(st.st_atim);
  if (last_write) *last_write = FileTimeFrom(st.st_mtim);
  return Succeed();
}

BOOL SetFileTime(FileHandle file, const UINT64* creation, const UINT64* last_access, const UINT64* last_write) {
  if (!HasRight(file, kRightWrite)) return false;
  struct timespec times[2];
  times[0] = last_access ? TimespecFrom(*last_access) : timespec{0, UTIME_OMIT};
  times[1] = last_write ? TimespecFrom(*last_write) : timespec{0, UTIME_OMIT};
  if ((last_access || last_write) && ::futimens(file->fd, times) != 0) return FailErrno();
  if (creation) {
    // Linux cannot set a birth time; the layer keeps its own (silently lost where xattrs are missing).
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(*creation));
    ::fsetxattr(file->fd, kCreationXattr, text, 16, 0);
  }
  return Succeed();
}

// --- By name ---------------------------------------------------------------------------------------------------

BOOL GetFileInfoW(const char16_t* wide_path, FileInfo* info) {
  const std::string path = ToPath(wide_path);
  if (path.empty() || !info) return Fail(kErrorInvalidParameter);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return FailMissing(path, errno);
  FillInfo(path, -1, st, info);
  return Succeed();
}

BOOL SetPathWriteTime(const char16_t* wide_path, UINT64 last_write) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return Fail(kErrorPathNotFound);
  const struct timespec times[2] = {TimespecFrom(last_write), TimespecFrom(last_write)};
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) return FailErrno();
  return Succeed();
}

DWORD GetFileAttributesW(const char16_t* path) {
  FileInfo info;
  return GetFileInfoW(path, &info) ? info.attributes : kInvalidFileAttributes;
}

BOOL SetFileAttributesW(const char16_t* wide_path, DWORD attributes) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return Fail(kErrorPathNotFound);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return FailMissing(path, errno);
  return StoreAttributes(path, -1, st, attributes);
}

BOOL DeleteFileW(const char16_t* wide_path) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return Fail(kErrorPathNotFound);
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return FailMissing(path, errno);
  if (S_ISDIR(st.st_mode)) return Fail(kErrorAccessDenied);
  if (S_ISREG(st.st_mode) && (ComposeAttributes(st, StoredAttributes(path, -1)) & kFileAttributeReadOnly)) {
    return Fail(kErrorAccessDenied);
  }
  if (!CheckDeleteAllowed(path)) return false;
  return ::unlink(path.c_str()) == 0 ? Succeed() : FailMissing(path, errno);
}

namespace {

// Copies the bytes and the last-write time through two handles of this layer, so that the share
// modes of other handles are respected on both sides.
bool CopyThroughHandles(const char16_t* from, const char16_t* to, bool fail_if_exists) {
  FileInfo info;
  if (!GetFileInfoW(from, &info)) return false;
  FileHandle source = CreateFileW(from, kGenericRead, kFileShareRead | kFileShareWrite, kOpenExisting,
                                  kFileFlagSequentialScan);
  if (source == kInvalidFile) return false;
  FileHandle target = CreateFileW(to, kGenericWrite, 0, fail_if_exists ? kCreateNew : kCreateAlways,
                                  (info.attributes & kStorableAttributes) | kFileFlagSequentialScan);
  if (target == kInvalidFile) {
    const DWORD error = GetLastError();
    CloseFile(source);
    return Fail(error);
  }
  std::vector<char> buffer(1 << 20);
  DWORD got = 0;
  bool ok;
  while ((ok = ReadFile(source, buffer.data(), static_cast<DWORD>(buffer.size()), &got)) && got != 0) {
    if (!(ok = WriteFile(target, buffer.data(), got, nullptr))) break;
  }
  ok = ok && SetFileTime(target, nullptr, nullptr, &info.last_write_time);
  const DWORD error = GetLastError();
  CloseFile(target);
  CloseFile(source);
  if (!ok) {
    ::unlink(ToPath(to).c_str());
    return Fail(error);
  }
  return Succeed();
}

}  // namespace

BOOL MoveFileW(const char16_t* wide_from, const char16_t* wide_to) {
  const std::string from = ToPath(wide_from);
  const std::string to = ToPath(wide_to);
  if (from.empty() || to.empty()) return Fail(kErrorPathNotFound);
  struct stat st {};
  if (::lstat(from.c_str(), &st) != 0) return FailMissing(from, errno);
  if (!CheckDeleteAllowed(from)) return false;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return Succeed();
  if (errno == EINVAL || errno == ENOSYS) {  // file system without no-replace renames
    struct stat existing {};
    if (::lstat(to.c_str(), &existing) == 0) return Fail(kErrorAlreadyExists);
    if (::rename(from.c_str(), to.c_str()) == 0) return Succeed();
  }
  if (errno == EEXIST) return Fail(kErrorAlreadyExists);
  if (errno != EXDEV) return FailMissing(to, errno);
  if (!S_ISREG(st.st_mode)) return Fail(kErrorNotSameDevice);
  if (!CopyThroughHandles(wide_from, wide_to, true)) return false;
  return ::unlink(from.c_str()) == 0 ? Succeed() : FailErrno();
}

BOOL CopyFileData(FileHandle from, FileHandle to, UINT64 count) {
  if (!HasRight(from, kRightRead) || !HasRight(to, kRightWrite)) return false;
  while (count > 0) {
    const std::size_t step = static_cast<std::size_t>(std::min<UINT64>(count, 1u << 30));
    const ssize_t n = ::copy_file_range(from->fd, nullptr, to->fd, nullptr, step, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0 ? Fail(kErrorHandleEof) : FailErrno();
    count -= static_cast<UINT64>(n);
  }
  return Succeed();
}

BOOL CopyFileW(const char16_t* from, const char16_t* to, BOOL fail_if_exists) {
  if (ToPath(from).empty() || ToPath(to).empty()) return Fail(kErrorPathNotFound);
  return CopyThroughHandles(from, to, fail_if_exists != 0);
}

BOOL CreateDirectoryW(const char16_t* wide_path) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return Fail(kErrorPathNotFound);
  if (::mkdir(path.c_str(), 0777) == 0) return Succeed();
  return errno == EEXIST ? Fail(kErrorAlreadyExists) : FailMissing(path, errno);
}

BOOL CreateDirectoryTreeW(const char16_t* wide_path) {
  const std::string path = ToPath(wide_path);
  if (path.empty()) return Fail(kErrorPathNotFound);
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (!part.empty() && part.back() != '/' && ::mkdir(part.c_str(), 0777) != 0 &&
        !(errno == EEXIST && IsDirectory(part))) {
      return FailMissing(part, errno);
    }
    if (end == std::string::npos) break;
  }
  return Succeed();
}

BOOL DirectoryExistsW(const char16_t* path) { return IsDirectory(ToPath(path)); }

// --- Mappings ----------------------------------------------------------------------------------------------------

DWORD GetAllocationGranularity() { return kGranularity; }

FileMapping* CreateFileMappingW(FileHandle file, DWORD protection, UINT64 maximum_size, const char16_t*) {
  if (!ValidHandle(file)) return FailNull(kErrorInvalidHandle);
  const DWORD page = protection & 0xFFu;
  const bool writes = page == kPageReadWrite || page == 0x40u;
  if (!writes && page != kPageReadOnly && page != kPageWriteCopy && page != 0x20u) {
    return FailNull(kErrorInvalidParameter);
  }
  const DWORD needed = writes ? (kRightRead | kRightWrite) : kRightRead;
  if ((file->rights & needed) != needed) return FailNull(kErrorAccessDenied);
  UINT64 size = 0;
  if (!GetFileSize(file, &size)) return nullptr;
  if (maximum_size == 0) {
    if (size == 0) return FailNull(kErrorFileInvalid);
    maximum_size = size;
  } else if (maximum_size > size) {
    if (!writes) return FailNull(kErrorNotEnoughMemory);
    if (maximum_size > kLockLimit) return FailNull(kErrorInvalidParameter);
    if (::ftruncate(file->fd, static_cast<off_t>(maximum_size)) != 0) return FailNull(ErrorFromErrno(errno));
  }
  const int fd = ::fcntl(file->fd, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return FailNull(ErrorFromErrno(errno));
  Succeed();
  return new FileMapping{fd, page, maximum_size};
}

BOOL CloseFileMapping(FileMapping* mapping) {
  if (!mapping) return Fail(kErrorInvalidHandle);
  ::close(mapping->fd);
  delete mapping;
  return Succeed();
}

void* MapViewOfFile(FileMapping* mapping, DWORD access, UINT64 offset, std::size_t length) {
  if (!mapping) return FailNull(kErrorInvalidHandle);
  if (offset % kGranularity) return FailNull(kErrorMappedAlignment);
  if (offset >= mapping->size) return FailNull(kErrorAccessDenied);
  if (length == 0) length = static_cast<std::size_t>(mapping->size - offset);
  if (length > mapping->size - offset) return FailNull(kErrorAccessDenied);
  int protection = PROT_READ;
  int flags = MAP_SHARED;
  if (access & kFileMapCopy) {
    protection |= PROT_WRITE;
    flags = MAP_PRIVATE;
  } else if (access & kFileMapWrite) {
    if (mapping->protection != kPageReadWrite && mapping->protection != 0x40u) {
      return FailNull(kErrorAccessDenied);
    }
    protection |= PROT_WRITE;
  } else if (!(access & kFileMapRead)) {
    return FailNull(kErrorInvalidParameter);
  }
  void* view = ::mmap(nullptr, length, protection, flags, mapping->fd, static_cast<off_t>(offset));
  if (view == MAP_FAILED) return FailNull(ErrorFromErrno(errno));
  std::lock_guard guard(g_views_mutex);
  Views()[reinterpret_cast<std::uintptr_t>(view)] = length;
  Succeed();
  return view;
}

BOOL UnmapViewOfFile(const void* view) {
  std::lock_guard guard(g_views_mutex);
  const auto it = Views().find(reinterpret_cast<std::uintptr_t>(view));
  if (it == Views().end()) return Fail(kErrorInvalidParameter);
  ::munmap(const_cast<void*>(view), it->second);
  Views().erase(it);
  return Succeed();
}

BOOL FlushViewOfFile(const void* address, std::size_t length) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  std::lock_guard guard(g_views_mutex);
  auto it = Views().upper_bound(at);
  if (it == Views().begin()) return Fail(kErrorInvalidParameter);
  --it;
  const std::uintptr_t view_end = it->first + it->second;
  if (at >= view_end) return Fail(kErrorInvalidParameter);
  const std::uintptr_t end = (length == 0 || length > view_end - at) ? view_end : at + length;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t start = at - (at - it->first) % page;
  return ::msync(reinterpret_cast<void*>(start), end - start, MS_SYNC) == 0 ? Succeed() : FailErrno();
}

// --- Volumes and observation ---------------------------------------------------------------------------------------

namespace {

BOOL SystemDiskFreeSpace(const char16_t* wide_path, DiskFreeSpace* space) {
  std::string path = ToPath(wide_path);
  struct statvfs vfs {};
  // A path that does not exist yet is measured on its nearest existing directory.
  while (::statvfs(path.c_str(), &vfs) != 0) {
    if ((errno != ENOENT && errno != ENOTDIR) || path == "/" || path == ".") return FailErrno();
    path = ParentOf(path);
  }
  const UINT64 cluster = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  if (cluster == 0 || cluster > 0xFFFFFFFFu) return Fail(kErrorNotSupported);
  space->bytes_per_sector = cluster % 512 == 0 ? 512u : static_cast<DWORD>(cluster);
  space->sectors_per_cluster = static_cast<DWORD>(cluster / space->bytes_per_sector);
  space->free_clusters = vfs.f_bavail;
  space->total_clusters = vfs.f_blocks;
  return Succeed();
}

}  // namespace

BOOL GetDiskFreeSpaceW(const char16_t* path, DiskFreeSpace* space) {
  if (ToPath(path).empty() || !space) return Fail(kErrorInvalidParameter);
  *space = DiskFreeSpace{};
  const DiskFreeSpaceSource source = g_disk_source.load();
  return source ? source(path, space) : SystemDiskFreeSpace(path, space);
}

DiskFreeSpaceSource SetDiskFreeSpaceSource(DiskFreeSpaceSource source) { return g_disk_source.exchange(source); }

UINT64 GetFileWriteCount() { return g_write_count.load(std::memory_order_relaxed); }

FileWriteHook SetFileWriteHook(FileWriteHook hook) { return g_write_hook.exchange(hook); }

}  // namespace zr::os
