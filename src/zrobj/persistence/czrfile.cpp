// CZRFile: the library's file object over the platform file layer (share modes, byte-range locks,
// mappings), with a write-behind cache for long runs of small sequential writes.
#include "zrobj/czrfile.h"

#include <algorithm>
#include <cstring>

#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "platform/text.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr DWORD kNoValue = 0xFFFFFFFFu;       // "keep what the open file has" in MapFile
constexpr DWORD kInfinite = 0xFFFFFFFFu;
constexpr DWORD kMapKeepsFileOpen = 0x1u;    // mapping flags bit 0
constexpr DWORD kMapFlagFileSize = 0x1u;     // map flags bit 0: the mapping takes the file's size
constexpr DWORD kMapDefaultFlags = os::kFileFlagRandomAccess | os::kFileAttributeNormal;
constexpr UINT64 kMaxFileSize = 0xFFFFFFFFu;  // sizes and positions are 32-bit

os::FileHandle AsFile(HANDLE handle) { return static_cast<os::FileHandle>(handle); }
os::FileMapping* AsMapping(HANDLE handle) { return static_cast<os::FileMapping*>(handle); }

UINT64 FromFileTime(const FILETIME& time) {
  return static_cast<UINT64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}
FILETIME ToFileTime(UINT64 value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

constexpr const char* kSourceFile = "src/zrobj/czrfile";

// The write cache lives in a named heap, so leak reports and dumps see it.
CHeap* CacheHeap() {
  static CHeap* const heap = zr::GetLibraryHeap("MemPool");
  return heap;
}

bool CreatesFiles(DWORD creation) { return creation == os::kCreateAlways || creation == os::kOpenAlways; }

// Length of the directory part of a path, separator included (0 when it has none).
std::size_t DirectoryLength(std::u16string_view path) {
  const std::size_t slash = path.find_last_of(u'/');
  return slash == std::u16string_view::npos ? 0 : slash + 1;
}

}  // namespace

CZRFile::CZRFile() {
  Reset();
  name_[0] = 0;
}

CZRFile::CZRFile(const WCHAR* name) : CZRFile() { StoreName(name); }

CZRFile::~CZRFile() { Close(); }

void CZRFile::Reset() {
  file_ = nullptr;
  mapping_ = nullptr;
  view_offset_ = 0;
  view_size_ = 0;
  view_address_ = nullptr;
  size_ = 0;
  access_ = 0;
  share_ = 0;
  map_flags_ = 0;
  status_ = kStatusNeverOpened;
  position_ = 0;
  creation_ = 0;
  flags_ = 0;
  view_access_ = 0;
  cache_ = nullptr;
  cache_capacity_ = 0;
  cache_offset_ = 0;
  cache_fill_ = 0;
  lock_count_ = 0;
  whole_lock_offset_ = 0;
  whole_lock_length_ = 0;
}

bool CZRFile::IsOpen() const { return file_ != nullptr; }

// A path that does not fit the name buffer is refused rather than cut (a cut path names another file).
bool CZRFile::StoreName(const WCHAR* path) {
  const std::size_t length = os::WStrLen(path);
  if (length >= ZR_MAX_PATH) return false;
  if (path == name_) return true;  // the stored name itself
  os::WStrCopy(name_, ZR_MAX_PATH, std::u16string_view(path ? path : u"", length));
  return true;
}

// --- Opening and closing ------------------------------------------------------------------------------

// Open, close and the operations by name look at the handle and the name only inside the section, so
// that a Close on another thread cannot change them halfway.
unsigned int CZRFile::Open(const WCHAR* path, DWORD access, DWORD share, DWORD creation, DWORD flags,
                           DWORD cacheSize) {
  COSAutoLock guard(&section_);
  if (IsOpen()) return kAlreadyOpen;
  if (!StoreName(path)) return kOpenFailed;
  return OpenStored(access, share, creation, flags, cacheSize);
}

