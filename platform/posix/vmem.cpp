// Reserved address space: an inaccessible anonymous mapping, committed by mprotect.
#include "platform/vmem.h"

#include <sys/mman.h>

namespace zr::os {

void* ReserveAddressSpace(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  void* base = ::mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return base == MAP_FAILED ? nullptr : base;
}

bool CommitAddressSpace(void* base, std::size_t bytes) {
  return base && ::mprotect(base, bytes, PROT_READ | PROT_WRITE) == 0;
}

void ReleaseAddressSpace(void* base, std::size_t bytes) {
  if (base && bytes) ::munmap(base, bytes);
}

}  // namespace zr::os
