// Inside the network messaging subsystem: the workgroup directory (registrations of open mailboxes)
// and the item queue that passes messages between a mailbox's threads.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "platform/netsock.h"
#include "zrobj/coslock.h"
#include "zrobj/cosobject.h"
#include "zrobj/zrtypes.h"

namespace zr::net {

// ---- Workgroup directory ----
// <root>/<WORKGROUP>/<mailslot>/<COMPUTER>.workgroup2_1 holds "a.b.c.d:port\n<user>\n" (UTF-8);
// its modification time is the member's last sign of life.

struct Registration {
  std::u16string computer;
  std::u16string mailslot;
  std::u16string user;
  os::NetAddress address;
  std::uint64_t age_ms = 0;
};

// $ZROBJ_WORKGROUP_DIR, else "Workgroups" in the settings directory (UTF-8; empty when unknown).
std::string WorkgroupRoot();
// A workgroup, computer or mailslot name usable as one file-name component (no separators, not
// "." or "..", printable, at most 63 characters).
bool IsValidName(std::u16string_view name);
std::string MailslotDirectory(std::u16string_view workgroup, std::u16string_view mailslot);
std::string RegistrationFile(const std::string& directory, std::u16string_view computer);
bool WriteRegistration(const std::string& file, const os::NetAddress& address, std::u16string_view user);
// Refreshes the file's time; false when it is gone.
bool TouchRegistration(const std::string& file);
void RemoveRegistration(const std::string& file);
// Registrations of one workgroup; `mailslot` empty: of every mailslot.
std::vector<Registration> ScanWorkgroup(std::u16string_view workgroup, std::u16string_view mailslot);
// The freshest registration of `computer` under `mailslot` in any workgroup.
bool FindComputer(std::u16string_view computer, std::u16string_view mailslot, os::NetAddress* address);

// A name no other process uses: kernel objects without a name of their own get a default name
// that is shared between processes, so a mailbox names its own.
std::u16string PrivateObjectName(const char16_t* role);

// ---- Item queue ----
// One message with where it comes from or goes to.
struct MailItem {
  std::vector<BYTE> bytes;
  os::NetAddress peer;
  std::u16string name;  // the destination's computer name, for the writer's reports
};

// A bounded queue: Push refuses when full; Pop waits for an item or for `stop`.
class MailQueue {
 public:
  explicit MailQueue(DWORD capacity);
  bool Push(MailItem item);
  // false when `stop` was set (nothing taken).
  bool Pop(COSEvent& stop, MailItem* item);
  void Reset();
  DWORD Count();
  // Drops the items `drop` picks (the semaphore keeps its count; Pop skips the gap).
  template <class Pred>
  void RemoveIf(Pred drop) {
    COSAutoLock hold(&lock_);
    for (MailItem& item : items_)
      if (!item.bytes.empty() && drop(item)) item.bytes.clear();
  }

 private:
  DWORD capacity_;
  COSCriticalSection lock_;
  COSSemaphore available_;
  std::deque<MailItem> items_;
};

}  // namespace zr::net
