// Change notification: one inotify instance per process, read by a watcher thread that exists while
// notifications do, signals the waitable handles whose filter an event meets.
#include "platform/changenotify.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "zrobj/zrtypes.h"
#include "platform/text.h"

namespace zr::os {

namespace {

constexpr std::uint32_t kBaseMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_MODIFY |
                                    IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr DWORD kKnownFilter = 0x17Fu;

struct Record {
  std::string directory;
  DWORD filter = 0;
  WaitCore* core = nullptr;
  int wd = -1;
};

// Whether an inotify event on the directory is a change the filter asks for.
bool Matches(DWORD filter, std::uint32_t mask) {
  if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) return true;  // the directory itself
  const bool directory = (mask & IN_ISDIR) != 0;
  const bool naming = (mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)) != 0;
  if (naming && (filter & (directory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME))) return true;
  if ((filter & (FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SECURITY)) && (mask & IN_ATTRIB)) return true;
  if ((filter & FILE_NOTIFY_CHANGE_SIZE) && (mask & (IN_MODIFY | IN_CLOSE_WRITE))) return true;
  if ((filter & FILE_NOTIFY_CHANGE_LAST_WRITE) && (mask & (IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE))) return true;
  if ((filter & FILE_NOTIFY_CHANGE_LAST_ACCESS) && (mask & IN_ACCESS)) return true;
  if ((filter & FILE_NOTIFY_CHANGE_CREATION) && (mask & IN_CREATE)) return true;
  return false;
}

class Watcher {
 public:
  // Registers `record` and watches its directory; false with the last error set on failure.
  bool Add(Record* record) {
    std::lock_guard lock(mutex_);
    if (!EnsureRunningLocked()) return false;
    records_.push_back(record);
    if (!WatchLocked(record)) {
      records_.pop_back();
      return false;
    }
    return true;
  }

  void Remove(Record* record) {
    std::thread* stopped = nullptr;
    int fds[2] = {-1, -1};
    {
      std::lock_guard lock(mutex_);
      std::erase(records_, record);
      if (record->wd >= 0 && inotify_fd_ >= 0) {
        if (WdInUseLocked(record->wd))
          UpdateMaskLocked(record->directory);  // the others may no longer want access events
        else
          ::inotify_rm_watch(inotify_fd_, record->wd);
      }
      if (records_.empty() && thread_) {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
        stopped = thread_;
        thread_ = nullptr;
        fds[0] = inotify_fd_;
        fds[1] = wake_fd_;
        inotify_fd_ = wake_fd_ = -1;
      }
    }
    if (stopped) {
      stopped->join();
      delete stopped;
      ::close(fds[0]);
      ::close(fds[1]);
    }
  }

  // A forked child has no watcher thread and shares the parent's inotify queue: it starts afresh.
  void EnsureRunning() {
    std::lock_guard lock(mutex_);
    EnsureRunningLocked();
  }

 private:
  bool EnsureRunningLocked() {
    if (thread_ && owner_ == ::getpid()) return true;
    if (thread_) {  // inherited through fork: the thread is not ours, the descriptors are shared
      thread_ = nullptr;
      ::close(inotify_fd_);
      ::close(wake_fd_);
      inotify_fd_ = wake_fd_ = -1;
    }
    inotify_fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (inotify_fd_ < 0 || wake_fd_ < 0) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      if (inotify_fd_ >= 0) ::close(inotify_fd_);
      if (wake_fd_ >= 0) ::close(wake_fd_);
      inotify_fd_ = wake_fd_ = -1;
      return false;
    }
    owner_ = ::getpid();
    for (Record* r : records_) WatchLocked(r);
    thread_ = new std::thread([this, ino = inotify_fd_, wake = wake_fd_] { Run(ino, wake); });
    return true;
  }

  bool WdInUseLocked(int wd) const {
    for (const Record* r : records_)
      if (r->wd == wd) return true;
    return false;
  }

  // (Re-)adds the watch of the record's directory with the union of what its records want.
  bool WatchLocked(Record* record) {
    std::uint32_t mask = kBaseMask;
    for (const Record* r : records_)
      if (r->directory == record->directory && (r->filter & FILE_NOTIFY_CHANGE_LAST_ACCESS)) mask |= IN_ACCESS;
    const int wd = ::inotify_add_watch(inotify_fd_, record->directory.c_str(), mask);
    if (wd < 0) {
      SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_FILE_NOT_FOUND
                   : errno == EACCES                   ? ERROR_ACCESS_DENIED
                                                       : ERROR_NOT_ENOUGH_MEMORY);
      return false;
    }
    record->wd = wd;
    return true;
  }

  void UpdateMaskLocked(const std::string& directory) {
    for (Record* r : records_)
      if (r->directory == directory) {
        WatchLocked(r);
        return;
      }
  }

  void Run(int ino, int wake) {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      pollfd fds[2] = {{ino, POLLIN, 0}, {wake, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
      if (fds[1].revents) return;
      const ssize_t n = ::read(ino, buffer, sizeof buffer);
      if (n <= 0) continue;
      std::lock_guard lock(mutex_);
      for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
        inotify_event event;
        std::memcpy(&event, buffer + at, sizeof event);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
        Dispatch(event);
      }
    }
  }

  void Dispatch(const inotify_event& event) {
    for (Record* r : records_) {
      // After an overflow the event stream is incomplete: every owner re-reads its entry.
      if ((event.mask & IN_Q_OVERFLOW) || (r->wd == event.wd && Matches(r->filter, event.mask)))
        CoreSetEvent(r->core);
    }
  }

  std::mutex mutex_;
  std::vector<Record*> records_;
  std::thread* thread_ = nullptr;
  int inotify_fd_ = -1;
  int wake_fd_ = -1;
  pid_t owner_ = 0;
};

