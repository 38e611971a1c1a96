// Symbol visibility for the library's interface: ZROBJ_API marks what libzrobju.so exports.
#pragma once

#if defined(ZROBJ_BUILDING_LIBRARY)
#define ZROBJ_API __attribute__((visibility("default")))
#else
#define ZROBJ_API
#endif

// Plain exported functions keep unmangled names, as the suite's modules bind them by name.
#define ZROBJ_EXTERN_C extern "C"
