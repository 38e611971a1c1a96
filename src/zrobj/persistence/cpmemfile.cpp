// CPMemoryFile: file-like reading, writing and seeking over a CPMemory block that grows in steps
// of 4096 bytes.
#include "zrobj/cpmemfile.h"

#include <cstring>

namespace {

constexpr UINT64 kMaxCapacity = 0xFFFFFFFFull - CPMemoryFile::kGrowStep;

// The capacity that holds `end`: rounded down to the step, plus one more step (so an end already on
// a step boundary still gains a step).
UINT64 CapacityFor(UINT64 end) { return (end & ~UINT64{CPMemoryFile::kGrowStep - 1}) + CPMemoryFile::kGrowStep; }

// The data bytes of a held block, also while its data size is 0 (the write cast refuses those).
BYTE* BytesOf(const CPMemory& memory) {
  tagMEMHEADER* header = memory.GetHeader();
  return header == nullptr ? nullptr : reinterpret_cast<BYTE*>(header) + sizeof(tagMEMHEADER);
}

}  // namespace

CPMemoryFile::CPMemoryFile(const CPMemoryFile& other)
    : CPMemory(), access_(other.access_), position_(other.position_) {
  CPMemory::operator=(other);
}

CPMemoryFile::~CPMemoryFile() { Free(); }

// Capacities are multiples of 4096 and the block header is 32 bytes, so the default allocator's
// rounding to 32 grants exactly what is asked and GetAllocSize reports the capacity itself.
int CPMemoryFile::Open(DWORD access) {
  position_ = 0;
  access_ = 0;
  if (access & kAccessWrite) {
    if (!Alloc(kGrowStep) || !SetSize(0)) return 0;
  } else if (GetHeader() == nullptr) {
    return 0;
  }
  access_ = access & kAccessMask;
  return 1;
}

int CPMemoryFile::Close() {
  access_ = 0;
  return 1;
}

// Realloc sets the data size to the new capacity; the file's data size stays what it was.
bool CPMemoryFile::GrowTo(UINT64 end) {
  const UINT64 capacity = CapacityFor(end);
  if (capacity > kMaxCapacity) return false;
  const unsigned long size = GetSize();
  if (!Realloc(static_cast<unsigned long>(capacity))) return false;
  return SetSize(size) != 0;
}

DWORD CPMemoryFile::Write(const void* data, DWORD count) {
  if (count == 0 || !(access_ & kAccessWrite) || data == nullptr) return 0;
  const UINT64 end = UINT64{position_} + count;
  if (end >= GetAllocSize() && !GrowTo(end)) return 0;
  std::memcpy(BytesOf(*this) + position_, data, count);
  position_ = static_cast<DWORD>(end);
  if (position_ > GetSize()) SetSize(position_);
  return count;
}

DWORD CPMemoryFile::Read(void* data, DWORD count) {
  const DWORD size = static_cast<DWORD>(GetSize());
  if (count == 0 || !(access_ & kAccessRead) || position_ >= size || data == nullptr) return 0;
  if (count > size - position_) count = size - position_;
  std::memcpy(data, BytesOf(*this) + position_, count);
  position_ += count;
  return count;
}

int CPMemoryFile::SetFilePtr(LONG offset, DWORD method) {
  if (access_ == 0) return 0;
  const UINT64 size = GetSize();
  UINT64 base = 0;
  if (method == 1) {
    base = position_;
  } else if (method == 2) {
    base = size;
  } else if (method != 0) {
    return 0;
  }
  const INT64 target = static_cast<INT64>(base) + offset;
  if (target < 0) return 0;
  const auto where = static_cast<UINT64>(target);
  if (access_ & kAccessRead) {
    if (where > size) return 0;
  } else if (where > size) {
    // Write only: inside the capacity the data grow to the target; beyond it the block grows and
    // the data size stays.
    if (where < GetAllocSize()) {
      if (!SetSize(static_cast<unsigned long>(where))) return 0;
    } else if (!GrowTo(where)) {
      return 0;
    }
  }
  position_ = static_cast<DWORD>(where);
  return 1;
}
