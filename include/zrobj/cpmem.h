// Reference-counted memory blocks: a header in front of the data names the handle class and the
// allocator; copying a handle shares the block, the last handle releases it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class CSharedCriticalSection;
class CZRArchive;

inline constexpr DWORD CPMEM_SIGNATURE = 0x434D656D;  // bytes "meMC"
inline constexpr unsigned long CPMEM_READONLY = 0x1;
inline constexpr unsigned long CPMEM_HEAP_REALLOC_IN_PLACE_ONLY = 0x10;
inline constexpr unsigned long CPMEM_PRIVATE_COPY = 0xFFFFFFFFul;

class IMallocator {
 public:
  virtual void* Alloc(unsigned long* size, unsigned long heapFlags) = 0;
  virtual int Realloc(void* block, unsigned long* size, unsigned long heapFlags) = 0;
  virtual int Free(void* block, unsigned long heapFlags) = 0;
  virtual int Verify(void* block) = 0;

 protected:
  ~IMallocator() = default;
};

// The memory header; on 64-bit the allocator pointer widens to 8 bytes at offset 24 and the data
// follow at +32 (a multiple of 16, so data stay 16-byte aligned).
struct tagMEMHEADER {
  DWORD dwSignature;
  DWORD dwClassID;
  std::int32_t iRef;  // changed only with atomic operations
  DWORD dwAllocSize;
  DWORD dwSize;
  DWORD dwReserved;
  IMallocator* pMalloc;
};
static_assert(sizeof(tagMEMHEADER) == 32 && offsetof(tagMEMHEADER, pMalloc) == 24, "memory header layout");

class ZROBJ_API CPMemory {
 public:
  static constexpr unsigned long READONLY = CPMEM_READONLY;

  CPMemory() = default;
  CPMemory(const CPMemory& other);
  CPMemory& operator=(const CPMemory& other);
  virtual const char* GetClassID() const { return "CPMemory"; }
  virtual ~CPMemory();

  int Alloc(unsigned long size, unsigned long heapFlags = 0);
  int Realloc(unsigned long size, unsigned long heapFlags = 0, int forceNew = 0);
  int Free();
  int LoadRealloc(unsigned long size);

  unsigned long GetSize() const;
  int SetSize(unsigned long size);
  unsigned long GetAllocSize() const;
  int GetRefCnt() const;
  int SetFlags(unsigned long flags);
  unsigned long GetFlags() const { return flags_ & READONLY; }

  operator void*();
  operator unsigned short*() { return static_cast<unsigned short*>(GetDataPtr()); }
  operator const void*() const { return GetCDataPtr(); }
  operator const unsigned short*() const { return static_cast<const unsigned short*>(GetCDataPtr()); }
  void* GetDataPtr() { return static_cast<void*>(*this); }
  const void* GetCDataPtr() const;

  int cmpMEMHEADER(const CPMemory& other, int withSize) const;
  bool operator==(const CPMemory& other) const;
  bool operator!=(const CPMemory& other) const { return !(*this == other); }

  static CPMemory* Construct(void* place);
  void Clean() { pMH = nullptr; }
  int AssertMem() const;

  // Archive persistence: the data as one chunk called `name` (written with one Chnk_Write, read
  // back whole). DynaSave and DynaLoad return 1, or 0 when the open, the write or the read falls
  // short; DynaRead loads like DynaLoad and returns the stored size (0 for a failure or an empty
  // entry). The int of DynaLoad is unused.
  int DynaSave(char* name, CZRArchive& archive);
  int DynaLoad(char* name, CZRArchive& archive, int);
  int DynaRead(char* name, CZRArchive& archive);

  tagMEMHEADER* GetHeader() const { return pMH; }

 protected:
  virtual IMallocator* GetMallocator();
  virtual void RelocateMemory(void* oldData, unsigned long oldAllocSize, void* newData, unsigned long newSize,
                              int oldRefCount);
  virtual int ClearForRelease() { return 1; }

  void CopyCPMemory(const CPMemory& source);

 private:
  DWORD OwnClassID() const;
  bool HeaderMatches(const tagMEMHEADER* header);
  tagMEMHEADER* ClaimMemory(unsigned long size, unsigned long heapFlags);
  tagMEMHEADER* ReclaimMemory(tagMEMHEADER* header, unsigned long size, unsigned long heapFlags);
  int ReleaseMemory(tagMEMHEADER* header);
  int TakeBlock(tagMEMHEADER* fresh, unsigned long size);
  long long LoadEntry(char* name, CZRArchive& archive);

  tagMEMHEADER* pMH = nullptr;
  unsigned long flags_ = 0;
};

class ZROBJ_API CPMemoryCS : public CPMemory {
 public:
  CPMemoryCS() = default;
  CPMemoryCS(const CPMemoryCS& other);
  CPMemoryCS& operator=(const CPMemoryCS& other);
  ~CPMemoryCS() override;
  const char* GetClassID() const override { return "CPMemoryCS"; }

  int Alloc(unsigned long size, unsigned long heapFlags = 0);
  int Realloc(unsigned long size, unsigned long heapFlags = 0, int forceNew = 0);
  int Free();
  void Enter();
  void Leave();
  CSharedCriticalSection* GetSection() const { return section_; }

 private:
  void DropSection();
  CSharedCriticalSection* section_ = nullptr;
};
