// zrtool chunks: prints the chunk tree of a chunk archive file, and writes a sample one.
//
// A chunk is an 8-byte little-endian header {id, size} followed by `size` data bytes; chunks lie
// end to end, and a chunk's data may itself be such a run. The format has no marker for that, so
// the dump decides by looking (see SubChunkVerdict):
//   - an id is plausible when it is 0xFC00 (unnamed) or has bits 10-15 clear, as every hash id has;
//   - data hold sub-chunks when they parse completely as plausible chunks, end to end;
//   - data that start as chunks but then stop fitting are shown as sub-chunks followed by the
//     point where they stop making sense, when what was seen is convincing (a chunk named by
//     --names, also the one that does not fit, or at least two plausible chunks); that counts
//     as damage;
//   - anything else is opaque data, with a short preview;
//   - nothing deeper than 16 levels is taken for chunks (writers cannot nest further).
// The top level must parse completely; where it does not, the file is reported as damaged.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "tools/zrtool/demo.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpmem.h"
#include "zrobj/zrhash.h"

namespace zrtool {
namespace {

int RunChunks(const Args& args);

const Command kChunks = {
    "chunks", "print the chunk tree of a chunk archive, or write a sample one",
    "usage: zrtool chunks dump FILE [--names NAME,NAME,...]\n"
    "       zrtool chunks demo OUT\n\n"
    "dump   prints every chunk with its offset, id (hex), data size and nesting; ids that are the\n"
    "       hash of a NAME given with --names are shown by name. Whether a chunk's data hold\n"
    "       sub-chunks is decided by looking: they must parse as chunks with plausible ids (hash\n"
    "       ids have bits 10-15 clear; FC00 is an unnamed chunk). Where the data stop making sense\n"
    "       as chunks the dump says so; a damaged file ends with exit status 1.\n"
    "demo   writes a small nested archive to OUT through the library and prints the names to\n"
    "       pass to dump.\n",
    RunChunks};

ZRTOOL_COMMAND(kChunks);

constexpr std::size_t kHeaderSize = 8;
constexpr unsigned kMaxDepth = CHNK_MAX_LEVELS;
constexpr std::size_t kPreviewBytes = 16;
constexpr std::uintmax_t kMaxFileSize = 0xFFFFFFFFu;  // chunk offsets are 32-bit

using Bytes = std::vector<unsigned char>;
using Names = std::map<DWORD, std::string>;

DWORD Get32(const Bytes& data, std::size_t at) {
  return DWORD{data[at]} | DWORD{data[at + 1]} << 8 | DWORD{data[at + 2]} << 16 | DWORD{data[at + 3]} << 24;
}

bool PlausibleId(DWORD id) { return id == CHNK_UNNAMED_ID || (id & 0xFC00u) == 0; }

struct Span {
  std::size_t offset;  // of the header
  DWORD id;
  DWORD size;          // as the header claims
  std::size_t present;  // data bytes there: the size, or fewer for a chunk cut short
  std::size_t data() const { return offset + kHeaderSize; }
  std::size_t end() const { return data() + present; }
};

// The chunks laid end to end in [begin, end), up to the first place that is not one.
struct Run {
  std::vector<Span> chunks;
  std::size_t stop = 0;  // where parsing stopped; the end when everything parsed
  std::string reason;    // why it stopped early
  bool has_cut = false;  // it stopped at a plausible chunk that claims more than there is
  Span cut{};
  bool complete() const { return reason.empty(); }
};

char HexDigit(unsigned v) { return "0123456789ABCDEF"[v & 15]; }
std::string Hex32(DWORD v) {
  std::string out(8, '0');
  for (int i = 7; i >= 0; --i, v >>= 4) out[i] = HexDigit(v);
  return out;
}

Run ScanRun(const Bytes& data, std::size_t begin, std::size_t end) {
  Run run;
  std::size_t at = begin;
  while (at < end) {
    if (end - at < kHeaderSize) {
      run.reason = std::to_string(end - at) + " byte(s) left, too few for a chunk header";
      break;
    }
    const Span span{at, Get32(data, at), Get32(data, at + 4), 0};
    if (!PlausibleId(span.id)) {
      run.reason = "id " + Hex32(span.id) + " is no hash id (bits 10-15 set)";
      break;
    }
    if (span.size > end - span.data()) {
      run.reason = "chunk " + Hex32(span.id) + " claims " + std::to_string(span.size) + " bytes, only " +
                   std::to_string(end - span.data()) + " remain";
      run.has_cut = true;
      run.cut = Span{at, span.id, span.size, end - span.data()};
      break;
    }
    run.chunks.push_back(Span{at, span.id, span.size, span.size});
    at = run.chunks.back().end();
  }
  run.stop = at;
  return run;
}

enum class Verdict { kData, kChunks, kDamagedChunks };

// See the file comment: complete runs are chunks; a convincing start that breaks off is damage.
Verdict SubChunkVerdict(const Run& run, const Names& names) {
  if (run.complete()) return run.chunks.empty() ? Verdict::kData : Verdict::kChunks;
  const bool named = std::any_of(run.chunks.begin(), run.chunks.end(),
                                 [&](const Span& s) { return names.count(s.id) != 0; }) ||
                     (run.has_cut && names.count(run.cut.id) != 0);
  return named || run.chunks.size() >= 2 ? Verdict::kDamagedChunks : Verdict::kData;
}

class Dumper {
 public:
  Dumper(const Bytes& data, const Names& names) : data_(data), names_(names) {}

