// String, buffer and array utilities: legal file names, separated string lists, masked copies, hex
// text, and the library's own quicksort and lower-bound search over arrays of fixed-size elements.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Compares two elements (for zrqsearch: the key, then an element): < 0, 0 or > 0. qsort-compatible.
using ZRCOMPAREPROC = int (*)(const void*, const void*);

// ---- File names -------------------------------------------------------------------------------
// The nine characters \ / : * ? " < > | are each replaced by '_'.

// In place, up to the terminator; returns `name` (null stays null).
ZROBJ_EXTERN_C ZROBJ_API char* LegalizeFilenameA(char* name);
ZROBJ_EXTERN_C ZROBJ_API WCHAR* LegalizeFilenameW(WCHAR* name);
// Copies at most size - 1 characters of `source` (legalised) and terminates `destination`. The bound
// is unsigned: size 1 gives an empty string, size 0 no limit at all. Returns `destination`.
ZROBJ_EXTERN_C ZROBJ_API char* LegalizeBufferA(char* destination, const char* source, UINT size);
ZROBJ_EXTERN_C ZROBJ_API WCHAR* LegalizeBufferW(WCHAR* destination, const WCHAR* source, UINT size);

// ---- Separated lists --------------------------------------------------------------------------

// Appends `separator` (only when `destination` is not empty) and then `source` (nothing when null).
// 0 when destination is null or separator is 0, else 1. The destination must have room.
ZROBJ_EXTERN_C ZROBJ_API int strAppend(WCHAR* destination, const WCHAR* source, WCHAR separator);

// Index of the first entry equal to `text` ignoring ASCII case, -1 when none (or count <= 0).
ZROBJ_EXTERN_C ZROBJ_API int strIndex(const WCHAR* text, const WCHAR* const* entries, int count);

// Item `index` (from 0) of a `separator`-separated list, the reverse of strAppend: "" holds no items,
// "a;;b" holds "a", "" and "b", and "a;" holds "a" and "". Copies at most size - 1 characters of the
// item into `item` (terminated when size > 0; item may be null with size 0) and returns the item's
// full length, or -1 when there is no such item (null text, negative index, past the last item).
ZROBJ_EXTERN_C ZROBJ_API int strGetTagA(const char* text, int index, char separator, char* item, UINT size);
ZROBJ_EXTERN_C ZROBJ_API int strGetTagW(const WCHAR* text, int index, WCHAR separator, WCHAR* item, UINT size);

// Left-justifies `source` in a field of exactly `width` characters: cut when longer, padded with
// spaces when shorter (null source = all spaces), terminated at destination[width], so the
// destination holds width + 1 characters. Returns `destination`.
ZROBJ_EXTERN_C ZROBJ_API char* LSetStringA(char* destination, const char* source, UINT width);
ZROBJ_EXTERN_C ZROBJ_API WCHAR* LSetStringW(WCHAR* destination, const WCHAR* source, UINT width);

// ---- Buffers ----------------------------------------------------------------------------------

// destination = (destination AND NOT mask) OR (source AND mask) for each of `count` bytes; `mask`
// is a buffer of `count` bytes. Whole 32-bit words first, then the remaining bytes.
ZROBJ_EXTERN_C ZROBJ_API void PatCpy(void* destination, const void* source, const void* mask, UINT count);

// 1 when all `count` bytes are zero (also for count 0), else 0 (also for a null block of count > 0).
ZROBJ_EXTERN_C ZROBJ_API int IsZeroMemory(const void* block, UINT count);

// Swaps the contents of two Non-Overlapping blocks of `count` bytes: 1 done (count 0 included), 0 and
// nothing changed when they overlap or one is null.
ZROBJ_EXTERN_C ZROBJ_API int SwapNOMemory(void* first, void* second, UINT count);

// Writes 2 upper-case hex digits per byte and a terminator (text holds 2 * count + 1 characters);
// returns the digits written.
ZROBJ_EXTERN_C ZROBJ_API UINT Bin2HexCode(const void* data, UINT count, char* text);
// Reads pairs of hex digits (either case) up to the terminator into `data` (room for `size` bytes)
// and returns the bytes written; 0xFFFFFFFF and nothing written when the text is null, has an odd
// number of digits or another character, or decodes to more than `size` bytes.
ZROBJ_EXTERN_C ZROBJ_API UINT HexCode2Bin(const char* text, void* data, UINT size);

// ---- Sorting and searching --------------------------------------------------------------------

// Non-recursive quicksort (middle pivot, selection sort for ranges of 8 or fewer). Not stable: the
// order it leaves equal elements in is fixed by the algorithm and relied upon.
ZROBJ_EXTERN_C ZROBJ_API void zrqsort(void* base, UINT count, UINT size, ZRCOMPAREPROC compare);

// Lower bound: the first index whose element compares >= key (count when none); 0 when count,
// base, key or size is 0.
ZROBJ_EXTERN_C ZROBJ_API UINT zrqsearch(const void* key, const void* base, UINT count, UINT size,
                                        ZRCOMPAREPROC compare);
