// The minidump writer: an MDMP file (header, stream directory, system information, the crashing thread
// with its x86-64 context and stack, the loaded modules, the exception, memory, /proc texts and the
// thread register's dump) that debuggers open as a core. Runs inside the crash handler: no allocation,
// all bookkeeping in static tables (only one crash is ever written).
#include <algorithm>
#include <cstring>

#include "zrobj/byteorder.h"
#include "platform/clock.h"
#include "platform/crashio.h"
#include "platform/fault.h"
#include "platform/modules.h"
#include "platform/procinfo.h"
#include "frame/services/zrcrash_internal.h"

namespace zr {
namespace {

constexpr DWORD kSignature = 0x504D444Du;  // "MDMP"
constexpr DWORD kFormatVersion = 0xA793u;
constexpr DWORD kThreadListStream = 3;
constexpr DWORD kModuleListStream = 4;
constexpr DWORD kMemoryListStream = 5;
constexpr DWORD kExceptionStream = 6;
constexpr DWORD kSystemInfoStream = 7;
constexpr DWORD kMemory64ListStream = 9;
constexpr DWORD kMiscInfoStream = 15;
constexpr DWORD kMiscProcessId = 0x1;
constexpr DWORD kLinuxProcStatusStream = 0x47670003u;
constexpr DWORD kLinuxMapsStream = 0x47670009u;
constexpr WORD kArchitectureAmd64 = 9;
constexpr DWORD kPlatformLinux = 0x8201u;
constexpr DWORD kCvElfBuildId = 0x4270454Cu;  // "LEpB": a CodeView record carrying an ELF build id
constexpr std::uint64_t kMaxStackBytes = 1u << 20;
constexpr std::uint64_t kStackSearchReach = 1u << 20;  // an overflowed stack pointer lies below its mapping
constexpr int kMaxStreams = 10;
constexpr int kMaxModules = 1024;
constexpr int kMaxRanges = 16384;
constexpr std::size_t kModuleRecordSize = 108;
constexpr std::size_t kPage = 4096;

struct Range {
  std::uint64_t start;
  std::uint64_t size;
};

struct ModuleEntry {
  std::uint64_t base, size;
  const char* path;
  const std::uint8_t* build_id;
  std::size_t build_id_size;
  os::ModuleSegment segments[os::ModuleInfo::kMaxSegments];
  int segment_count;
};

ModuleEntry g_modules[kMaxModules];
int g_module_count = 0;
Range g_ranges[kMaxRanges];
DWORD g_range_rva[kMaxRanges];
int g_range_count = 0;
alignas(16) std::uint8_t g_chunk[256 * 1024];

// A little-endian record being assembled.
class Bytes {
 public:
  Bytes& U8(std::uint8_t v) { return Raw(&v, 1); }
  Bytes& U16(std::uint16_t v) { return Word(v); }
  Bytes& U32(std::uint32_t v) { return Word(v); }
  Bytes& U64(std::uint64_t v) { return Word(v); }
  Bytes& Zeros(std::size_t n) {
    n = std::min(n, sizeof buffer_ - size_);
    std::memset(buffer_ + size_, 0, n);
    size_ += n;
    return *this;
  }
  Bytes& Raw(const void* data, std::size_t n) {
    n = std::min(n, sizeof buffer_ - size_);
    std::memcpy(buffer_ + size_, data, n);
    size_ += n;
    return *this;
  }
  const std::uint8_t* data() const { return buffer_; }
  std::size_t size() const { return size_; }

 private:
  template <class T>
  Bytes& Word(T v) {
    std::uint8_t bytes[sizeof(T)];
    zr::StoreLE(bytes, v);
    return Raw(bytes, sizeof bytes);
  }

