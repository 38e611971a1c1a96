// Locator: an object file of a project, the access held on it (exclusive writer, shared readers,
// through share modes and byte-range locks), and commit and load of an object through chunk archives.
#include "zrobj/locator.h"

#include <atomic>
#include <cstring>
#include <string>

#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "platform/fileutil.h"
#include "platform/platdiag.h"
#include "platform/text.h"
#include "persistence/locator_internal.h"
#include "zrobj/byteorder.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

constexpr DWORD kBusyPollMs = 5;  // a busy open is tried again this often
constexpr DWORD kShareReaders = os::kFileShareRead | os::kFileShareWrite;  // readers let a writer in
constexpr DWORD kShareWriter = os::kFileShareRead;                          // a writer lets readers in

// Chunk names of an object file: "ZRObject" holds the four below, in this order.
char kTopChunk[] = "ZRObject";
char kLocationChunk[] = "Location";
char kClassChunk[] = "Class";
char kCommitChunk[] = "Commit";
char kDataChunk[] = "Data";
constexpr DWORD kLocationBytes = 20;
constexpr DWORD kCommitBytes = 16;  // count, committer's hash, commit time (8)
constexpr DWORD kGuidBytes = 16;

std::atomic<int> g_watch_min{0};
std::atomic<int> g_watch_max{0};

template <class... Args>
void Report(const char16_t* format, const Args&... args) {
  if (IsDebugOn()) os::wPrintf(3, 4, format, args...);
}

std::u16string Hex8(DWORD value) {
  static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string text(8, u'0');
  for (int i = 7; i >= 0; --i, value >>= 4) text[static_cast<std::size_t>(i)] = kDigits[value & 0xF];
  return text;
}

// The extension of a kind word: up to four ASCII letters, first at the lowest byte; 0 is "zro".
std::u16string KindExtension(DWORD kind) {
  if (kind == 0) return u"zro";
  std::u16string ext;
  for (int i = 0; i < 4; ++i, kind >>= 8) {
    const char16_t c = static_cast<char16_t>(kind & 0xFF);
    if (c == 0) break;
    ext += c;
  }
  return ext;
}