  // Prints the tree; false when the file is damaged.
  bool Dump() {
    std::printf("  offset        id        size  chunk\n");
    const Run top = ScanRun(data_, 0, data_.size());
    PrintRun(top, 0);
    if (!top.complete()) ReportStop(top, 0);
    std::printf("%zu chunk(s), %zu level(s) deep, %zu bytes%s\n", chunks_, deepest_, data_.size(),
                damaged_ ? ", DAMAGED" : "");
    return !damaged_;
  }

 private:
  std::string NameOf(DWORD id) const {
    if (id == CHNK_UNNAMED_ID) return "(unnamed)";
    const auto found = names_.find(id);
    if (found != names_.end()) return found->second.empty() ? "\"\"" : found->second;
    return "?";
  }

  std::string Preview(const Span& span) const {
    const std::size_t n = std::min<std::size_t>(span.present, kPreviewBytes);
    std::string hex, text;
    for (std::size_t i = 0; i < n; ++i) {
      const unsigned char c = data_[span.data() + i];
      hex += HexDigit(c >> 4);
      hex += HexDigit(c);
      hex += ' ';
      text += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
    }
    return hex + "|" + text + "|" + (span.present > n ? " ..." : "");
  }

  void PrintRun(const Run& run, unsigned depth) {
    for (const Span& span : run.chunks) PrintChunk(span, depth);
  }

  void PrintChunk(const Span& span, unsigned depth) {
    ++chunks_;
    deepest_ = std::max<std::size_t>(deepest_, depth + 1);
    const std::string indent(2 * depth, ' ');
    const std::string cut =
        span.present < span.size ? " (cut short: " + std::to_string(span.present) + " bytes there)" : "";
    std::printf("%8zu  %s  %10u  %s%s%s\n", span.offset, Hex32(span.id).c_str(), span.size, indent.c_str(),
                NameOf(span.id).c_str(), cut.c_str());
    if (span.present == 0) return;
    if (depth + 1 < kMaxDepth) {
      const Run inner = ScanRun(data_, span.data(), span.end());
      const Verdict verdict = SubChunkVerdict(inner, names_);
      if (verdict != Verdict::kData) {
        PrintRun(inner, depth + 1);
        if (verdict == Verdict::kDamagedChunks) ReportStop(inner, depth + 1);
        return;
      }
    }
    std::printf("%8s  %8s  %10s  %s  data %s\n", "", "", "", indent.c_str(), Preview(span).c_str());
  }

  // The place where a run stops making sense; a chunk cut short is shown as far as it goes.
  void ReportStop(const Run& run, unsigned depth) {
    damaged_ = true;
    std::printf("%8zu  %8s  %10s  %s! not a chunk: %s\n", run.stop, "", "", std::string(2 * depth, ' ').c_str(),
                run.reason.c_str());
    if (run.has_cut) PrintChunk(run.cut, depth);
  }

  const Bytes& data_;
  const Names& names_;
  std::size_t chunks_ = 0;
  std::size_t deepest_ = 0;
  bool damaged_ = false;
};

bool ReadWhole(const std::string& path, Bytes* data, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot open " + path;
    return false;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0 || static_cast<std::uintmax_t>(size) > kMaxFileSize) {
    *error = path + " is not a readable file of at most 4 GiB";
    return false;
  }
  in.seekg(0);
  data->resize(static_cast<std::size_t>(size));
  if (size > 0 && !in.read(reinterpret_cast<char*>(data->data()), size)) {
    *error = "cannot read " + path;
    return false;
  }
  return true;
}

Names ParseNames(const std::string& list) {
  Names names;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = list.find(',', start);
    const std::string name = list.substr(start, comma - start);
    names.emplace(GetHashID(name.c_str()), name);
    if (comma == std::string::npos) return names;
    start = comma + 1;
  }
}

int Dump(const Args& args) {
  std::string path;
  Names names;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--names") {
      if (i + 1 == args.size()) return UsageError(kChunks, "--names needs a comma-separated list");
      names = ParseNames(args[++i]);
    } else if (path.empty()) {
      path = args[i];
    } else {
      return UsageError(kChunks, "dump takes one FILE");
    }
  }
  if (path.empty()) return UsageError(kChunks, "dump needs a FILE");
  Bytes data;
  std::string error;
  if (!ReadWhole(path, &data, &error)) return Fail(error);
  if (Dumper(data, names).Dump()) return 0;
  std::fprintf(stderr, "zrtool: %s is damaged: see the lines marked '!'\n", path.c_str());
  return 1;
}

