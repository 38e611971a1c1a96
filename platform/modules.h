// The loaded modules (the program and its shared objects) and the process's memory map, walked
// without allocating so that the crash handler and the minidump writer can use them.
#pragma once

#include <cstddef>
#include <cstdint>


namespace zr::os {

struct ModuleSegment {
  std::uintptr_t start = 0;
  std::size_t size = 0;
  bool writable = false;
};

struct ModuleInfo {
  const char* path = "";           // full file name (the program's own for the main module)
  std::uintptr_t base = 0;         // address of the module's file header in memory
  std::uint64_t size = 0;          // from the base to the end of its last loaded segment
  const std::uint8_t* build_id = nullptr;  // the GNU build id note, when present
  std::size_t build_id_size = 0;
  static constexpr int kMaxSegments = 16;
  ModuleSegment segments[kMaxSegments];
  int segment_count = 0;
  bool is_main = false;
};

// Calls `visit` for each loaded module in load order (the program first) until it returns false;
// returns the number visited.
using ModuleVisitor = bool (*)(const ModuleInfo& module, void* context);
int ForEachModule(ModuleVisitor visit, void* context);

// The module one of whose loaded segments contains `address`; false when none does.
bool FindModule(std::uintptr_t address, ModuleInfo* module);

// True for modules of the operating system (under /lib, /usr/lib, ... or without a file).
bool IsSystemModule(const char* path);

// The symbol that contains an address: from the dynamic symbol table, else from the full symbol table
// of the module's file (static functions, programs not linked for export).
struct SymbolInfo {
  const char* module_path = "";    // file name of the module (valid while it stays loaded)
  std::uintptr_t module_base = 0;
  const char* symbol = nullptr;    // raw (mangled) name; null when unknown
  std::uintptr_t symbol_address = 0;
  std::size_t symbol_size = 0;     // 0 when unknown
  char name_storage[512] = {};     // holds a name read from the file
};
// False when no module contains the address.
bool LookupSymbol(std::uintptr_t address, SymbolInfo* info);
// Demangles a C++ name into `out`, cut to fit; a name that is not mangled is copied as it is.
void DemangleName(const char* raw, char* out, std::size_t capacity);

struct MemoryRegion {
  std::uintptr_t start = 0, end = 0;
  bool readable = false, writable = false, executable = false, shared = false;
  std::uint64_t offset = 0;
  char path[256] = {};  // the mapped file or a pseudo name such as [stack]; cut to fit
};
// Calls `visit` for each mapping of the process (from /proc/self/maps) until it returns false.
using RegionVisitor = bool (*)(const MemoryRegion& region, void* context);
int ForEachMemoryRegion(RegionVisitor visit, void* context);

// True when [start, end) overlaps a sanitizer's shadow memory (huge reservations that are no part
// of the program's data).
bool IsSanitizerShadow(std::uintptr_t start, std::uintptr_t end);

}  // namespace zr::os