Watcher& TheWatcher() {
  static Watcher* watcher = new Watcher;  // outlives every handle, even those closed at exit
  return *watcher;
}

void DestroyRecord(void* context) {
  auto* record = static_cast<Record*>(context);
  TheWatcher().Remove(record);
  delete record;
}

std::uint64_t FileTimeOf(const struct statx_timestamp& t) {
  constexpr std::int64_t kEpochDelta = 11644473600LL;  // seconds from 1601 to 1970
  const std::int64_t units = (t.tv_sec + kEpochDelta) * 10000000LL + t.tv_nsec / 100;
  return units < 0 ? 0 : static_cast<std::uint64_t>(units);
}

void SetFileTime(DWORD out[2], std::uint64_t value) {
  out[0] = static_cast<DWORD>(value);
  out[1] = static_cast<DWORD>(value >> 32);
}

// The attribute bits: the stored extended attribute (binary 32-bit or text), else from the mode.
DWORD AttributesOf(const std::string& path, const struct statx& st, const std::string& name) {
  char value[64] = {};
  const ssize_t n = ::getxattr(path.c_str(), "user.zrobj.attributes", value, sizeof value - 1);
  if (n == 4 && (value[0] < '0' || value[0] > '9')) {
    return zr::LoadLE32(value);
  }
  if (n > 0) {
    char* end = nullptr;
    const unsigned long bits = std::strtoul(value, &end, 0);
    if (end != value) return static_cast<DWORD>(bits);
  }
  DWORD bits = 0;
  if (S_ISDIR(st.stx_mode)) bits |= 0x10u;
  if (!(st.stx_mode & S_IWUSR)) bits |= 0x1u;
  if (!name.empty() && name[0] == '.') bits |= 0x2u;
  return bits ? bits : 0x80u;
}

}  // namespace

HANDLE FindFirstChangeNotificationW(const WCHAR* path, BOOL, DWORD filter) {
  if (WStrLen(path) == 0 || (filter & kKnownFilter) == 0 || (filter & ~kKnownFilter) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  auto* record = new Record;
  record->directory = Utf16ToUtf8(path);
  record->filter = filter;
  HANDLE handle = CreateSignalHandle(kHandleChangeNotification, record, DestroyRecord);
  if (!handle) {
    delete record;
    return INVALID_HANDLE_VALUE;
  }
  record->core = GetSignalHandleCore(handle, kHandleChangeNotification);
  if (!TheWatcher().Add(record)) {
    const DWORD error = GetLastError();
    CloseHandle(handle);  // DestroyRecord frees the record
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }
  return handle;
}

BOOL FindNextChangeNotification(HANDLE handle) {
  if (!GetSignalHandleCore(handle, kHandleChangeNotification)) return FALSE;
  TheWatcher().EnsureRunning();
  return ResetSignalHandle(handle);
}

BOOL FindCloseChangeNotification(HANDLE handle) {
  if (!GetSignalHandleCore(handle, kHandleChangeNotification)) return FALSE;
  return CloseHandle(handle);
}

bool GetFindData(const WCHAR* path, tagZRFINDDATA* out) {
  if (!out || WStrLen(path) == 0) return false;
  const std::string narrow = Utf16ToUtf8(path);
  struct statx st{};
  if (::statx(AT_FDCWD, narrow.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &st) != 0) return false;
  const std::size_t slash = narrow.find_last_of('/');
  const std::string name = slash == std::string::npos ? narrow : narrow.substr(slash + 1);
  tagZRFINDDATA data{};
  data.dwFileAttributes = AttributesOf(narrow, st, name);
  SetFileTime(data.ftCreationTime, FileTimeOf((st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_ctime));
  SetFileTime(data.ftLastAccessTime, FileTimeOf(st.stx_atime));
  SetFileTime(data.ftLastWriteTime, FileTimeOf(st.stx_mtime));
  if (!S_ISDIR(st.stx_mode)) {
    data.nFileSizeHigh = static_cast<DWORD>(st.stx_size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(st.stx_size);
  }
  WStrCopy(data.cFileName, ZR_MAX_PATH, Utf8ToUtf16(name));
  *out = data;
  return true;
}

}  // namespace zr::os
