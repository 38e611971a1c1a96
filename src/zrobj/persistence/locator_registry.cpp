// The project registry: registered projects in "PROJECTS.INI" of the settings directory (plus
// directories registered for this process only), each project's administrators in its own
// "PROJECT.INI", the current user, and this process's working project with its id generator.
#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/fileutil.h"
#include "platform/identity.h"
#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "zrobj/cpacl.h"
#include "zrobj/locator.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

constexpr std::size_t kMaxListeners = 16;
constexpr DWORD kRegistryLockWaitMs = 2000;
constexpr char kSectionPrefix[] = "Project ";
constexpr char kDirectoryKey[] = "Directory";
constexpr char kNameKey[] = "Name";
constexpr char kAdminSection[] = "Administrators";
constexpr char16_t kProjectFile[] = u"PROJECT.INI";

struct State {
  std::recursive_mutex mutex;
  std::map<DWORD, std::u16string> local;  // registered for this process only (ZROBJ_SetProjectDirectory)
  DWORD working = 0;
  CProjUniID* ids = nullptr;  // the working project's generator
  std::vector<PrjRegistry::WorkingProjectListener> listeners;
};

State& Registry() {
  static State* state = new State();  // never destroyed: ids may be asked for at unload
  return *state;
}

std::string RegistryPath() { return os::ProfileFilePath(PrjRegistry::GetRegistryFileName()); }

std::string Section(DWORD projectId) {
  char text[32];
  std::snprintf(text, sizeof text, "%s%08X", kSectionPrefix, projectId);
  return text;
}

std::optional<DWORD> SectionProject(const std::string& section) {
  const std::size_t prefix = sizeof kSectionPrefix - 1;
  if (section.size() != prefix + 8 || section.compare(0, prefix, kSectionPrefix) != 0) return std::nullopt;
  DWORD id = 0;
  for (std::size_t i = prefix; i < section.size(); ++i) {
    const char c = section[i];
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return std::nullopt;
    id = id << 4 | static_cast<DWORD>(digit);
  }
  return id == 0 ? std::nullopt : std::optional<DWORD>(id);
}

// '/' separators, one at the end; empty when the path is not absolute or too long.
std::u16string NormalDirectory(const WCHAR* directory) {
  if (!directory || directory[0] != u'/' || os::WStrLen(directory) + 2 > ZR_MAX_PATH) return {};
  WCHAR path[ZR_MAX_PATH] = {};
  os::WStrCopy(path, ZR_MAX_PATH, directory);
  if (!os::FU_FormatPath(path, ZR_MAX_PATH, u'/')) return {};
  return path;
}

// The directory's last component (without separators).
std::u16string LastComponent(const std::u16string& directory) {
  std::u16string trimmed = directory;
  while (!trimmed.empty() && trimmed.back() == u'/') trimmed.pop_back();
  return trimmed.substr(trimmed.rfind(u'/') + 1);
}

struct Entry {
  std::u16string directory;
  std::u16string name;
};

// Every project: the file's, then this process's own (which take precedence).
std::map<DWORD, Entry> AllProjects() {
  std::map<DWORD, Entry> all;
  const std::string path = RegistryPath();
  for (const std::string& section : os::IniSections(path)) {
    const std::optional<DWORD> id = SectionProject(section);
    const std::optional<std::string> dir = id ? os::IniRead(path, section, kDirectoryKey) : std::nullopt;
    const std::u16string directory = dir ? NormalDirectory(os::Utf8ToUtf16(*dir).c_str()) : u"";
    if (directory.empty()) continue;
    const std::optional<std::string> name = os::IniRead(path, section, kNameKey);
    all[*id] = {directory, name && !name->empty() ? os::Utf8ToUtf16(*name) : LastComponent(directory)};
  }
  for (const auto& [id, directory] : Registry().local) all[id] = {directory, LastComponent(directory)};
  return all;
}

std::optional<Entry> FindEntry(DWORD projectId) {
  std::lock_guard lock(Registry().mutex);
  const auto all = AllProjects();
  const auto it = all.find(projectId);
  if (it == all.end()) return std::nullopt;
  return it->second;
}

