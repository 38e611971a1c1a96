// Access control lists: CPACLList, the active list of the working project, the ".acl" files with
// their grant, removal and enumeration rules, the change stamp and the change notification.
#include "zrobj/cpacl.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/fileutil.h"
#include "platform/lasterror.h"
#include "platform/settingsfile.h"
#include "platform/text.h"
#include "zrobj/byteorder.h"
#include "zrobj/coslock.h"
#include "zrobj/czrfile.h"
#include "zrobj/zrhash.h"
#include "zrobj/zrutil.h"

namespace os = zr::os;

// ---- CPACLList -------------------------------------------------------------------------------------

namespace {

constexpr DWORD kEntrySize = sizeof(tagACLLISTENTRY);

int CompareSecond(const void* key, const void* entry) {
  const DWORD a = static_cast<const tagACLLISTENTRY*>(key)->dwSecond;
  const DWORD b = static_cast<const tagACLLISTENTRY*>(entry)->dwSecond;
  return a > b ? 1 : a < b ? -1 : 0;
}

}  // namespace

// Sharing checks the block's class id, so it runs here, where GetClassID is this class's.
CPACLList::CPACLList(const CPACLList& other) : CPMemory() { CPMemory::operator=(other); }

CPACLList& CPACLList::operator=(const CPACLList& other) {
  CPMemory::operator=(other);
  return *this;
}

CPACLList::~CPACLList() { Free(); }

tagACLLISTENTRY* CPACLList::GetList() { return static_cast<tagACLLISTENTRY*>(GetDataPtr()); }

const tagACLLISTENTRY* CPACLList::GetCList() const {
  return GetSize() ? static_cast<const tagACLLISTENTRY*>(GetCDataPtr()) : nullptr;
}

DWORD CPACLList::SearchIndex(DWORD second) const {
  const tagACLLISTENTRY key{0, second};
  return zrqsearch(&key, GetCList(), GetNItems(), kEntrySize, CompareSecond);
}

// The kept test: the search's index lies inside the list and the list's first entry is the key.
bool CPACLList::FirstEntryIs(DWORD index, DWORD first, DWORD second) const {
  const tagACLLISTENTRY* entries = GetCList();
  return index < GetNItems() && entries[0].dwFirst == first && entries[0].dwSecond == second;
}

tagACLLISTENTRY* CPACLList::Find(DWORD first, DWORD second) {
  if (GetNItems() == 0) return nullptr;
  const DWORD index = SearchIndex(second);
  if (!FirstEntryIs(index, first, second)) return nullptr;
  tagACLLISTENTRY* entries = GetList();
  return entries ? entries + index : nullptr;
}

int CPACLList::Add(DWORD first, DWORD second) {
  const DWORD count = GetNItems();
  const DWORD index = SearchIndex(second);
  if (count != 0 && FirstEntryIs(index, first, second)) return 1;
  if (count + 1 > GetAllocSize() / kEntrySize) {
    if (!Realloc(count * kEntrySize + kGrowthBytes, 0, 0)) return 0;
  }
  if (!SetSize((count + 1) * kEntrySize)) return 0;
  tagACLLISTENTRY* entries = GetList();
  if (entries == nullptr) return 0;
  std::memmove(entries + index + 1, entries + index, (count - index) * kEntrySize);
  entries[index] = {first, second};
  return 1;
}

int CPACLList::Delete(DWORD first, DWORD second) {
  const DWORD count = GetNItems();
  if (count == 0) return 1;
  const DWORD index = SearchIndex(second);
  if (!FirstEntryIs(index, first, second)) return 1;
  if (count == 1) {
    Free();
    return 1;
  }
  tagACLLISTENTRY* entries = GetList();
  if (entries == nullptr) return 1;
  std::memmove(entries + index, entries + index + 1, (count - index - 1) * kEntrySize);
  SetSize((count - 1) * kEntrySize);
  return 1;
}

// ---- names and paths -------------------------------------------------------------------------------

