// CPMemoryFile: a reference-counted memory block used as a growable file, with an access word
// and a position; the memory stream under CMemChunkArchive.
#pragma once

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class ZROBJ_API CPMemoryFile : public CPMemory {
 public:
  static constexpr DWORD kAccessRead = 0x80000000u;
  static constexpr DWORD kAccessWrite = 0x40000000u;
  static constexpr DWORD kAccessMask = kAccessRead | kAccessWrite;
  // Capacities are whole multiples of this; a fresh write file starts with one.
  static constexpr DWORD kGrowStep = 4096;

  CPMemoryFile() = default;
  // Copies share the block (CPMemory rules) and take over access and position. Sharing and
  // releasing check the block's class id, so they run here, where GetClassID is this class's.
  CPMemoryFile(const CPMemoryFile& other);
  CPMemoryFile& operator=(const CPMemoryFile& other) = default;
  ~CPMemoryFile() override;
  const char* GetClassID() const override { return "CPMemoryFile"; }

  // Position 0. With the write bit a fresh block of 4096 bytes (no data) replaces any content;
  // otherwise the handle must already hold memory. Non-zero on success; access 0 on failure.
  int Open(DWORD access);
  int Close();  // access 0, memory kept; 1
  DWORD GetAccess() const { return access_; }
  DWORD GetFilePtr() const { return position_; }

  DWORD Write(const void* data, DWORD count);
  DWORD Read(void* data, DWORD count);
  // Method 0 from the start, 1 from the position, 2 from the data size; 1 on success.
  int SetFilePtr(LONG offset, DWORD method);

 private:
  bool GrowTo(UINT64 end);

  DWORD access_ = 0;
  DWORD position_ = 0;
};
