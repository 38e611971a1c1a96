// Thread-local storage indices (the TlsAlloc family): one pointer per thread under each index.
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::os {

inline constexpr DWORD TLS_OUT_OF_INDEXES = 0xFFFFFFFFu;

// A new index whose value is null in every thread; TLS_OUT_OF_INDEXES on failure.
DWORD TlsAlloc();
BOOL TlsFree(DWORD index);
// Null for an index never set in the calling thread (or not allocated).
void* TlsGetValue(DWORD index);
BOOL TlsSetValue(DWORD index, void* value);

}  // namespace zr::os
