// Project pack and unpack: one archive file of a project directory tree ("jPvo" header, then one
// entry per file and directory) and back, with every size of the archive checked before use.
#include <atomic>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "platform/fileutil.h"
#include "platform/text.h"
#include "zrobj/byteorder.h"
#include "zrobj/locator.h"
#include "zrobj/prjloc.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr unsigned char kMagic[4] = {'j', 'P', 'v', 'o'};
constexpr DWORD kNameOffset = 12;
constexpr DWORD kNameUnits = (PrjLocator::kHeaderSize - kNameOffset) / 2;  // 260 with the NUL
constexpr DWORD kMaxNameBytes = 2 * ZR_MAX_PATH;

template <class... Args>
void Report(const char16_t* format, const Args&... args) {
  if (IsDebugOn()) os::wPrintf(3, 4, format, args...);
}

std::atomic<PrjLocator::ProgressCallback> g_progress{nullptr};
std::atomic<void*> g_progress_context{nullptr};

// Counts entries and bytes and tells the progress callback.
struct Progress {
  DWORD entries = 0;
  UINT64 bytes = 0;
  void Add(DWORD data_bytes) {
    ++entries;
    bytes += data_bytes;
    if (const PrjLocator::ProgressCallback callback = g_progress.load()) callback(entries, bytes, g_progress_context.load());
  }
};

// The read buffer of a run: whole pages, sized by the largest entry so far.
class ReadBuffer {
 public:
  ReadBuffer() = default;
  ReadBuffer(const ReadBuffer&) = delete;
  ReadBuffer& operator=(const ReadBuffer&) = delete;
  ~ReadBuffer() { os::FU_AllocVirtual(data_, 0); }
  bool Reserve(std::size_t size) {
    if (size <= capacity_) return true;
    data_ = static_cast<unsigned char*>(os::FU_AllocVirtual(data_, 0));
    capacity_ = 0;
    data_ = static_cast<unsigned char*>(os::FU_AllocVirtual(nullptr, size));
    if (data_) capacity_ = os::FU_VirtualSize(size);
    return data_ != nullptr;
  }
  unsigned char* data() { return data_; }

 private:
  unsigned char* data_ = nullptr;
  std::size_t capacity_ = 0;
};

// The blocks the compressor asks for: one spare block per thread is kept for the next entry, so
// that a run of files does not map and fault in fresh pages for every one of them.
struct SpareBlock {
  void* block = nullptr;
  std::size_t capacity = 0;
  ~SpareBlock() { os::FU_AllocVirtual(block, 0); }
};
thread_local SpareBlock t_spare;
thread_local void* t_lent = nullptr;  // the spare while it is lent out
thread_local std::size_t t_lent_capacity = 0;

void* ReusingAllocator(void* block, std::size_t size) {
  if (block && block == t_lent) {  // given back: kept as the spare
    t_spare = {};
    t_spare.block = t_lent;
    t_spare.capacity = t_lent_capacity;
    t_lent = nullptr;
    block = nullptr;
  }
  if (block) os::FU_AllocVirtual(block, 0);
  if (size == 0) return nullptr;
  if (t_spare.block && t_spare.capacity >= size) {
    t_lent = t_spare.block;
    t_lent_capacity = t_spare.capacity;
    t_spare.block = nullptr;
    return t_lent;
  }
  os::FU_AllocVirtual(t_spare.block, 0);
  t_spare.block = nullptr;
  t_lent = os::FU_AllocVirtual(nullptr, size);
  t_lent_capacity = t_lent ? os::FU_VirtualSize(size) : 0;
  return t_lent;
}

// A compressor's block, given back on every way out.
struct ZipBlock {
  void* data = nullptr;
  ~ZipBlock() { ReusingAllocator(data, 0); }
};

