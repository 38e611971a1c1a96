// INI files through SimpleIni: reads from a parse cached per path and validated by the file's
// identity, writes as lock + fresh read + temporary file + rename.
#include "platform/inifile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define SI_NO_CONVERSION 1  // UTF-8 stays UTF-8: no wide conversion needed
#define SI_IMPLEMENTATION 1  // header-only use of the templates
#include <SimpleIni.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

namespace zr::os {

namespace {

constexpr off_t kMaxFileBytes = 16 << 20;   // larger files are not settings: treated as unreadable
constexpr int kLockTimeoutMs = 10000;
constexpr std::string_view kUtf8Signature = "\xEF\xBB\xBF";

using Ini = CSimpleIniA;  // case-insensitive sections and keys

std::unique_ptr<Ini> NewIni() {
  auto ini = std::make_unique<Ini>(/*utf8=*/true, /*multikey=*/false, /*multiline=*/false);
  ini->SetQuotes(true);  // "  value " keeps its blanks, as profile files strip surrounding quotes
  ini->SetSpaces(false);
  return ini;
}

// What identifies one version of a file on disk.
struct FileStamp {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  bool operator==(const FileStamp& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec;
  }
};

FileStamp StampOf(const struct stat& st) { return {st.st_dev, st.st_ino, st.st_size, st.st_mtim}; }

// A stamp younger than this may hide a same-size rewrite within the clock's granularity.
bool StampIsSettled(const FileStamp& stamp) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec - stamp.mtime.tv_sec >= 2;
}

struct Loaded {
  IniFileState state = IniFileState::kMissing;
  std::shared_ptr<const Ini> ini;  // empty document for missing/unreadable files
};

struct LoadedForEdit {
  IniFileState state = IniFileState::kMissing;
  std::unique_ptr<Ini> ini;
};

bool ReadWhole(int fd, off_t size, std::string* out) {
  out->resize(static_cast<std::size_t>(size));
  std::size_t done = 0;
  while (done < out->size()) {
    const ssize_t n = ::read(fd, out->data() + done, out->size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;  // shrank while reading: parse what is there
    done += static_cast<std::size_t>(n);
  }
  out->resize(done);
  return true;
}

// Makes the text line-based the way profile files are: NUL bytes end lines, and a section header
// without its ']' ends at the line's end (the parser would otherwise read on into later lines).
std::string LineBased(std::string data) {
  std::replace(data.begin(), data.end(), '\0', '\n');
  std::string out;
  out.reserve(data.size() + 16);
  std::size_t start = 0;
  while (start < data.size()) {
    std::size_t end = data.find_first_of("\r\n", start);
    if (end == std::string::npos) end = data.size();
    const std::string_view line(data.data() + start, end - start);
    out.append(line);
    const auto first = line.find_first_not_of(" \t");
    if (first != std::string_view::npos && line[first] == '[' && line.find(']') == std::string_view::npos)
      out.push_back(']');
    if (end < data.size()) out.push_back(data[end]);
    start = end + 1;
  }
  return out;
}

// Reads and parses `path` without any cache. `stamp` receives the identity of what was read.
LoadedForEdit LoadFresh(const std::string& path, FileStamp* stamp) {
  LoadedForEdit result;
  auto ini = NewIni();
  // O_NONBLOCK: a FIFO planted at the path must not hang the reader (it is then refused below).
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    result.state = errno == ENOENT || errno == ENOTDIR ? IniFileState::kMissing : IniFileState::kUnreadable;
    result.ini = std::move(ini);
    return result;
  }
  struct stat st{};
  std::string data;
  result.state = IniFileState::kUnreadable;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxFileBytes &&
      ReadWhole(fd, st.st_size, &data)) {
    if (ini->LoadData(LineBased(std::move(data))) >= 0) {
      result.state = IniFileState::kReadable;
      if (stamp) *stamp = StampOf(st);
    } else {
      ini = NewIni();
    }
  }
  ::close(fd);
  result.ini = std::move(ini);
  return result;
}

struct CacheEntry {
  FileStamp stamp;
  std::shared_ptr<const Ini> ini;
};

struct Cache {
  std::mutex mutex;
  std::map<std::string, CacheEntry> entries;
};

