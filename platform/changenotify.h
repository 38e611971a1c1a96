// Directory change notification (inotify behind waitable handles) and the directory entry of a file.
#pragma once

#include <cstdint>

#include "platform/waitable.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

#ifndef INVALID_HANDLE_VALUE
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(~std::uintptr_t{0}))
#endif

// Watches one directory (never its subtree: `watchSubtree` is ignored). The handle is signalled when
// a change that the filter names happens in the directory, and stays signalled until re-armed with
// FindNextChangeNotification. An event-queue overflow signals every notification (their owners
// re-read what they watch). Failure: INVALID_HANDLE_VALUE with the last error set.
HANDLE FindFirstChangeNotificationW(const WCHAR* path, BOOL watchSubtree, DWORD filter);
BOOL FindNextChangeNotification(HANDLE handle);
BOOL FindCloseChangeNotification(HANDLE handle);

// Fills `out` with the entry of the file `path` names; false (and `out` untouched) when it does not
// exist. Attributes come from the "user.zrobj.attributes" extended attribute, else from the mode.
bool GetFindData(const WCHAR* path, tagZRFINDDATA* out);

}  // namespace zr::os
