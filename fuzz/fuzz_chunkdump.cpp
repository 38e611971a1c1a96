// libFuzzer target: `zrtool chunks dump` on arbitrary files, and on archives written through
// CChunkArchive by a script the input carries (whole, or cut at a point the input chooses).
//
// Input: byte 0 holds flags (bit 0: build an archive from a script instead of dumping the rest as
// it is; bit 1: pass --names; bit 2: cut the built archive), byte 1 the length N of a
// comma-separated name list that follows (the --names argument, and the names the script writes
// chunks under), then with bit 2 two bytes of the cut point, then the file or the script.
// Run with -close_fd_mask=2: the tool reports every damaged file on stderr; stdout is discarded
// here. Checked: the status is 0 or 1; a file whose top level is not plausible chunks end to end is
// damaged (1); the archive the library writes holds exactly the nested headers and data the script
// asked for and dumps as undamaged (0); cut, it is damaged unless the cut falls between top-level
// chunks. Leaf data written by a script never start with a plausible id, since data that look like
// two chunks and then break off are documented to be reported as damage.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "fuzz/tool_command.h"
#include "platform/files.h"
#include "platform/text.h"
#include "zrobj/chunkarc.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kMaxArchiveBytes = 256u << 10;  // what a script may write in all

using Bytes = std::vector<std::uint8_t>;

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

// The input split into its fields.
struct Input {
  bool build = false;
  bool pass_names = false;
  bool cut = false;
  std::string names;  // the --names argument, NUL bytes dropped as a command line drops them
  unsigned cut_point = 0;
  const std::uint8_t* rest = nullptr;
  std::size_t rest_size = 0;
};

bool Parse(const std::uint8_t* data, std::size_t size, Input* in) {
  if (size < 2) return false;
  in->build = data[0] & 1;
  in->pass_names = data[0] & 2;
  in->cut = in->build && (data[0] & 4);
  std::size_t at = 2;
  const std::size_t n = data[1];
  if (size - at < n) return false;
  for (std::size_t i = 0; i < n; ++i)
    if (data[at + i] != 0) in->names += static_cast<char>(data[at + i]);
  at += n;
  if (in->cut) {
    if (size - at < 2) return false;
    in->cut_point = zr::LoadLE16(data + at);
    at += 2;
  }
  in->rest = data + at;
  in->rest_size = size - at;
  return true;
}

// The names of the list, split at commas as the tool splits them.
std::vector<std::string> SplitNames(const std::string& list) {
  std::vector<std::string> names;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = list.find(',', start);
    names.push_back(list.substr(start, comma - start));
    if (comma == std::string::npos) return names;
    start = comma + 1;
  }
}

// Whether the bytes are plausible chunks (id 0xFC00 or bits 10-15 clear) laid end to end.
bool TopLevelParses(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  while (at < size) {
    if (size - at < kHeaderSize) return false;
    const DWORD id = zr::LoadLE32(data + at);
    if (id != CHNK_UNNAMED_ID && (id & 0xFC00u) != 0) return false;
    const DWORD length = zr::LoadLE32(data + at + 4);
    if (length > size - at - kHeaderSize) return false;
    at += kHeaderSize + length;
  }
  return true;
}

int Dump(const std::string& path, const Input& in) {
  static const zrtool::Command& chunks = fuzz_tool::FindCommand("chunks");
  zrtool::Args args{"dump", path};
  if (in.pass_names) {
    args.push_back("--names");
    args.push_back(in.names);
  }
  const int status = fuzz_tool::RunQuietly(chunks, args);
  Check(status == 0 || status == 1);
  return status;
}

// The archive the script asks for, as the layout defines it, kept beside the library's writing.
class Model {
 public:
  std::size_t levels() const { return open_.size(); }
  bool innermost_has_children() const { return !open_.empty() && open_.back().children; }
  bool innermost_has_data() const { return !open_.empty() && open_.back().data != 0; }
  std::size_t size() const { return bytes_.size(); }
  const Bytes& bytes() const { return bytes_; }
  const std::vector<std::size_t>& top_level_starts() const { return top_starts_; }

  void Open(DWORD id) {
    if (open_.empty()) top_starts_.push_back(bytes_.size());
    else open_.back().children = true;
    open_.push_back(Level{bytes_.size(), false, 0});
    bytes_.resize(bytes_.size() + kHeaderSize);
    zr::StoreLE32(&bytes_[open_.back().header], id);
  }

  // Appends to the innermost chunk's data; byte 1 of its data gets bits 0 and 2 set, so that the
  // data never start with a plausible id (0xFC00 has bit 8 clear).
  void Write(Bytes* data) {
    Level& level = open_.back();
    if (level.data < 2 && level.data + data->size() > 1) (*data)[1 - level.data] |= 0x05;
    level.data += data->size();
    bytes_.insert(bytes_.end(), data->begin(), data->end());
  }

