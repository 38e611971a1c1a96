// Project unique ids: "PRJ.IDS" holds the next free id; byte-range locks on the file serialise
// allocation (bytes 0-3), register each user (byte 4 + k) and lock the whole project (bytes 4-259).
// Directories come from the project registry (locator_registry.cpp).
#include "zrobj/prjloc.h"

#include <string>

#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "platform/fileutil.h"
#include "platform/text.h"
#include "zrobj/byteorder.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr DWORD kCounterOffset = 0;
constexpr DWORD kCounterBytes = 4;
constexpr DWORD kFirstSlotOffset = 4;
constexpr DWORD kNoID = 0xFFFFFFFFu;
constexpr DWORD kLockTimedOut = 0xFFFFFFFEu;
constexpr DWORD kShareReadWrite = os::kFileShareRead | os::kFileShareWrite;
constexpr DWORD kReadWrite = os::kGenericRead | os::kGenericWrite;

os::FileHandle AsFile(HANDLE handle) { return static_cast<os::FileHandle>(handle); }

template <class... Args>
void Report(const char16_t* format, const Args&... args) {
  if (IsDebugOn()) os::wPrintf(3, 4, format, args...);
}

// "DIRECTORY" + name for a registered project; empty when the id is unknown.
std::u16string RegisteredFile(DWORD projectId, std::u16string_view name) {
  WCHAR directory[ZR_MAX_PATH];
  if (!ZROBJ_GetProjectDirectory(projectId, directory)) return {};
  return std::u16string(directory) + std::u16string(name);
}

}  // namespace

CProjUniID::CProjUniID()
    : current_id_(kFirstID),
      reserved_end_(kFirstID),
      reserved_next_(kFirstID),
      user_slot_(kUserSlots),
      lock_count_(0),
      file_(nullptr),
      name_{} {}

CProjUniID::~CProjUniID() = default;

// ---- locks and the counter word ----

bool CProjUniID::LockByte(DWORD offset, DWORD length) { return os::LockFile(AsFile(file_), offset, length) != 0; }
bool CProjUniID::UnlockByte(DWORD offset, DWORD length) { return os::UnlockFile(AsFile(file_), offset, length) != 0; }

// Polls the counter lock every millisecond for at most kLockWaitMs; a closed object fails at once.
bool CProjUniID::LockCounter() {
  if (!file_) return false;
  const DWORD start = os::GetTickCount();
  while (!LockByte(kCounterOffset, kCounterBytes)) {
    if (os::GetTickCount() - start >= kLockWaitMs) return false;
    os::Sleep(1);
  }
  return true;
}

void CProjUniID::UnlockCounter() { UnlockByte(kCounterOffset, kCounterBytes); }

// Reads the next id at offset 0; false on a short read (the value is then left as it was).
bool CProjUniID::ReadNext(DWORD* value) {
  unsigned char bytes[4];
  DWORD done = 0;
  if (!os::SetFilePointer(AsFile(file_), kCounterOffset, os::kFileBegin, nullptr) ||
      !os::ReadFile(AsFile(file_), bytes, sizeof bytes, &done) || done != sizeof bytes)
    return false;
  *value = zr::LoadLE32(bytes);
  return true;
}

void CProjUniID::WriteNext(DWORD value) {  // write results are not checked, as callers expect
  unsigned char bytes[4];
  zr::StoreLE32(bytes, value);
  DWORD done = 0;
  os::SetFilePointer(AsFile(file_), kCounterOffset, os::kFileBegin, nullptr);
  os::WriteFile(AsFile(file_), bytes, sizeof bytes, &done);
}

// ---- opening and closing ----

unsigned int CProjUniID::Open(DWORD projectId) { return OpenFile(RegisteredFile(projectId, u"PRJ.IDS").c_str()); }

unsigned int CProjUniID::Open(const WCHAR* directory) {
  // "%PRJ.IDS" is appended literally: a file opened by path is never the one opened by id.
  WCHAR path[ZR_MAX_PATH] = {};
  if (directory && directory[0]) {
    os::WStrCopy(path, ZR_MAX_PATH, directory);
    os::FU_FormatPath(path, ZR_MAX_PATH, u'/');
    const std::u16string name = std::u16string(path) + u"%PRJ.IDS";
    os::WStrCopy(path, ZR_MAX_PATH, name);
  }
  return OpenFile(path);
}