// A file handle closed on every way out.
class File {
 public:
  File(const WCHAR* path, DWORD access, DWORD share, DWORD creation)
      : handle_(os::CreateFileW(path, access, share, creation, os::kFileFlagSequentialScan)) {}
  explicit File(os::FileHandle handle) : handle_(handle) {}
  ~File() { Close(); }
  File(File&& other) noexcept : handle_(std::exchange(other.handle_, os::kInvalidFile)) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  bool ok() const { return handle_ != os::kInvalidFile; }
  bool Write(const void* data, DWORD count) {
    DWORD done = 0;
    return count == 0 || (os::WriteFile(handle_, data, count, &done) && done == count);
  }
  // Fewer bytes than asked only at the end of the file.
  DWORD Read(void* data, DWORD count) {
    DWORD done = 0;
    return count == 0 || os::ReadFile(handle_, data, count, &done) ? done : 0;
  }
  bool Skip(UINT64 count) {
    UINT64 at = 0;
    return os::SetFilePointer(handle_, static_cast<INT64>(count), os::kFileCurrent, &at) != 0;
  }
  UINT64 Left() {
    UINT64 size = 0, at = 0;
    if (!os::GetFileSize(handle_, &size) || !os::SetFilePointer(handle_, 0, os::kFileCurrent, &at)) return 0;
    return at < size ? size - at : 0;
  }
  os::FileHandle handle() const { return handle_; }
  void Close() {
    if (handle_ != os::kInvalidFile) os::CloseFile(handle_);
    handle_ = os::kInvalidFile;
  }

 private:
  os::FileHandle handle_;
};

// The absolute form of a path, '/'-separated and ending in '/', for comparing directories.
std::u16string AbsoluteDirectory(const std::u16string& path) {
  std::error_code ec;
  const std::filesystem::path absolute =
      std::filesystem::absolute(os::Utf16ToUtf8(path.empty() ? u"." : path), ec).lexically_normal();
  std::u16string text = os::Utf8ToUtf16(absolute.string());
  if (text.empty() || text.back() != u'/') text.push_back(u'/');
  return text;
}

std::u16string Normalised(const WCHAR* path) {
  WCHAR buffer[ZR_MAX_PATH] = {};
  os::WStrCopy(buffer, ZR_MAX_PATH, path ? path : u"");
  return os::FU_FormatPath(buffer, ZR_MAX_PATH, u'/') ? std::u16string(buffer) : std::u16string();
}

// ---- the entry record ----

struct EntryInfo {
  DWORD name_size = 0;
  DWORD attributes = 0;
  UINT64 time = 0;
  DWORD stored_size = 0;
  DWORD file_size = 0;
};

void EncodeRecord(const EntryInfo& e, unsigned char* out) {
  zr::StoreLE32(out, PrjLocator::kRecordSize);
  zr::StoreLE32(out + 4, e.name_size);
  zr::StoreLE32(out + 8, e.attributes);
  zr::StoreLE64(out + 12, e.time);
  zr::StoreLE32(out + 20, e.stored_size);
  zr::StoreLE32(out + 24, e.file_size);
}

// The fields after the size word; fields a shorter record lacks read as 0.
EntryInfo DecodeRecord(const unsigned char* record) {
  return {zr::LoadLE32(record + 4), zr::LoadLE32(record + 8), zr::LoadLE64(record + 12),
          zr::LoadLE32(record + 20), zr::LoadLE32(record + 24)};
}

bool IsDirectory(const EntryInfo& e) { return (e.attributes & os::kFileAttributeDirectory) != 0; }

// ---- packing ----

struct PackContext {
  File* archive;
  ReadBuffer buffer;
  std::size_t prefix;  // characters of the project directory's path
  Progress progress;
};

bool WriteEntry(PackContext& c, const EntryInfo& e, const std::u16string& name, const void* data) {
  unsigned char record[PrjLocator::kRecordSize];
  EncodeRecord(e, record);
  std::vector<unsigned char> name_bytes(e.name_size);
  for (std::size_t i = 0; i < name.size(); ++i) zr::StoreLE16(&name_bytes[2 * i], name[i]);
  return c.archive->Write(record, sizeof record) && c.archive->Write(name_bytes.data(), e.name_size) &&
         c.archive->Write(data, e.stored_size);
}