namespace {

// Reads a name as "%x" does: blanks, an optional sign and "0x", then at least one hex digit; the
// rest of the name is ignored.
bool ParseHexName(std::u16string_view name, DWORD* value) {
  const std::string narrow = os::Utf16ToUtf8(name);
  // Read as "%x" reads, but a number too large for the conversion stays defined: strtoul
  // saturates where the formatted read's result would be undefined; the low 32 bits are kept.
  const char* start = narrow.c_str();
  char* end = nullptr;
  const unsigned long parsed = std::strtoul(start, &end, 16);
  if (end == start) return false;
  *value = static_cast<DWORD>(parsed);
  return true;
}

// The file name less its extension.
std::u16string_view StemOf(const WCHAR* path) {
  const WCHAR* name = os::FU_FindFilename(path);
  const WCHAR* extension = os::FU_FindExtension(path);
  return extension ? std::u16string_view(name, static_cast<std::size_t>(extension - name)) : std::u16string_view(name);
}

// The name of the directory holding `path` (empty for a bare name).
std::u16string_view ParentNameOf(const WCHAR* path) {
  const std::u16string_view whole(path);
  const std::size_t last = whole.rfind(u'/');
  if (last == std::u16string_view::npos) return {};
  const std::size_t before = last == 0 ? std::u16string_view::npos : whole.rfind(u'/', last - 1);
  const std::size_t start = before == std::u16string_view::npos ? 0 : before + 1;
  return whole.substr(start, last - start);
}

bool HasACLExtension(const WCHAR* path) {
  const WCHAR* extension = os::FU_FindExtension(path);
  if (extension == nullptr) return false;
  static constexpr char16_t kExtension[] = u".acl";
  for (int i = 0; i < 5; ++i) {  // the terminator included: exactly four characters
    const char16_t c = extension[i] >= u'A' && extension[i] <= u'Z' ? extension[i] + 32 : extension[i];
    if (c != kExtension[i]) return false;
  }
  return true;
}

std::u16string UserSection(DWORD userId) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(userId));
  return os::Utf8ToUtf16(text);
}

}  // namespace

namespace zr {

std::u16string ACLFilePath(const WCHAR* objectPath) {
  if (objectPath == nullptr) return {};
  std::u16string path(objectPath);
  if (const WCHAR* extension = os::FU_FindExtension(objectPath)) path.resize(static_cast<std::size_t>(extension - objectPath));
  return path + u".acl";
}

bool ACLLocationFromPath(const WCHAR* objectPath, DWORD* first, DWORD* second) {
  if (objectPath == nullptr || first == nullptr || second == nullptr) return false;
  DWORD file = 0, directory = 0;
  if (!ParseHexName(StemOf(objectPath), &file) || !ParseHexName(ParentNameOf(objectPath), &directory)) return false;
  *first = directory;
  *second = file;
  return true;
}

}  // namespace zr

// ---- the active list -------------------------------------------------------------------------------

namespace {

struct ActiveList {
  COSRWInterlock lock;            // guards everything below
  CPACLList list;
  std::atomic<bool> scanned{false};
  std::u16string projectPath;     // with its final separator; empty: no working project
};

ActiveList& Active() {
  static auto* active = new ActiveList;  // never destroyed: lists may be recorded during unload
  return *active;
}

BOOL AddFoundList(const WCHAR* path, const os::FileInfo& info, void* context) {
  if ((info.attributes & os::kFileAttributeDirectory) != 0 || !HasACLExtension(path)) return TRUE;
  DWORD first = 0, second = 0;
  if (zr::ACLLocationFromPath(path, &first, &second)) static_cast<CPACLList*>(context)->Add(first, second);
  return TRUE;
}

// Under the write lock.
void Scan(ActiveList& active) {
  active.scanned.store(true, std::memory_order_release);
  if (active.projectPath.empty()) return;
  const std::u16string objects = active.projectPath + u"obj/";
  os::FU_EnumDirectory(AddFoundList, objects.c_str(), &active.list);
}

}  // namespace

namespace zr {

void ResetActiveACLList(const WCHAR* projectPath) {
  ActiveList& active = Active();
  COSRWWAutoLock guard(active.lock);
  active.list.Free();
  active.scanned.store(false, std::memory_order_release);
  active.projectPath = projectPath ? projectPath : u"";
  if (!active.projectPath.empty() && active.projectPath.back() != u'/') active.projectPath += u'/';
}

bool IsActiveACLListScanned() { return Active().scanned.load(std::memory_order_acquire); }

CPACLList GetActiveACLList() {
  ActiveList& active = Active();
  CPACLList copy;
  COSRWRAutoLock reading(active.lock);
  if (!active.scanned.load(std::memory_order_acquire)) {
    COSRWWAutoLock writing(active.lock);  // upgrades the read lock
    if (!active.scanned.load(std::memory_order_relaxed)) Scan(active);
  }
  copy = active.list;
  copy.Realloc(CPMEM_PRIVATE_COPY, 0, 0);
  return copy;
}

void RecordNewACLList(DWORD first, DWORD second) {
  ActiveList& active = Active();
  if (!active.scanned.load(std::memory_order_acquire)) return;
  COSRWRAutoLock reading(active.lock);
  const tagACLLISTENTRY* found = active.list.Find(first, second);
  if (found != nullptr && found->dwFirst == first) return;
  COSRWWAutoLock writing(active.lock);
  active.list.Add(first, second);
}

void RecordRemovedACLList(DWORD first, DWORD second) {
  ActiveList& active = Active();
  if (!active.scanned.load(std::memory_order_acquire)) return;
  COSRWWAutoLock writing(active.lock);
  active.list.Delete(first, second);
}

}  // namespace zr