bool KindIsSafe(DWORD kind) {
  for (const char16_t c : KindExtension(kind))
    if (!((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9'))) return false;
  return true;
}

void StoreGuid(BYTE* out, const GUID& guid) {
  zr::StoreLE32(out, guid.Data1);
  zr::StoreLE16(out + 4, guid.Data2);
  zr::StoreLE16(out + 6, guid.Data3);
  for (int i = 0; i < 8; ++i) out[8 + i] = guid.Data4[i];
}

GUID LoadGuid(const BYTE* in) {
  GUID guid{};
  guid.Data1 = zr::LoadLE32(in);
  guid.Data2 = zr::LoadLE16(in + 4);
  guid.Data3 = zr::LoadLE16(in + 6);
  for (int i = 0; i < 8; ++i) guid.Data4[i] = in[8 + i];
  return guid;
}

void StoreLocation(BYTE* out, const Location& loc) {
  const DWORD words[5] = {loc.dwProject, loc.dwDir, loc.dwFile, loc.dwClass, loc.dwKind};
  for (int i = 0; i < 5; ++i) zr::StoreLE32(out + 4 * i, words[i]);
}

Location LoadLocation(const BYTE* in) {
  Location loc;
  loc.dwProject = zr::LoadLE32(in);
  loc.dwDir = zr::LoadLE32(in + 4);
  loc.dwFile = zr::LoadLE32(in + 8);
  loc.dwClass = zr::LoadLE32(in + 12);
  loc.dwKind = zr::LoadLE32(in + 16);
  return loc;
}

// Writes one chunk holding `count` bytes; false when any part of it failed.
bool WriteChunk(CZRArchive& archive, char* name, const void* data, DWORD count) {
  const unsigned level = archive.Chnk_Open(name, ZR_ACCESS_WRITE);
  if (level == CHNK_INVALID) return false;
  const bool written = archive.Chnk_Write(const_cast<void*>(data), count) == count;
  return archive.Chnk_Close(level) && written;
}

// Reads one whole chunk of between `least` and `most` bytes into `out`; its size in *size.
bool ReadChunk(CMemChunkArchive& archive, char* name, BYTE* out, DWORD least, DWORD most, DWORD* size) {
  const unsigned level = archive.Chnk_Open(name, ZR_ACCESS_READ);
  if (level == CHNK_INVALID) return false;
  const DWORD stored = archive.Chnk_GetSize(level);
  const bool fits = stored >= least && stored <= most && archive.Chnk_Read(out, stored) == stored;
  archive.Chnk_Close(level);
  if (size) *size = stored;
  return fits;
}

// The header chunks of an opened object file, up to (not including) the data chunk.
bool ReadHeaderChunks(CMemChunkArchive& archive, ObjectFileHeader* header) {
  *header = ObjectFileHeader{};
  BYTE location[kLocationBytes];
  BYTE cls[kGuidBytes + sizeof header->className];
  BYTE commit[kCommitBytes];
  DWORD clsSize = 0;
  if (!ReadChunk(archive, kLocationChunk, location, kLocationBytes, kLocationBytes, nullptr) ||
      !ReadChunk(archive, kClassChunk, cls, kGuidBytes, kGuidBytes + sizeof header->className - 1, &clsSize) ||
      !ReadChunk(archive, kCommitChunk, commit, kCommitBytes, kCommitBytes, nullptr))
    return false;
  header->location = LoadLocation(location);
  header->classGuid = LoadGuid(cls);
  std::memcpy(header->className, cls + kGuidBytes, clsSize - kGuidBytes);
  header->className[clsSize - kGuidBytes] = 0;
  header->commitCount = zr::LoadLE32(commit);
  header->committerHash = zr::LoadLE32(commit + 4);
  header->commitTime = zr::LoadLE64(commit + 8);
  return true;
}

// Opens the top chunk of a file's content for reading; false when the content is no object file
// or the chunk claims more than the content holds (a torn write).
bool OpenContent(CMemChunkArchive& archive, CPMemoryFile& content) {
  const DWORD size = static_cast<DWORD>(content.GetSize());
  archive.SetContent(content);
  return size >= 8 && archive.Open(ZR_ACCESS_READ) && archive.Chnk_Open(kTopChunk, ZR_ACCESS_READ) != CHNK_INVALID &&
         archive.Chnk_GetSize(0) <= size - 8;
}

}  // namespace

Locator::Locator() : object_id_(0), access_(0), flags_(0), commit_count_(0), seen_stamp_{0, 0} {}

Locator::~Locator() { ReleaseAccess(); }

// ---- binding ----

int Locator::SetLocation(const Location& location) {
  Reset();
  if (!location.IsObject() || !KindIsSafe(location.dwKind)) return 0;
  location_ = location;
  object_id_ = location.dwFile;
  return 1;
}

void Locator::Reset() {
  ReleaseAccess();
  location_ = Location{};
  object_id_ = 0;
  flags_ = 0;
  commit_count_ = 0;
  seen_stamp_[0] = seen_stamp_[1] = 0;
}

int Locator::SetVirtual(DWORD classHash) {
  Reset();
  location_.dwClass = classHash;
  flags_ = kFlagVirtual;
  return 1;
}

int Locator::GetObjectPath(WCHAR* buffer) const {
  if (!buffer) return 0;
  buffer[0] = 0;
  WCHAR directory[ZR_MAX_PATH];
  if (!IsValid() || !PrjRegistry::GetProjectDirectory(location_.dwProject, directory)) return 0;
  const std::u16string path = std::u16string(directory) + u"obj/" + Hex8(location_.dwDir) + u"/" +
                              Hex8(location_.dwFile) + u"." + KindExtension(location_.dwKind);
  if (path.size() >= ZR_MAX_PATH) return 0;
  os::WStrCopy(buffer, ZR_MAX_PATH, path);
  return 1;
}

// ---- access ----

void Locator::Watch(const char* member) const {
  const int min = g_watch_min.load(std::memory_order_relaxed);
  const int max = g_watch_max.load(std::memory_order_relaxed);
  if (!IsDebugOn() || min >= max) return;
  if (object_id_ < static_cast<DWORD>(min) || object_id_ >= static_cast<DWORD>(max)) return;
  os::wPrintf(0, 9, u"\rLocator::%hs(0x%08x) watch, access %08X\r\n", member, object_id_, access_);
  os::WalkCallStack(ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME(), 3, nullptr);
}

// Opens the object file with `access`, retrying a busy file (another writer) every 5 ms until
// `timeoutMs` has passed; a writer also takes the writer lock.
DWORD Locator::OpenFile(DWORD access, DWORD creation, DWORD timeoutMs) {
  WCHAR path[ZR_MAX_PATH];
  if (!GetObjectPath(path)) return kAccessInvalid;
  const bool write = (access & ZR_ACCESS_WRITE) != 0;
  const DWORD start = os::GetTickCount();
  for (;;) {
    const unsigned opened = file_.Open(path, access, write ? kShareWriter : kShareReaders, creation, 0, 0);
    if (opened == CZRFile::kOpened && (!write || file_.FileLock(kWriterLockOffset, 1))) return kAccessGranted;
    const DWORD error = CZRFile::GetLastError();
    if (opened == CZRFile::kOpened) file_.Close();  // another handle holds the writer lock
    const bool busy = opened == CZRFile::kOpened || opened == CZRFile::kSharingViolation;
    if (!busy) {
      const bool missing = error == CZRFile::kErrorFileNotFound || error == CZRFile::kErrorPathNotFound;
      return missing && creation == CZRFile::kOpenExisting ? kAccessNoFile : kAccessFailed;
    }
    if (os::GetTickCount() - start >= timeoutMs) return kAccessBusy;
    os::Sleep(kBusyPollMs);
  }
}

DWORD Locator::Access(DWORD access, DWORD timeoutMs) {
  access &= ZR_ACCESS_MASK;
  if (access & ZR_ACCESS_WRITE) access |= ZR_ACCESS_READ;  // a writer reads its own file
  ReleaseAccess();
  if (!IsValid() || access == 0) return kAccessInvalid;
  const DWORD result = OpenFile(access, CZRFile::kOpenExisting, timeoutMs);
  if (result != kAccessGranted) return result;
  access_ = access;
  ObjectFileHeader header;
  commit_count_ = ReadHeader(&header) ? header.commitCount : 0;
  RememberStamp();
  Watch("Access");
  return kAccessGranted;
}

DWORD Locator::CreateDiskImage(DWORD classHash, DWORD kind) {
  const DWORD project = PrjRegistry::GetWorkingProject();
  const DWORD id = project ? PrjRegistry::NewObjectID() : 0xFFFFFFFFu;
  if (id == 0xFFFFFFFFu) {
    Report(u"\rLocator::CreateDiskImage: No ID generator available\r\n");
    return kAccessNoIDs;
  }
  if (!SetLocation(Location::ForObject(project, id, classHash, kind))) return kAccessInvalid;
  WCHAR path[ZR_MAX_PATH];
  GetObjectPath(path);
  os::CreateDirectoryTreeW(std::u16string(path, os::FU_FindLastSeparator(path)).c_str());
  const DWORD result = OpenFile(ZR_ACCESS_READ | ZR_ACCESS_WRITE, CZRFile::kCreateNew, 0);
  if (result != kAccessGranted) {
    Report(u"\rLocator::CreateDiskImage: Unable to create %s\r\n", static_cast<const WCHAR*>(path));
    return result;
  }
  access_ = ZR_ACCESS_READ | ZR_ACCESS_WRITE;
  flags_ |= kFlagCreated;
  RememberStamp();
  Watch("CreateDiskImage");
  return kAccessGranted;
}

int Locator::ReleaseAccess() {
  if (access_ == 0) return 1;
  Watch("ReleaseAccess");
  if (access_ & ZR_ACCESS_WRITE) file_.FileUnlock(kWriterLockOffset, 1);
  access_ = 0;
  return file_.Close() ? 1 : 0;
}

// ---- commit and load ----

int Locator::Commit(DWORD flags, PFNOBJECTDATA store, void* object, const char* className, const GUID* guid) {
  if (!(access_ & ZR_ACCESS_WRITE) || !IsValid()) {
    Report(u"\rLocator::Commit: No write access\r\n");
    return 0;
  }
  BYTE location[kLocationBytes];
  StoreLocation(location, location_);
  BYTE cls[kGuidBytes + sizeof ObjectFileHeader{}.className] = {};
  if (guid) StoreGuid(cls, *guid);
  const std::string name = className ? std::string(className).substr(0, sizeof ObjectFileHeader{}.className - 1) : "";
  std::memcpy(cls + kGuidBytes, name.data(), name.size());
  BYTE commit[kCommitBytes];
  zr::StoreLE32(commit, commit_count_ + 1);
  zr::StoreLE32(commit + 4, PrjRegistry::GetCurrentUserHash());
  zr::StoreLE64(commit + 8, os::GetSystemTimeAsFileTime());

  CMemChunkArchive archive;
  archive.Open(ZR_ACCESS_WRITE);
  const unsigned top = archive.Chnk_Open(kTopChunk, ZR_ACCESS_WRITE);
  bool built = top != CHNK_INVALID && WriteChunk(archive, kLocationChunk, location, kLocationBytes) &&
               WriteChunk(archive, kClassChunk, cls, kGuidBytes + static_cast<DWORD>(name.size())) &&
               WriteChunk(archive, kCommitChunk, commit, kCommitBytes);
  const unsigned data = built ? archive.Chnk_Open(kDataChunk, ZR_ACCESS_WRITE) : CHNK_INVALID;
  built = data != CHNK_INVALID && (!store || store(object, &archive)) && archive.Chnk_Close(data) &&
          archive.Chnk_Close(top);
  archive.Close();
  if (!built) {
    Report(u"\rLocator::Commit(0x%08x): The object could not be stored\r\n", object_id_);
    return 0;
  }
  CPMemoryFile content = archive.GetContent();
  const DWORD size = static_cast<DWORD>(content.GetSize());
  if (!file_.WaitFileLock(kCommitLockOffset, 1, kLockWaitMs)) {
    Report(u"\rLocator::Commit(0x%08x): Lock timeout\r\n", object_id_);
    return 0;
  }
  const bool written = file_.SetFilePtr(0, 0) && file_.Write(content.GetCDataPtr(), size) == size;
  file_.SetEOF(size);
  const bool whole = written && file_.GetSize() == size && file_.FlushCache();
  file_.FileUnlock(kCommitLockOffset, 1);
  if (!whole) {
    Report(u"\rLocator::Commit(0x%08x): Write error\r\n", object_id_);
    return 0;
  }
  ++commit_count_;
  flags_ &= ~kFlagCreated;
  RememberStamp();
  Watch("Commit");
  if (flags & kCommitRelease) ReleaseAccess();
  return 1;
}

// The whole file into `content`, under the commit lock, so a commit is seen whole or not at all.
bool Locator::ReadWhole(CPMemoryFile* content) {
  if (!access_ || !file_.WaitFileLock(kCommitLockOffset, 1, kLockWaitMs)) return false;
  const DWORD size = file_.GetSize();
  bool read = content->Alloc(size ? size : 1) && content->SetSize(size);
  if (read && size) read = file_.SetFilePtr(0, 0) && file_.Read(content->GetDataPtr(), size) == size;
  file_.FileUnlock(kCommitLockOffset, 1);
  return read;
}

int Locator::ReadHeader(ObjectFileHeader* header) {
  CPMemoryFile content;
  CMemChunkArchive archive;
  if (!header || !ReadWhole(&content) || !OpenContent(archive, content)) return 0;
  if (!ReadHeaderChunks(archive, header)) return 0;
  const unsigned data = archive.Chnk_Open(kDataChunk, ZR_ACCESS_READ);
  if (data == CHNK_INVALID) return 0;
  header->dataSize = archive.Chnk_GetSize(data);
  return 1;
}

int Locator::Load(PFNOBJECTDATA load, void* object) {
  CPMemoryFile content;
  CMemChunkArchive archive;
  ObjectFileHeader header;
  WCHAR path[ZR_MAX_PATH];
  GetObjectPath(path);
  if (!ReadWhole(&content)) {
    Report(u"\rLocator::Load(0x%08x): No access\r\n", object_id_);
    return 0;
  }
  if (!OpenContent(archive, content) || !ReadHeaderChunks(archive, &header) ||
      !header.location.SameObject(location_)) {
    Report(u"\rLocator::Load: %s is not an object file of this location\r\n", static_cast<const WCHAR*>(path));
    return 0;
  }
  const unsigned data = archive.Chnk_Open(kDataChunk, ZR_ACCESS_READ);
  if (data == CHNK_INVALID) return 0;
  commit_count_ = header.commitCount;
  const int loaded = load ? load(object, &archive) : 1;
  archive.Chnk_Close(data);
  RememberStamp();
  return loaded ? 1 : 0;
}

// ---- the watch range ----

void Locator::SetRWWatchRange(int& min, int& max) {
  if (min < 0) min = 0;
  if (max < 0) max = 0;
  g_watch_min.store(min, std::memory_order_relaxed);
  g_watch_max.store(max, std::memory_order_relaxed);
}

void Locator::GetRWWatchRange(int* min, int* max) {
  if (min) *min = g_watch_min.load(std::memory_order_relaxed);
  if (max) *max = g_watch_max.load(std::memory_order_relaxed);
}

// ---- shared with the other Locator sources ----

void zr::ReportLocatorFailure(const char16_t* text) { Report(text); }

// ---- start-up steps ----

namespace zr::steps {

void SetLocatorWatchRange(int& min, int& max) { Locator::SetRWWatchRange(min, max); }
void GetLocatorWatchRange(int* min, int* max) { Locator::GetRWWatchRange(min, max); }

}  // namespace zr::steps
