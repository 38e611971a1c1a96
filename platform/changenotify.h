// Directory change notification (inotify behind waitable handles) and the directory entry of a file.
#pragma once

#include <cstdint>

#include "platform/waitable.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

#ifndef INVALID_HANDLE_VALUE
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(~std::uintptr_t{0}))
#endif
#ifndef FILE_NOTIFY_CHANGE_FILE_NAME
#define FILE_NOTIFY_CHANGE_FILE_NAME 0x001u
#define FILE_NOTIFY_CHANGE_DIR_NAME 0x002u
#define FILE_NOTIFY_CHANGE_ATTRIBUTES 0x004u
#define FILE_NOTIFY_CHANGE_SIZE 0x008u
#define FILE_NOTIFY_CHANGE_LAST_WRITE 0x010u
#define FILE_NOTIFY_CHANGE_LAST_ACCESS 0x020u
#define FILE_NOTIFY_CHANGE_CREATION 0x040u
#define FILE_NOTIFY_CHANGE_SECURITY 0x100u
#endif

// Watches one directory (never its subtree: `watchSubtree` is ignored). The handle is signalled when
// a change that the filter names happens in the directory, and stays signalled until re-armed with
// FindNextChangeNotification. An event-queue overflow signals every notification (their owners
// re-read what they watch). Failure: INVALID_HANDLE_VALUE with the last error set.
ZROBJ_API HANDLE FindFirstChangeNotificationW(const WCHAR* path, BOOL watchSubtree, DWORD filter);
ZROBJ_API BOOL FindNextChangeNotification(HANDLE handle);
ZROBJ_API BOOL FindCloseChangeNotification(HANDLE handle);

namespace zr {

// The directory entry of a file, laid out as the system's find data (times are file times).
struct FindFileTime {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
struct FindData {
  DWORD dwFileAttributes;
  FindFileTime ftCreationTime;
  FindFileTime ftLastAccessTime;
  FindFileTime ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[ZR_MAX_PATH];
  WCHAR cAlternateFileName[14];
};

// Fills `out` with the entry of the file `path` names; false (and `out` untouched) when it does not
// exist. Attributes come from the "user.zrobj.attributes" extended attribute, else from the mode.
ZROBJ_API bool GetFindData(const WCHAR* path, FindData* out);

}  // namespace zr