// An exclusive byte lock on "PROJECTS.LCK" beside the registry file, so that two processes adding
// projects at once never choose the same id. Polled every millisecond for up to 2 s.
class FileRegistryLock {
 public:
  FileRegistryLock() {
    const std::u16string path = os::Utf8ToUtf16(os::ProfileFilePath("PROJECTS.LCK"));
    os::CreateDirectoryTreeW(os::Utf8ToUtf16(os::WindowsDirectory()).c_str());
    file_ = os::CreateFileW(path.c_str(), os::kGenericRead | os::kGenericWrite,
                            os::kFileShareRead | os::kFileShareWrite | os::kFileShareDelete, os::kOpenAlways, 0);
    if (file_ == os::kInvalidFile) return;
    const DWORD start = os::GetTickCount();
    while (!os::LockFile(file_, 0, 1)) {
      if (os::GetTickCount() - start >= kRegistryLockWaitMs) return;
      os::Sleep(1);
    }
    locked_ = true;
  }
  ~FileRegistryLock() {
    if (locked_) os::UnlockFile(file_, 0, 1);
    if (file_ != os::kInvalidFile) os::CloseFile(file_);
  }
  FileRegistryLock(const FileRegistryLock&) = delete;
  FileRegistryLock& operator=(const FileRegistryLock&) = delete;
  bool locked() const { return locked_; }

 private:
  os::FileHandle file_ = os::kInvalidFile;
  bool locked_ = false;
};

std::string ProjectFile(DWORD projectId) {
  const std::optional<Entry> entry = FindEntry(projectId);
  return entry ? os::Utf16ToUtf8(entry->directory + kProjectFile) : std::string();
}

std::string UserKey(const WCHAR* user) {
  WCHAR current[PrjRegistry::kMaxUserName + 1];
  if (!user) {
    if (!PrjRegistry::GetCurrentUser(current, PrjRegistry::kMaxUserName + 1)) return {};
    user = current;
  }
  if (!user[0]) return {};
  char key[16];
  std::snprintf(key, sizeof key, "%08X", GetUserHashIDW(user));
  return key;
}

struct LargestContext {
  DWORD largest = 0;
};

bool ParseHex8(std::u16string_view text, DWORD* value) {
  if (text.size() != 8) return false;
  DWORD v = 0;
  for (const char16_t c : text) {
    const int digit = c >= u'0' && c <= u'9' ? c - u'0' : c >= u'A' && c <= u'F' ? c - u'A' + 10 : c >= u'a' && c <= u'f' ? c - u'a' + 10 : -1;
    if (digit < 0) return false;
    v = v << 4 | static_cast<DWORD>(digit);
  }
  *value = v;
  return true;
}

// An object file: ".../XXXXXXXX/XXXXXXXX.ext" (eight hex digits each), not a directory.
BOOL VisitObjectFile(const WCHAR* path, const os::FileInfo& info, void* context) {
  if (info.attributes & os::kFileAttributeDirectory) return TRUE;
  const std::u16string_view full(path);
  const std::size_t slash = full.rfind(u'/');
  const std::size_t dot = full.find(u'.', slash == std::u16string_view::npos ? 0 : slash);
  const std::size_t parent = slash == std::u16string_view::npos || slash == 0 ? std::u16string_view::npos
                                                                              : full.rfind(u'/', slash - 1);
  DWORD dir = 0, file = 0;
  if (dot == std::u16string_view::npos || parent == std::u16string_view::npos ||
      !ParseHex8(full.substr(parent + 1, slash - parent - 1), &dir) ||
      !ParseHex8(full.substr(slash + 1, dot - slash - 1), &file))
    return TRUE;
  auto* largest = static_cast<LargestContext*>(context);
  largest->largest = std::max(largest->largest, file);
  return TRUE;
}

void TellListeners(DWORD projectId) {
  std::vector<PrjRegistry::WorkingProjectListener> listeners;
  {
    std::lock_guard lock(Registry().mutex);
    listeners = Registry().listeners;
  }
  for (const auto listener : listeners) listener(projectId);
}

void CloseWorking(State& state) {
  if (state.ids) {
    state.ids->Close();
    delete state.ids;
  }
  state.ids = nullptr;
  state.working = 0;
}

}  // namespace

// ---- projects ----

