// Reference-counted memory: the default allocator on the "MemPool" heap, CPMemory sharing,
// copy-on-request and growth, and CPMemoryCS with its shared critical section.
#include "zrobj/cpmem.h"

#include <atomic>
#include <cstring>
#include <new>

#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "memory/heap/regionmap_internal.h"
#include "zrobj/cheap.h"
#include "zrobj/coslock.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

constexpr unsigned long kHeaderSize = sizeof(tagMEMHEADER);
constexpr const char* kSourceFile = "src/zrobj/cpmem";

unsigned long RoundUp32(unsigned long size) { return (size + 31ul) & ~31ul; }

CHeap* MemPool() {
  static CHeap* const heap = zr::GetLibraryHeap("MemPool");
  return heap;
}

// The default allocator: sizes rounded to 32 bytes, growth in place only.
class DefaultMallocator final : public IMallocator {
 public:
  void* Alloc(unsigned long* size, unsigned long heapFlags) override {
    *size = RoundUp32(*size);
    return MemPool()->Alloc(*size, heapFlags, kSourceFile, 26, ZR_CALLER_ADDRESS());
  }
  int Realloc(void* block, unsigned long* size, unsigned long heapFlags) override {
    *size = RoundUp32(*size);
    return MemPool()->Realloc(block, *size, heapFlags | CPMEM_HEAP_REALLOC_IN_PLACE_ONLY, kSourceFile, 36,
                              ZR_CALLER_ADDRESS()) != nullptr;
  }
  int Free(void* block, unsigned long heapFlags) override { return MemPool()->Free(block, heapFlags); }
  int Verify(void* block) override { return MemPool()->Verify(block); }
};

DefaultMallocator g_default_mallocator;

std::atomic_ref<std::int32_t> RefOf(tagMEMHEADER* header) { return std::atomic_ref<std::int32_t>(header->iRef); }

void* DataOf(tagMEMHEADER* header) { return reinterpret_cast<char*>(header) + kHeaderSize; }

// True when n bytes at `at` lie in memory of a private heap or pool: the address map names an owner
// for the units of both ends, so the bytes can be read without a fault.
bool InHeapMemory(const void* at, std::size_t n) {
  const auto* bytes = static_cast<const char*>(at);
  return zr::LookupRegion(bytes).owner != nullptr && zr::LookupRegion(bytes + n - 1).owner != nullptr;
}

// Reads a header the handle has not checked yet, so that a damaged handle is reported rather than
// followed: directly when the address map places it in heap memory (the common case, kept at one
// atomic load), otherwise through a probed read that cannot fault.
bool ReadHeader(const tagMEMHEADER* header, tagMEMHEADER* copy) {
  if (!InHeapMemory(header, sizeof *copy)) return os::ProbeRead(header, copy, sizeof *copy);
  // Field by field: other handles of the block change the count concurrently, atomically.
  copy->dwSignature = header->dwSignature;
  copy->dwClassID = header->dwClassID;
  copy->iRef = RefOf(const_cast<tagMEMHEADER*>(header)).load(std::memory_order_acquire);
  copy->dwAllocSize = header->dwAllocSize;
  copy->dwSize = header->dwSize;
  copy->dwReserved = header->dwReserved;
  copy->pMalloc = header->pMalloc;
  return true;
}

void Warn(const char16_t* text, std::uintptr_t caller) { WarningMsg(text, caller, ZR_CURRENT_FRAME()); }

}  // namespace

CPMemory::CPMemory(const CPMemory& other) : flags_(other.flags_) { CopyCPMemory(other); }

CPMemory& CPMemory::operator=(const CPMemory& other) {
  if (this == &other) return *this;
  flags_ = other.flags_;
  CopyCPMemory(other);
  return *this;
}

CPMemory::~CPMemory() { CPMemory::Free(); }

IMallocator* CPMemory::GetMallocator() { return &g_default_mallocator; }

void CPMemory::RelocateMemory(void* oldData, unsigned long oldAllocSize, void* newData, unsigned long newSize, int) {
  std::memmove(newData, oldData, oldAllocSize < newSize ? oldAllocSize : newSize);
}

