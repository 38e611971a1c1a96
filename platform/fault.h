// Guarded calls and probed reads: touching memory that may be damaged without crashing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"

namespace zr {

// Copies n bytes from `address` into `out`; false when any of it cannot be read (no signal raised).
ZROBJ_API bool ProbeRead(const void* address, void* out, std::size_t n);
// True when n bytes at `address` can be written (probed with process_vm_writev of the same bytes).
ZROBJ_API bool ProbeWritable(void* address, std::size_t n);

// Runs fn(context) under a fault guard. Returns 0 when it completed, else the exception code of the
// fault it took (0xC0000005 access violation, 0xC0000094 divide by zero, ...). Nestable, per thread.
using GuardedFn = void (*)(void* context);
ZROBJ_API std::uint32_t GuardedCall(GuardedFn fn, void* context);

template <class F>
std::uint32_t Guarded(F&& f) {
  return GuardedCall([](void* c) { (*static_cast<F*>(c))(); }, &f);
}

}  // namespace zr