Cache& TheCache() {
  static Cache* cache = new Cache;  // never destroyed: settings are read during unload
  return *cache;
}

// The parse of the file as it is now, from the cache when the file has not changed.
Loaded Load(const std::string& path) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) {
    Loaded missing;
    missing.state = errno == ENOENT || errno == ENOTDIR ? IniFileState::kMissing : IniFileState::kUnreadable;
    missing.ini = NewIni();
    return missing;
  }
  Cache& cache = TheCache();
  const FileStamp now = StampOf(st);
  {
    std::lock_guard lock(cache.mutex);
    auto it = cache.entries.find(path);
    if (it != cache.entries.end() && it->second.stamp == now && StampIsSettled(now))
      return {IniFileState::kReadable, it->second.ini};
  }
  FileStamp stamp;
  LoadedForEdit fresh = LoadFresh(path, &stamp);
  Loaded loaded{fresh.state, std::move(fresh.ini)};
  if (loaded.state == IniFileState::kReadable) {
    std::lock_guard lock(cache.mutex);
    cache.entries[path] = {stamp, loaded.ini};
  }
  return loaded;
}

// The reader ends a line at a NUL byte too, and the parser takes names and values as C strings.
bool HasLineBreak(std::string_view s) {
  return s.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

bool ValidSection(std::string_view s) { return !HasLineBreak(s) && s.find(']') == std::string_view::npos; }

// Judged as it will be written, blanks removed: " ;k" would become a comment line.
bool ValidKey(std::string_view key) {
  const std::string_view k = IniTrimName(key);
  return !k.empty() && !HasLineBreak(key) && k.find('=') == std::string_view::npos && k.front() != ';' &&
         k.front() != '#' && k.front() != '[';
}

bool ValidOp(const IniOp& op) {
  if (!ValidSection(op.section)) return false;
  switch (op.kind) {
    case IniOp::Kind::kSet: return ValidKey(op.key) && !HasLineBreak(op.value);
    case IniOp::Kind::kDeleteKey: return ValidKey(op.key);
    default: return true;
  }
}

void DeleteSectionTree(Ini& ini, const std::string& root) {
  Ini::TNamesDepend sections;
  ini.GetAllSections(sections);
  const std::string prefix = root + "\\";
  for (const auto& s : sections) {
    const std::string name = s.pItem;
    const bool below = name.size() > prefix.size() && strncasecmp(name.c_str(), prefix.c_str(), prefix.size()) == 0;
    if (below || strcasecmp(name.c_str(), root.c_str()) == 0) ini.Delete(s.pItem, nullptr);
  }
}

// The parser takes one pair of quotes off a value, and saving writes the rest as it stands, so a
// value read as "x" (its text quoted twice) would lose a pair at every save. Values as loaded get
// their pair back before the file is written again; values set by the update are written as given.
void RequoteLoadedValues(Ini& ini) {
  Ini::TNamesDepend sections;
  ini.GetAllSections(sections);
  for (const auto& section : sections) {
    Ini::TNamesDepend keys;
    ini.GetAllKeys(section.pItem, keys);
    for (const auto& key : keys) {
      const std::string_view value = ini.GetValue(section.pItem, key.pItem, "");
      if (value.size() < 2 || value.front() != '"' || value.back() != '"') continue;
      ini.SetValue(section.pItem, key.pItem, ("\"" + std::string(value) + "\"").c_str());
    }
  }
}

bool Apply(Ini& ini, const IniOp& op) {
  const std::string section(IniTrimName(op.section));
  const std::string key(IniTrimName(op.key));
  switch (op.kind) {
    case IniOp::Kind::kSet: return ini.SetValue(section.c_str(), key.c_str(), op.value.c_str()) >= 0;
    case IniOp::Kind::kDeleteKey: ini.Delete(section.c_str(), key.c_str()); return true;
    case IniOp::Kind::kDeleteSection: ini.Delete(section.c_str(), nullptr); return true;
    case IniOp::Kind::kDeleteSectionTree: DeleteSectionTree(ini, section); return true;
    case IniOp::Kind::kAddSection: return ini.SetValue(section.c_str(), nullptr, nullptr) >= 0;
  }
  return false;
}

// Holds an exclusive flock on "<path>.lock" (per open file description, never a process-wide
// record lock), polled so a stuck holder makes the write fail instead of hanging.
class FileLock {
 public:
  explicit FileLock(const std::string& path) {
    fd_ = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    for (int waited = 0; waited <= kLockTimeoutMs; ++waited) {
      if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        held_ = true;
        return;
      }
      if (errno != EWOULDBLOCK && errno != EINTR) return;
      timespec ms{0, 1000000};
      nanosleep(&ms, nullptr);
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing the only descriptor releases the flock
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};

bool WriteAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Writes `data` to a temporary sibling and renames it over `path`.
bool ReplaceFile(const std::string& path, const std::string& data, mode_t mode) {
  std::string temp = path + ".XXXXXX";
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) return false;
  const bool written = ::fchmod(fd, mode) == 0 && WriteAll(fd, data);
  const bool closed = ::close(fd) == 0;
  if (written && closed && ::rename(temp.c_str(), path.c_str()) == 0) return true;
  ::unlink(temp.c_str());
  return false;
}

}  // namespace