  void Close(std::size_t level) {
    for (std::size_t i = level; i < open_.size(); ++i)
      zr::StoreLE32(&bytes_[open_[i].header + 4], static_cast<DWORD>(bytes_.size() - open_[i].header - kHeaderSize));
    open_.resize(level);
  }

 private:
  struct Level {
    std::size_t header;
    bool children;
    std::size_t data;
  };
  Bytes bytes_;
  std::vector<Level> open_;
  std::vector<std::size_t> top_starts_;
};

// Runs the script on `arc` and `model` alike. Each operation is a byte and an argument byte:
// op & 3 = 0 opens a chunk (argument: the name, or unnamed past the last one), 1 closes a level
// and all below it, 2 writes (op >> 2) * 256 + argument bytes and 3 writes (argument + 1) * 512
// bytes (up to 128 KiB), both taken from the script's bytes that follow, round
// and round. A chunk holds either data or
// sub-chunks, never both, and nothing is written outside a chunk.
void RunScript(const Input& in, const std::vector<std::string>& names, CChunkArchive& arc, Model& model) {
  const std::uint8_t* script = in.rest;
  const std::size_t size = in.rest_size;
  Bytes block;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const std::uint8_t op = script[i];
    const std::uint8_t arg = script[i + 1];
    switch (op & 3) {
      case 0: {
        if (model.innermost_has_data()) break;
        const std::size_t k = arg % (names.size() + 1);
        char* name = k < names.size() ? const_cast<char*>(names[k].c_str()) : nullptr;
        const unsigned int level = arc.Chnk_Open(name, CHNK_ACCESS_WRITE);
        if (model.levels() == CHNK_MAX_LEVELS) {
          Check(level == CHNK_INVALID);  // the writer refuses a 17th level
          break;
        }
        Check(level == model.levels());
        model.Open(name ? GetHashID(name) : CHNK_UNNAMED_ID);
        break;
      }
      case 1:
        if (model.levels() == 0) break;
        Check(arc.Chnk_Close(arg % model.levels()) == 1);
        model.Close(arg % model.levels());
        break;
      default: {
        if (model.levels() == 0 || model.innermost_has_children()) break;
        const std::size_t count = (op & 3) == 2 ? (op >> 2) * 256u + arg : (arg + 1u) * 512u;
        if (count == 0 || model.size() + count > kMaxArchiveBytes) break;
        block.resize(count);
        for (std::size_t j = 0, from = (i + 2) % size; j < count; from = 0) {
          const std::size_t piece = std::min(count - j, size - from);
          std::memcpy(&block[j], script + from, piece);
          j += piece;
        }
        model.Write(&block);
        Check(arc.Chnk_Write(block.data(), count) == count);
        break;
      }
    }
  }
}

Bytes ReadFile(const std::string& path) {
  Bytes bytes(std::filesystem::file_size(path));
  std::FILE* file = std::fopen(path.c_str(), "rb");
  Check(file && std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size());
  std::fclose(file);
  return bytes;
}

void RunBuilt(const Input& in, const std::string& path) {
  const std::vector<std::string> names = SplitNames(in.names);
  Model model;
  {
    const std::u16string wide = os::Utf8ToUtf16(path);
    CChunkArchive arc;
    Check(arc.Open(wide.c_str(), CHNK_ACCESS_WRITE, os::kCreateAlways, 1000) == 0);
    RunScript(in, names, arc, model);
    Check(arc.Close() != 0);
    model.Close(0);
  }
  Check(ReadFile(path) == model.bytes());
  Check(Dump(path, in) == 0);
  if (!in.cut) return;
  const std::size_t cut = in.cut_point % (model.size() + 1);
  std::filesystem::resize_file(path, cut);
  bool between = cut == model.size();
  for (std::size_t start : model.top_level_starts()) between = between || start == cut;
  Check(Dump(path, in) == (between ? 0 : 1));
}

void RunRaw(const Input& in, const std::string& path) {
  if (!fuzz_tool::WriteFile(path, in.rest, in.rest_size)) return;
  const int status = Dump(path, in);
  if (!TopLevelParses(in.rest, in.rest_size)) Check(status == 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetDebugMode(0);  // multiple closes would be reported on the diagnostics output
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = fuzz_tool::TempPath("chunkdump", "file");
  Input in;
  if (size > kMaxArchiveBytes || !Parse(data, size, &in)) return 0;
  if (in.build) {
    RunBuilt(in, path);
  } else {
    RunRaw(in, path);
  }
  return 0;
}