// The sample: a scene with two objects, one holding an unnamed chunk, and a saved memory block.
char kScene[] = "scene";
char kInfo[] = "info";
char kObject[] = "object";
char kName[] = "name";
char kVertices[] = "vertices";
char kNotes[] = "notes";

bool WriteData(CChunkArchive& arc, char* name, const std::string& data) {
  const unsigned int level = arc.Chnk_Open(name, CHNK_ACCESS_WRITE);
  if (level == CHNK_INVALID) return false;
  const bool written = arc.Chnk_Write(const_cast<char*>(data.data()), data.size()) == data.size();
  return arc.Chnk_Close(level) && written;
}

bool WriteObject(CChunkArchive& arc, const std::string& name, const std::string& body, bool unnamed) {
  const unsigned int level = arc.Chnk_Open(kObject, CHNK_ACCESS_WRITE);
  if (level == CHNK_INVALID || !WriteData(arc, kName, name)) return false;
  if (!WriteData(arc, unnamed ? nullptr : kVertices, body)) return false;
  return arc.Chnk_Close(level) != 0;
}

bool WriteDemo(CChunkArchive& arc) {
  std::string cube;
  for (int corner = 0; corner < 8; ++corner) {
    for (int axis = 0; axis < 3; ++axis) cube += static_cast<char>((corner >> axis) & 1);
  }
  const unsigned int scene = arc.Chnk_Open(kScene, CHNK_ACCESS_WRITE);
  if (scene == CHNK_INVALID || !WriteData(arc, kInfo, "zrtool chunks demo")) return false;
  if (!WriteObject(arc, "cube", cube, false) || !WriteObject(arc, "light", "\x01\x02\x03\x04", true)) return false;
  if (!arc.Chnk_Close(scene)) return false;
  CPMemory notes;
  const std::string text = "saved with CPMemory::DynaSave";
  if (!notes.Alloc(text.size())) return false;
  std::copy(text.begin(), text.end(), static_cast<char*>(notes.GetDataPtr()));
  return notes.DynaSave(kNotes, arc) != 0;
}

int Demo(const Args& args) {
  if (args.size() != 2) return UsageError(kChunks, "demo needs OUT");
  const std::u16string out = zr::os::Utf8ToUtf16(args[1]);
  CChunkArchive arc;
  if (arc.Open(out.c_str(), CHNK_ACCESS_WRITE, zr::os::kCreateAlways, 1000) != 0)
    return Fail("cannot create " + args[1]);
  if (!WriteDemo(arc)) return Fail("cannot write " + args[1]);
  if (!arc.Close()) return Fail("cannot write " + args[1]);
  std::printf("wrote %s; try: zrtool chunks dump %s --names %s,%s,%s,%s,%s,%s\n", args[1].c_str(), args[1].c_str(),
              kScene, kInfo, kObject, kName, kVertices, kNotes);
  return 0;
}

// The demo: writes the sample beside the demo's settings, shows its tree, and finds and loads the
// saved memory block again.
int DemoChunks(DemoContext& context) {
  const std::string path = context.home() + "/demo.chunks";
  const std::u16string wide = zr::os::Utf8ToUtf16(path);
  CChunkArchive arc;
  if (arc.Open(wide.c_str(), CHNK_ACCESS_WRITE, zr::os::kCreateAlways, 1000) != 0 || !WriteDemo(arc) || !arc.Close()) {
    context.Say("cannot write " + path);
    return 1;
  }
  context.Say("a scene of two objects and a saved memory block, written through CChunkArchive:");
  Bytes data;
  std::string error;
  if (!ReadWhole(path, &data, &error)) {
    context.Say(error);
    return 1;
  }
  Dumper(data, ParseNames("scene,info,object,name,vertices,notes")).Dump();
  CPMemory notes;
  const bool loaded = arc.Open(wide.c_str(), CHNK_ACCESS_READ, zr::os::kOpenExisting, 1000) == 0 &&
                      arc.Chnk_Open(kScene, CHNK_ACCESS_READ) != CHNK_INVALID && arc.Chnk_Close(0) &&
                      notes.DynaLoad(kNotes, arc, 0) && arc.Close();
  if (!loaded) {
    context.Say("cannot read the notes back");
    return 1;
  }
  context.Say("after skipping the scene, DynaLoad read the notes back: \"" +
              std::string(static_cast<const char*>(notes.GetCDataPtr()), notes.GetSize()) + "\"");
  return 0;
}
ZRTOOL_DEMO_SECTION("chunks", 60, "Chunk archives", DemoChunks);

int RunChunks(const Args& args) {
  if (args.empty()) return UsageError(kChunks, "missing dump or demo");
  if (args[0] == "dump") return Dump(args);
  if (args[0] == "demo") return Demo(args);
  return UsageError(kChunks, "unknown mode '" + args[0] + "'");
}

}  // namespace
}  // namespace zrtool
