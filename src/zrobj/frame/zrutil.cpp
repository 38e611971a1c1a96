// String, buffer and array utilities; narrow and wide forms share one template each.
#include "zrobj/zrutil.h"

#include <cstdint>
#include <cstring>
#include <utility>

namespace {

template <class Char>
constexpr bool IsIllegalFilenameChar(Char c) {
  switch (c) {
    case '\\': case '/': case ':': case '*': case '?': case '"': case '<': case '>': case '|':
      return true;
    default:
      return false;
  }
}

template <class Char>
constexpr Char LegalChar(Char c) { return IsIllegalFilenameChar(c) ? Char('_') : c; }

template <class Char>
Char* LegalizeFilename(Char* name) {
  if (!name) return name;
  for (Char* p = name; *p; ++p) *p = LegalChar(*p);
  return name;
}

template <class Char>
Char* LegalizeBuffer(Char* destination, const Char* source, UINT size) {
  if (!destination) return destination;
  const UINT limit = size - 1;  // unsigned on purpose: size 0 means no limit
  UINT i = 0;
  for (; source && i < limit && source[i]; ++i) destination[i] = LegalChar(source[i]);
  destination[i] = 0;
  return destination;
}

template <class Char>
std::size_t Length(const Char* text) {
  std::size_t n = 0;
  while (text[n]) ++n;
  return n;
}

template <class Char>
Char* LSetString(Char* destination, const Char* source, UINT width) {
  if (!destination) return destination;
  UINT i = 0;
  for (; source && i < width && source[i]; ++i) destination[i] = source[i];
  for (; i < width; ++i) destination[i] = Char(' ');
  destination[width] = 0;
  return destination;
}

template <class Char>
int StrGetTag(const Char* text, int index, Char separator, Char* item, UINT size) {
  if (!text || index < 0 || !text[0]) return -1;
  const Char* begin = text;
  for (int skipped = 0; skipped < index; ++skipped) {
    while (*begin && *begin != separator) ++begin;
    if (!*begin) return -1;  // fewer separators than index: no such item
    ++begin;
  }
  const Char* end = begin;
  while (*end && *end != separator) ++end;
  const std::size_t length = static_cast<std::size_t>(end - begin);
  if (item && size > 0) {
    const std::size_t copied = length < size - 1 ? length : size - 1;
    std::memcpy(item, begin, copied * sizeof(Char));
    item[copied] = 0;
  }
  return static_cast<int>(length);
}

constexpr WCHAR LowerAscii(WCHAR c) { return (c >= u'A' && c <= u'Z') ? WCHAR(c - u'A' + u'a') : c; }

bool EqualIgnoringCase(const WCHAR* a, const WCHAR* b) {
  for (; *a && *b; ++a, ++b)
    if (LowerAscii(*a) != LowerAscii(*b)) return false;
  return *a == *b;
}

std::uint32_t Load32(const BYTE* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

void Store32(BYTE* p, std::uint32_t v) { std::memcpy(p, &v, 4); }

// Exchanges two blocks: 32-bit words first, the remaining bytes last.
void SwapBytes(BYTE* a, BYTE* b, std::size_t n) {
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const std::uint32_t t = Load32(a + i);
    Store32(a + i, Load32(b + i));
    Store32(b + i, t);
  }
  for (; i < n; ++i) std::swap(a[i], b[i]);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// ---- zrqsort ----------------------------------------------------------------------------------

class Sorter {
 public:
  Sorter(void* base, std::size_t size, ZRCOMPAREPROC compare)
      : base_(static_cast<BYTE*>(base)), size_(size), compare_(compare) {}

  void Sort(std::int64_t low, std::int64_t high);

 private:
  struct Range {
    std::int64_t low, high;
  };
  // Enough for any 32-bit count: each pushed range is the larger half, so the range we continue
  // with at least halves before the next push.
  static constexpr int kStackSize = 30;
  static constexpr std::int64_t kSelectionMax = 8;

  BYTE* At(std::int64_t i) const { return base_ + static_cast<std::size_t>(i) * size_; }
  int Compare(std::int64_t a, std::int64_t b) const { return compare_(At(a), At(b)); }
  void Swap(std::int64_t a, std::int64_t b) const {
    if (a != b) SwapBytes(At(a), At(b), size_);
  }
  void SelectionSort(std::int64_t low, std::int64_t high) const;
  // Partitions [low, high] around its middle element; returns the sub-ranges left and right of it.
  std::pair<Range, Range> Partition(std::int64_t low, std::int64_t high) const;

  BYTE* base_;
  std::size_t size_;
  ZRCOMPAREPROC compare_;
};

void Sorter::SelectionSort(std::int64_t low, std::int64_t high) const {
  for (; high > low; --high) {
    std::int64_t greatest = low;
    for (std::int64_t k = low + 1; k <= high; ++k)
      if (Compare(k, greatest) > 0) greatest = k;  // a later element wins only when strictly greater
    Swap(greatest, high);
  }
}

std::pair<Sorter::Range, Sorter::Range> Sorter::Partition(std::int64_t low, std::int64_t high) const {
  Swap(low + (high - low + 1) / 2, low);  // middle element to the front as the pivot
  std::int64_t i = low + 1;
  std::int64_t j = high;
  for (;;) {
    while (i <= high && Compare(i, low) <= 0) ++i;
    while (j > low && Compare(j, low) >= 0) --j;
    if (j < i) break;
    // The swapped pair now passes both scans; stepping over it changes nothing for a consistent
    // comparison and guarantees progress for an inconsistent one.
    Swap(i++, j--);
  }
  Swap(low, j);
  // Elements strictly between j and i equal the pivot and are already in place.
  return {Range{low, j - 1}, Range{i, high}};
}

void Sorter::Sort(std::int64_t low, std::int64_t high) {
  Range stack[kStackSize];
  int depth = 0;
  for (;;) {
    while (high - low + 1 > kSelectionMax) {
      auto [left, right] = Partition(low, high);
      const bool left_larger = left.high - left.low >= right.high - right.low;
      const Range larger = left_larger ? left : right;
      const Range smaller = left_larger ? right : left;
      if (larger.high - larger.low + 1 > 1) {
        if (depth == kStackSize) {
          Sort(larger.low, larger.high);  // unreachable for 32-bit counts; kept for safety
        } else {
          stack[depth++] = larger;
        }
      }
      low = smaller.low;
      high = smaller.high;
    }
    SelectionSort(low, high);
    if (depth == 0) return;
    --depth;
    low = stack[depth].low;
    high = stack[depth].high;
  }
}

}  // namespace

char* LegalizeFilenameA(char* name) { return LegalizeFilename(name); }
WCHAR* LegalizeFilenameW(WCHAR* name) { return LegalizeFilename(name); }
char* LegalizeBufferA(char* destination, const char* source, UINT size) {
  return LegalizeBuffer(destination, source, size);
}
WCHAR* LegalizeBufferW(WCHAR* destination, const WCHAR* source, UINT size) {
  return LegalizeBuffer(destination, source, size);
}

int strAppend(WCHAR* destination, const WCHAR* source, WCHAR separator) {
  if (!destination || separator == 0) return 0;
  WCHAR* end = destination + Length(destination);
  if (end != destination) *end++ = separator;
  if (source)
    while (*source) *end++ = *source++;
  *end = 0;
  return 1;
}

int strIndex(const WCHAR* text, const WCHAR* const* entries, int count) {
  if (!text || !entries) return -1;
  for (int i = 0; i < count; ++i)
    if (entries[i] && EqualIgnoringCase(text, entries[i])) return i;
  return -1;
}

int strGetTagA(const char* text, int index, char separator, char* item, UINT size) {
  return StrGetTag(text, index, separator, item, size);
}
int strGetTagW(const WCHAR* text, int index, WCHAR separator, WCHAR* item, UINT size) {
  return StrGetTag(text, index, separator, item, size);
}

char* LSetStringA(char* destination, const char* source, UINT width) {
  return LSetString(destination, source, width);
}
WCHAR* LSetStringW(WCHAR* destination, const WCHAR* source, UINT width) {
  return LSetString(destination, source, width);
}

void PatCpy(void* destination, const void* source, const void* mask, UINT count) {
  auto* d = static_cast<BYTE*>(destination);
  const auto* s = static_cast<const BYTE*>(source);
  const auto* m = static_cast<const BYTE*>(mask);
  const UINT words = count - count % 4;
  UINT i = 0;
  for (; i < words; i += 4) {
    const std::uint32_t mw = Load32(m + i);
    Store32(d + i, (Load32(d + i) & ~mw) | (Load32(s + i) & mw));
  }
  for (; i < count; ++i) d[i] = static_cast<BYTE>((d[i] & ~m[i]) | (s[i] & m[i]));
}

int IsZeroMemory(const void* block, UINT count) {
  if (count == 0) return 1;
  if (!block) return 0;
  const auto* p = static_cast<const BYTE*>(block);
  for (UINT i = 0; i < count; ++i)
    if (p[i]) return 0;
  return 1;
}

int SwapNOMemory(void* first, void* second, UINT count) {
  if (count == 0) return 1;
  if (!first || !second) return 0;
  const auto a = reinterpret_cast<std::uintptr_t>(first);
  const auto b = reinterpret_cast<std::uintptr_t>(second);
  if (a < b + count && b < a + count) return 0;  // overlapping (or the same block)
  SwapBytes(static_cast<BYTE*>(first), static_cast<BYTE*>(second), count);
  return 1;
}

UINT Bin2HexCode(const void* data, UINT count, char* text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  if (!text) return 0;
  const auto* p = static_cast<const BYTE*>(data);
  for (UINT i = 0; i < count; ++i) {
    text[2 * i] = kDigits[p[i] >> 4];
    text[2 * i + 1] = kDigits[p[i] & 0xF];
  }
  text[2 * static_cast<std::size_t>(count)] = 0;
  return 2 * count;
}

UINT HexCode2Bin(const char* text, void* data, UINT size) {
  constexpr UINT kFailed = 0xFFFFFFFFu;
  if (!text) return kFailed;
  std::size_t digits = 0;
  for (; text[digits]; ++digits)
    if (HexDigit(text[digits]) < 0) return kFailed;
  if (digits % 2 != 0 || digits / 2 > size) return kFailed;
  if (digits > 0 && !data) return kFailed;
  auto* out = static_cast<BYTE*>(data);
  for (std::size_t i = 0; i < digits / 2; ++i)
    out[i] = static_cast<BYTE>(HexDigit(text[2 * i]) << 4 | HexDigit(text[2 * i + 1]));
  return static_cast<UINT>(digits / 2);
}

void zrqsort(void* base, UINT count, UINT size, ZRCOMPAREPROC compare) {
  if (count < 2 || size == 0) return;
  Sorter(base, size, compare).Sort(0, std::int64_t{count} - 1);
}

UINT zrqsearch(const void* key, const void* base, UINT count, UINT size, ZRCOMPAREPROC compare) {
  if (count == 0 || !base || !key || size == 0) return 0;
  const auto* p = static_cast<const BYTE*>(base);
  auto at = [&](UINT i) { return p + static_cast<std::size_t>(i) * size; };
  if (compare(key, at(0)) <= 0) return 0;
  if (compare(key, at(count - 1)) > 0) return count;
  if (count - 1 < 2) return count - 1;
  UINT low = 0;
  UINT high = count - 1;
  while (high - low > 1) {
    const UINT mid = low + (high - low) / 2;  // (low + high) / 2 without the overflow
    if (compare(key, at(mid)) <= 0) {
      high = mid;
    } else {
      low = mid;
    }
  }
  return high;
}
