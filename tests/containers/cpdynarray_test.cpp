// Dynamic arrays: growth of Add and Insert, gaps filled with zeros, deletion, save and load through
// memory and file archives with item-size conversion and damaged entries; object reference lists.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpdynarray.h"
#include "zrobj/zrhash.h"

namespace {

char* N(const char* name) { return const_cast<char*>(name); }

std::vector<DWORD> Words(CPDynArray& array) {
  DWORD count = 0;
  const auto* items = static_cast<const BYTE*>(array.GetArray(&count));
  std::vector<DWORD> out;
  const DWORD per_item = array.GetItemSize() / 4;
  for (DWORD i = 0; i < count * per_item; ++i) out.push_back(zr::LoadLE32(items + 4 * i));
  return out;
}

std::string LE32(DWORD v) {
  std::string out(4, '\0');
  zr::StoreLE32(out.data(), v);
  return out;
}
std::string Chunk(const char* name, const std::string& data) {
  return LE32(GetHashID(name)) + LE32(static_cast<DWORD>(data.size())) + data;
}

CPMemoryFile Content(const std::string& bytes) {
  CPMemoryFile file;
  file.Open(CHNK_ACCESS_WRITE);
  file.Write(bytes.data(), static_cast<DWORD>(bytes.size()));
  return file;
}

CPMemoryFile Saved(CPDynArray& array, const char* name) {
  CMemChunkArchive archive;
  archive.Open(CHNK_ACCESS_WRITE);
  EXPECT_EQ(array.DynaSave(N(name), archive), 1);
  archive.Close();
  return archive.GetContent();
}

int Load(CPDynArray& array, const char* name, CPMemoryFile content) {
  CMemChunkArchive archive;
  archive.SetContent(content);
  archive.Open(CHNK_ACCESS_READ);
  return array.DynaLoad(N(name), archive, 0);
}

TEST(CPDynArray, AddGrowsByGrowth) {
  CPDynArray array(32, 2);
  EXPECT_STREQ(array.GetClassID(), "CPDynArray");
  EXPECT_EQ(array.GetArray(nullptr), nullptr);
  const DWORD item[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_EQ(array.Add(item), 1);
  EXPECT_EQ(array.GetAllocSize(), 64u);  // two items, exactly as the 32-byte rule grants
  ASSERT_EQ(array.Add(item), 1);
  EXPECT_EQ(array.GetAllocSize(), 64u);
  ASSERT_EQ(array.Add(item), 1);
  EXPECT_EQ(array.GetAllocSize(), 128u);
  EXPECT_EQ(array.GetCount(), 3u);
  EXPECT_EQ(CPDynArray(4, 0).Add(item), 1);  // growth 0 means 8
  EXPECT_EQ(CPDynArray(0).Add(item), 0);      // no items of 0 bytes
}

TEST(CPDynArray, InsertPastTheEndFillsZeros) {
  CPDynArray array(4);
  for (DWORD v : {1u, 2u, 3u}) array.Add(&v);
  const DWORD nine = 9;
  ASSERT_EQ(array.Insert(7, &nine), 1);
  EXPECT_EQ(Words(array), (std::vector<DWORD>{1, 2, 3, 0, 0, 0, 0, 9}));
  const DWORD five = 5;
  ASSERT_EQ(array.Insert(1, &five), 1);
  EXPECT_EQ(Words(array), (std::vector<DWORD>{1, 5, 2, 3, 0, 0, 0, 0, 9}));
  EXPECT_EQ(array.Delete(9), 1);  // nothing there
  EXPECT_EQ(array.Delete(0), 1);
  EXPECT_EQ(Words(array), (std::vector<DWORD>{5, 2, 3, 0, 0, 0, 0, 9}));
  EXPECT_EQ(array.Insert(0xFFFFFFFF, &five), 0);  // 16 GiB of gap: refused, nothing changed
  EXPECT_EQ(array.GetCount(), 8u);
}

TEST(CPDynArray, InsertGrowsAtACountThatAddStillFits) {
  // Five 32-byte items: 160 bytes, and the 32-byte rule grants exactly 160.
  CPDynArray add(32, 4), insert(32, 4);
  ASSERT_EQ(add.AllocItems(5), 1);
  ASSERT_EQ(insert.AllocItems(5), 1);
  ASSERT_EQ(add.GetAllocSize(), 160u);
  add.Delete(0);
  insert.Delete(0);
  const DWORD item[8] = {};
  ASSERT_EQ(add.Add(item), 1);  // 5 items in room for 5: no reallocation
  EXPECT_EQ(add.GetAllocSize(), 160u);
  ASSERT_EQ(insert.Insert(4, item), 1);  // count 5 reaches the capacity: grown to 8 items
  EXPECT_EQ(insert.GetAllocSize(), 256u);
  EXPECT_EQ(insert.GetCount(), 5u);
}

TEST(CPDynArray, AllocItemsKeepsAndZeroes) {
  CPDynArray array(4);
  for (DWORD v : {7u, 8u}) array.Add(&v);
  ASSERT_EQ(array.AllocItems(4), 1);
  EXPECT_EQ(Words(array), (std::vector<DWORD>{7, 8, 0, 0}));
  ASSERT_EQ(array.AllocItems(1), 1);
  EXPECT_EQ(Words(array), (std::vector<DWORD>{7}));
  EXPECT_EQ(array.AllocItems(0), 1);
  EXPECT_EQ(array.GetHeader(), nullptr);
}

TEST(CPDynArray, SaveLayoutAndRoundTrip) {
  CPDynArray array(8);
  for (DWORD v = 1; v <= 3; ++v) {
    const DWORD item[2] = {v, v * 10};
    array.Add(item);
  }
  CPMemoryFile content = Saved(array, "A");
  // The entry: the item size, then the block as an inner entry of the same name.
  std::string block;
  for (DWORD v = 1; v <= 3; ++v) block += LE32(v) + LE32(v * 10);
  const std::string expected = Chunk("A", LE32(8) + Chunk("A", block));
  ASSERT_EQ(content.GetSize(), expected.size());
  EXPECT_EQ(std::memcmp(content.GetCDataPtr(), expected.data(), expected.size()), 0);

  CPDynArray loaded(8);
  const DWORD stale[2] = {5, 5};
  loaded.Add(stale);
  ASSERT_EQ(Load(loaded, "A", content), 1);
  EXPECT_EQ(Words(loaded), (std::vector<DWORD>{1, 10, 2, 20, 3, 30}));
}

// A file archive delivers the rest of a chunk to its first read; the load still works.
TEST(CPDynArray, RoundTripThroughAFileArchive) {
  zrtest::TempDir dir;
  const std::u16string path = zr::os::Utf8ToUtf16(dir.File("array.bin"));
  CPDynArray array(4);
  for (DWORD v : {4u, 5u, 6u}) array.Add(&v);
  {
    CChunkArchive archive;
    ASSERT_EQ(archive.Open(path.c_str(), CHNK_ACCESS_WRITE, zr::os::kCreateAlways, 0), 0ul);
    ASSERT_EQ(array.DynaSave(N("F"), archive), 1);
    archive.Close();
  }
  CChunkArchive archive;
  ASSERT_EQ(archive.Open(path.c_str(), CHNK_ACCESS_READ, zr::os::kOpenExisting, 0), 0ul);
  CPDynArray loaded(4);
  ASSERT_EQ(loaded.DynaLoad(N("F"), archive, 0), 1);
  EXPECT_EQ(Words(loaded), (std::vector<DWORD>{4, 5, 6}));
}

TEST(CPDynArray, LoadConvertsItemSizes) {
  CPDynArray array(8);
  for (DWORD v = 1; v <= 3; ++v) {
    const DWORD item[2] = {v, v * 10};
    array.Add(item);
  }
  CPMemoryFile content = Saved(array, "V");
  CPDynArray wider(12);
  ASSERT_EQ(Load(wider, "V", content), 1);
  EXPECT_EQ(Words(wider), (std::vector<DWORD>{1, 10, 0, 2, 20, 0, 3, 30, 0}));
  CPDynArray narrower(4);
  ASSERT_EQ(Load(narrower, "V", content), 1);
  EXPECT_EQ(Words(narrower), (std::vector<DWORD>{1, 2, 3}));
  // CheckVersioning directly: nothing to do for equal sizes or an empty array.
  CPDynArray empty(4);
  EXPECT_EQ(empty.CheckVersioning(16), 1);
  EXPECT_EQ(narrower.CheckVersioning(4), 1);
  EXPECT_EQ(narrower.CheckVersioning(0), 0);  // damage
  EXPECT_EQ(narrower.GetHeader(), nullptr);
}

TEST(CPDynArray, DamagedEntriesAreRefused) {
  struct Case {
    const char* what;
    std::string content;
  };
  const std::string block(24, 'b');
  const std::vector<Case> cases = {
      {"no size word", Chunk("D", "ab")},
      {"empty entry", Chunk("D", "")},
      {"no inner entry", Chunk("D", LE32(8))},
      {"inner entry of another name", Chunk("D", LE32(8) + Chunk("E", block))},
      {"inner size past the entry", Chunk("D", LE32(8) + LE32(GetHashID("D")) + LE32(0x7FFFFFFF) + block)},
      {"outer size past the data", LE32(GetHashID("D")) + LE32(0xFFFFFFF0u) + LE32(8)},
      {"item size 0", Chunk("D", LE32(0) + Chunk("D", block))},
  };
  for (const Case& c : cases) {
    CPDynArray array(8);
    const DWORD item[2] = {1, 2};
    array.Add(item);
    EXPECT_EQ(Load(array, "D", Content(c.content)), 0) << c.what;
    EXPECT_EQ(array.GetCount(), 0u) << c.what;
  }
}

// ---- CPObjRefList ----

std::vector<DWORD> Refs(CPObjRefList& list) {
  DWORD count = 0;
  const tagOBJREFERENCE* records = list.GetArray(&count);
  std::vector<DWORD> out;
  for (DWORD i = 0; i < count; ++i) {
    out.push_back(records[i].dwObject);
    out.push_back(records[i].dwFolder);
    out.push_back(records[i].dwUseCount);
  }
  return out;
}

TEST(CPObjRefList, SortedUniqueWithUseCounts) {
  CPObjRefList list;
  EXPECT_EQ(list.Tag(1, 1), 0);  // empty
  EXPECT_EQ(list.Add(5, 2), 1);
  EXPECT_EQ(list.GetAllocSize(), 256u * 12);
  EXPECT_EQ(list.Add(3, 9), 1);
  EXPECT_EQ(list.Add(5, 1), 1);
  EXPECT_EQ(list.Add(0xFFFFFFFF, 0), 1);  // unsigned order
  EXPECT_EQ(list.Add(5, 2), 1);           // present: unchanged
  EXPECT_EQ(list.Tag(5, 2), 1);
  EXPECT_EQ(list.Tag(5, 2), 1);
  EXPECT_EQ(list.Tag(5, 3), 0);
  EXPECT_EQ(Refs(list), (std::vector<DWORD>{3, 9, 0, 5, 1, 0, 5, 2, 2, 0xFFFFFFFF, 0, 0}));
  EXPECT_EQ(list.Delete(7), 1);
  EXPECT_EQ(list.Delete(1), 1);
  EXPECT_EQ(Refs(list), (std::vector<DWORD>{3, 9, 0, 5, 2, 2, 0xFFFFFFFF, 0, 0}));
  CPObjRefList copy(list);
  EXPECT_EQ(copy.GetCDataPtr(), list.GetCDataPtr());
}

TEST(CPObjRefList, GrowsBy256Records) {
  CPObjRefList list;
  for (DWORD i = 0; i < 257; ++i) ASSERT_EQ(list.Add(1000 - i, 0), 1);
  EXPECT_EQ(list.GetAllocSize(), 512u * 12);
  DWORD count = 0;
  const tagOBJREFERENCE* records = list.GetArray(&count);
  ASSERT_EQ(count, 257u);
  for (DWORD i = 1; i < count; ++i) EXPECT_LT(records[i - 1].dwObject, records[i].dwObject);
}

}  // namespace
