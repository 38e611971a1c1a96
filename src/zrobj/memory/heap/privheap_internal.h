// Private heaps (the HeapCreate family): heaps of blocks cut from 64 KiB regions of the platform
// layer, inside the library only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

using SIZE_T = std::size_t;

namespace zr {

// Flags of HeapCreate, HeapAlloc, HeapReAlloc and HeapFree (Windows values).
inline constexpr DWORD HEAP_NO_SERIALIZE = 0x00000001u;         // accepted; every heap locks anyway
inline constexpr DWORD HEAP_GENERATE_EXCEPTIONS = 0x00000004u;  // failures are reported by HeapFailureRaises
inline constexpr DWORD HEAP_ZERO_MEMORY = 0x00000008u;
inline constexpr DWORD HEAP_REALLOC_IN_PLACE_ONLY = 0x00000010u;

// A heap of blocks. `maximumSize` 0 makes it growable; otherwise the blocks in use may not exceed it.
// `initialSize` is accepted and ignored (memory is taken on demand).
HANDLE HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize);
// Frees every block of the heap and the heap itself. The process heap is never destroyed (FALSE).
BOOL HeapDestroy(HANDLE heap);
// Blocks are aligned to 16 bytes; null on failure (no exception is ever raised).
void* HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
// Grows or shrinks in place while the new size fits the block's capacity; otherwise moves the block
// unless HEAP_REALLOC_IN_PLACE_ONLY is given. Null when the block is not a live block of the heap.
void* HeapReAlloc(HANDLE heap, DWORD flags, void* block, SIZE_T bytes);
// FALSE (and nothing changes) when the block is not a live block of the heap.
BOOL HeapFree(HANDLE heap, DWORD flags, void* block);
// The size the block was last allocated or reallocated with; (SIZE_T)-1 for anything else.
SIZE_T HeapSize(HANDLE heap, DWORD flags, const void* block);
// The heap of the process: created on first use, never destroyed.
HANDLE GetProcessHeap();


// True when an allocation of `flags` on `heap` that failed would have raised on Windows
// (HEAP_GENERATE_EXCEPTIONS in the call's flags or in the heap's options).
bool HeapFailureRaises(HANDLE heap, DWORD flags);

// When `block` is a live block of `heap`, stores the bytes that may be read directly around it:
// [begin, end) covers the block's data and its whole capacity. Reads nothing at `block` itself
// before it is known to be the heap's, so any pointer may be asked about.
struct HeapBlockSpan {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  void* home = nullptr;          // where the block was found (null for a large block)
  std::uint32_t generation = 0;  // that place's generation when it was found
};
bool HeapBlockOwned(HANDLE heap, const void* block, HeapBlockSpan* span);
// Frees a block that HeapBlockOwned just confirmed into `span`, without looking for it again; under
// the heap's lock it makes sure the block is still where it was found and still live.
BOOL HeapFreeChecked(HANDLE heap, DWORD flags, void* block, const HeapBlockSpan& span);

// What the heap holds: live blocks, bytes they use (block capacities), regions taken from malloc.
struct HeapUsage {
  std::size_t blocks = 0;
  std::size_t bytes_in_use = 0;
  std::size_t bytes_reserved = 0;
};
bool GetHeapUsage(HANDLE heap, HeapUsage* usage);

}  // namespace zr