std::string_view IniTrimName(std::string_view name) {
  const auto first = name.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const auto last = name.find_last_not_of(" \t");
  return name.substr(first, last - first + 1);
}

IniFileState IniGetState(const std::string& path) { return Load(path).state; }

std::optional<std::string> IniRead(const std::string& path, std::string_view section, std::string_view key) {
  const Loaded loaded = Load(path);
  const std::string s(IniTrimName(section));
  const std::string k(IniTrimName(key));
  const char* value = loaded.ini->GetValue(s.c_str(), k.c_str(), nullptr);
  if (!value) return std::nullopt;
  return std::string(value);
}

bool IniHasSection(const std::string& path, std::string_view section) {
  const std::string s(IniTrimName(section));
  return Load(path).ini->GetSection(s.c_str()) != nullptr;
}

std::vector<std::string> IniSections(const std::string& path) {
  const Loaded loaded = Load(path);
  Ini::TNamesDepend names;
  loaded.ini->GetAllSections(names);
  names.sort(Ini::Entry::LoadOrder());
  std::vector<std::string> out;
  for (const auto& n : names) out.emplace_back(n.pItem);
  return out;
}

std::vector<std::string> IniKeys(const std::string& path, std::string_view section) {
  const Loaded loaded = Load(path);
  const std::string s(IniTrimName(section));
  Ini::TNamesDepend names;
  loaded.ini->GetAllKeys(s.c_str(), names);
  names.sort(Ini::Entry::LoadOrder());
  std::vector<std::string> out;
  for (const auto& n : names) out.emplace_back(n.pItem);
  return out;
}

bool IniUpdate(const std::string& link_or_path, std::span<const IniOp> ops) {
  if (link_or_path.empty() || !std::all_of(ops.begin(), ops.end(), ValidOp)) return false;
  std::error_code ec;
  // A settings file that is a symbolic link is updated where it points, and stays a link.
  std::filesystem::path resolved = link_or_path;
  for (int depth = 0; std::filesystem::is_symlink(resolved, ec); ++depth) {
    const std::filesystem::path target = std::filesystem::read_symlink(resolved, ec);
    if (ec || depth == 8) return false;
    resolved = target.is_absolute() ? target : resolved.parent_path() / target;
  }
  const std::string path = resolved.string();
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  FileLock lock(path);
  if (!lock.held()) return false;
  FileStamp unused;
  LoadedForEdit current = LoadFresh(path, &unused);
  if (current.state == IniFileState::kUnreadable) return false;
  Ini* ini = current.ini.get();
  RequoteLoadedValues(*ini);
  for (const IniOp& op : ops)
    if (!Apply(*ini, op)) return false;
  std::string out;
  if (ini->Save(out, false) < 0) return false;
  // The reader drops a UTF-8 signature at the start, so a first key beginning with those bytes
  // keeps them only behind a signature of its own.
  if (out.starts_with(kUtf8Signature)) out.insert(0, kUtf8Signature);
  struct stat st{};
  const mode_t mode = ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644;
  if (!ReplaceFile(path, out, mode)) return false;
  return true;  // the next read parses the new file: its stamp differs from any cached one
}

void IniDropCache() {
  Cache& cache = TheCache();
  std::lock_guard lock(cache.mutex);
  cache.entries.clear();
}

}  // namespace zr::os
