// The workgroup directory of the mailboxes: registration files, their scan and name look-up.
#include <algorithm>
#include <atomic>
#include <random>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "net/cosmail_internal.h"
#include "platform/text.h"
#include "zrobj/cosmail.h"
#include "zrobj/zrobj.h"

namespace fs = std::filesystem;

namespace zr::net {
namespace {

constexpr char kSuffix[] = ".workgroup2_1";  // interface version 2.1 (MAIL_INTERFACE_VERSION)
constexpr std::size_t kMaxNameLength = 63;

std::u16string Upper(std::u16string_view text) {
  std::u16string out(text);
  for (char16_t& c : out)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  return out;
}

std::uint64_t AgeOf(const fs::path& file) {
  std::error_code error;
  const auto written = fs::last_write_time(file, error);
  if (error) return UINT64_MAX;
  const auto age = fs::file_time_type::clock::now() - written;
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(age).count();
  return ms < 0 ? 0 : static_cast<std::uint64_t>(ms);
}

bool ReadRegistration(const fs::path& file, Registration* out) {
  std::ifstream in(file);
  std::string address, user;
  if (!std::getline(in, address) || !os::ParseAddress(address, &out->address) || out->address.port == 0) return false;
  std::getline(in, user);
  out->user = os::Utf8ToUtf16(user.substr(0, 63));
  out->age_ms = AgeOf(file);
  return true;
}

void ScanMailslotDirectory(const fs::path& directory, std::vector<Registration>* found) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename().string();
    if (name.size() <= sizeof kSuffix - 1 || !name.ends_with(kSuffix)) continue;
    Registration r;
    r.computer = os::Utf8ToUtf16(name.substr(0, name.size() - (sizeof kSuffix - 1)));
    r.mailslot = os::Utf8ToUtf16(directory.filename().string());
    if (!IsValidName(r.computer) || r.computer.size() > 15 || !ReadRegistration(entry.path(), &r)) continue;
    found->push_back(std::move(r));
  }
}

}  // namespace

std::string WorkgroupRoot() {
  const char* configured = std::getenv("ZROBJ_WORKGROUP_DIR");
  if (configured && *configured) return configured;
  WCHAR path[ZR_MAX_PATH];
  if (ZROBJ_GetSettingsFilePath("Workgroups", path, ZR_MAX_PATH) == 0) return {};
  return os::Utf16ToUtf8(path);
}

bool IsValidName(std::u16string_view name) {
  if (name.empty() || name.size() > kMaxNameLength || name == u"." || name == u"..") return false;
  return std::none_of(name.begin(), name.end(), [](char16_t c) { return c < 0x20 || c == u'/' || c == u'\\'; });
}

std::string MailslotDirectory(std::u16string_view workgroup, std::u16string_view mailslot) {
  const std::string root = WorkgroupRoot();
  if (root.empty() || !IsValidName(workgroup) || !IsValidName(mailslot)) return {};
  return root + "/" + os::Utf16ToUtf8(Upper(workgroup)) + "/" + os::Utf16ToUtf8(mailslot);
}

std::string RegistrationFile(const std::string& directory, std::u16string_view computer) {
  return directory + "/" + os::Utf16ToUtf8(Upper(computer)) + kSuffix;
}

bool WriteRegistration(const std::string& file, const os::NetAddress& address, std::u16string_view user) {
  std::error_code error;
  fs::create_directories(fs::path(file).parent_path(), error);
  // Written beside and renamed, so a scan never reads half a file.
  const std::string temporary = file + ".new";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << os::FormatAddress(address) << '\n' << os::Utf16ToUtf8(user) << '\n';
    if (!out.flush()) return false;
  }
  fs::rename(temporary, file, error);
  return !error;
}

bool TouchRegistration(const std::string& file) {
  std::error_code error;
  fs::last_write_time(file, fs::file_time_type::clock::now(), error);
  return !error;
}

void RemoveRegistration(const std::string& file) {
  std::error_code error;
  fs::remove(file, error);
}

std::vector<Registration> ScanWorkgroup(std::u16string_view workgroup, std::u16string_view mailslot) {
  std::vector<Registration> found;
  const std::string root = WorkgroupRoot();
  if (root.empty() || !IsValidName(workgroup)) return found;
  const fs::path group = fs::path(root) / os::Utf16ToUtf8(Upper(workgroup));
  if (!mailslot.empty()) {
    if (IsValidName(mailslot)) ScanMailslotDirectory(group / os::Utf16ToUtf8(mailslot), &found);
    return found;
  }
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(group, error))
    if (entry.is_directory(error)) ScanMailslotDirectory(entry.path(), &found);
  return found;
}

bool FindComputer(std::u16string_view computer, std::u16string_view mailslot, os::NetAddress* address) {
  const std::string root = WorkgroupRoot();
  if (root.empty() || !IsValidName(computer) || !IsValidName(mailslot)) return false;
  const std::u16string wanted = Upper(computer);
  std::uint64_t best_age = UINT64_MAX;
  std::error_code error;
  for (const fs::directory_entry& group : fs::directory_iterator(root, error)) {
    Registration r;
    const fs::path file = RegistrationFile((group.path() / os::Utf16ToUtf8(mailslot)).string(), wanted);
    if (!ReadRegistration(file, &r) || r.age_ms >= best_age) continue;
    best_age = r.age_ms;
    *address = r.address;
  }
  return best_age != UINT64_MAX;
}

std::u16string PrivateObjectName(const char16_t* role) {
  static std::random_device device;
  static std::atomic<unsigned> counter{0};
  const std::string unique = std::to_string(device()) + "." + std::to_string(device()) + "." +
                             std::to_string(++counter) + ".";
  return u"COSMailslot." + os::Utf8ToUtf16(unique) + role;
}

// ---- MailQueue ----

MailQueue::MailQueue(DWORD capacity)
    : capacity_(capacity), available_(0, static_cast<LONG>(capacity), PrivateObjectName(u"queue").data()) {}

bool MailQueue::Push(MailItem item) {
  {
    COSAutoLock hold(&lock_);
    if (items_.size() >= capacity_) return false;
    items_.push_back(std::move(item));
  }
  available_.Release(1, nullptr);
  return true;
}

bool MailQueue::Pop(COSEvent& stop, MailItem* item) {
  COSObject* objects[] = {&stop, &available_};
  if (COSObject::WaitMultiple(2, objects, 0, 0xFFFFFFFFu) != 1) return false;
  COSAutoLock hold(&lock_);
  *item = std::move(items_.front());
  items_.pop_front();
  return true;
}

void MailQueue::Reset() {
  COSAutoLock hold(&lock_);
  while (!items_.empty()) {
    items_.pop_front();
    available_.Wait(0);
  }
}

DWORD MailQueue::Count() {
  COSAutoLock hold(&lock_);
  return static_cast<DWORD>(items_.size());
}

}  // namespace zr::net
