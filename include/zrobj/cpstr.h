// The library's strings: conversions between narrow (UTF-8) and wide (UTF-16) text buffers and the
// repair of fixed-size text fields loaded from disk.
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Every conversion works on 0-terminated text. A conversion into a buffer writes whole characters
// only; "the converter's count" is the number of units (or bytes) written including the terminator
// when the whole text fitted, and 0 when it had to be cut (the buffer then holds the cut text,
// terminated). Malformed input converts to U+FFFD.

// Empties a text field of `bytes` bytes: a 0 unit at its start and in its last whole unit. 0 (and
// nothing written) when bytes < 3, else 1.
ZROBJ_EXTERN_C ZROBJ_API int DF_Init(void* buffer, UINT bytes);
// Repairs a fixed-size text field after loading, by its last unit: 0 means it is wide text already;
// 1 or 2 that it holds narrow text, which is converted to wide in place; anything else that it holds
// wide text meant to be narrow, which is converted to narrow in place. The last unit is 0 after
// any conversion. 1 on success (also when bytes < 3); 0 when no temporary could be had.
ZROBJ_EXTERN_C ZROBJ_API int DF_LoadInit(void* buffer, UINT bytes);

// Bytes needed for the wide form including the terminator: null -> 0, empty -> 2.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_WideBufferSize(const char* text);
// Bytes needed for the narrow form including the terminator: null -> 0, empty -> 1.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ANSIBufferSize(const WCHAR* text);
// Units of the wide form / bytes of the narrow form, without the terminator; 0 for null or empty.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_WideLen(const char* text);
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ANSILen(const WCHAR* text);

// Converts `src` into at most `units` units of `dest`, then sets dest[units - 1] = 0; returns the
// converter's count, 0 when any argument is 0 or null.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToWideBuffer(WCHAR* dest, const char* src, UINT units);
// The same into at most `bytes` bytes, dest[bytes - 1] = 0.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToANSIBuffer(char* dest, const WCHAR* src, UINT bytes);
// As DF_ToANSIBuffer, but a character without a narrow form (a lone surrogate) becomes "_" where
// DF_ToANSIBuffer writes U+FFFD: file names keep one character per unconvertible unit.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToANSIPath(char* dest, const WCHAR* src, UINT bytes);