unsigned int CZRFile::Open(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD cacheSize) {
  return OpenStored(access, share, creation, flags, cacheSize);
}

unsigned int CZRFile::OpenStored(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD cacheSize) {
  COSAutoLock guard(&section_);
  if (IsOpen()) return kAlreadyOpen;
  if (name_[0] == 0) return kNoName;
  os::FileHandle file = os::CreateFileW(name_, access, share, creation, flags);
  if (file == os::kInvalidFile) {
    const DWORD error = os::GetLastError();
    if (error == os::kErrorSharingViolation) return kSharingViolation;
    if (!CreatesFiles(creation) || error != os::kErrorPathNotFound) return kOpenFailed;
    // Create the missing directories of the path and try once more.
    const std::u16string directory(name_, DirectoryLength(name_));
    if (directory.empty()) return kOpenFailed;
    if (!os::DirectoryExistsW(directory.c_str()) && !os::CreateDirectoryTreeW(directory.c_str())) return kOpenFailed;
    file = os::CreateFileW(name_, access, share, creation, flags);
    if (file == os::kInvalidFile) return kOpenFailed;
  }
  UINT64 size = 0;
  os::GetFileSize(file, &size);
  file_ = file;
  size_ = static_cast<DWORD>(size);
  access_ = access;
  share_ = share;
  creation_ = creation;
  flags_ = flags;
  status_ = kStatusReady;
  position_ = 0;
  if (cacheSize != 0 && share == 0 && IsWritable()) {
    cache_ = static_cast<BYTE*>(CacheHeap()->Alloc(cacheSize, 0, kSourceFile, __LINE__, ZR_CALLER_ADDRESS()));
    cache_capacity_ = cache_ ? cacheSize : 0;
  }
  cache_offset_ = 0;
  cache_fill_ = 0;
  return kOpened;
}

