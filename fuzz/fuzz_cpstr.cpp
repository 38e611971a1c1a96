// libFuzzer target: arbitrary bytes as a memory chunk archive from which strings are loaded:
// CPTStr through its tagged chunk (every form) and CPWStr as a plain block.
//
// Checked: a failed load leaves no block; every loaded string holds its text terminated inside its
// data; what a CPTStr loaded it saves and loads back unchanged; concatenation and appending of the
// loaded strings give the joined texts.
#include <cstdint>
#include <string>

#include "zrobj/chunkarc.h"
#include "zrobj/cpstr.h"
#include "zrobj/zrdiag.h"

namespace {

char* const kName = const_cast<char*>("text");
constexpr int kMostChunks = 16;

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

template <class S>
std::u16string Text(const S& s) {
  const auto* chars = static_cast<const WCHAR*>(s);
  return chars ? std::u16string(chars, s.GetLen()) : std::u16string();
}

template <class S>
void CheckWellFormed(const S& s) {
  const auto* chars = static_cast<const WCHAR*>(s);
  if (chars == nullptr) return Check(s.GetLen() == 0);
  Check(s.GetLen() < s.GetSize() / 2);
  Check(chars[s.GetLen()] == 0);
}

CMemChunkArchive ReaderOf(const std::uint8_t* data, std::size_t size) {
  CPMemoryFile content;
  content.Open(CHNK_ACCESS_WRITE);
  content.Write(data, static_cast<DWORD>(size));
  CMemChunkArchive archive;
  archive.SetContent(content);
  archive.Open(CHNK_ACCESS_READ);
  return archive;
}

// Saves the string and loads it back: the same text.
void CheckRoundTrip(CPTStr& loaded) {
  CMemChunkArchive writer;
  writer.Open(CHNK_ACCESS_WRITE);
  Check(loaded.DynaSave(kName, writer) == 1);
  writer.Close();
  CPMemoryFile content = writer.GetContent();
  CMemChunkArchive reader;
  reader.SetContent(content);
  reader.Open(CHNK_ACCESS_READ);
  CPTStr again;
  Check(again.DynaLoad(kName, reader) == 1);
  Check(Text(again) == Text(loaded));
}

void LoadTagged(const std::uint8_t* data, std::size_t size) {
  CMemChunkArchive reader = ReaderOf(data, size);
  CPTStr all;
  for (int i = 0; i < kMostChunks; ++i) {
    CPTStr s(u"before");
    if (!s.DynaLoad(kName, reader)) {
      Check(s.GetHeader() == nullptr);
      break;
    }
    CheckWellFormed(s);
    CheckRoundTrip(s);
    const std::u16string joined = Text(all) + Text(s);
    Check(Text(all + s) == joined);
    all += s;
    Check(Text(all) == joined);
    CheckWellFormed(all);
  }
}

void LoadPlain(const std::uint8_t* data, std::size_t size) {
  CMemChunkArchive reader = ReaderOf(data, size);
  for (int i = 0; i < kMostChunks; ++i) {
    CPWStr w;
    if (!w.CPMemory::DynaLoad(kName, reader, 0)) break;
    const unsigned long len = w.GetLen();  // a raw block: the text may run to the end of the data
    Check(len <= w.GetSize() / 2);
    const CPWStr copy(w);  // sharing runs CheckMemory
    CheckWellFormed(copy);
    Check(copy.GetLen() <= len);
    const CPTStr narrow_join = CPTStr(copy) + u"\u00e9";
    CheckWellFormed(narrow_join);
    CMemChunkArchive writer;
    writer.Open(CHNK_ACCESS_WRITE);
    Check(w.DynaSave(kName, writer) == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetDebugMode(0);  // the archives' messages would only slow the run down
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1u << 20) return 0;
  LoadTagged(data, size);
  LoadPlain(data, size);
  return 0;
}
