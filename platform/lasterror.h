// The platform layer's last error: one slot per thread, set by every function of the layer that
// reports failures this way (files, waits, threads, change notifications, ...).
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Windows error codes, defined the way the system headers define them.
#ifndef ERROR_SUCCESS
#define ERROR_SUCCESS 0u
#endif
#ifndef ERROR_FILE_NOT_FOUND
#define ERROR_FILE_NOT_FOUND 2u
#endif
#ifndef ERROR_ACCESS_DENIED
#define ERROR_ACCESS_DENIED 5u
#endif
#ifndef ERROR_INVALID_HANDLE
#define ERROR_INVALID_HANDLE 6u
#endif
#ifndef ERROR_NOT_ENOUGH_MEMORY
#define ERROR_NOT_ENOUGH_MEMORY 8u
#endif
#ifndef ERROR_INVALID_PARAMETER
#define ERROR_INVALID_PARAMETER 87u
#endif
#ifndef ERROR_INVALID_NAME
#define ERROR_INVALID_NAME 123u
#endif
#ifndef ERROR_ALREADY_EXISTS
#define ERROR_ALREADY_EXISTS 183u
#endif
#ifndef ERROR_FILENAME_EXCED_RANGE
#define ERROR_FILENAME_EXCED_RANGE 206u
#endif
#ifndef ERROR_TOO_MANY_POSTS
#define ERROR_TOO_MANY_POSTS 298u
#endif
#ifndef ERROR_MORE_DATA
#define ERROR_MORE_DATA 234u
#endif

namespace zr::os {

DWORD GetLastError();
void SetLastError(DWORD error);

}  // namespace zr::os