BOOL PackPrjEnum(const WCHAR* path, const os::FileInfo& info, void* context) {
  auto& c = *static_cast<PackContext*>(context);
  const std::u16string name(path + c.prefix);
  EntryInfo e;
  e.name_size = static_cast<DWORD>((name.size() + 1) * 2);
  e.attributes = info.attributes;
  e.time = info.last_write_time;
  e.file_size = (info.attributes & os::kFileAttributeDirectory) ? 0 : static_cast<DWORD>(info.size);
  if (e.file_size == 0) {
    if (!WriteEntry(c, e, name, nullptr)) {
      Report(u"\rPackPrjEnum: Failure to write to archive\r\n");
      return FALSE;
    }
    c.progress.Add(0);
    return TRUE;
  }
  if (!c.buffer.Reserve(e.file_size)) {
    Report(u"\rPackPrjEnum: Insufficient memory\r\n");
    return FALSE;
  }
  {
    File source(path, os::kGenericRead, os::kFileShareRead | os::kFileShareWrite, os::kOpenExisting);
    if (!source.ok()) {
      Report(u"\rPackPrjEnum: Unable to open source file %s\r\n", path);
      return FALSE;
    }
    if (source.Read(c.buffer.data(), e.file_size) != e.file_size) {
      Report(u"\rPackPrjEnum: Unable to read source file %s\r\n", path);
      return FALSE;
    }
  }
  ZipBlock zipped;
  DWORD zipped_size = 0;
  zipped.data = os::FU_ZIPMem(c.buffer.data(), e.file_size, &zipped_size, ReusingAllocator);
  const bool smaller = zipped.data && zipped_size < e.file_size;
  e.stored_size = smaller ? zipped_size : e.file_size;
  if (!WriteEntry(c, e, name, smaller ? zipped.data : c.buffer.data())) {
    Report(u"\rPackPrjEnum: Unable to write file data %s to archive\r\n", path);
    return FALSE;
  }
  c.progress.Add(e.file_size);
  return TRUE;
}

// The project's name as the registry gives it (in its directory form, ending in a separator), less
// its last character. A name that is not one plain component could not be unpacked; the
// directory's own name stands in for it then.
std::u16string ProjectName(DWORD project_id, const std::u16string& directory) {
  WCHAR registered[ZR_MAX_PATH];
  if (PrjRegistry::GetProjectName(project_id, registered)) {
    const std::u16string name(registered);
    const std::u16string trimmed = name.empty() ? name : name.substr(0, name.size() - 1);
    if (!trimmed.empty() && trimmed.find(u'/') == std::u16string::npos && trimmed != u"." && trimmed != u"..")
      return trimmed;
  }
  const std::u16string trimmed = directory.substr(0, directory.size() - 1);
  const std::size_t slash = trimmed.rfind(u'/');
  return slash == std::u16string::npos ? trimmed : trimmed.substr(slash + 1);
}

bool WriteHeader(File& archive, DWORD project_id, const std::u16string& name) {
  unsigned char header[PrjLocator::kHeaderSize] = {};
  std::memcpy(header, kMagic, sizeof kMagic);
  zr::StoreLE32(header + 4, PrjLocator::kHeaderSize);
  zr::StoreLE32(header + 8, project_id);
  for (std::size_t i = 0; i < name.size() && i + 1 < kNameUnits; ++i) zr::StoreLE16(header + kNameOffset + 2 * i, name[i]);
  return archive.Write(header, sizeof header);
}

// Writes the archive as a file without a name in its directory and names it when it is whole: a
// pack that fails, or a process killed while packing, leaves nothing at all.
bool WriteArchive(const std::u16string& archive_path, const std::u16string& archive_directory, DWORD project_id,
                  const std::u16string& directory) {
  File archive(os::CreateUnnamedFileW(archive_directory.empty() ? u"." : archive_directory.c_str()));
  if (!archive.ok()) {
    Report(u"\rPrjLocator::PackProject: Unable to create archive\r\n");
    return false;
  }
  PackContext context{&archive, {}, directory.size(), {}};
  const bool ok = WriteHeader(archive, project_id, ProjectName(project_id, directory)) &&
                  os::FU_EnumDirectory(PackPrjEnum, directory.c_str(), &context) &&
                  os::NameUnnamedFileW(archive.handle(), archive_path.c_str());
  if (!ok) Report(u"\rPrjLocator::PackProject: Archive creation failed\r\n");
  return ok;
}

