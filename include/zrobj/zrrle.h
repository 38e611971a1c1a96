// Run-length compression of strided byte and 16-bit data (one colour channel of a pixel buffer, one
// channel of interleaved samples) into self-contained little-endian blocks.
//
// Block: element count (u32), block size in bytes including the header (u32), tag count (u32), then
// the tags. A literal tag is a u32 with bit 31 set and n in bits 0-30, followed by n elements; a run
// tag is a u32 with bit 31 clear and n in bits 0-30, followed by one element repeated n times.
// Elements are bytes, or 16-bit little-endian words in the RLE16 forms.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD RLE_HEADER_SIZE = 12;
inline constexpr DWORD RLE_LITERAL_FLAG = 0x80000000u;
inline constexpr DWORD RLE_MAX_TAG_ELEMENTS = 0x7FFFFFFFu;

// Compresses `count` elements read every `stride` bytes from `source`. 1 with the block written,
// 0 when it does not fit `destinationSize` bytes (a destination below 17 bytes always fails). Input
// that does not compress is stored as one literal tag when count + 16 bytes fit.
ZROBJ_EXTERN_C ZROBJ_API int RLECompress(void* destination, DWORD destinationSize, const void* source, DWORD count,
                                         DWORD stride);

// Expands a block, writing element k at destination + k * stride. Checks nothing: the block must be
// one RLECompress made and the destination must hold element count x stride bytes. Always 1.
ZROBJ_EXTERN_C ZROBJ_API int RLEDecompress(void* destination, const void* block, DWORD stride);

// The same for 16-bit elements; `stride` counts 16-bit units, sizes are in bytes. A run tag takes
// 6 bytes, so the destination must hold at least 18 bytes, and the one-literal fallback needs
// 2 x count + 16.
ZROBJ_EXTERN_C ZROBJ_API int RLE16Compress(void* destination, DWORD destinationSize, const WORD* source, DWORD count,
                                           DWORD stride);
ZROBJ_EXTERN_C ZROBJ_API int RLE16Decompress(WORD* destination, const void* block, DWORD stride);

// Checked expansion for blocks from files or other untrusted places. `blockSize` is the number of
// bytes available at `block`, `destinationSize` the bytes (RLE16: 16-bit units) at `destination`.
// The block is rejected (0) when its header is short or inconsistent, when its elements at this
// stride do not fit the destination, when a tag runs past the block or past the element count, when
// the tags expand to fewer elements than the header states, or when bytes are left after the last
// tag. The reason goes to `error` (UTF-8, terminated, at most errorSize bytes; may be null) and, in
// debug mode, to the diagnostics output. 1 when the whole block was expanded.
ZROBJ_EXTERN_C ZROBJ_API int RLEDecompressChecked(void* destination, DWORD destinationSize, const void* block,
                                                  DWORD blockSize, DWORD stride, char* error, DWORD errorSize);
ZROBJ_EXTERN_C ZROBJ_API int RLE16DecompressChecked(WORD* destination, DWORD destinationSize, const void* block,
                                                    DWORD blockSize, DWORD stride, char* error, DWORD errorSize);