// Class names are literals, so the last name seen on this thread caches its hash id.
DWORD CPMemory::OwnClassID() const {
  thread_local const char* last_name = nullptr;
  thread_local DWORD last_id = 0;
  const char* name = GetClassID();
  if (name != last_name) {
    last_id = GetHashID(name);
    last_name = name;
  }
  return last_id;
}

bool CPMemory::HeaderMatches(const tagMEMHEADER* header) {
  return header->dwSignature == CPMEM_SIGNATURE && header->dwClassID == OwnClassID() &&
         header->pMalloc == GetMallocator();
}

tagMEMHEADER* CPMemory::ClaimMemory(unsigned long size, unsigned long heapFlags) {
  IMallocator* malloc = GetMallocator();
  if (malloc == nullptr) {
    os::wPrintf(3, 0, u"\rCPMemory::ClaimMemory: pMalloc == NULL, probably uninitialised object\r\n");
    return nullptr;
  }
  if (size > 0xFFFFFFFFul - kHeaderSize - 32) return nullptr;
  unsigned long granted = size + kHeaderSize;
  auto* header = static_cast<tagMEMHEADER*>(malloc->Alloc(&granted, heapFlags));
  if (header == nullptr) return nullptr;
  header->dwSignature = CPMEM_SIGNATURE;
  header->dwClassID = OwnClassID();
  header->iRef = 1;
  header->dwAllocSize = static_cast<DWORD>(granted - kHeaderSize);
  header->dwSize = static_cast<DWORD>(size);
  header->dwReserved = 0;
  header->pMalloc = malloc;
  return header;
}

tagMEMHEADER* CPMemory::ReclaimMemory(tagMEMHEADER* header, unsigned long size, unsigned long heapFlags) {
  IMallocator* malloc = GetMallocator();
  if (malloc == nullptr) {
    os::wPrintf(3, 0, u"\rCPMemory::ReclaimMemory: pMalloc == NULL, probably uninitialised object\r\n");
    return nullptr;
  }
  if (malloc != header->pMalloc) {
    os::wPrintf(3, 0, u"\rCPMemory::ReclaimMemory: pMalloc != pMH->pMalloc, probable assignment problem\r\n");
    return nullptr;
  }
  if (size > 0xFFFFFFFFul - kHeaderSize - 32) return nullptr;
  unsigned long granted = size + kHeaderSize;
  if (malloc->Realloc(header, &granted, heapFlags | CPMEM_HEAP_REALLOC_IN_PLACE_ONLY)) {
    header->dwAllocSize = static_cast<DWORD>(granted - kHeaderSize);
    header->dwSize = static_cast<DWORD>(size);
    return header;
  }
  return ClaimMemory(size, heapFlags & ~CPMEM_HEAP_REALLOC_IN_PLACE_ONLY);
}

int CPMemory::ReleaseMemory(tagMEMHEADER* header) {
  IMallocator* malloc = GetMallocator();
  if (malloc == nullptr) {
    os::wPrintf(3, 0, u"\rCPMemory::ReleaseMemory: pMalloc == NULL, probably uninitialised object\r\n");
    return 0;
  }
  if (malloc != header->pMalloc) {
    os::wPrintf(3, 0, u"\rCPMemory::ReleaseMemory: pMalloc != pMH->pMalloc, probable assignment problem\r\n");
    return 0;
  }
  return malloc->Free(header, 0);
}

int CPMemory::Alloc(unsigned long size, unsigned long heapFlags) {
  Free();
  if (size == 0) return 0;
  pMH = ClaimMemory(size, heapFlags);
  return pMH != nullptr;
}

int CPMemory::Free() {
  if (IsDebugOn()) AssertMem();
  int result = 1;
  tagMEMHEADER* header = pMH;
  pMH = nullptr;
  flags_ = 0;
  if (header == nullptr) return result;
  tagMEMHEADER copy;
  if (!ReadHeader(header, &copy)) {
    os::wPrintf(3, 0, u"\rCPMemory::Free exception\r\n");
    return result;
  }
  if (copy.dwSignature != CPMEM_SIGNATURE || copy.dwClassID != OwnClassID()) return result;
  if (copy.iRef <= 0) return result;
  if (RefOf(header).fetch_sub(1, std::memory_order_acq_rel) == 1) {
    // ClearForRelease looks at the block through this handle, so hold it for the call.
    pMH = header;
    int cleared = ClearForRelease();
    pMH = nullptr;
    result = cleared & ReleaseMemory(header);
  }
  return result;
}