  std::uint8_t buffer_[256];
  std::size_t size_ = 0;
};

// The output file, filled front to back; every piece's position is its RVA.
class DumpFile {
 public:
  bool Open(const char* path) { return file_.Open(path, os::RawFile::Mode::kTruncate); }
  std::uint64_t position() const { return position_; }
  bool ok() const { return ok_; }
  void Align(std::uint64_t to) { position_ = (position_ + to - 1) & ~(to - 1); }
  bool WriteAt(std::uint64_t at, const void* data, std::size_t n) {
    ok_ = file_.WriteAt(at, data, n) && ok_;
    return ok_;
  }
  DWORD Append(const void* data, std::size_t n) {
    const std::uint64_t at = position_;
    WriteAt(at, data, n);
    position_ += n;
    return static_cast<DWORD>(at);
  }
  DWORD Append(const Bytes& b) { return Append(b.data(), b.size()); }
  DWORD Append32(std::uint32_t v) { return Append(Bytes().U32(v)); }
  // Process memory; what cannot be read is written as zeros, page by page.
  void AppendMemory(std::uint64_t start, std::uint64_t size) {
    while (size > 0) {
      const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(size, sizeof g_chunk));
      if (!os::ProbeRead(reinterpret_cast<const void*>(start), g_chunk, n)) {
        for (std::size_t off = 0; off < n; off += kPage) {
          const std::size_t part = std::min(kPage, n - off);
          if (!os::ProbeRead(reinterpret_cast<const void*>(start + off), g_chunk + off, part))
            std::memset(g_chunk + off, 0, part);
        }
      }
      Append(g_chunk, n);
      start += n;
      size -= n;
    }
  }
  // The whole text of a (/proc) file; returns its size.
  DWORD AppendFile(const char* path) {
    os::RawFile in;
    if (!in.Open(path, os::RawFile::Mode::kRead)) return 0;
    std::uint64_t total = 0;
    for (long n; (n = in.Read(g_chunk, sizeof g_chunk)) > 0; total += static_cast<std::uint64_t>(n))
      Append(g_chunk, static_cast<std::size_t>(n));
    return static_cast<DWORD>(total);
  }

