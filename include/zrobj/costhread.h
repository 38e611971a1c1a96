// The thread register: readable names for thread ids, and CPU statistics when a thread leaves.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Process-wide table of registered threads. An object of the class is a scoped registration of the
// calling thread. GetThreadDump block layout (little-endian, 4-byte aligned, process heap; free with
// HeapFree(GetProcessHeap(), 0, block)):
//   DWORD count; then `count` entries of { DWORD threadId; DWORD chars; WCHAR name[chars + 1] }
//   where the name is 0-terminated and each entry is padded to a multiple of 4 bytes.
class ZROBJ_API COSThreadRegister {
 public:
  explicit COSThreadRegister(const WCHAR* name);
  ~COSThreadRegister();
  COSThreadRegister(const COSThreadRegister&) = delete;
  COSThreadRegister& operator=(const COSThreadRegister&) = delete;

  static int Register(unsigned long threadId, const WCHAR* name);
  static int Unregister(unsigned long threadId);
  static int GetName(unsigned long threadId, WCHAR* buffer, unsigned int length);
  static int GetCurrentName(WCHAR* buffer, unsigned int length);
  static int AppExit();
  static void DumpRegistered();
  static void* GetThreadDump(unsigned long& size);

 private:
  unsigned long thread_id_;
};

ZROBJ_EXTERN_C ZROBJ_API int COS_RegisterThread(unsigned long threadId, const WCHAR* name);
