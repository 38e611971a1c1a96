// libFuzzer target: arbitrary bytes read as a memory chunk archive and loaded as an entry "L" into
// pointer lists of several item sizes (with and without conversion), a sorted list, dynamic arrays
// and a memory handle list. What loads must hold together and survive a save and a second load.
#include <cstdint>
#include <cstring>

#include "zrobj/chunkarc.h"
#include "zrobj/cpdynarray.h"
#include "zrobj/cpmemlist.h"
#include "zrobj/cpvlist.h"
#include "zrobj/zrdiag.h"

namespace {

char* const kName = const_cast<char*>("L");

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

// A fresh reader over `content` (shared, never written).
void OpenReader(CMemChunkArchive& reader, const CPMemoryFile& content) {
  CPMemoryFile copy(content);
  reader.SetContent(copy);
  reader.Open(CHNK_ACCESS_READ);
}

template <class Saveable>
CPMemoryFile SaveOf(Saveable& container) {
  CMemChunkArchive writer;
  writer.Open(CHNK_ACCESS_WRITE);
  Check(container.DynaSave(kName, writer) == 1);
  writer.Close();
  return writer.GetContent();
}

bool SameBytes(const void* a, const void* b, std::size_t n) { return n == 0 || std::memcmp(a, b, n) == 0; }

int CompareWord1(const void* key, const void* item) {
  DWORD a, b;
  std::memcpy(&a, static_cast<const BYTE*>(key) + 4, 4);
  std::memcpy(&b, static_cast<const BYTE*>(item) + 4, 4);
  return a < b ? -1 : a > b ? 1 : 0;
}

// A loaded list: identities 0..n-1, its bytes within the block; saved and loaded again unchanged.
void CheckList(CPvList& list) {
  const DWORD count = list.GetNItems();
  Check(list.GetSize() == 0 || list.GetSize() >= 4 + UINT64{count} * list.GetItemSize());
  for (DWORD i = 0; i < count; ++i) {
    DWORD id;
    std::memcpy(&id, list.GetCItem(i, 1), 4);
    Check(id == i);
  }
  if (count != 0) Check(list.GetNextID() == count);
  CPMemoryFile saved = SaveOf(list);
  CMemChunkArchive reader;
  OpenReader(reader, saved);
  CPvList again(list.GetItemSize());
  Check(again.DynaLoad(kName, reader, 0, 0) == 1);
  Check(again.GetNItems() == count);
  Check(SameBytes(again.GetCList(), list.GetCList(), std::size_t{count} * list.GetItemSize()));
}

void LoadLists(const CPMemoryFile& content) {
  static constexpr DWORD kSizes[] = {4, 8, 12, 16, 36, 64};
  for (DWORD size : kSizes) {
    for (int convert = 0; convert < 2; ++convert) {
      CPvList list(size);
      CMemChunkArchive reader;
      OpenReader(reader, content);
      if (list.DynaLoad(kName, reader, 0, convert)) {
        CheckList(list);
      } else {
        Check(list.GetNItems() == 0);
      }
    }
  }
  CPvListS sorted(8, 5, CompareWord1);
  CMemChunkArchive reader;
  OpenReader(reader, content);
  if (sorted.DynaLoad(kName, reader, 0, 1) && sorted.ReSort()) {
    const DWORD count = sorted.GetNItems();
    for (DWORD i = 1; i < count; ++i) Check(CompareWord1(sorted.GetCItem(i - 1, 1), sorted.GetCItem(i, 1)) <= 0);
    for (DWORD i = 0; i < count; ++i) Check(sorted.LocateIndex(sorted.GetCItem(i, 1)) <= i);
  }
}

void LoadArrays(const CPMemoryFile& content) {
  static constexpr DWORD kSizes[] = {1, 4, 12};
  for (DWORD size : kSizes) {
    CPDynArray array(size);
    CMemChunkArchive reader;
    OpenReader(reader, content);
    if (!array.DynaLoad(kName, reader, 0)) continue;
    DWORD count = 0;
    const void* items = array.GetArray(&count);
    Check(UINT64{count} * size <= array.GetSize());
    CPMemoryFile saved = SaveOf(array);
    CMemChunkArchive again_reader;
    OpenReader(again_reader, saved);
    CPDynArray again(size);
    Check(again.DynaLoad(kName, again_reader, 0) == 1);
    DWORD again_count = 0;
    const void* again_items = again.GetArray(&again_count);
    Check(again_count == count && SameBytes(items, again_items, std::size_t{count} * size));
  }
}

// Stored handles are never followed: every loaded item is an empty handle.
void LoadMemoryList(const CPMemoryFile& content) {
  CPMemoryList list;
  CMemChunkArchive reader;
  OpenReader(reader, content);
  if (!list.DynaLoad(kName, reader, 0, 1)) return;
  for (DWORD i = 0; i < list.GetNItems(); ++i) Check(list.GetItem(i, 1)->GetHeader() == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetDebugMode(0);  // the archives' messages would only slow the run down
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1u << 16) return 0;
  CPMemoryFile content;
  content.Open(CHNK_ACCESS_WRITE);
  content.Write(data, static_cast<DWORD>(size));
  content.Close();
  LoadLists(content);
  LoadArrays(content);
  LoadMemoryList(content);
  return 0;
}