// The project lock for the whole run, released on every way out.
class ProjectLock {
 public:
  explicit ProjectLock(DWORD project_id) : locked_(ids_.Open(project_id) == 0 && ids_.LockProject() == 0) {}
  ~ProjectLock() {
    if (locked_) ids_.UnlockProject();
    ids_.Close();
  }
  ProjectLock(const ProjectLock&) = delete;
  ProjectLock& operator=(const ProjectLock&) = delete;
  bool locked() const { return locked_; }

 private:
  CProjUniID ids_;
  bool locked_;
};

// ---- reading an archive ----

// Reads the header and the entries of an archive in order; every size is checked against what the
// file still holds before anything is allocated.
class ArchiveReader {
 public:
  explicit ArchiveReader(const WCHAR* path) : file_(path, os::kGenericRead, os::kFileShareRead, os::kOpenExisting) {}
  bool opened() const { return file_.ok(); }

  // False for a short header or a wrong magic; `name` gets the project name (checked: one non-empty
  // path component).
  bool ReadHeader(std::u16string* name) {
    unsigned char header[PrjLocator::kHeaderSize];
    if (file_.Read(header, sizeof header) != sizeof header || std::memcmp(header, kMagic, sizeof kMagic) != 0)
      return false;
    name->clear();
    for (DWORD i = 0; i < kNameUnits; ++i) {
      const char16_t unit = zr::LoadLE16(header + kNameOffset + 2 * i);
      if (unit == 0) break;
      name->push_back(unit);
    }
    const DWORD size = zr::LoadLE32(header + 4);
    if (size > PrjLocator::kHeaderSize) file_.Skip(size - PrjLocator::kHeaderSize);
    return IsPlainName(*name);
  }

  enum class Step { kEntry, kEnd, kBadRecord, kBadName, kBadData };

  // The next entry's record and name; kEnd when no whole size word is left.
  Step Next(EntryInfo* e, std::u16string* name) {
    unsigned char record[PrjLocator::kRecordSize] = {};
    if (file_.Read(record, 4) != 4) return Step::kEnd;
    const DWORD size = zr::LoadLE32(record);
    const DWORD rest = (size < PrjLocator::kRecordSize ? (size < 4 ? 4 : size) : PrjLocator::kRecordSize) - 4;
    if (file_.Read(record + 4, rest) != rest) return Step::kBadRecord;
    if (size > PrjLocator::kRecordSize && !file_.Skip(size - PrjLocator::kRecordSize)) return Step::kBadRecord;
    *e = DecodeRecord(record);
    return ReadName(e->name_size, name) ? Step::kEntry : Step::kBadName;
  }

  // The entry's stored bytes into `buffer` (sized here); false when the archive does not hold them.
  bool ReadData(const EntryInfo& e, ReadBuffer& buffer, bool* no_memory) {
    *no_memory = false;
    if (e.stored_size == 0) return true;
    if (e.stored_size > file_.Left()) return false;
    if (!buffer.Reserve(e.stored_size)) {
      *no_memory = true;
      return false;
    }
    return file_.Read(buffer.data(), e.stored_size) == e.stored_size;
  }

  // Past the entry's stored bytes, as unpacking reads them: a directory has none, whatever its
  // record says.
  // Whether the archive still holds the entry's stored bytes.
  bool Holds(const EntryInfo& e) { return e.stored_size <= file_.Left(); }
  // Copies the entry's stored bytes straight into `out`.
  bool CopyData(const EntryInfo& e, File& out) { return os::CopyFileData(file_.handle(), out.handle(), e.stored_size) != 0; }

  bool SkipData(const EntryInfo& e) {
    if (IsDirectory(e) || e.stored_size == 0) return true;
    return e.stored_size <= file_.Left() && file_.Skip(e.stored_size);
  }

 private:
  // A name relative to the project: no empty, "." or ".." component, no leading separator.
  static bool IsRelativeName(const std::u16string& name) {
    if (name.empty() || name[0] == u'/') return false;
    std::size_t start = 0;
    while (start <= name.size()) {
      std::size_t end = name.find(u'/', start);
      if (end == std::u16string::npos) end = name.size();
      const std::u16string_view part(name.data() + start, end - start);
      if (part.empty() || part == u"." || part == u"..") return false;
      start = end + 1;
    }
    return true;
  }
  static bool IsPlainName(const std::u16string& name) { return IsRelativeName(name) && name.find(u'/') == std::u16string::npos; }