DWORD PrjRegistry::AddProject(const WCHAR* directory, const WCHAR* name) {
  const std::u16string dir = NormalDirectory(directory);
  if (dir.empty() || (!os::DirectoryExistsW(dir.c_str()) && !os::CreateDirectoryTreeW(dir.c_str()))) return 0;
  const std::u16string shown = name && name[0] ? std::u16string(name) : LastComponent(dir);
  std::lock_guard lock(Registry().mutex);
  FileRegistryLock fileLock;
  if (!fileLock.locked()) return 0;
  DWORD id = 0, largest = 0;
  for (const auto& [known, entry] : AllProjects()) {
    largest = std::max(largest, known);
    if (entry.directory == dir && !Registry().local.count(known)) id = known;
  }
  if (id == 0) id = largest + 1;
  const std::string section = Section(id);
  const os::IniOp ops[] = {{os::IniOp::Kind::kSet, section, kDirectoryKey, os::Utf16ToUtf8(dir)},
                           {os::IniOp::Kind::kSet, section, kNameKey, os::Utf16ToUtf8(shown)}};
  return os::IniUpdate(RegistryPath(), ops) ? id : 0;
}

int PrjRegistry::RemoveProject(DWORD projectId) {
  std::lock_guard lock(Registry().mutex);
  if (Registry().local.erase(projectId)) return 1;
  const std::string section = Section(projectId);
  if (!os::IniHasSection(RegistryPath(), section)) return 0;
  const os::IniOp ops[] = {{os::IniOp::Kind::kDeleteSection, section, "", ""}};
  return os::IniUpdate(RegistryPath(), ops) ? 1 : 0;
}

int PrjRegistry::GetProjectDirectory(DWORD projectId, WCHAR* buffer) {
  if (!buffer) return 0;
  buffer[0] = 0;
  const std::optional<Entry> entry = FindEntry(projectId);
  if (!entry) return 0;
  os::WStrCopy(buffer, ZR_MAX_PATH, entry->directory);
  return 1;
}

int PrjRegistry::GetProjectName(DWORD projectId, WCHAR* buffer) {
  if (!buffer) return 0;
  buffer[0] = 0;
  const std::optional<Entry> entry = FindEntry(projectId);
  if (!entry || entry->name.size() + 2 > ZR_MAX_PATH) return 0;
  os::WStrCopy(buffer, ZR_MAX_PATH, entry->name + u"/");
  return 1;
}

DWORD PrjRegistry::FindProject(const WCHAR* directory) {
  const std::u16string dir = NormalDirectory(directory);
  if (dir.empty()) return 0;
  std::lock_guard lock(Registry().mutex);
  for (const auto& [id, entry] : AllProjects())
    if (entry.directory == dir) return id;
  return 0;
}

DWORD PrjRegistry::EnumProjects(ProjectVisitor visit, void* context) {
  std::map<DWORD, Entry> all;
  {
    std::lock_guard lock(Registry().mutex);
    all = AllProjects();
  }
  DWORD visited = 0;
  for (const auto& [id, entry] : all) {
    ++visited;
    if (!visit || !visit(id, entry.directory.c_str(), entry.name.c_str(), context)) break;
  }
  return visited;
}

DWORD PrjRegistry::FindLargestObjectID(DWORD projectId) {
  const std::optional<Entry> entry = FindEntry(projectId);
  if (!entry) return 0;
  const std::u16string objects = entry->directory + u"obj";
  LargestContext context;
  if (os::DirectoryExistsW(objects.c_str())) os::FU_EnumDirectory(&VisitObjectFile, objects.c_str(), &context);
  return context.largest;
}

// ---- the working project ----

int PrjRegistry::SetWorkingProject(DWORD projectId) {
  bool opened = false;
  {
    State& state = Registry();
    std::lock_guard lock(state.mutex);
    CloseWorking(state);
    if (projectId != 0 && FindEntry(projectId)) {
      auto* ids = new CProjUniID();
      opened = ids->Open(projectId) == 0 ||
               (ids->Create(projectId, FindLargestObjectID(projectId) + 1) == 0 && ids->Open(projectId) == 0);
      if (opened) {
        state.ids = ids;
        state.working = projectId;
      } else {
        delete ids;
      }
    }
    // The active access list follows the working project: forgotten now, scanned on next use.
    const std::optional<Entry> entry = opened ? FindEntry(projectId) : std::nullopt;
    zr::ResetActiveACLList(entry ? entry->directory.c_str() : nullptr);
  }
  TellListeners(opened ? projectId : 0);
  return opened || projectId == 0 ? 1 : 0;
}

DWORD PrjRegistry::GetWorkingProject() {
  std::lock_guard lock(Registry().mutex);
  return Registry().working;
}

DWORD PrjRegistry::WithIDGenerator(GeneratorFn fn, void* context) {
  std::lock_guard lock(Registry().mutex);
  return fn ? fn(Registry().ids, context) : 0;
}

