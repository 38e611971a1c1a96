// Reserved address space that is committed page by page (the VirtualAlloc reserve/commit pair).
#pragma once

#include <cstddef>

namespace zr::os {

// Reserves `bytes` of address space without memory behind it; null on failure.
void* ReserveAddressSpace(std::size_t bytes);
// Makes [base, base + bytes) of a reservation readable and writable; false on failure.
bool CommitAddressSpace(void* base, std::size_t bytes);
// Releases a whole reservation of `bytes`.
void ReleaseAddressSpace(void* base, std::size_t bytes);

}  // namespace zr::os