  bool ReadName(DWORD size, std::u16string* name) {
    if (size < 4 || size > kMaxNameBytes || size % 2 != 0) return false;
    unsigned char bytes[kMaxNameBytes];
    if (file_.Read(bytes, size) != size) return false;
    name->clear();
    for (DWORD i = 0; i + 2 < size; i += 2) name->push_back(zr::LoadLE16(bytes + i));
    if (zr::LoadLE16(bytes + size - 2) != 0 || name->find(u'\0') != std::u16string::npos) return false;
    for (char16_t& c : *name)
      if (c == u'\\') c = u'/';
    return IsRelativeName(*name);
  }

  File file_;
};

// ---- unpacking ----

// Creates an entry's file, and its directories when the archive had no entries for them.
std::optional<File> CreateOutput(const std::u16string& path) {
  std::optional<File> out(std::in_place, path.c_str(), os::kGenericWrite, 0, os::kCreateAlways);
  if (out->ok()) return out;
  if (!os::FU_CreatePath(path.c_str())) return std::nullopt;  // silently, as stated
  out.emplace(path.c_str(), os::kGenericWrite, 0, os::kCreateAlways);
  if (out->ok()) return out;
  Report(u"\rPrjLocator::UnpackProject: Unable to create file %s\r\n", path.c_str());
  return std::nullopt;
}

// Writes one file entry: stored bytes go straight from the archive to the file, compressed ones are
// read and expanded first. The messages say what failed.
bool UnpackFile(ArchiveReader& reader, const std::u16string& path, const EntryInfo& e, ReadBuffer& buffer) {
  const bool raw = e.stored_size == e.file_size;
  bool no_memory = false;
  if (!reader.Holds(e) || (!raw && !reader.ReadData(e, buffer, &no_memory))) {
    Report(no_memory ? u"\rPrjLocator::UnpackProject: Insufficient memory\r\n"
                     : u"\rPrjLocator::UnpackProject: Unable to read packed data\r\n");
    return false;
  }
  std::optional<File> out = CreateOutput(path);
  if (!out) return false;
  bool written = true;
  if (raw) {
    written = reader.CopyData(e, *out);
  } else {
    ZipBlock expanded;
    expanded.data = os::FU_UnZIPMem(buffer.data(), e.stored_size, e.file_size, ReusingAllocator);
    written = expanded.data && out->Write(expanded.data, e.file_size);
  }
  if (!written) {
    Report(u"\rPrjLocator::UnpackProject: Failed to write data of %s\r\n", path.c_str());
    return false;
  }
  os::SetFileTime(out->handle(), nullptr, &e.time, &e.time);
  out->Close();
  os::SetFileAttributesW(path.c_str(), e.attributes);
  return true;
}

struct Directory {
  std::u16string path;
  UINT64 time;
  DWORD attributes;
};

// Unpacks every entry below `root` (ending in '/'); false on the first failure.
bool UnpackEntries(ArchiveReader& reader, const std::u16string& root) {
  ReadBuffer buffer;
  Progress progress;
  std::vector<Directory> directories;  // their times are set last: the files inside change them
  for (;;) {
    EntryInfo e;
    std::u16string name;
    const ArchiveReader::Step step = reader.Next(&e, &name);
    if (step == ArchiveReader::Step::kEnd) break;
    if (step == ArchiveReader::Step::kBadRecord) {
      Report(u"\rPrjLocator::UnpackProject: Unable to read entry information\r\n");
      return false;
    }
    if (step == ArchiveReader::Step::kBadName) {
      Report(u"\rPrjLocator::UnpackProject: Read error entry name\r\n");
      return false;
    }
    const std::u16string path = root + name;
    if (IsDirectory(e)) {
      if (!os::FU_CreatePath((path + u"/").c_str())) {
        Report(u"\rPrjLocator::UnpackProject: Unable to create subdirectory\r\n");
        return false;
      }
      directories.push_back({path, e.time, e.attributes});
      progress.Add(0);
      continue;
    }
    if (!UnpackFile(reader, path, e, buffer)) return false;
    progress.Add(e.file_size);
  }
  for (auto it = directories.rbegin(); it != directories.rend(); ++it) {
    os::SetPathWriteTime(it->path.c_str(), it->time);
    os::SetFileAttributesW(it->path.c_str(), it->attributes);
  }
  return true;
}

}  // namespace