DWORD PrjRegistry::NewObjectID() {
  return WithIDGenerator([](CProjUniID* ids, void*) -> DWORD { return ids ? static_cast<DWORD>(ids->GetNextID()) : 0xFFFFFFFFu; },
                         nullptr);
}

int PrjRegistry::ReserveObjectIDs(DWORD count) {
  return static_cast<int>(WithIDGenerator(
      [](CProjUniID* ids, void* n) -> DWORD { return ids ? static_cast<DWORD>(ids->ReserveIDs(*static_cast<DWORD*>(n))) : 0; },
      &count));
}

int PrjRegistry::AddWorkingProjectListener(WorkingProjectListener listener) {
  std::lock_guard lock(Registry().mutex);
  auto& listeners = Registry().listeners;
  if (!listener || listeners.size() >= kMaxListeners) return 0;
  listeners.push_back(listener);
  return 1;
}

int PrjRegistry::RemoveWorkingProjectListener(WorkingProjectListener listener) {
  std::lock_guard lock(Registry().mutex);
  auto& listeners = Registry().listeners;
  const auto it = std::find(listeners.begin(), listeners.end(), listener);
  if (it == listeners.end()) return 0;
  listeners.erase(it);
  return 1;
}

// ---- users ----

int PrjRegistry::GetCurrentUser(WCHAR* buffer, DWORD capacity) {
  if (!buffer || capacity == 0) return 0;
  buffer[0] = 0;
  WCHAR name[256];
  DWORD length = 256;
  if (!os::QueryUserName(name, &length)) return 0;
  os::WStrCopy(buffer, capacity, std::u16string_view(name, std::min<DWORD>(length, kMaxUserName)));
  return 1;
}

DWORD PrjRegistry::GetCurrentUserHash() {
  WCHAR name[kMaxUserName + 1];
  return GetCurrentUser(name, kMaxUserName + 1) ? GetUserHashIDW(name) : ZR_NO_ID;
}

int PrjRegistry::AddAdministrator(DWORD projectId, const WCHAR* user) {
  const std::string file = ProjectFile(projectId);
  const std::string key = UserKey(user);
  if (file.empty() || key.empty()) return 0;
  WCHAR current[kMaxUserName + 1];
  const std::u16string name = user ? std::u16string(user).substr(0, kMaxUserName)
                                   : (GetCurrentUser(current, kMaxUserName + 1), std::u16string(current));
  const os::IniOp ops[] = {{os::IniOp::Kind::kSet, kAdminSection, key, os::Utf16ToUtf8(name)}};
  return os::IniUpdate(file, ops) ? 1 : 0;
}

int PrjRegistry::RemoveAdministrator(DWORD projectId, const WCHAR* user) {
  const std::string file = ProjectFile(projectId);
  const std::string key = UserKey(user);
  if (file.empty() || key.empty() || !os::IniRead(file, kAdminSection, key)) return 0;
  const os::IniOp ops[] = {{os::IniOp::Kind::kDeleteKey, kAdminSection, key, ""}};
  return os::IniUpdate(file, ops) ? 1 : 0;
}

int PrjRegistry::IsAdministrator(DWORD projectId, const WCHAR* user) {
  const std::string file = ProjectFile(projectId);
  const std::string key = UserKey(user);
  return !file.empty() && !key.empty() && os::IniRead(file, kAdminSection, key) ? 1 : 0;
}

int PrjRegistry::IsCurrentUserAdministrator() {
  const DWORD working = GetWorkingProject();
  return working ? IsAdministrator(working, nullptr) : 0;
}

// ---- directories registered for this process only ----

int ZROBJ_SetProjectDirectory(DWORD projectId, const WCHAR* directory) {
  State& state = Registry();
  std::lock_guard lock(state.mutex);
  if (!directory) {
    state.local.erase(projectId);
    return 1;
  }
  if (os::WStrLen(directory) + 2 > ZR_MAX_PATH) return 0;
  WCHAR path[ZR_MAX_PATH] = {};
  os::WStrCopy(path, ZR_MAX_PATH, directory);
  os::FU_FormatPath(path, ZR_MAX_PATH, u'/');  // '/' separators, one at the end
  state.local[projectId] = path;
  return 1;
}

int ZROBJ_GetProjectDirectory(DWORD projectId, WCHAR* buffer) { return PrjRegistry::GetProjectDirectory(projectId, buffer); }