void CPMemory::CopyCPMemory(const CPMemory& source) {
  if (source.pMH == pMH) return;
  if (IsDebugOn()) source.AssertMem();
  Free();
  tagMEMHEADER* header = source.pMH;
  if (header == nullptr) return;
  IMallocator* malloc = GetMallocator();
  if (malloc == nullptr) {
    os::wPrintf(3, 0, u"\rCPMemory::CopyCPMemory: pMalloc == NULL, probably uninitialised object\r\n");
    return;
  }
  tagMEMHEADER copy;
  if (ReadHeader(header, &copy) && copy.dwSignature == CPMEM_SIGNATURE &&
      copy.dwClassID == OwnClassID() && copy.pMalloc == malloc && copy.dwAllocSize != 0 && copy.iRef != 0) {
    if (RefOf(header).fetch_add(1, std::memory_order_acq_rel) + 1 <= 1) {
      Warn(u"CPMemory::CopyCPMemory: iRef confusion!", ZR_CALLER_ADDRESS());
      return;
    }
    pMH = header;
    return;
  }
  Warn(u"CPMemory::CopyCPMemory: Invalid assignment (bad pointer or different classes)!", ZR_CALLER_ADDRESS());
}

int CPMemory::TakeBlock(tagMEMHEADER* fresh, unsigned long size) {
  if (fresh == nullptr) return 0;
  if (fresh != pMH) {
    RelocateMemory(DataOf(pMH), pMH->dwAllocSize, DataOf(fresh), size, RefOf(pMH).load(std::memory_order_acquire));
    Free();
    pMH = fresh;
  }
  flags_ = 0;
  return 1;
}

int CPMemory::Realloc(unsigned long size, unsigned long heapFlags, int forceNew) {
  if (size == 0) return Free();
  if (pMH == nullptr) {
    if (heapFlags & CPMEM_HEAP_REALLOC_IN_PLACE_ONLY) return 0;
    if (size == CPMEM_PRIVATE_COPY) return 1;
    return Alloc(size, heapFlags & ~CPMEM_HEAP_REALLOC_IN_PLACE_ONLY);
  }
  if (!HeaderMatches(pMH)) return 0;
  if (size == CPMEM_PRIVATE_COPY) {
    if (RefOf(pMH).load(std::memory_order_acquire) == 1) return 1;
    size = pMH->dwSize;
    if (size == 0) return 0;
    return TakeBlock(ClaimMemory(size, heapFlags), size);
  }
  tagMEMHEADER* fresh = forceNew ? ClaimMemory(size, heapFlags) : ReclaimMemory(pMH, size, heapFlags);
  return TakeBlock(fresh, size);
}

int CPMemory::LoadRealloc(unsigned long size) {
  if (pMH == nullptr) {
    if (flags_ & CPMEM_HEAP_REALLOC_IN_PLACE_ONLY) return 0;
    return Alloc(size, 0);
  }
  if (size == 0) return Free();
  if (!HeaderMatches(pMH)) return 0;
  bool unshared = RefOf(pMH).load(std::memory_order_acquire) < 2;
  return TakeBlock(unshared ? ReclaimMemory(pMH, size, 0) : ClaimMemory(size, 0), size);
}

unsigned long CPMemory::GetSize() const {
  if (pMH == nullptr || pMH->dwSignature != CPMEM_SIGNATURE || pMH->dwAllocSize == 0) return 0;
  return pMH->dwSize;
}

int CPMemory::SetSize(unsigned long size) {
  if (pMH == nullptr || (flags_ & READONLY) || size > pMH->dwAllocSize) return 0;
  pMH->dwSize = static_cast<DWORD>(size);
  return 1;
}

unsigned long CPMemory::GetAllocSize() const { return pMH == nullptr ? 0 : pMH->dwAllocSize; }

int CPMemory::GetRefCnt() const {
  if (pMH == nullptr || pMH->dwSignature != CPMEM_SIGNATURE) return 0;
  return RefOf(pMH).load(std::memory_order_acquire);
}