int CZRFile::Close() {
  COSAutoLock guard(&section_);
  if (!IsOpen()) return 1;
  if (lock_count_ != 0) {
    if (IsDebugOn()) {
      os::wPrintf(3, 2, u"\rFile %s\r\nAttempt to close file while locked (cnt=%u)\r\n", name_, lock_count_);
    }
    WarningMsg(u"CLOSE HISTORY", ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
  }
  RemoveView();
  if (IsWritable()) FlushCache();
  if (cache_) CacheHeap()->Free(cache_, 0);
  const BOOL closed = os::CloseFile(AsFile(file_));
  Reset();
  return closed;
}

DWORD CZRFile::GetSize() {
  if (!IsOpen()) return 0;
  if (share_ & os::kFileShareWrite) {  // another handle may have grown the file
    UINT64 size = 0;
    if (os::GetFileSize(AsFile(file_), &size)) return static_cast<DWORD>(size);
  }
  return size_;
}

// --- Position, reading and writing --------------------------------------------------------------------

bool CZRFile::SeekTo(long long target) {
  if (target < 0 || static_cast<UINT64>(target) > kMaxFileSize) return false;
  if (!os::SetFilePointer(AsFile(file_), target, os::kFileBegin, nullptr)) return false;
  position_ = static_cast<DWORD>(target);
  cache_offset_ = position_;
  if (position_ > size_) size_ = position_;
  if (status_ == kStatusFailed && position_ <= size_) status_ = kStatusReady;
  return true;
}

int CZRFile::SetFilePtr(LONG offset, DWORD method) {
  if (!IsOpen() || view_address_) return 0;
  if (cache_ && !FlushCache()) return 0;
  long long base = 0;
  if (method == os::kFileCurrent) {
    base = position_;
  } else if (method == os::kFileEnd) {
    UINT64 size = 0;
    if (!os::GetFileSize(AsFile(file_), &size)) return 0;
    base = static_cast<long long>(size);
  } else if (method != os::kFileBegin) {
    return 0;
  }
  return SeekTo(base + offset) ? 1 : 0;
}

DWORD CZRFile::Write(const void* data, DWORD count) {
  if (!IsOpen() || status_ >= kStatusFailed || !IsWritable() || view_address_) return 0;
  if (!data && count) return 0;
  if (static_cast<UINT64>(position_) + count > kMaxFileSize) return 0;
  if (cache_) {
    const bool fits = position_ >= cache_offset_ && position_ - cache_offset_ < cache_capacity_ &&
                      count <= cache_capacity_ && count <= cache_capacity_ - cache_fill_;
    if (!fits && !FlushCache()) return 0;
    if (count <= cache_capacity_) {
      if (count) std::memcpy(cache_ + cache_fill_, data, count);
      cache_fill_ += count;
      position_ += count;
      size_ = std::max(size_, position_);
      return count;
    }
  }
  return WriteDirect(data, count);
}

DWORD CZRFile::WriteDirect(const void* data, DWORD count) {
  DWORD done = 0;
  if (!os::WriteFile(AsFile(file_), data, count, &done) || done < count) status_ = kStatusFailed;
  position_ += done;
  size_ = std::max(size_, position_);
  return done;
}

DWORD CZRFile::Read(void* data, DWORD count) {
  if (!IsOpen() || status_ >= kStatusFailed || !IsReadable() || view_address_) return 0;
  if (!data && count) return 0;
  if (cache_ && !FlushCache()) return 0;
  DWORD done = 0;
  if (!os::ReadFile(AsFile(file_), data, count, &done) || done < count) status_ = kStatusFailed;
  position_ += done;
  // The emptied cache starts where the next write goes, so that cached bytes land at their position.
  if (cache_) cache_offset_ = position_;
  return done;
}

int CZRFile::FlushCache() {
  if (!IsOpen() || !IsWritable()) return 0;
  os::FileHandle file = AsFile(file_);
  bool written = true;
  if (cache_fill_ != 0) {
    if (!os::SetFilePointer(file, cache_offset_, os::kFileBegin, nullptr)) return 0;
    DWORD done = 0;
    if (!os::WriteFile(file, cache_, cache_fill_, &done) || done < cache_fill_) {
      status_ = kStatusFailed;
      written = false;
    }
    const DWORD end = cache_offset_ + cache_fill_;
    if (end > position_) {
      position_ = end;
      size_ = std::max(size_, end);
    } else {
      os::SetFilePointer(file, position_, os::kFileBegin, nullptr);
    }
  }
  cache_fill_ = 0;
  cache_offset_ = position_;
  const bool flushed = os::FlushFileBuffers(file) != 0;
  return flushed && written ? 1 : 0;
}

int CZRFile::SetEOF(DWORD position) {
  if (view_address_) UnmapFile();
  if (!IsOpen() || (cache_ && !FlushCache())) return 0;
  if (SeekTo(position) && os::SetEndOfFile(AsFile(file_))) size_ = position;
  return 0;
}

// --- Byte-range locks ----------------------------------------------------------------------------------

// A length of 0 is the whole file as the system has it now; locking 0 bytes of an empty file is
// refused with a report.
bool CZRFile::ResolveLockLength(DWORD* length) {
  if (*length != 0) return true;
  UINT64 size = 0;
  os::GetFileSize(AsFile(file_), &size);
  *length = static_cast<DWORD>(std::min(size, kMaxFileSize));
  if (*length != 0) return true;
  os::wPrintf(3, 3, u"\rCZRFile %s: Attempt to lock 0 bytes\r\n", name_);
  return false;
}

// A lock of the whole file is remembered with the length it took, so that the unlock of the whole
// file names that same range however the file grew in between.
void CZRFile::RememberWholeLock(DWORD offset, DWORD requested, DWORD locked) {
  if (requested != 0) return;
  whole_lock_offset_ = offset;
  whole_lock_length_ = locked;
}

// The length an unlock of the whole file at `offset` names: what the lock took, else the cached size.
DWORD CZRFile::WholeUnlockLength(DWORD offset) {
  if (whole_lock_length_ == 0 || whole_lock_offset_ != offset) return size_;
  const DWORD length = whole_lock_length_;
  whole_lock_length_ = 0;
  return length;
}

int CZRFile::WaitFileLock(DWORD offset, DWORD length, DWORD timeout) {
  const DWORD requested = length;
  if (!IsOpen() || !ResolveLockLength(&length)) return 0;
  const DWORD start = os::GetTickCount();
  while (!os::LockFile(AsFile(file_), offset, length)) {
    // Only a lock held by someone else is worth waiting for.
    if (os::GetLastError() != os::kErrorLockViolation) return 0;
    if (timeout != kInfinite && os::GetTickCount() - start >= timeout) return 0;
    os::Sleep(1);
  }
  RememberWholeLock(offset, requested, length);
  if (timeout == kInfinite) return 1;  // such locks are deliberately not counted
  ++lock_count_;
  return 1;
}

int CZRFile::FileLock(DWORD offset, DWORD length) {
  const DWORD requested = length;
  if (!IsOpen() || !ResolveLockLength(&length)) return 0;
  if (!os::LockFile(AsFile(file_), offset, length)) return 0;
  RememberWholeLock(offset, requested, length);
  ++lock_count_;
  return 1;
}

int CZRFile::FileUnlock(DWORD offset, DWORD length) {
  if (lock_count_ == 0) {
    os::wPrintf(3, 4, u"File %s\r\nIllegal attempt to unlock non-locked file.", name_);
    WarningMsg(u"UNLOCK HISTORY", ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
    return 0;
  }
  if (!IsOpen()) return 0;
  if (length == 0) length = WholeUnlockLength(offset);
  if (!os::UnlockFile(AsFile(file_), offset, length)) return 0;
  --lock_count_;
  return 1;
}

// --- By name ---------------------------------------------------------------------------------------------

int CZRFile::Delete() {
  COSAutoLock guard(&section_);
  if (name_[0] == 0) return 0;
  if (IsOpen()) Close();
  return os::DeleteFileW(name_);
}

int CZRFile::Name(const WCHAR* newPath) {
  COSAutoLock guard(&section_);
  if (IsOpen()) return 0;
  return StoreName(newPath) ? 1 : 0;
}

int CZRFile::Move(const WCHAR* newPath) {
  COSAutoLock guard(&section_);
  if (name_[0] == 0 || os::WStrLen(newPath) == 0) return 0;
  if (IsOpen() || os::WStrLen(newPath) >= ZR_MAX_PATH) return 0;
  if (!os::MoveFileW(name_, newPath)) return 0;
  StoreName(newPath);
  return 1;
}

int CZRFile::Copy(const WCHAR* targetPath, BOOL failIfExists) {
  COSAutoLock guard(&section_);
  if (name_[0] == 0 || zr::os::WStrLen(targetPath) == 0) return 0;
  if (IsOpen()) return 0;
  return os::CopyFileW(name_, targetPath, failIfExists) ? 1 : 0;
}

int CZRFile::Rename(const WCHAR* newFileName) {
  const std::u16string_view file_name(newFileName ? newFileName : u"");
  if (file_name.empty() || file_name.find(u'/') != std::u16string_view::npos) return 0;
  COSAutoLock guard(&section_);
  std::u16string path(name_, DirectoryLength(name_));
  path += file_name;
  return Move(path.c_str());
}

int CZRFile::Touch(const WCHAR* newPath) {
  COSAutoLock guard(&section_);
  if (os::WStrLen(newPath) != 0 && std::u16string_view(newPath) != std::u16string_view(name_)) {
    Close();
    if (!Move(newPath)) return 0;
  }
  const FILETIME now = ToFileTime(os::GetSystemTimeAsFileTime());
  return SetTime(nullptr, nullptr, &now);
}

// Runs `fn` with the open handle, or with one opened for the call (existing files only).
template <class Fn>
int CZRFile::WithTimeHandle(bool write, Fn&& fn) {
  COSAutoLock guard(&section_);
  if (IsOpen()) return fn(AsFile(file_));
  if (name_[0] == 0) return 0;
  const DWORD access = write ? os::kGenericRead | os::kGenericWrite : os::kGenericRead;
  os::FileHandle file = os::CreateFileW(name_, access, os::kFileShareRead | os::kFileShareWrite,
                                        os::kOpenExisting, os::kFileAttributeNormal);
  if (file == os::kInvalidFile) return 0;
  const int result = fn(file);
  os::CloseFile(file);
  return result;
}

int CZRFile::GetTime(FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite) {
  return WithTimeHandle(false, [&](os::FileHandle file) {
    UINT64 times[3] = {};
    if (!os::GetFileTime(file, &times[0], &times[1], &times[2])) return 0;
    if (creation) *creation = ToFileTime(times[0]);
    if (lastAccess) *lastAccess = ToFileTime(times[1]);
    if (lastWrite) *lastWrite = ToFileTime(times[2]);
    return 1;
  });
}

int CZRFile::SetTime(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) {
  // Cached bytes written later would move the last-write time again: write them first.
  if (IsOpen() && cache_fill_ != 0) FlushCache();
  const UINT64 times[3] = {creation ? FromFileTime(*creation) : 0, lastAccess ? FromFileTime(*lastAccess) : 0,
                           lastWrite ? FromFileTime(*lastWrite) : 0};
  return WithTimeHandle(true, [&](os::FileHandle file) {
    return os::SetFileTime(file, creation ? &times[0] : nullptr, lastAccess ? &times[1] : nullptr,
                           lastWrite ? &times[2] : nullptr);
  });
}

BOOL CZRFile::WasModifiedSince(const WCHAR* path, const FILETIME* time) {
  if (os::WStrLen(path) == 0 || !time) return 0;
  os::FileInfo info;
  if (!os::GetFileInfoW(path, &info)) return 0;
  return info.last_write_time >= FromFileTime(*time) ? 1 : 0;
}

BOOL CZRFile::TouchFile(const WCHAR* path) {
  if (os::WStrLen(path) == 0) return 0;
  os::FileHandle file = os::CreateFileW(path, os::kGenericWrite, 0, os::kOpenExisting, os::kFileAttributeNormal);
  if (file == os::kInvalidFile) return 0;
  const UINT64 now = os::GetSystemTimeAsFileTime();
  const BOOL result = os::SetFileTime(file, nullptr, nullptr, &now);
  os::CloseFile(file);
  return result;
}

DWORD CZRFile::GetFreeDiskSpace(const WCHAR* path) {
  if (os::WStrLen(path) == 0) return 0;
  os::DiskFreeSpace space;
  if (!os::GetDiskFreeSpaceW(path, &space)) return 0;
  const UINT64 cluster = static_cast<UINT64>(space.sectors_per_cluster) * space.bytes_per_sector;
  if (cluster == 0) return 0;
  // Whole clusters only, and never more than a 32-bit count of bytes.
  const UINT64 clusters = std::min<UINT64>(space.free_clusters, kMaxFileSize / cluster);
  return static_cast<DWORD>(cluster * clusters);
}

BOOL CZRFile::GetInfo(const WCHAR* path, Info* info) {
  zr::os::FileInfo found;
  if (!info || !zr::os::GetFileInfoW(path, &found)) return 0;
  *info = Info{found.size, found.attributes, ToFileTime(found.creation_time), ToFileTime(found.last_access_time),
               ToFileTime(found.last_write_time)};
  return 1;
}

DWORD CZRFile::GetAttributes(const WCHAR* path) { return zr::os::GetFileAttributesW(path); }

BOOL CZRFile::SetAttributes(const WCHAR* path, DWORD attributes) {
  return zr::os::SetFileAttributesW(path, attributes & ~(kAttributeDirectory | kAttributeNormal));
}

BOOL CZRFile::GetVolumeSpace(const WCHAR* path, UINT64* freeBytes, DWORD* clusterBytes) {
  zr::os::DiskFreeSpace space;
  if (!zr::os::GetDiskFreeSpaceW(path, &space)) return 0;
  const UINT64 cluster = static_cast<UINT64>(space.sectors_per_cluster) * space.bytes_per_sector;
  if (freeBytes) *freeBytes = space.free_clusters * cluster;
  if (clusterBytes) *clusterBytes = static_cast<DWORD>(cluster);
  return 1;
}

DWORD CZRFile::GetLastError() { return zr::os::GetLastError(); }

// --- Mapping -----------------------------------------------------------------------------------------------

void CZRFile::RemoveView() {
  if (!view_address_) return;
  os::UnmapViewOfFile(view_address_);
  os::CloseFileMapping(AsMapping(mapping_));
  mapping_ = nullptr;
  view_address_ = nullptr;
  view_offset_ = 0;
  view_size_ = 0;
  view_access_ = 0;
  status_ = kStatusReady;
}

void* CZRFile::MapFile(DWORD access, DWORD share, DWORD creation, DWORD flags, DWORD pageProtection, DWORD offset,
                       DWORD size, const WCHAR* mappingName, DWORD viewAccess, DWORD mapFlags) {
  COSAutoLock guard(&section_);
  if (view_address_) return nullptr;
  const bool none_given = access == kNoValue && share == kNoValue && creation == kNoValue && flags == kNoValue;
  const bool all_given = access != kNoValue && share != kNoValue && creation != kNoValue && flags != kNoValue;
  const bool opens_file = !IsOpen();
  if (opens_file) {
    if (!all_given) return nullptr;
    if (size == 0 && (creation == os::kCreateNew || creation == os::kCreateAlways)) return nullptr;
    if (OpenStored(access, share, creation, flags, 0) != kOpened) return nullptr;
  } else {
    if (!none_given) return nullptr;
    map_flags_ |= kMapKeepsFileOpen;
  }
  if (cache_) FlushCache();

  // Align the view down to the allocation granularity and size it to cover the requested bytes.
  os::FileHandle file = AsFile(file_);
  const DWORD delta = offset % os::GetAllocationGranularity();
  const UINT64 view_offset = offset - delta;
  UINT64 length = static_cast<UINT64>(delta) + size;
  UINT64 file_size = 0;
  bool valid = os::GetFileSize(file, &file_size) != 0;
  if (size == 0 || !IsWritable()) {
    valid = valid && offset < file_size;
    if (size == 0) length = file_size - view_offset;
    length = std::min(length, file_size - view_offset);
  }
  valid = valid && length <= kMaxFileSize;

  os::FileMapping* mapping = nullptr;
  void* view = nullptr;
  if (valid) {
    const UINT64 maximum = (mapFlags & kMapFlagFileSize) ? 0 : view_offset + length;
    mapping = os::CreateFileMappingW(file, pageProtection, maximum, mappingName);
    if (mapping) view = os::MapViewOfFile(mapping, viewAccess, view_offset, static_cast<std::size_t>(length));
  }
  if (!view) {
    if (mapping) os::CloseFileMapping(mapping);
    if (opens_file) {
      Close();
    } else {
      map_flags_ &= ~kMapKeepsFileOpen;
    }
    return nullptr;
  }
  mapping_ = mapping;
  view_address_ = view;
  view_offset_ = static_cast<DWORD>(view_offset);
  view_size_ = static_cast<DWORD>(length);
  view_access_ = viewAccess;
  status_ = kStatusMapped;
  size_ = static_cast<DWORD>(std::max<UINT64>(size_, std::min(view_offset + length, kMaxFileSize)));
  return static_cast<BYTE*>(view) + delta;
}

void* CZRFile::MapOpenFile(bool writable, DWORD offset, DWORD size, DWORD mapFlags) {
  return MapFile(kNoValue, kNoValue, kNoValue, kNoValue, writable ? os::kPageReadWrite : os::kPageReadOnly, offset,
                 size, nullptr, writable ? os::kFileMapWrite : os::kFileMapRead, mapFlags);
}

void* CZRFile::MapFileR(DWORD size, DWORD offset, DWORD mapFlags) {
  COSAutoLock guard(&section_);
  if (IsOpen()) return IsReadable() ? MapOpenFile(false, offset, size, mapFlags) : nullptr;
  return MapFile(os::kGenericRead, 0, os::kOpenExisting, kMapDefaultFlags, os::kPageReadOnly, offset, size, nullptr,
                 os::kFileMapRead, mapFlags);
}

void* CZRFile::MapFileRW(BOOL create, DWORD size, DWORD offset, DWORD mapFlags) {
  COSAutoLock guard(&section_);
  if (IsOpen()) {
    if (create || !IsReadable() || !IsWritable()) return nullptr;
    return MapOpenFile(true, offset, size, mapFlags);
  }
  return MapFile(os::kGenericRead | os::kGenericWrite, 0, create ? os::kCreateAlways : os::kOpenExisting,
                 kMapDefaultFlags, os::kPageReadWrite, offset, size, nullptr, os::kFileMapWrite, mapFlags);
}

void* CZRFile::RemapFile(DWORD size, DWORD offset, DWORD mapFlags) {
  COSAutoLock guard(&section_);
  if (!view_address_) return nullptr;
  const bool opened_by_mapping = !(map_flags_ & kMapKeepsFileOpen);
  RemoveView();  // the file stays open
  void* address = MapOpenFile(IsWritable(), offset, size, mapFlags);
  if (!address) {
    if (opened_by_mapping) Close();
    return nullptr;
  }
  if (opened_by_mapping) map_flags_ &= ~kMapKeepsFileOpen;
  return address;
}

int CZRFile::UnmapFile() {
  COSAutoLock guard(&section_);
  if (view_address_) {
    RemoveView();
    if (!(map_flags_ & kMapKeepsFileOpen)) Close();
  }
  map_flags_ &= ~kMapKeepsFileOpen;
  return 0;
}

int CZRFile::FlushView(const void* address, DWORD length) {
  COSAutoLock guard(&section_);
  if (!view_address_) return 0;
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto base = reinterpret_cast<std::uintptr_t>(view_address_);
  const std::uintptr_t start = (at == 0xFFFFFFFFu || at == UINTPTR_MAX) ? base : at;
  if (start < base || start - base >= view_size_) return 0;
  return os::FlushViewOfFile(reinterpret_cast<const void*>(start), length);
}

// --- Hand-over -----------------------------------------------------------------------------------------------

int CZRFile::TransferFrom(CZRFile& other) {
  if (&other == this) return 1;
  // Both sections, always in address order, so two opposite transfers cannot deadlock.
  CZRFile* first = this < &other ? this : &other;
  CZRFile* second = first == this ? &other : this;
  COSAutoLock lock_first(&first->section_);
  COSAutoLock lock_second(&second->section_);
  if (!Close()) return 0;
  file_ = other.file_;
  mapping_ = other.mapping_;
  view_offset_ = other.view_offset_;
  view_size_ = other.view_size_;
  view_address_ = other.view_address_;
  size_ = other.size_;
  access_ = other.access_;
  share_ = other.share_;
  map_flags_ = other.map_flags_;
  std::memcpy(name_, other.name_, sizeof name_);
  status_ = other.status_;
  position_ = other.position_;
  creation_ = other.creation_;
  flags_ = other.flags_;
  view_access_ = other.view_access_;
  cache_ = other.cache_;
  cache_capacity_ = other.cache_capacity_;
  cache_offset_ = other.cache_offset_;
  cache_fill_ = other.cache_fill_;
  lock_count_ = other.lock_count_;
  other.Reset();
  other.name_[0] = 0;
  return 1;
}
