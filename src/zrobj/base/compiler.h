// Compiler attributes of the library and its platform layer, under one spelling each.
#pragma once

// Keeps a function out of line: rare paths stay out of the hot code, and stack frames stay visible.
#define ZR_NOINLINE __attribute__((noinline))
// Marks a function as rarely called: optimised for size and placed apart from the hot code.
#define ZR_COLD __attribute__((cold))
// An inline function that is always inlined, also in unoptimised builds.
#define ZR_ALWAYS_INLINE inline __attribute__((always_inline))
// Branch hints for conditions that hold (or fail) almost always.
#define ZR_LIKELY(condition) __builtin_expect(!!(condition), 1)
#define ZR_UNLIKELY(condition) __builtin_expect(!!(condition), 0)
// Checks the arguments of a printf-style function; the positions count from 1.
#define ZR_PRINTF_FORMAT(format_index, first_arg_index) __attribute__((format(printf, format_index, first_arg_index)))
// Leaves a function out of the named sanitizers' instrumentation.
#define ZR_NO_SANITIZE(...) __attribute__((no_sanitize(__VA_ARGS__)))
// A weak declaration: the symbol may be absent, or defined by whichever object provides it.
#define ZR_WEAK __attribute__((weak))
// A thread_local reached without a call, for the executable and libraries loaded with it.
#define ZR_TLS_INITIAL_EXEC __attribute__((tls_model("initial-exec")))
// A symbol kept inside the shared object even when its header is otherwise exported.
#define ZR_HIDDEN __attribute__((visibility("hidden")))
