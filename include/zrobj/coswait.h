// The vocabulary of waits and kernel objects shared by the exported classes and the platform layer:
// time-outs, wait results, change-notification filter bits, security attributes and find data.
#pragma once

#include "zrobj/zrtypes.h"

#ifndef INFINITE
#define INFINITE 0xFFFFFFFFu
#endif
#ifndef WAIT_OBJECT_0
#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED_0 0x80u
#define WAIT_TIMEOUT 258u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64u
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

// Accepted and ignored: objects carry no security descriptors here.
struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
};

// A file's directory entry, laid out as the system's find data (times are file times, low word
// first): what a file-change notification compares.
struct tagZRFINDDATA {
  DWORD dwFileAttributes;
  DWORD ftCreationTime[2];
  DWORD ftLastAccessTime[2];
  DWORD ftLastWriteTime[2];
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[ZR_MAX_PATH];
  WCHAR cAlternateFileName[14];
};
