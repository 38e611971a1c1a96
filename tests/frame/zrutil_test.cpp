// String, buffer and array utilities: stated cases, bounds quirks, the open family, and zrqsort's
// exact order of equal elements against a recursive reading of the same algorithm.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "zrobj/zrutil.h"

namespace {

struct Record {
  std::int32_t key;
  std::uint32_t id;
  std::uint32_t pad;
};

int CompareRecords(const void* a, const void* b) {
  const auto ka = static_cast<const Record*>(a)->key, kb = static_cast<const Record*>(b)->key;
  return ka < kb ? -1 : ka > kb ? 1 : 0;
}

int CompareInts(const void* a, const void* b) {
  const int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

// The sort as described, written recursively over std::swap: the order of equal elements must match.
void ReferenceSort(std::vector<Record>& v, long low, long high) {
  while (high - low + 1 > 8) {
    std::swap(v[low], v[low + (high - low + 1) / 2]);
    long i = low + 1, j = high;
    for (;;) {
      while (i <= high && v[i].key <= v[low].key) ++i;
      while (j > low && v[j].key >= v[low].key) --j;
      if (j < i) break;
      std::swap(v[i], v[j]);
    }
    std::swap(v[low], v[j]);
    ReferenceSort(v, low, j - 1);
    low = i;
  }
  for (; high > low; --high) {
    long greatest = low;
    for (long k = low + 1; k <= high; ++k)
      if (v[k].key > v[greatest].key) greatest = k;
    std::swap(v[greatest], v[high]);
  }
}

std::vector<Record> MakeRecords(std::mt19937& rng, std::size_t n, int distinct) {
  std::vector<Record> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = {static_cast<std::int32_t>(rng() % distinct), static_cast<std::uint32_t>(i), 0};
  return v;
}

std::vector<std::uint32_t> Ids(const std::vector<Record>& v) {
  std::vector<std::uint32_t> ids;
  for (const auto& r : v) ids.push_back(r.id);
  return ids;
}

TEST(ZrUtil, FileNames) {
  char a[] = "a:b?c";
  EXPECT_EQ(LegalizeFilenameA(a), a);
  EXPECT_STREQ(a, "a_b_c");
  char16_t w[] = u"\\/:*?\"<>|ok.txt";
  LegalizeFilenameW(w);
  EXPECT_EQ(std::u16string(w), u"_________ok.txt");
  EXPECT_EQ(LegalizeFilenameA(nullptr), nullptr);

  char16_t buf[16];
  std::fill(std::begin(buf), std::end(buf), u'#');
  EXPECT_EQ(LegalizeBufferW(buf, u"abcdef", 1), buf);
  EXPECT_EQ(std::u16string(buf), u"");
  LegalizeBufferW(buf, u"abcdef", 4);
  EXPECT_EQ(std::u16string(buf), u"abc");
  EXPECT_EQ(buf[4], u'#');
  LegalizeBufferW(buf, u"a/b", 0);  // size 0: no limit
  EXPECT_EQ(std::u16string(buf), u"a_b");
  LegalizeBufferW(buf, u"x|", 16);
  EXPECT_EQ(std::u16string(buf), u"x_");
  char narrow[8];
  LegalizeBufferA(narrow, "c:\\dir\\file", 8);
  EXPECT_STREQ(narrow, "c__dir_");
}

TEST(ZrUtil, SeparatedLists) {
  char16_t s[64] = u"";
  EXPECT_EQ(strAppend(s, u"x", u';'), 1);
  EXPECT_EQ(std::u16string(s), u"x");
  EXPECT_EQ(strAppend(s, u"y", u';'), 1);
  EXPECT_EQ(std::u16string(s), u"x;y");
  char16_t t[8] = u"a";
  EXPECT_EQ(strAppend(t, nullptr, u';'), 1);
  EXPECT_EQ(std::u16string(t), u"a;");
  char16_t e[8] = u"";
  EXPECT_EQ(strAppend(e, nullptr, u';'), 1);
  EXPECT_EQ(std::u16string(e), u"");
  EXPECT_EQ(strAppend(nullptr, u"x", u';'), 0);
  EXPECT_EQ(strAppend(s, u"x", 0), 0);
  EXPECT_EQ(std::u16string(s), u"x;y");

  const char16_t* entries[] = {u"Alpha", nullptr, u"BETA", u"beta"};
  EXPECT_EQ(strIndex(u"beta", entries, 4), 2);
  EXPECT_EQ(strIndex(u"ALPHA", entries, 4), 0);
  EXPECT_EQ(strIndex(u"alph", entries, 4), -1);
  EXPECT_EQ(strIndex(u"beta", entries, 0), -1);
  EXPECT_EQ(strIndex(u"beta", entries, 2), -1);

  // strGetTag reads back what strAppend builds.
  char16_t item[8];
  EXPECT_EQ(strGetTagW(u"x;y", 0, u';', item, 8), 1);
  EXPECT_EQ(std::u16string(item), u"x");
  EXPECT_EQ(strGetTagW(u"x;y", 1, u';', item, 8), 1);
  EXPECT_EQ(std::u16string(item), u"y");
  EXPECT_EQ(strGetTagW(u"x;y", 2, u';', item, 8), -1);
  EXPECT_EQ(strGetTagW(u"a;", 1, u';', item, 8), 0);
  EXPECT_EQ(std::u16string(item), u"");
  EXPECT_EQ(strGetTagW(u"", 0, u';', item, 8), -1);
  EXPECT_EQ(strGetTagW(u"x", -1, u';', item, 8), -1);
  char small[4];
  EXPECT_EQ(strGetTagA("first,second", 1, ',', small, 4), 6);  // full length, truncated copy
  EXPECT_STREQ(small, "sec");
  EXPECT_EQ(strGetTagA("a,,b", 1, ',', nullptr, 0), 0);
  EXPECT_EQ(strGetTagA("a,,b", 2, ',', small, 4), 1);
  EXPECT_STREQ(small, "b");

  char field[8];
  EXPECT_STREQ(LSetStringA(field, "ab", 5), "ab   ");
  EXPECT_STREQ(LSetStringA(field, "abcdefg", 3), "abc");
  EXPECT_STREQ(LSetStringA(field, nullptr, 2), "  ");
  char16_t wfield[8];
  EXPECT_EQ(std::u16string(LSetStringW(wfield, u"xyz", 4)), u"xyz ");
  EXPECT_EQ(std::u16string(LSetStringW(wfield, u"xyz", 0)), u"");
}

TEST(ZrUtil, Buffers) {
  // Odd length exercises both the word loop and the byte tail.
  std::vector<BYTE> dst = {0xFF, 0x00, 0xAA, 0x55, 0x12, 0x34, 0x56};
  const std::vector<BYTE> src = {0x00, 0xFF, 0x55, 0xAA, 0xFF, 0xFF, 0x00};
  const std::vector<BYTE> mask = {0x0F, 0xF0, 0xFF, 0x00, 0x81, 0x00, 0xFF};
  std::vector<BYTE> expect(7);
  for (int i = 0; i < 7; ++i) expect[i] = static_cast<BYTE>((dst[i] & ~mask[i]) | (src[i] & mask[i]));
  PatCpy(dst.data(), src.data(), mask.data(), 7);
  EXPECT_EQ(dst, expect);
  EXPECT_EQ(dst[0], 0xF0);
  EXPECT_EQ(dst[4], 0x93);

  const BYTE zeros[5] = {}, one[5] = {0, 0, 0, 0, 1};
  EXPECT_EQ(IsZeroMemory(zeros, 5), 1);
  EXPECT_EQ(IsZeroMemory(one, 5), 0);
  EXPECT_EQ(IsZeroMemory(one, 4), 1);
  EXPECT_EQ(IsZeroMemory(nullptr, 0), 1);
  EXPECT_EQ(IsZeroMemory(nullptr, 1), 0);

  char block[16] = "abcdefghijklmno";
  EXPECT_EQ(SwapNOMemory(block, block + 8, 7), 1);
  EXPECT_STREQ(block, "ijklmnohabcdefg");
  EXPECT_EQ(SwapNOMemory(block, block + 4, 5), 0);  // overlapping: unchanged
  EXPECT_EQ(SwapNOMemory(block, block, 3), 0);
  EXPECT_STREQ(block, "ijklmnohabcdefg");
  EXPECT_EQ(SwapNOMemory(block, block + 4, 4), 1);  // adjacent is fine
  EXPECT_STREQ(block, "mnohijklabcdefg");

  const BYTE data[] = {0x00, 0x9F, 0xA0, 0xFF};
  char hex[16];
  EXPECT_EQ(Bin2HexCode(data, 4, hex), 8u);
  EXPECT_STREQ(hex, "009FA0FF");
  BYTE back[4] = {};
  EXPECT_EQ(HexCode2Bin("009fA0FF", back, 4), 4u);
  EXPECT_EQ(std::memcmp(back, data, 4), 0);
  BYTE untouched[2] = {7, 7};
  EXPECT_EQ(HexCode2Bin("0A1", untouched, 2), 0xFFFFFFFFu);
  EXPECT_EQ(HexCode2Bin("0G", untouched, 2), 0xFFFFFFFFu);
  EXPECT_EQ(HexCode2Bin("010203", untouched, 2), 0xFFFFFFFFu);
  EXPECT_EQ(HexCode2Bin(nullptr, untouched, 2), 0xFFFFFFFFu);
  EXPECT_EQ(untouched[0], 7);
  EXPECT_EQ(HexCode2Bin("", untouched, 0), 0u);
}

TEST(ZrUtil, QsortOrderOfEqualElements) {
  // 8 equal elements: selection sort rotates them; 9: the pivot swap exchanges the first and middle.
  for (auto [n, expected] : {std::pair<int, std::vector<std::uint32_t>>{8, {1, 2, 3, 4, 5, 6, 7, 0}},
                             {9, {4, 1, 2, 3, 0, 5, 6, 7, 8}}}) {
    std::vector<Record> v(n);
    for (int i = 0; i < n; ++i) v[i] = {5, static_cast<std::uint32_t>(i), 0};
    zrqsort(v.data(), n, sizeof(Record), CompareRecords);
    EXPECT_EQ(Ids(v), expected) << n;
  }
  // Sizes around the 8-element threshold and many duplicates: sorted, and the same permutation as
  // the described algorithm.
  std::mt19937 rng(2024);
  for (int n = 0; n <= 40; ++n) {
    for (int distinct : {1, 2, 3, 1000}) {
      auto v = MakeRecords(rng, n, distinct);
      auto expected = v;
      if (n > 1) ReferenceSort(expected, 0, n - 1);
      zrqsort(v.data(), n, sizeof(Record), CompareRecords);
      ASSERT_TRUE(std::is_sorted(v.begin(), v.end(), [](auto& a, auto& b) { return a.key < b.key; }));
      ASSERT_EQ(Ids(v), Ids(expected)) << "n " << n << " distinct " << distinct;
    }
  }
  for (auto [n, distinct] : {std::pair{1000, 2}, std::pair{4099, 7}, std::pair{20000, 1 << 30}}) {
    auto v = MakeRecords(rng, n, distinct);
    auto expected = v;
    ReferenceSort(expected, 0, n - 1);
    zrqsort(v.data(), n, sizeof(Record), CompareRecords);
    ASSERT_EQ(Ids(v), Ids(expected)) << n;
  }
  // Sizes that are not a multiple of 4 swap their tail bytes too; size 0 and count < 2 do nothing.
  std::vector<std::array<char, 3>> triples = {{'c', '1', '!'}, {'a', '2', '@'}, {'b', '3', '#'}};
  zrqsort(triples.data(), 3, 3, [](const void* a, const void* b) { return *(const char*)a - *(const char*)b; });
  EXPECT_EQ(std::string(triples[0].data(), 3) + std::string(triples[2].data(), 3), "a2@c1!");
  int one[2] = {2, 1};
  zrqsort(one, 1, sizeof(int), CompareInts);
  zrqsort(one, 2, 0, CompareInts);
  EXPECT_EQ(one[0], 2);
}

TEST(ZrUtil, QsearchIsLowerBound) {
  const int v[] = {10, 20, 30};
  auto find = [&](int key, UINT count = 3) { return zrqsearch(&key, v, count, sizeof(int), CompareInts); };
  EXPECT_EQ(find(5), 0u);
  EXPECT_EQ(find(20), 1u);
  EXPECT_EQ(find(25), 2u);
  EXPECT_EQ(find(35), 3u);
  EXPECT_EQ(find(5, 0), 0u);
  EXPECT_EQ(find(15, 1), 1u);
  EXPECT_EQ(zrqsearch(nullptr, v, 3, sizeof(int), CompareInts), 0u);
  EXPECT_EQ(zrqsearch(v, nullptr, 3, sizeof(int), CompareInts), 0u);

  std::mt19937 rng(5);
  for (int round = 0; round < 300; ++round) {
    std::vector<int> a(rng() % 50);
    for (int& x : a) x = static_cast<int>(rng() % 20);
    std::sort(a.begin(), a.end());
    for (int key = -1; key <= 21; ++key) {
      const auto expected = std::lower_bound(a.begin(), a.end(), key) - a.begin();
      ASSERT_EQ(zrqsearch(&key, a.data(), static_cast<UINT>(a.size()), sizeof(int), CompareInts),
                static_cast<UINT>(expected))
          << "size " << a.size() << " key " << key;
    }
  }
}

}  // namespace