 private:
  os::RawFile file_;
  std::uint64_t position_ = 0;
  bool ok_ = true;
};

struct Directory {
  DWORD type[kMaxStreams];
  DWORD size[kMaxStreams];
  DWORD rva[kMaxStreams];
  int count = 0;
  void Add(DWORD t, DWORD s, DWORD r) {
    if (count == kMaxStreams) return;
    type[count] = t, size[count] = s, rva[count] = r;
    ++count;
  }
};

void AddRange(std::uint64_t start, std::uint64_t size) {
  if (size == 0 || g_range_count == kMaxRanges) return;
  g_ranges[g_range_count++] = {start, size};
}

bool CollectModule(const os::ModuleInfo& m, void*) {
  if (g_module_count == kMaxModules) return false;
  if (!m.is_main && (!m.path || !*m.path)) return true;  // nameless objects such as the vDSO
  ModuleEntry& e = g_modules[g_module_count++];
  e.base = m.base, e.size = m.size, e.path = m.path;
  e.build_id = m.build_id, e.build_id_size = m.build_id_size;
  e.segment_count = m.segment_count;
  std::copy_n(m.segments, m.segment_count, e.segments);
  return true;
}

// The crashing thread's stack: from just below the stack pointer up its mapping, at most 1 MiB.
struct StackSearch {
  std::uint64_t sp;
  Range found;
};

bool FindStack(const os::MemoryRegion& r, void* context) {
  auto* s = static_cast<StackSearch*>(context);
  const bool contains = s->sp >= r.start && s->sp < r.end;
  const bool just_above = r.start > s->sp && r.start - s->sp <= kStackSearchReach;
  if (!contains && !just_above) return true;
  const std::uint64_t low = contains ? std::max<std::uint64_t>(r.start, (s->sp - 128) & ~std::uint64_t{15}) : r.start;
  const std::uint64_t high = std::min<std::uint64_t>(r.end, low + kMaxStackBytes);
  s->found = {low, high - low};
  return false;
}

bool IsDumpableRegion(const os::MemoryRegion& r) {
  if (!r.readable || r.end <= r.start || os::IsSanitizerShadow(r.start, r.end)) return false;
  if (std::strcmp(r.path, "[vvar]") == 0 || std::strcmp(r.path, "[vsyscall]") == 0) return false;
  return std::strncmp(r.path, "/dev/", 5) != 0 || std::strncmp(r.path, "/dev/shm/", 9) == 0 ||
         std::strcmp(r.path, "/dev/zero") == 0;
}

bool CollectRegion(const os::MemoryRegion& r, void*) {
  if (IsDumpableRegion(r)) AddRange(r.start, r.end - r.start);
  return g_range_count < kMaxRanges;
}

// A MINIDUMP_STRING: byte length, UTF-16 text, terminator.
DWORD AppendString(DumpFile& out, const char* text) {
  char16_t wide[1024];
  const std::size_t units = os::Utf8ToUtf16Fixed(text ? text : "", wide, 1024);
  out.Align(4);
  const DWORD bytes = static_cast<DWORD>(units * 2);
  const DWORD rva = out.Append32(bytes);
  out.Append(wide, (units + 1) * 2);
  return rva;
}

DWORD WriteSystemInfo(DumpFile& out) {
  const DWORD csd = AppendString(out, "");
  os::SystemFigures figures;
  os::GetSystemFigures(&figures);
  Bytes b;
  b.U16(kArchitectureAmd64).U16(6).U16(0);
  b.U8(static_cast<std::uint8_t>(std::min<std::uint32_t>(figures.processors, 255))).U8(1);  // a workstation
  b.U32(0).U32(0).U32(0).U32(kPlatformLinux).U32(csd).U16(0).U16(0).Zeros(24);
  out.Align(4);
  return out.Append(b);
}

std::uint32_t SignalNumber(const MinidumpRequest& q) {
  if (q.fault) return static_cast<std::uint32_t>(q.fault->signal);
  return static_cast<std::uint32_t>(os::SignalOfExceptionCode(q.pointers->ExceptionRecord->ExceptionCode));
}

// The exception as POSIX readers expect it: the signal as code, its si_code as flags and the address the
// signal names; the exception code and the instruction address follow as parameters.
DWORD WriteException(DumpFile& out, const MinidumpRequest& q, DWORD context_rva) {
  const EXCEPTION_RECORD& rec = *q.pointers->ExceptionRecord;
  const std::uint64_t instruction = reinterpret_cast<std::uintptr_t>(rec.ExceptionAddress);
  const std::uint64_t data = q.fault ? q.fault->data_address : instruction;
  Bytes b;
  b.U32(q.thread_id).U32(0);
  b.U32(SignalNumber(q)).U32(q.fault ? static_cast<std::uint32_t>(q.fault->signal_code) : 0).U64(0).U64(data);
  b.U32(3).U32(0).U64(rec.ExceptionCode).U64(instruction).U64(data).Zeros(12 * 8);
  b.U32(sizeof(CONTEXT)).U32(context_rva);
  out.Align(8);
  return out.Append(b);
}

DWORD WriteThreadList(DumpFile& out, DWORD thread_id, const Range& stack, DWORD stack_rva, DWORD context_rva) {
  Bytes b;
  b.U32(1);
  b.U32(thread_id).U32(0).U32(0).U32(0).U64(0);
  b.U64(stack.start).U32(static_cast<DWORD>(stack.size)).U32(stack_rva);
  b.U32(sizeof(CONTEXT)).U32(context_rva);
  out.Align(4);
  return out.Append(b);
}

DWORD WriteModuleList(DumpFile& out, DWORD* size) {
  DWORD name_rva[kMaxModules];
  DWORD cv_rva[kMaxModules];
  DWORD cv_size[kMaxModules];
  for (int i = 0; i < g_module_count; ++i) {
    const ModuleEntry& m = g_modules[i];
    name_rva[i] = AppendString(out, m.path);
    cv_rva[i] = cv_size[i] = 0;
    if (m.build_id && m.build_id_size) {
      out.Align(4);
      cv_rva[i] = out.Append32(kCvElfBuildId);
      out.Append(m.build_id, m.build_id_size);
      cv_size[i] = static_cast<DWORD>(4 + m.build_id_size);
    }
  }
  out.Align(4);
  const DWORD count = static_cast<DWORD>(g_module_count);
  const DWORD rva = out.Append32(count);
  for (int i = 0; i < g_module_count; ++i) {
    const ModuleEntry& m = g_modules[i];
    Bytes b;
    b.U64(m.base).U32(static_cast<DWORD>(m.size)).U32(0).U32(0).U32(name_rva[i]);
    b.Zeros(13 * 4);  // no version resource
    b.U32(cv_size[i]).U32(cv_rva[i]).U32(0).U32(0).U64(0).U64(0);
    out.Append(b);
  }
  *size = static_cast<DWORD>(4 + kModuleRecordSize * g_module_count);
  return rva;
}

// Memory for the normal and data-segment levels: each range's bytes, then the list.
DWORD WriteMemoryList(DumpFile& out, const Range& stack, DWORD stack_rva, DWORD* size) {
  for (int i = 0; i < g_range_count; ++i) {
    out.Align(16);
    g_range_rva[i] = static_cast<DWORD>(out.position());
    out.AppendMemory(g_ranges[i].start, g_ranges[i].size);
  }
  out.Align(4);
  const DWORD count = static_cast<DWORD>(g_range_count + 1);
  const DWORD list = out.Append32(count);
  Bytes s;
  s.U64(stack.start).U32(static_cast<DWORD>(stack.size)).U32(stack_rva);
  out.Append(s);
  for (int i = 0; i < g_range_count; ++i) {
    Bytes b;
    b.U64(g_ranges[i].start).U32(static_cast<DWORD>(g_ranges[i].size)).U32(g_range_rva[i]);
    out.Append(b);
  }
  *size = 4 + 16 * count;
  return list;
}

// Full memory: the list of ranges, then all their bytes in one run (it must come last: 64-bit offsets).
DWORD WriteMemory64List(DumpFile& out, DWORD* size) {
  out.Align(8);
  const std::uint64_t count = static_cast<std::uint64_t>(g_range_count);
  const std::uint64_t base = out.position() + 16 + 16 * count;
  Bytes head;
  head.U64(count).U64(base);
  const DWORD rva = out.Append(head);
  for (int i = 0; i < g_range_count; ++i) {
    Bytes b;
    b.U64(g_ranges[i].start).U64(g_ranges[i].size);
    out.Append(b);
  }
  for (int i = 0; i < g_range_count; ++i) out.AppendMemory(g_ranges[i].start, g_ranges[i].size);
  *size = static_cast<DWORD>(16 + 16 * count);
  return rva;
}

void CollectRanges(int level, const Range& stack) {
  g_range_count = 0;
  if (level >= 3) {
    os::ForEachMemoryRegion(CollectRegion, nullptr);
    return;
  }
  if (level < 2) return;
  for (int i = 0; i < g_module_count; ++i)
    for (int k = 0; k < g_modules[i].segment_count; ++k) {
      const os::ModuleSegment& seg = g_modules[i].segments[k];
      const bool overlaps_stack = seg.start < stack.start + stack.size && stack.start < seg.start + seg.size;
      if (seg.writable && !overlaps_stack) AddRange(seg.start, seg.size);
    }
}

}  // namespace