int PrjLocator::PackProject(const WCHAR* archivePath, DWORD projectId) {
  if (!archivePath || !archivePath[0]) {
    Report(u"\rPrjLocator::PackProject: Invalid archive path\r\n");
    return 0;
  }
  WCHAR registered[ZR_MAX_PATH];
  if (!ZROBJ_GetProjectDirectory(projectId, registered)) {
    Report(u"\rPrjLocator::PackProject: Invalid Project ID\r\n");
    return 0;
  }
  const WCHAR* file_name = os::FU_FindFilename(archivePath);
  if (!file_name || !file_name[0]) {
    Report(u"\rPrjLocator::PackProject: Archive <%s> is not a file\r\n", archivePath);
    return 0;
  }
  const std::u16string archive(archivePath);
  const std::u16string archive_directory = archive.substr(0, static_cast<std::size_t>(file_name - archivePath));
  const std::u16string directory = Normalised(registered);
  if (os::FU_IsPathContained(AbsoluteDirectory(archive_directory).c_str(), AbsoluteDirectory(directory).c_str())) {
    Report(u"\rPrjLocator::PackProject: Archive can not reside in subdirectory of project to be archived\r\n");
    return 0;
  }
  const ProjectLock lock(projectId);
  if (!lock.locked()) {
    Report(u"\rPrjLocator::PackProject: Project can not be locked (other users have access)\r\n");
    return 0;
  }
  return WriteArchive(archive, archive_directory, projectId, directory) ? 1 : 0;
}

int PrjLocator::UnpackProject(const WCHAR* archivePath, const WCHAR* destination) {
  if (!archivePath || !archivePath[0] || !destination || !destination[0]) {
    Report(u"\rPrjLocator::UnpackProject: Invalid parameters\r\n");
    return 0;
  }
  ArchiveReader reader(archivePath);
  if (!reader.opened()) {
    Report(u"\rPrjLocator::UnpackProject: Unable to open archive %s\r\n", archivePath);
    return 0;
  }
  std::u16string name;
  if (!reader.ReadHeader(&name)) {
    Report(u"\rPrjLocator::UnpackProject: %s is not a valid archive\r\n", archivePath);
    return 0;
  }
  const std::u16string base = Normalised(destination);
  const std::u16string target = base + name;
  if (os::FU_TestDirExists(target.c_str()) && !os::FU_DeleteDirectory(target.c_str())) {
    Report(u"\rPrjLocator::UnpackProject: Unable to remove (existing) destination directory %s\r\n", target.c_str());
    return 0;
  }
  // Unpacked beside the target and renamed when whole: an unpack that fails or is killed leaves no
  // target tree.
  const std::u16string temporary = base + u"." + name + u".unpacking";
  os::FU_DeleteDirectory(temporary.c_str());
  if (!os::FU_CreatePath((temporary + u"/").c_str())) return 0;
  if (!UnpackEntries(reader, temporary + u"/") || !os::MoveFileW(temporary.c_str(), target.c_str())) {
    os::FU_DeleteDirectory(temporary.c_str());
    return 0;
  }
  return 1;
}

int PrjLocator::ListArchive(const WCHAR* archivePath, WCHAR* projectName, EntryVisitor visit, void* context) {
  if (projectName) projectName[0] = 0;
  if (!archivePath) return 0;
  ArchiveReader reader(archivePath);
  std::u16string name;
  if (!reader.opened() || !reader.ReadHeader(&name)) return 0;
  if (projectName) os::WStrCopy(projectName, ZR_MAX_PATH, name);
  for (;;) {
    EntryInfo e;
    std::u16string entry_name;
    const ArchiveReader::Step step = reader.Next(&e, &entry_name);
    if (step == ArchiveReader::Step::kEnd) return 1;
    if (step != ArchiveReader::Step::kEntry || !reader.SkipData(e)) return 0;
    if (visit) visit({entry_name.c_str(), e.attributes, e.time, e.stored_size, e.file_size}, context);
  }
}

void PrjLocator::SetProgressCallback(ProgressCallback callback, void* context) {
  g_progress_context.store(context);
  g_progress.store(callback);
}