unsigned int CProjUniID::OpenFile(const WCHAR* path) {
  Close();
  os::WStrCopy(name_, ZR_MAX_PATH, path ? path : u"");
  const os::FileHandle file = os::CreateFileW(name_, kReadWrite, kShareReadWrite, os::kOpenExisting,
                                              os::kFileFlagRandomAccess);
  if (file == os::kInvalidFile) return 1;
  file_ = file;
  if (!LockCounter()) {
    Close();
    Report(u"\rCProjUniID::Open(%s): Sharing violation\r\n", static_cast<const WCHAR*>(name_));
    return 2;
  }
  current_id_ = 0;
  if (!ReadNext(&current_id_)) {
    UnlockCounter();
    Close();
    Report(u"\rCProjUniID::Open(%s): ID not retrievable\r\n", static_cast<const WCHAR*>(name_));
    return 3;
  }
  if (current_id_ < kFirstID) current_id_ = kFirstID;
  reserved_end_ = reserved_next_ = current_id_;
  for (user_slot_ = 0; user_slot_ < kUserSlots; ++user_slot_)
    if (LockByte(kFirstSlotOffset + user_slot_, 1)) break;
  UnlockCounter();
  if (user_slot_ == kUserSlots) {
    Report(u"\rCProjUniID::Open: All user locks expired...\r\n");
    Close();
    return 2;
  }
  return 0;
}

unsigned int CProjUniID::Create(DWORD projectId, DWORD startId) {
  Close();
  const DWORD start = startId < kFirstID ? kFirstID : startId;
  const std::u16string path = RegisteredFile(projectId, u"PRJ.IDS");
  os::WStrCopy(name_, ZR_MAX_PATH, path);
  const os::FileHandle file = os::CreateFileW(name_, os::kGenericWrite, kShareReadWrite, os::kCreateAlways,
                                              os::kFileFlagRandomAccess);
  if (file == os::kInvalidFile) return 1;
  file_ = file;
  if (!LockCounter()) {
    Close();
    Report(u"\rCProjUniID::Create(%s): Sharing violation\r\n", static_cast<const WCHAR*>(name_));
    return 2;
  }
  WriteNext(start);
  UnlockCounter();
  Close();
  return 0;
}

void CProjUniID::Close() {
  if (file_) {
    if (lock_count_ != 0)
      UnlockByte(kFirstSlotOffset, kUserSlots);
    else if (user_slot_ < kUserSlots)
      UnlockByte(kFirstSlotOffset + user_slot_, 1);
    os::CloseFile(AsFile(file_));
  }
  file_ = nullptr;
  current_id_ = 0;
  reserved_next_ = 0;
  lock_count_ = 0;
}

// ---- ids ----

unsigned long CProjUniID::GetNextID() {
  if (!file_) {
    Report(u"\rCProjUniID::GetNextID: No file\r\n");
    return kNoID;
  }
  if (reserved_next_ < reserved_end_) return reserved_next_++;
  if (!LockCounter()) {
    Report(u"\rCProjUniID::GetNextID: Lock timeout\r\n");
    return kNoID;
  }
  DWORD next = 0;
  ReadNext(&next);  // a short read is not detected: the value stands as read
  WriteNext(next + 1);
  UnlockCounter();
  return next;
}

int CProjUniID::ReserveIDs(DWORD count) {
  if (!LockCounter()) return 0;
  DWORD next = 0;
  ReadNext(&next);
  WriteNext(next + count);
  UnlockCounter();
  reserved_next_ = next;
  reserved_end_ = next + count;
  return 1;
}

int CProjUniID::SetStartID(DWORD id) {
  const DWORD start = id < kFirstID ? kFirstID : id;
  if (!LockCounter()) return 0;
  current_id_ = reserved_next_ = reserved_end_ = start;
  WriteNext(start);
  UnlockCounter();
  return 1;
}

int CProjUniID::HasChanged() {
  if (!file_) return 0;
  const DWORD seen = current_id_;
  if (!LockCounter()) return 1;  // assume changed
  ReadNext(&current_id_);
  UnlockCounter();
  return current_id_ != seen ? 1 : 0;
}

// ---- the project lock ----

unsigned int CProjUniID::LockProject() {
  if (!file_) return kUserSlots;
  if (lock_count_ != 0) {
    ++lock_count_;
    return 0;
  }
  if (!LockCounter()) return kLockTimedOut;
  UnlockByte(kFirstSlotOffset + user_slot_, 1);
  unsigned int others = 0;
  if (LockByte(kFirstSlotOffset, kUserSlots)) {
    lock_count_ = 1;
  } else {
    for (DWORD k = 0; k < kUserSlots; ++k) {
      if (LockByte(kFirstSlotOffset + k, 1))
        UnlockByte(kFirstSlotOffset + k, 1);
      else
        ++others;
    }
    LockByte(kFirstSlotOffset + user_slot_, 1);
  }
  UnlockCounter();
  return others;
}

int CProjUniID::UnlockProject() {
  if (!file_ || lock_count_ == 0) return 0;
  if (lock_count_ > 1) {
    --lock_count_;
    return 1;
  }
  if (!LockCounter()) return 0;
  UnlockByte(kFirstSlotOffset, kUserSlots);
  LockByte(kFirstSlotOffset + user_slot_, 1);
  UnlockCounter();
  lock_count_ = 0;
  return 1;
}

int CProjUniID::Touch() {
  COSAutoLock guard(&touch_section_);
  const UINT64 now = os::GetSystemTimeAsFileTime();
  if (now == 0) return 0;
  return os::SetFileTime(AsFile(file_), nullptr, &now, &now) ? 1 : 0;
}