bool WriteMinidump(const MinidumpRequest& q) {
  if (!q.path || !q.pointers || !q.pointers->ExceptionRecord || !q.pointers->ContextRecord) return false;
  DumpFile out;
  if (!out.Open(q.path)) return false;
  const CONTEXT& context = *q.pointers->ContextRecord;
  const int level = q.level < 1 ? 1 : q.level;
  const int stream_count = (q.user_block && q.user_size ? 1 : 0) + 8;
  // Header and directory are written last, in front of everything.
  const std::uint8_t zeros[32 + 12 * kMaxStreams] = {};
  out.Append(zeros, 32 + 12 * static_cast<std::size_t>(stream_count));
  Directory dir;

  dir.Add(kSystemInfoStream, 56, WriteSystemInfo(out));
  Bytes misc;
  misc.U32(24).U32(kMiscProcessId).U32(os::CurrentProcessId()).U32(0).U32(0).U32(0);
  dir.Add(kMiscInfoStream, 24, out.Append(misc));
  out.Align(16);
  const DWORD context_rva = out.Append(&context, sizeof context);

  StackSearch search{context.Rsp, {0, 0}};
  os::ForEachMemoryRegion(FindStack, &search);
  out.Align(16);
  const DWORD stack_rva = static_cast<DWORD>(out.position());
  out.AppendMemory(search.found.start, search.found.size);
  dir.Add(kThreadListStream, 4 + 48, WriteThreadList(out, q.thread_id, search.found, stack_rva, context_rva));
  dir.Add(kExceptionStream, 168, WriteException(out, q, context_rva));

  g_module_count = 0;
  os::ForEachModule(CollectModule, nullptr);
  DWORD size = 0;
  const DWORD modules_rva = WriteModuleList(out, &size);
  dir.Add(kModuleListStream, size, modules_rva);

  for (const auto& [type, path] : {std::pair{kLinuxMapsStream, "/proc/self/maps"},
                                   std::pair{kLinuxProcStatusStream, "/proc/self/status"}}) {
    const DWORD rva = static_cast<DWORD>(out.position());
    dir.Add(type, out.AppendFile(path), rva);
  }
  if (q.user_block && q.user_size) {
    out.Align(8);
    dir.Add(kMinidumpThreadDumpStream, static_cast<DWORD>(q.user_size), out.Append(q.user_block, q.user_size));
  }

  CollectRanges(level, search.found);
  if (level >= 3) {
    const DWORD rva = WriteMemory64List(out, &size);
    dir.Add(kMemory64ListStream, size, rva);
  } else {
    const DWORD rva = WriteMemoryList(out, search.found, stack_rva, &size);
    dir.Add(kMemoryListStream, size, rva);
  }

  Bytes header;
  const std::uint64_t flags = level >= 3 ? 2 : level == 2 ? 1 : 0;  // full memory / data segments / normal
  header.U32(kSignature).U32(kFormatVersion).U32(static_cast<DWORD>(dir.count)).U32(32).U32(0);
  constexpr std::uint64_t kUnixEpochAsFileTime = 116444736000000000ull;
  header.U32(static_cast<DWORD>((os::GetSystemTimeAsFileTime() - kUnixEpochAsFileTime) / 10000000u)).U64(flags);
  out.WriteAt(0, header.data(), header.size());
  for (int i = 0; i < dir.count; ++i) {
    Bytes e;
    e.U32(dir.type[i]).U32(dir.size[i]).U32(dir.rva[i]);
    out.WriteAt(32 + 12 * static_cast<std::uint64_t>(i), e.data(), e.size());
  }
  return out.ok();
}