int CPMemory::SetFlags(unsigned long flags) {
  flags_ |= flags & READONLY;
  return 1;
}

CPMemory::operator void*() {
  if (pMH == nullptr) return nullptr;
  if (IsDebugOn()) AssertMem();
  if (flags_ & READONLY) {
    Warn(u"CPMemory::operator PVOID: Attempt to write-access cast READONLY memory.", ZR_CALLER_ADDRESS());
    return nullptr;
  }
  if (pMH->dwSignature != CPMEM_SIGNATURE || pMH->dwSize == 0) return nullptr;
  return DataOf(pMH);
}

const void* CPMemory::GetCDataPtr() const {
  if (pMH == nullptr || pMH->dwSignature != CPMEM_SIGNATURE || pMH->dwSize == 0) return nullptr;
  return DataOf(pMH);
}

int CPMemory::cmpMEMHEADER(const CPMemory& other, int withSize) const {
  if (pMH != nullptr && pMH == other.pMH) return 1;
  if (pMH == nullptr || other.pMH == nullptr) return 0;
  if (pMH->dwSignature != other.pMH->dwSignature || pMH->dwClassID != other.pMH->dwClassID ||
      pMH->pMalloc != other.pMH->pMalloc)
    return 0;
  return !withSize || pMH->dwSize == other.pMH->dwSize;
}

bool CPMemory::operator==(const CPMemory& other) const {
  if (pMH == nullptr && other.pMH == nullptr) return true;
  if (!cmpMEMHEADER(other, 1)) return false;
  return pMH == other.pMH || std::memcmp(DataOf(pMH), DataOf(other.pMH), pMH->dwSize) == 0;
}

CPMemory* CPMemory::Construct(void* place) { return new (place) CPMemory(); }

int CPMemory::AssertMem() const {
  if (pMH == nullptr) return 1;
  tagMEMHEADER copy;
  if (!os::ProbeRead(pMH, &copy, sizeof copy)) {
    os::wPrintf(3, 0, u"\rCPMemory::AssertMem: pMH != NULL, but bad access\r\n");
    return 0;
  }
  if (copy.dwSignature != CPMEM_SIGNATURE || copy.pMalloc == nullptr) {
    os::wPrintf(3, 0, u"\rCPMemory::AssertMem: Accessible, but invalid pMH\r\n");
    return 0;
  }
  return copy.pMalloc->Verify(pMH);
}

// ---- CPMemoryCS ----

// Sharing checks the block's class id, so it runs once GetClassID answers for this class.
CPMemoryCS::CPMemoryCS(const CPMemoryCS& other) : CPMemory() {
  CPMemory::operator=(other);
  if (GetHeader() != nullptr && other.section_ != nullptr) {
    other.section_->Lock();
    section_ = other.section_;
  }
}

CPMemoryCS& CPMemoryCS::operator=(const CPMemoryCS& other) {
  if (this == &other) return *this;
  CPMemory::operator=(other);
  if (section_ == other.section_) return *this;
  DropSection();
  if (GetHeader() != nullptr && other.section_ != nullptr) {
    other.section_->Lock();
    section_ = other.section_;
  }
  return *this;
}

CPMemoryCS::~CPMemoryCS() { Free(); }

void CPMemoryCS::DropSection() {
  if (section_ != nullptr) section_->Destroy();
  section_ = nullptr;
}

int CPMemoryCS::Alloc(unsigned long size, unsigned long heapFlags) {
  Free();
  section_ = CSharedCriticalSection::Create();
  if (CPMemory::Alloc(size, heapFlags)) return 1;
  DropSection();
  return 0;
}

int CPMemoryCS::Free() {
  DropSection();
  return CPMemory::Free();
}

int CPMemoryCS::Realloc(unsigned long size, unsigned long heapFlags, int forceNew) {
  if (section_ == nullptr) return 0;
  if (!CPMemory::Realloc(size, heapFlags, forceNew)) return 0;
  DropSection();
  section_ = CSharedCriticalSection::Create();
  return 1;
}

void CPMemoryCS::Enter() {
  if (section_ != nullptr) section_->Enter();
}

void CPMemoryCS::Leave() {
  if (section_ != nullptr) section_->Leave();
}