// ---- list files ------------------------------------------------------------------------------------

namespace {

// A user name as the list keeps it: at most 64 characters.
std::u16string ListedName(const WCHAR* name) {
  std::u16string copy(name ? name : u"");
  if (copy.size() > static_cast<std::size_t>(zr::kACLUserChars)) copy.resize(zr::kACLUserChars);
  return copy;
}

class ListFile {
 public:
  explicit ListFile(const std::u16string& path) : file_(path.c_str()) {}

  DWORD Rights(const std::string& section) const {
    DWORD rights = 0;
    return file_.ReadSettingDWORD(section.c_str(), "Rights", &rights) ? rights : 0;
  }
  std::u16string User(const std::string& section) const {
    WCHAR name[zr::kACLUserChars + 1] = {};
    file_.ReadSettingString(section.c_str(), "User", name, zr::kACLUserChars + 1);
    return name;
  }
  bool WriteUser(DWORD userId, DWORD rights, const std::u16string& name) {
    const std::string section = os::Utf16ToUtf8(UserSection(userId));
    return file_.WriteSettingDWORD(section.c_str(), "Rights", rights) &&
           file_.WriteSettingString(section.c_str(), "User", name.c_str());
  }
  std::vector<std::string> Sections() const { return file_.GetSectionNames(zr::kACLMaxUsers); }
  bool Delete() { return file_.DeleteSettingFile() != 0; }

 private:
  os::CSetFile file_;
};

// The section of a user as the list names it: the hash id of the name cut to the kept length.
std::string SectionOf(const WCHAR* user) {
  return os::Utf16ToUtf8(UserSection(GetUserHashIDW(ListedName(user).c_str())));
}

bool SetHidden(const WCHAR* objectPath, DWORD attributes, bool hidden) {
  const bool isHidden = (attributes & CZRFile::kAttributeHidden) != 0;
  if (isHidden == hidden) return true;
  const DWORD changed = hidden ? attributes | CZRFile::kAttributeHidden : attributes & ~CZRFile::kAttributeHidden;
  return CZRFile::SetAttributes(objectPath, changed) != 0;
}

bool Exists(const std::u16string& path) { return CZRFile::GetAttributes(path.c_str()) != CZRFile::kInvalidAttributes; }

using zr::ACLChange;
using zr::ACLGrantOutcome;

// The list exists: only a user who may change it, or an administrator, gets past the first test.
ACLGrantOutcome ChangeList(const WCHAR* objectPath, DWORD attributes, const std::u16string& listPath,
                           const WCHAR* currentUser, bool isAdmin, const WCHAR* targetUser, DWORD rights) {
  ListFile list(listPath);
  if ((list.Rights(SectionOf(currentUser)) & ACL_CHANGE_LIST) == 0 && !isAdmin) return {};
  if (targetUser == nullptr) {
    if (!list.Delete()) return {};
    SetHidden(objectPath, attributes, false);
    return {1, true, ACLChange::kRemoved};
  }
  const std::u16string target = ListedName(targetUser);
  const DWORD targetId = GetUserHashIDW(target.c_str());
  if (targetId == GetUserHashIDW(ListedName(currentUser).c_str())) return {rights == ACL_ALL_RIGHTS ? 1 : 0, false, ACLChange::kNone};
  if (!list.WriteUser(targetId, rights, target)) return {};
  return {1, true, ACLChange::kNone};
}

// No list yet: a grant creates it (creator first, with every right), a removal only clears the marker.
ACLGrantOutcome CreateList(const WCHAR* objectPath, DWORD attributes, const std::u16string& listPath,
                           const WCHAR* currentUser, const WCHAR* targetUser, DWORD rights) {
  if (targetUser == nullptr) {
    SetHidden(objectPath, attributes, false);
    return {1, true, ACLChange::kNone};
  }
  if (!SetHidden(objectPath, attributes, true)) return {};
  ListFile list(listPath);
  const std::u16string current = ListedName(currentUser);
  const std::u16string target = ListedName(targetUser);
  const DWORD currentId = GetUserHashIDW(current.c_str());
  const DWORD targetId = GetUserHashIDW(target.c_str());
  bool written = list.WriteUser(currentId, ACL_ALL_RIGHTS, current);
  if (written && targetId != currentId) written = list.WriteUser(targetId, rights, target);
  if (!written) {  // leave no half list and no marker without a list
    list.Delete();
    SetHidden(objectPath, attributes | CZRFile::kAttributeHidden, (attributes & CZRFile::kAttributeHidden) != 0);
    return {};
  }
  return {1, true, ACLChange::kCreated};
}

}  // namespace