bool ExceptionFromFault(const os::FaultRecord& f, EXCEPTION_RECORD* rec, CONTEXT* ctx) {
  *rec = EXCEPTION_RECORD{};
  rec->ExceptionCode = f.code;
  rec->ExceptionAddress = reinterpret_cast<void*>(f.address);
  if (f.code == 0xC0000005u || f.code == 0xC0000006u || f.code == 0xC00000FDu) {
    // As the system reports access faults: 0 read, 1 write, 8 execution; then the address.
    rec->NumberParameters = 2;
    rec->ExceptionInformation[0] = (f.fault_flags & 0x10) ? 8 : (f.fault_flags & 0x2) ? 1 : 0;
    rec->ExceptionInformation[1] = f.data_address;
  }
  std::memset(static_cast<void*>(ctx), 0, sizeof *ctx);
  if (!f.has_registers) return false;
  const os::FaultRegisters& r = f.registers;
  ctx->ContextFlags = CONTEXT_CONTROL | CONTEXT_INTEGER | CONTEXT_SEGMENTS | (r.has_fxsave ? CONTEXT_FLOATING_POINT : 0);
  ctx->MxCsr = r.mxcsr;
  ctx->SegCs = r.cs, ctx->SegDs = r.ds, ctx->SegEs = r.es, ctx->SegFs = r.fs, ctx->SegGs = r.gs, ctx->SegSs = r.ss;
  ctx->EFlags = static_cast<DWORD>(r.eflags);
  ctx->Rax = r.rax, ctx->Rcx = r.rcx, ctx->Rdx = r.rdx, ctx->Rbx = r.rbx;
  ctx->Rsp = r.rsp, ctx->Rbp = r.rbp, ctx->Rsi = r.rsi, ctx->Rdi = r.rdi;
  ctx->R8 = r.r8, ctx->R9 = r.r9, ctx->R10 = r.r10, ctx->R11 = r.r11;
  ctx->R12 = r.r12, ctx->R13 = r.r13, ctx->R14 = r.r14, ctx->R15 = r.r15;
  ctx->Rip = r.rip;
  if (r.has_fxsave) std::memcpy(&ctx->FltSave, r.fxsave, sizeof ctx->FltSave);
  return true;
}

}  // namespace zr
