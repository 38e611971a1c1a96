// Lists of memory handles: items share their blocks, deletion and destruction release them, moves
// and private copies keep the counts right, read-only item copies, and loading.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "test_support.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpmemlist.h"

namespace {

char* N(const char* name) { return const_cast<char*>(name); }

CPMemory Block(const char* text) {
  CPMemory block;
  block.Alloc(std::strlen(text) + 1, 0);
  std::memcpy(block.GetDataPtr(), text, std::strlen(text) + 1);
  return block;
}

std::string TextAt(CPMemoryList& list, DWORD index) {
  CPMemory* item = list.GetItem(index, 1);
  return item != nullptr && item->GetCDataPtr() ? static_cast<const char*>(item->GetCDataPtr()) : "";
}

TEST(CPMemoryList, LayoutAndClass) {
  CPMemoryList list;
  EXPECT_STREQ(list.GetClassID(), "CPMemoryList");
  EXPECT_EQ(list.GetItemSize(), 32u);
  EXPECT_EQ(list.GetNGrowth(), 5u);
  CPMemory a = Block("a");
  EXPECT_EQ(list.Add(a), 0u);
  EXPECT_EQ(list.GetNAllocItems(), 5u);  // 164 bytes asked, 192 granted
  // The handles stand on 8-byte boundaries although items are 4 bytes past the block's start.
  for (DWORD i = 0; i < 4; ++i) list.Add(a);
  for (DWORD i = 0; i < list.GetNItems(); ++i)
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(list.GetItem(i, 1)) % 8, 0u) << i;
  EXPECT_EQ(&list.GetList()[1].Memory(), list.GetItem(1, 1));
  EXPECT_EQ(list.GetCList()[4].dwID, 4u);
}

TEST(CPMemoryList, ItemsShareAndRelease) {
  CPMemory a = Block("alpha"), b = Block("beta");
  {
    CPMemoryList list;
    EXPECT_EQ(list.Add(a), 0u);
    EXPECT_EQ(list.Insert(b, 0), 1u);
    EXPECT_EQ(a.GetRefCnt(), 2);
    EXPECT_EQ(b.GetRefCnt(), 2);
    EXPECT_EQ(TextAt(list, 0), "beta");
    EXPECT_EQ(list.GetItem(0, 1)->GetCDataPtr(), b.GetCDataPtr());
    EXPECT_EQ(list.GetItem(7, 1), nullptr);
    EXPECT_EQ(list.GetItem(0, 0)->GetCDataPtr(), a.GetCDataPtr());  // by identity
    EXPECT_EQ(list.Delete(1, 0, 0), 1);  // b's item
    EXPECT_EQ(b.GetRefCnt(), 1);
    list.Add(b);
    list.Add(b);
    EXPECT_EQ(b.GetRefCnt(), 3);
  }
  EXPECT_EQ(a.GetRefCnt(), 1);  // the list's destruction released its handles
  EXPECT_EQ(b.GetRefCnt(), 1);
}

TEST(CPMemoryList, ReadOnlyItemCopies) {
  zrtest::DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  CPMemory a = Block("x");
  CPMemoryList list;
  list.Add(a);
  CPMemory copy = list.GetCItem(0, 1);
  EXPECT_EQ(copy.GetFlags(), CPMemory::READONLY);
  EXPECT_EQ(copy.GetCDataPtr(), a.GetCDataPtr());
  EXPECT_EQ(a.GetRefCnt(), 3);
  EXPECT_EQ(copy.GetDataPtr(), nullptr);
  EXPECT_NE(capture.Text().find("Attempt to write-access cast READONLY memory."), std::string::npos);
  EXPECT_EQ(list.GetCItem(5, 1).GetHeader(), nullptr);
}

TEST(CPMemoryList, GrowthMovesAndCopiesKeepCounts) {
  std::vector<CPMemory> blocks;
  for (int i = 0; i < 12; ++i) blocks.push_back(Block(std::to_string(i).c_str()));
  CPMemoryList list;
  for (CPMemory& block : blocks) list.Add(block);  // grows twice
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(blocks[i].GetRefCnt(), 2) << i;
    EXPECT_EQ(TextAt(list, i), std::to_string(i));
  }
  // A list copy shares the list's block; a private copy instantiates every handle.
  CPMemoryList copy(list);
  EXPECT_EQ(copy.GetCList(), list.GetCList());
  EXPECT_EQ(blocks[0].GetRefCnt(), 2);
  ASSERT_EQ(copy.Realloc(), 1);
  EXPECT_NE(copy.GetCList(), list.GetCList());
  for (int i = 0; i < 12; ++i) EXPECT_EQ(blocks[i].GetRefCnt(), 3) << i;
  EXPECT_EQ(copy.Move(0, 11), 1);
  EXPECT_EQ(TextAt(copy, 11), "0");
  EXPECT_EQ(copy.Clear(0), 1);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(blocks[i].GetRefCnt(), 2) << i;
  CPMemoryList assigned;
  assigned = list;
  EXPECT_EQ(assigned.GetCList(), list.GetCList());
  list.Free();
  EXPECT_EQ(blocks[3].GetRefCnt(), 2);  // still held through `assigned`
  assigned.Free();
  EXPECT_EQ(blocks[3].GetRefCnt(), 1);
}

TEST(CPMemoryList, ReplaceSwapsTheHandle) {
  CPMemory a = Block("a"), b = Block("b");
  CPMemoryList list;
  list.Add(a);
  alignas(16) BYTE storage[4 + sizeof(tagCPMEMLIST)];
  auto* record = reinterpret_cast<tagCPMEMLIST*>(storage + 4);
  CPMemory* handle = new (record->memory) CPMemory(b);
  EXPECT_EQ(list.Replace(record, 0, 1, 0), 1);
  handle->~CPMemory();
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_EQ(b.GetRefCnt(), 2);
  EXPECT_EQ(TextAt(list, 0), "b");
}

// Handles cannot be stored: a loaded list holds as many items as were saved, all empty.
TEST(CPMemoryList, LoadedItemsAreEmptyHandles) {
  CPMemory a = Block("a");
  CPMemoryList list;
  list.Add(a);
  list.Add(a);
  CMemChunkArchive writer;
  writer.Open(CHNK_ACCESS_WRITE);
  ASSERT_EQ(list.DynaSave(N("M"), writer), 1);
  writer.Close();
  CMemChunkArchive reader;
  CPMemoryFile content = writer.GetContent();
  reader.SetContent(content);
  reader.Open(CHNK_ACCESS_READ);
  CPMemoryList loaded;
  loaded.Add(a);
  EXPECT_EQ(a.GetRefCnt(), 4);
  ASSERT_EQ(loaded.DynaLoad(N("M"), reader, 0, 0), 1);
  EXPECT_EQ(a.GetRefCnt(), 3);  // the loading list's own item was released
  ASSERT_EQ(loaded.GetNItems(), 2u);
  EXPECT_EQ(loaded.GetItem(0, 1)->GetHeader(), nullptr);
  EXPECT_EQ(loaded.GetItem(1, 1)->GetHeader(), nullptr);
}

}  // namespace
