// Loaded modules through dl_iterate_phdr (segments and build ids read from the program headers) and
// the memory map through /proc/self/maps, both without allocating.
#include "platform/modules.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/compiler.h"
#include "platform/crashio.h"
#include "platform/procinfo.h"

namespace zr::os {

extern "C" {
// Present only in processes built with AddressSanitizer.
ZR_WEAK void __asan_get_shadow_mapping(std::size_t* shadow_scale, std::size_t* shadow_offset);
}

namespace {

// The GNU build id note among the module's PT_NOTE segments.
void FindBuildId(const dl_phdr_info* info, ModuleInfo* m) {
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_NOTE) continue;
    const auto* p = reinterpret_cast<const std::uint8_t*>(info->dlpi_addr + ph.p_vaddr);
    const std::uint8_t* end = p + ph.p_memsz;
    while (p + sizeof(ElfW(Nhdr)) <= end) {
      const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
      const std::uint8_t* name = p + sizeof(ElfW(Nhdr));
      const std::uint8_t* desc = name + ((note->n_namesz + 3) & ~3u);
      const std::uint8_t* next = desc + ((note->n_descsz + 3) & ~3u);
      if (next > end) break;
      if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
        m->build_id = desc;
        m->build_id_size = note->n_descsz;
        return;
      }
      p = next;
    }
  }
}

void Describe(const dl_phdr_info* info, bool is_main, ModuleInfo* m) {
  *m = ModuleInfo{};
  m->is_main = is_main;
  m->path = is_main || !info->dlpi_name || !*info->dlpi_name ? ProcessImagePath() : info->dlpi_name;
  std::uintptr_t low = UINTPTR_MAX, high = 0, header = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    const std::uintptr_t start = info->dlpi_addr + ph.p_vaddr;
    low = start < low ? start : low;
    high = start + ph.p_memsz > high ? start + ph.p_memsz : high;
    if (ph.p_offset == 0) header = start;
    if (m->segment_count < ModuleInfo::kMaxSegments)
      m->segments[m->segment_count++] = {start, static_cast<std::size_t>(ph.p_memsz), (ph.p_flags & PF_W) != 0};
  }
  m->base = header ? header : (low == UINTPTR_MAX ? info->dlpi_addr : low);
  m->size = high > m->base ? high - m->base : 0;
  FindBuildId(info, m);
}

struct WalkState {
  ModuleVisitor visit;
  void* context;
  int count;
  bool stopped;
};

int VisitOne(dl_phdr_info* info, std::size_t, void* data) {
  auto* s = static_cast<WalkState*>(data);
  ModuleInfo m;
  Describe(info, s->count == 0, &m);
  ++s->count;
  if (!s->visit(m, s->context)) {
    s->stopped = true;
    return 1;
  }
  return 0;
}

struct FindState {
  std::uintptr_t address;
  ModuleInfo* out;
  bool found;
};

bool MatchAddress(const ModuleInfo& m, void* context) {
  auto* s = static_cast<FindState*>(context);
  for (int i = 0; i < m.segment_count; ++i) {
    const ModuleSegment& seg = m.segments[i];
    if (s->address >= seg.start && s->address - seg.start < seg.size) {
      *s->out = m;
      s->found = true;
      return false;
    }
  }
  return true;
}

std::uint64_t ParseHex(const char*& p) {
  std::uint64_t v = 0;
  for (;; ++p) {
    const char c = *p;
    if (c >= '0' && c <= '9') v = v * 16 + static_cast<unsigned>(c - '0');
    else if (c >= 'a' && c <= 'f') v = v * 16 + static_cast<unsigned>(c - 'a' + 10);
    else break;
  }
  return v;
}

// One line of /proc/self/maps: "start-end perms offset dev inode   path".
bool ParseMapsLine(const char* p, MemoryRegion* r) {
  *r = MemoryRegion{};
  r->start = ParseHex(p);
  if (*p++ != '-') return false;
  r->end = ParseHex(p);
  if (*p++ != ' ' || std::strlen(p) < 5) return false;
  r->readable = p[0] == 'r';
  r->writable = p[1] == 'w';
  r->executable = p[2] == 'x';
  r->shared = p[3] == 's';
  p += 4;
  while (*p == ' ') ++p;
  r->offset = ParseHex(p);
  for (int field = 0; field < 2; ++field) {  // device and inode
    while (*p == ' ') ++p;
    while (*p && *p != ' ') ++p;
  }
  while (*p == ' ') ++p;
  std::size_t n = 0;
  while (p[n] && n + 1 < sizeof r->path) {
    r->path[n] = p[n];
    ++n;
  }
  r->path[n] = 0;
  return true;
}

