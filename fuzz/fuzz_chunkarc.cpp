// libFuzzer target: arbitrary bytes walked as a chunk archive, in a file and in memory, by a script
// that the input carries; what is read is written again into archives of both kinds.
//
// Input: byte 0 = script length L, then L script bytes (pairs of operation and argument), then
// the archive's content. Checked along the way: a failed read-open and a failed search leave the
// position where it was, and no read delivers more than the content holds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "platform/files.h"
#include "platform/procinfo.h"
#include "platform/text.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpmem.h"
#include "zrobj/zrdiag.h"

namespace {

char* const kNames[] = {const_cast<char*>("A"),    const_cast<char*>("B"),    const_cast<char*>("root"),
                        const_cast<char*>("item"), const_cast<char*>(""),     nullptr,
                        const_cast<char*>("group"), const_cast<char*>("x")};

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

struct Input {
  const std::uint8_t* script;
  std::size_t script_size;
  const std::uint8_t* content;
  std::size_t content_size;
};

// The size word of the header at `position`, when a whole header lies there.
bool PeekSize(const Input& in, DWORD position, DWORD* size) {
  if (position > in.content_size || in.content_size - position < 8) return false;
  const std::uint8_t* p = in.content + position + 4;
  *size = zr::LoadLE32(p);
  return true;
}

// Runs the script on `reader`, mirroring opens, closes and data into `writer`.
template <class Reader, class Writer, class Reopen>
void Walk(const Input& in, Reader& reader, Writer& writer, Reopen reopen) {
  std::vector<char> buffer(in.content_size + 1024);
  for (std::size_t i = 0; i + 1 < in.script_size; i += 2) {
    const std::uint8_t op = in.script[i];
    const std::uint8_t arg = in.script[i + 1];
    char* name = kNames[arg & 7];
    const DWORD before = reader.GetFilePtr();
    switch (op % 7) {
      case 0:
        if (reader.Chnk_Open(name, CHNK_ACCESS_READ) == CHNK_INVALID) {
          Check(reader.GetFilePtr() == before);
        } else {
          writer.Chnk_Open(name, CHNK_ACCESS_WRITE);
        }
        break;
      case 1:
        reader.Chnk_Close(arg % (CHNK_MAX_LEVELS + 1));
        writer.Chnk_Close(arg % (CHNK_MAX_LEVELS + 1));
        break;
      case 2: {
        // The file variant delivers at least the chunk's remainder; the file bounds it.
        const unsigned long got = reader.Chnk_Read(buffer.data(), arg % 64 + 1);
        Check(got <= in.content_size);
        if (got) writer.Chnk_Write(buffer.data(), got);
        break;
      }
      case 3:
        if constexpr (requires { reader.Chnk_Find(name); }) {
          if (!reader.Chnk_Find(name)) Check(reader.GetFilePtr() == before);
        }
        break;
      case 4:
        reader.Chnk_GetSize(arg % (CHNK_MAX_LEVELS + 1));
        break;
      case 5: {
        // Loading allocates what the header claims; only sizes the content could hold are tried.
        DWORD size = 0;
        if (!PeekSize(in, before, &size) || size > in.content_size) break;
        CPMemory memory;
        if (arg & 8 ? memory.DynaRead(name, reader) : memory.DynaLoad(name, reader, 0)) memory.DynaSave(name, writer);
        break;
      }
      case 6:
        reader.Close();
        reopen();
        break;
    }
  }
  reader.Close();
  writer.Close();
}

std::u16string TempPath(const char* role) {
  return zr::os::Utf8ToUtf16("/tmp/zrobj-fuzz-chunkarc-" + std::to_string(zr::os::CurrentProcessId()) + "-" + role);
}

void WalkFile(const Input& in) {
  static const std::u16string source = TempPath("in");
  static const std::u16string target = TempPath("out");
  zr::os::FileHandle file = zr::os::CreateFileW(source.c_str(), zr::os::kGenericWrite, 0, zr::os::kCreateAlways, 0);
  if (file == zr::os::kInvalidFile) return;
  DWORD done = 0;
  zr::os::WriteFile(file, in.content, static_cast<DWORD>(in.content_size), &done);
  zr::os::CloseFile(file);
  CChunkArchive reader, writer;
  const auto open_reader = [&] { return reader.Open(source.c_str(), CHNK_ACCESS_READ, zr::os::kOpenExisting, 0); };
  if (open_reader() != 0 || writer.Open(target.c_str(), CHNK_ACCESS_WRITE, zr::os::kCreateAlways, 0) != 0) return;
  Walk(in, reader, writer, open_reader);
}

void WalkMemory(const Input& in) {
  CPMemoryFile content;
  content.Open(CHNK_ACCESS_WRITE);
  content.Write(in.content, static_cast<DWORD>(in.content_size));
  CMemChunkArchive reader, writer;
  reader.SetContent(content);
  reader.Open(CHNK_ACCESS_READ);
  writer.Open(CHNK_ACCESS_WRITE);
  Walk(in, reader, writer, [&] { return reader.Open(CHNK_ACCESS_READ); });
  // The copy rules: a copy shares the written content.
  CMemChunkArchive copy(writer);
  Check(copy.GetContent().GetHeader() == writer.GetContent().GetHeader());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetDebugMode(0);  // the archives' messages would only slow the run down
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1u << 20) return 0;
  const std::size_t script_size = std::min<std::size_t>(data[0], size - 1);
  const Input in{data + 1, script_size, data + 1 + script_size, size - 1 - script_size};
  WalkFile(in);
  WalkMemory(in);
  return 0;
}
