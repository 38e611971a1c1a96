// The Locator's access-list members over the list-file building blocks of cpacl: granting with the
// registry's current user, enumeration, the active list, the object file's change stamp, and the
// sender hook through which the store's change notifications leave the process.
#include <atomic>

#include "persistence/locator_internal.h"
#include "zrobj/cpacl.h"
#include "zrobj/locator.h"

namespace {

std::atomic<zr::STORENOTIFYSENDER> g_sender{nullptr};

UINT64 FileTimeValue(const FILETIME& time) { return (UINT64{time.dwHighDateTime} << 32) | time.dwLowDateTime; }

}  // namespace

namespace zr {

STORENOTIFYSENDER SetStoreNotifySender(STORENOTIFYSENDER sender) { return g_sender.exchange(sender); }

int SendStoreNotification(const void* message, DWORD size) {
  const STORENOTIFYSENDER sender = g_sender.load();
  return sender && message ? sender(message, size) : 0;
}

}  // namespace zr

// ---- the change stamp ----

void Locator::RememberStamp() {
  WCHAR path[ZR_MAX_PATH];
  CZRFile::Info info{};
  if (!GetObjectPath(path) || !CZRFile::GetInfo(path, &info)) info.lastWrite = {};
  seen_stamp_[0] = info.lastWrite.dwLowDateTime;
  seen_stamp_[1] = info.lastWrite.dwHighDateTime;
}

int Locator::IsChangedOnDisk() const {
  WCHAR path[ZR_MAX_PATH];
  CZRFile::Info info{};
  if (!GetObjectPath(path) || !CZRFile::GetInfo(path, &info)) return 0;
  const FILETIME seen{seen_stamp_[0], seen_stamp_[1]};
  return FileTimeValue(info.lastWrite) != FileTimeValue(seen) ? 1 : 0;
}

// Other processes see the bumped last-write time; this locator forgets the stamp it had seen.
void Locator::MarkFileChanged() {
  zr::ACLBumpChangeStamp(file_);
  seen_stamp_[0] = seen_stamp_[1] = 0;
}

// ---- access lists ----

void Locator::SendACLNotification(DWORD flag) const {
  const DWORD words[5] = {location_.dwProject, location_.dwDir, location_.dwFile, location_.dwClass, location_.dwKind};
  const auto message = zr::ACLChangeNotification(words, flag);
  zr::SendStoreNotification(message.data(), static_cast<DWORD>(message.size()));
}

int Locator::GrantAccess(const WCHAR* user, DWORD access) {
  WCHAR path[ZR_MAX_PATH];
  if (!IsValid() || (access_ & ZR_ACCESS_WRITE) == 0 || !GetObjectPath(path)) {
    zr::ReportLocatorFailure(u"\rLocator::GrantAccess: Invalid access or rights\r\n");
    return 0;
  }
  WCHAR current[PrjRegistry::kMaxUserName + 1];
  if (!PrjRegistry::GetCurrentUser(current, PrjRegistry::kMaxUserName + 1)) return 0;
  const bool admin = PrjRegistry::IsAdministrator(PrjRegistry::GetWorkingProject(), current) != 0;
  const zr::ACLGrantOutcome outcome = zr::ACLGrantAccess(path, current, admin, user, access);
  if (outcome.stampChanged) MarkFileChanged();
  if (outcome.list == zr::ACLChange::kCreated) {
    zr::RecordNewACLList(location_.dwDir, location_.dwFile);
    SendACLNotification(1);
  } else if (outcome.list == zr::ACLChange::kRemoved) {
    zr::RecordRemovedACLList(location_.dwDir, location_.dwFile);
    SendACLNotification(0);
  }
  return outcome.result;
}

int Locator::EnumRights(zr::ACLENUMPROC callback, void* context) {
  WCHAR path[ZR_MAX_PATH];
  if (!IsValid() || !GetObjectPath(path)) return 0;  // IsValid: bound, and flag 0x20000 clear
  return zr::ACLEnumRights(path, callback, context);
}

int Locator::CheckACL() {
  WCHAR path[ZR_MAX_PATH];
  return IsValid() && GetObjectPath(path) && CZRFile::GetAttributes(path) != CZRFile::kInvalidAttributes ? 1 : 0;
}

int Locator::SetACLFlag(int on) {
  if (on)
    flags_ |= kFlagUseACL;
  else
    flags_ &= ~kFlagUseACL;
  return 1;
}

CPACLList Locator::GetActiveACLList() { return zr::GetActiveACLList(); }