// Looks `vaddr` up in the full symbol table (.symtab) of an ELF file, reading it piecewise with pread:
// no allocation, and every offset checked, as the file may be anything.
void FindInSymbolTable(const char* path, std::uint64_t vaddr, std::uintptr_t bias, SymbolInfo* info) {
  RawFile file;
  ElfW(Ehdr) eh{};
  if (!file.Open(path, RawFile::Mode::kRead) || !file.ReadAt(0, &eh, sizeof eh)) return;
  if (std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 || eh.e_ident[EI_CLASS] != ELFCLASS64 ||
      eh.e_shentsize != sizeof(ElfW(Shdr)))
    return;
  ElfW(Shdr) symtab{}, strtab{};
  bool found = false;
  for (unsigned i = 0; i < eh.e_shnum && !found; ++i) {
    if (!file.ReadAt(eh.e_shoff + i * sizeof symtab, &symtab, sizeof symtab)) return;
    found = symtab.sh_type == SHT_SYMTAB && symtab.sh_entsize == sizeof(ElfW(Sym)) && symtab.sh_link < eh.e_shnum;
  }
  if (!found || !file.ReadAt(eh.e_shoff + symtab.sh_link * sizeof strtab, &strtab, sizeof strtab)) return;
  ElfW(Sym) chunk[256];
  const std::uint64_t count = symtab.sh_size / sizeof(ElfW(Sym));
  for (std::uint64_t first = 0; first < count; first += 256) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(256, count - first));
    if (!file.ReadAt(symtab.sh_offset + first * sizeof(ElfW(Sym)), chunk, n * sizeof(ElfW(Sym)))) return;
    for (std::size_t k = 0; k < n; ++k) {
      const ElfW(Sym)& s = chunk[k];
      if (s.st_shndx == SHN_UNDEF || s.st_size == 0 || vaddr < s.st_value || vaddr - s.st_value >= s.st_size) continue;
      if (s.st_name >= strtab.sh_size) return;
      const std::size_t room = sizeof info->name_storage - 1;
      const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(room, strtab.sh_size - s.st_name));
      if (!file.ReadAt(strtab.sh_offset + s.st_name, info->name_storage, want)) return;
      info->name_storage[want] = 0;
      info->symbol = info->name_storage;
      info->symbol_address = bias + s.st_value;
      info->symbol_size = s.st_size;
      return;
    }
  }
}

}  // namespace

int ForEachModule(ModuleVisitor visit, void* context) {
  if (!visit) return 0;
  WalkState s{visit, context, 0, false};
  dl_iterate_phdr(VisitOne, &s);
  return s.count;
}

bool FindModule(std::uintptr_t address, ModuleInfo* module) {
  if (!module || !address) return false;
  FindState s{address, module, false};
  ForEachModule(MatchAddress, &s);
  return s.found;
}

bool IsSystemModule(const char* path) {
  if (!path || path[0] != '/') return true;  // the vDSO and other nameless modules
  for (const char* dir : {"/lib/", "/lib64/", "/usr/lib/", "/usr/lib64/", "/usr/local/lib/"})
    if (std::strncmp(path, dir, std::strlen(dir)) == 0) return true;
  return false;
}

bool LookupSymbol(std::uintptr_t address, SymbolInfo* info) {
  if (!info) return false;
  *info = SymbolInfo{};
  Dl_info dl{};
  void* entry = nullptr;
  if (!address || !dladdr1(reinterpret_cast<void*>(address), &dl, &entry, RTLD_DL_SYMENT)) return false;
  const auto* sym = static_cast<const ElfW(Sym)*>(entry);
  info->module_base = reinterpret_cast<std::uintptr_t>(dl.dli_fbase);
  info->module_path = dl.dli_fname && dl.dli_fname[0] == '/' ? dl.dli_fname : ProcessImagePath();
  const std::size_t size = sym ? static_cast<std::size_t>(sym->st_size) : 0;
  const auto start = reinterpret_cast<std::uintptr_t>(dl.dli_saddr);
  if (dl.dli_sname && start && (size == 0 || address - start < size)) {
    info->symbol = dl.dli_sname;
    info->symbol_address = start;
    info->symbol_size = size;
    return true;
  }
  Dl_info again{};
  void* map = nullptr;
  if (dladdr1(reinterpret_cast<void*>(address), &again, &map, RTLD_DL_LINKMAP) && map) {
    const std::uintptr_t bias = static_cast<const link_map*>(map)->l_addr;
    FindInSymbolTable(info->module_path, address - bias, bias, info);
  }
  return true;
}

void DemangleName(const char* raw, char* out, std::size_t capacity) {
  if (!out || capacity == 0) return;
  out[0] = 0;
  if (!raw) return;
  int status = -1;
  char* demangled = raw[0] == '_' && raw[1] == 'Z' ? abi::__cxa_demangle(raw, nullptr, nullptr, &status) : nullptr;
  const char* text = status == 0 && demangled ? demangled : raw;
  std::size_t n = 0;
  for (; text[n] && n + 1 < capacity; ++n) out[n] = text[n];
  out[n] = 0;
  std::free(demangled);
}

int ForEachMemoryRegion(RegionVisitor visit, void* context) {
  RawFile maps;
  if (!visit || !maps.Open("/proc/self/maps", RawFile::Mode::kRead)) return 0;
  char chunk[4096];
  char line[512];
  std::size_t line_size = 0;
  int count = 0;
  for (;;) {
    const long n = maps.Read(chunk, sizeof chunk);
    if (n <= 0) break;
    for (long i = 0; i < n; ++i) {
      const char c = chunk[i];
      if (c != '\n') {
        if (line_size + 1 < sizeof line) line[line_size++] = c;
        continue;
      }
      line[line_size] = 0;
      line_size = 0;
      MemoryRegion region;
      if (!ParseMapsLine(line, &region)) continue;
      ++count;
      if (!visit(region, context)) return count;
    }
  }
  return count;
}

bool IsSanitizerShadow(std::uintptr_t start, std::uintptr_t end) {
  if (!__asan_get_shadow_mapping) return false;
  std::size_t scale = 0, offset = 0;
  __asan_get_shadow_mapping(&scale, &offset);
  constexpr std::uint64_t kAddressSpace = 1ull << 47;
  const std::uint64_t shadow_end = offset + (kAddressSpace >> scale);
  return start < shadow_end && end > offset;  // the sanitizer owns that whole range
}

}  // namespace zr::os