namespace zr {

ACLGrantOutcome ACLGrantAccess(const WCHAR* objectPath, const WCHAR* currentUser, bool isAdmin,
                               const WCHAR* targetUser, DWORD access) {
  if (objectPath == nullptr || currentUser == nullptr || *currentUser == 0) return {};
  if (targetUser != nullptr && *targetUser == 0) return {};
  const DWORD attributes = CZRFile::GetAttributes(objectPath);
  if (attributes == CZRFile::kInvalidAttributes) return {};
  const DWORD rights = access & ACL_ALL_RIGHTS;
  const std::u16string listPath = ACLFilePath(objectPath);
  if (Exists(listPath)) return ChangeList(objectPath, attributes, listPath, currentUser, isAdmin, targetUser, rights);
  return CreateList(objectPath, attributes, listPath, currentUser, targetUser, rights);
}

int ACLEnumRights(const WCHAR* objectPath, ACLENUMPROC callback, void* context) {
  if (objectPath == nullptr || callback == nullptr) return 0;
  const DWORD attributes = CZRFile::GetAttributes(objectPath);
  if (attributes == CZRFile::kInvalidAttributes || (attributes & CZRFile::kAttributeHidden) == 0) return 0;
  const std::u16string listPath = ACLFilePath(objectPath);
  if (!Exists(listPath)) return 0;
  const ListFile list(listPath);
  int calls = 0;
  for (const std::string& section : list.Sections()) {
    DWORD userId = 0;
    if (!ParseHexName(os::Utf8ToUtf16(section), &userId)) continue;
    const std::u16string user = list.User(section);
    callback(user.c_str(), list.Rights(section), context);
    ++calls;
  }
  return calls;
}

DWORD ACLGetUserRights(const WCHAR* objectPath, const WCHAR* user) {
  if (objectPath == nullptr || user == nullptr) return 0;
  const std::u16string listPath = ACLFilePath(objectPath);
  if (!Exists(listPath)) return 0;
  return ListFile(listPath).Rights(SectionOf(user));
}

UINT64 ACLNextWriteTime(UINT64 lastAccess, UINT64 lastWrite) {
  return lastAccess > lastWrite ? lastAccess : lastWrite + 1;
}

int ACLBumpChangeStamp(CZRFile& file) {
  if (file.GetStatus() == CZRFile::kStatusNeverOpened) {
    os::SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  FILETIME access{}, write{};
  if (!file.GetTime(nullptr, &access, &write)) return 0;
  const auto join = [](const FILETIME& t) { return (UINT64{t.dwHighDateTime} << 32) | t.dwLowDateTime; };
  const UINT64 next = ACLNextWriteTime(join(access), join(write));
  const FILETIME stamp{static_cast<DWORD>(next), static_cast<DWORD>(next >> 32)};
  return file.SetTime(nullptr, nullptr, &stamp) ? 1 : 0;
}

std::array<BYTE, kACLNotificationSize> ACLChangeNotification(const DWORD location[5], DWORD flag) {
  std::array<BYTE, kACLNotificationSize> message{};
  StoreLE32(message.data(), kACLNotificationSize);  // size
  StoreLE32(message.data() + 12, 2);                  // type; computer id and tag are the sender's
  for (int i = 0; i < 5; ++i) StoreLE32(message.data() + 16 + 4 * i, location ? location[i] : 0);
  StoreLE32(message.data() + 36, flag);
  return message;
}

}  // namespace zr
