// The strings: the DF_ conversions (sizes, conversions that fit or cut, the repair of loaded
// fields), CPTStr and CPWStr (sharing, cutting, concatenation, CPTStr's chunk forms and hostile
// chunks), and the UEnc/UDec escaping with its narrow encoder's stall.
#include "zrobj/cpstr.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/chunkarc.h"
#include "zrobj/zrhash.h"
#include "platform/files.h"
#include "platform/text.h"
#include "test_support.h"

namespace {

// Buffers of fewer than three bytes are refused; otherwise the first and last whole unit are cleared.
TEST(DFInit, ClearsTheFirstAndLastWholeUnit) {
  unsigned char tiny[2] = {0xAA, 0xBB};
  EXPECT_EQ(DF_Init(tiny, 2), 0);
  EXPECT_EQ(tiny[0], 0xAA);
  EXPECT_EQ(tiny[1], 0xBB);
  WCHAR buffer[3] = {u'a', u'b', u'c'};
  EXPECT_EQ(DF_Init(buffer, 5), 1);  // two whole units: 0 and 1
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer[1], 0);
  EXPECT_EQ(buffer[2], u'c');
}

TEST(DFSizes, NullEmptyAndMultiByteText) {
  EXPECT_EQ(DF_WideBufferSize(nullptr), 0u);
  EXPECT_EQ(DF_WideBufferSize(""), 2u);
  EXPECT_EQ(DF_WideBufferSize("abc"), 8u);
  EXPECT_EQ(DF_WideBufferSize("caf\xC3\xA9"), 10u);
  EXPECT_EQ(DF_WideBufferSize("\xF0\x9F\x98\x80"), 6u);  // one character, a surrogate pair
  EXPECT_EQ(DF_ANSIBufferSize(nullptr), 0u);
  EXPECT_EQ(DF_ANSIBufferSize(u""), 1u);
  EXPECT_EQ(DF_ANSIBufferSize(u"caf\u00e9"), 6u);
  EXPECT_EQ(DF_WideLen(nullptr), 0u);
  EXPECT_EQ(DF_WideLen(""), 0u);
  EXPECT_EQ(DF_WideLen("caf\xC3\xA9"), 4u);
  EXPECT_EQ(DF_ANSILen(nullptr), 0u);
  EXPECT_EQ(DF_ANSILen(u""), 0u);
  EXPECT_EQ(DF_ANSILen(u"caf\u00e9"), 5u);
  EXPECT_EQ(DF_ANSILen(u"\U0001F600"), 4u);
}

// Whole text counts its terminator; cut text is terminated, counts zero and never splits a pair.
TEST(DFToWideBuffer, WholeCutAndMalformedText) {
  WCHAR dest[8] = {u'x', u'x', u'x', u'x'};
  EXPECT_EQ(DF_ToWideBuffer(nullptr, "a", 4), 0u);
  EXPECT_EQ(DF_ToWideBuffer(dest, nullptr, 4), 0u);
  EXPECT_EQ(DF_ToWideBuffer(dest, "a", 0), 0u);
  EXPECT_EQ(dest[0], u'x');
  EXPECT_EQ(DF_ToWideBuffer(dest, "caf\xC3\xA9", 8), 5u);
  EXPECT_EQ(std::u16string(dest), u"caf\u00e9");
  EXPECT_EQ(DF_ToWideBuffer(dest, "", 8), 1u);
  EXPECT_EQ(dest[0], 0);
  EXPECT_EQ(DF_ToWideBuffer(dest, "abcdef", 4), 0u);
  EXPECT_EQ(std::u16string(dest), u"abc");
  EXPECT_EQ(DF_ToWideBuffer(dest, "a\xF0\x9F\x98\x80", 3), 0u);
  EXPECT_EQ(std::u16string(dest), u"a");
  EXPECT_EQ(DF_ToWideBuffer(dest, "a\xFF", 4), 3u);
  EXPECT_EQ(std::u16string(dest), u"a\uFFFD");
}

TEST(DFToANSIBuffer, WholeAndCutText) {
  char dest[8];
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"caf\u00e9", 8), 6u);
  EXPECT_STREQ(dest, "caf\xC3\xA9");
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"caf\u00e9", 5), 0u);  // the two bytes of e-acute do not fit
  EXPECT_STREQ(dest, "caf");
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"abc", 1), 0u);
  EXPECT_EQ(dest[0], 0);
  EXPECT_EQ(DF_ToANSIBuffer(dest, nullptr, 8), 0u);
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"a", 0), 0u);
}

TEST(DFToANSIPath, LoneSurrogatesBecomeUnderscores) {
  const WCHAR text[] = {u'a', 0xD800, u'b', 0xDC00, 0};
  char path[16];
  EXPECT_EQ(DF_ToANSIPath(path, text, sizeof path), 5u);
  EXPECT_STREQ(path, "a_b_");
  char plain[16];
  EXPECT_EQ(DF_ToANSIBuffer(plain, text, sizeof plain), 9u);
  EXPECT_STREQ(plain, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  EXPECT_EQ(DF_ToANSIPath(path, u"\U0001F600", sizeof path), 5u);  // a pair is a character
  EXPECT_STREQ(path, "\xF0\x9F\x98\x80");
}

TEST(DFLoadInit, ShortBuffersAndWideFieldsAreLeftAlone) {
  WCHAR field[4] = {u'a', u'b', u'c', 0};
  EXPECT_EQ(DF_LoadInit(field, 2), 1);
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_EQ(std::u16string(field), u"abc");
}

TEST(DFLoadInit, NarrowTextBecomesWide) {
  WCHAR field[4];
  std::memcpy(field, "abcdef", 6);
  field[3] = 1;  // marks narrow text
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_EQ(std::u16string(field), u"abc");  // four bytes read, cut to leave the terminator
  EXPECT_EQ(field[3], 0);

  WCHAR short_text[4];
  std::memcpy(short_text, "hi\0\0\0", 6);
  short_text[3] = 2;
  EXPECT_EQ(DF_LoadInit(short_text, sizeof short_text), 1);
  EXPECT_EQ(std::u16string(short_text), u"hi");
}

TEST(DFLoadInit, WideTextMeantToBeNarrowBecomesNarrow) {
  WCHAR field[4] = {u'w', u'x', u'y', u'z'};
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_STREQ(reinterpret_cast<const char*>(field), "wxy");
  EXPECT_EQ(field[3], 0);
}

}  // namespace

// ---- CPTStr and CPWStr -------------------------------------------------------------------------

namespace {

std::u16string Text(const WCHAR* chars) { return chars ? std::u16string(chars) : std::u16string(); }
template <class S>
std::u16string Text(const S& s) { return Text(static_cast<const WCHAR*>(s)); }
char* N(const char* name) { return const_cast<char*>(name); }

// A string holds its text terminated inside its data: what every operation must leave behind.
template <class S>
void ExpectWellFormed(const S& s) {
  const auto* chars = static_cast<const WCHAR*>(s);
  if (chars == nullptr) {
    EXPECT_EQ(s.GetLen(), 0ul);
    return;
  }
  const unsigned long units = s.GetSize() / 2;
  ASSERT_LT(s.GetLen(), units);
  EXPECT_EQ(chars[s.GetLen()], 0);
}

template <class S>
class StringTest : public ::testing::Test {};
using StringTypes = ::testing::Types<CPTStr, CPWStr>;
TYPED_TEST_SUITE(StringTest, StringTypes);

TYPED_TEST(StringTest, EmptyTextHoldsNoBlock) {
  TypeParam none;
  EXPECT_EQ(none.GetHeader(), nullptr);
  EXPECT_EQ(static_cast<const WCHAR*>(none), nullptr);
  EXPECT_EQ(none.GetLen(), 0ul);
  TypeParam s("abc");
  s = "";
  EXPECT_EQ(s.GetHeader(), nullptr);
  s = u"abc";
  s = static_cast<const char*>(nullptr);
  EXPECT_EQ(s.GetHeader(), nullptr);
  s = u"abc";
  s = u"";
  EXPECT_EQ(s.GetHeader(), nullptr);
  s = u"abc";
  s = static_cast<const WCHAR*>(nullptr);
  EXPECT_EQ(s.GetHeader(), nullptr);
  EXPECT_EQ(s.GetLen(), 0ul);
}

TYPED_TEST(StringTest, AssignmentSizesTheBlockToTheText) {
  TypeParam s("caf\xC3\xA9");
  EXPECT_EQ(Text(s), u"caf\u00e9");
  EXPECT_EQ(s.GetLen(), 4ul);
  EXPECT_EQ(s.GetSize(), 10ul);
  s = u"\U0001F600!";
  EXPECT_EQ(s.GetLen(), 3ul);
  EXPECT_EQ(s.GetSize(), 8ul);
  EXPECT_EQ(std::string(s.GetClassID()), (std::is_same_v<TypeParam, CPTStr> ? "CPTStr" : "CPWStr"));
}

TYPED_TEST(StringTest, CopiesShareTheBlock) {
  TypeParam a(u"shared");
  TypeParam b(a);
  EXPECT_EQ(b.GetHeader(), a.GetHeader());
  EXPECT_EQ(a.GetRefCnt(), 2);
  TypeParam c;
  c = a;
  EXPECT_EQ(c.GetHeader(), a.GetHeader());
  EXPECT_EQ(a.GetRefCnt(), 3);
  c = c;
  EXPECT_EQ(a.GetRefCnt(), 3);
  c = u"other";
  EXPECT_EQ(a.GetRefCnt(), 2);
  EXPECT_EQ(Text(b), u"shared");
}

TYPED_TEST(StringTest, OtherBlocksAreCopiedNotShared) {
  TypeParam a(u"text");
  const CPMemory& as_memory = a;
  TypeParam b(as_memory);
  EXPECT_NE(b.GetHeader(), a.GetHeader());
  EXPECT_EQ(Text(b), u"text");
  CPMemory raw;
  ASSERT_TRUE(raw.Alloc(6));
  std::memcpy(raw.GetDataPtr(), u"xyz", 6);  // three units, no terminator inside the data
  b = raw;
  EXPECT_EQ(Text(b), u"xyz");
  ExpectWellFormed(b);
}

TEST(StringConversion, BetweenTheTwoTypesTheTextIsCopied) {
  CPTStr t(u"t\u00e9xt");
  CPWStr w(t);
  EXPECT_NE(w.GetHeader(), t.GetHeader());
  EXPECT_EQ(Text(w), u"t\u00e9xt");
  CPTStr back = w.operator CPTStr();
  EXPECT_EQ(Text(back), u"t\u00e9xt");
  CPWStr again = t.operator CPWStr();
  EXPECT_EQ(Text(again), u"t\u00e9xt");
  CPTStr from_w;
  from_w = w;  // through the CPMemory assignment: a copy
  EXPECT_EQ(Text(from_w), u"t\u00e9xt");
  EXPECT_NE(from_w.GetHeader(), w.GetHeader());
}

TYPED_TEST(StringTest, CheckMemoryCutsTextThatOverrunsItsAllocation) {
  TypeParam s;
  ASSERT_TRUE(s.Alloc(3));
  const unsigned long allocated = s.GetAllocSize();
  ASSERT_TRUE(s.SetSize(allocated));
  auto* chars = static_cast<WCHAR*>(s);
  for (unsigned long i = 0; i < allocated / 2; ++i) chars[i] = u'x';
  TypeParam shared(s);  // sharing runs CheckMemory
  const unsigned long cut = (allocated - 1) / 2 - 1;
  EXPECT_EQ(shared.GetLen(), cut);
  EXPECT_EQ(s.GetLen(), cut);
  EXPECT_EQ(chars[cut], 0);
  EXPECT_EQ(s.GetSize(), (cut + 1) * 2);
  EXPECT_EQ(Text(shared), std::u16string(cut, u'x'));
}

// CheckMemory sizes the block to its text; GetLen looks only inside the data.
TYPED_TEST(StringTest, CheckMemorySizesTheBlockToItsText) {
  TypeParam s;
  ASSERT_TRUE(s.Alloc(10));
  std::memcpy(static_cast<WCHAR*>(s), u"ab", 6);
  EXPECT_EQ(s.GetSize(), 20ul);
  s.CheckMemory();
  EXPECT_EQ(s.GetSize(), 6ul);
  EXPECT_EQ(s.GetLen(), 2ul);
  TypeParam t;
  ASSERT_TRUE(t.Alloc(4));
  std::memcpy(static_cast<WCHAR*>(t), u"abcd", 8);  // no terminator among the four units
  EXPECT_EQ(t.GetLen(), 4ul);
  t.CheckMemory();  // a terminator behind the data, inside the allocation
  EXPECT_EQ(t.GetSize(), 10ul);
  EXPECT_EQ(Text(t), u"abcd");
}

TYPED_TEST(StringTest, PlusOfStringsMeasuresGetLen) {
  TypeParam abc(u"abc");
  const TypeParam sum = abc + TypeParam();
  EXPECT_EQ(sum.GetLen(), 3ul);
  EXPECT_EQ(sum.GetSize(), 8ul);
  EXPECT_NE(sum.GetHeader(), abc.GetHeader());  // a fresh string
  EXPECT_EQ(Text(abc + abc), u"abcabc");
  EXPECT_EQ((TypeParam() + TypeParam()).GetHeader(), nullptr);
  EXPECT_EQ((TypeParam() + "").GetHeader(), nullptr);
}

TEST(StringPlus, OtherTypeOperand) {
  CPTStr t(u"t");
  CPWStr w(u"w");
  const CPTStr tw = t + w;
  EXPECT_EQ(Text(tw), u"tw");
  EXPECT_EQ(tw.GetSize(), 6ul);
  EXPECT_EQ(Text(w + t), u"wt");
  t += w;
  EXPECT_EQ(Text(t), u"tw");
  w += CPTStr(u"t");
  EXPECT_EQ(Text(w), u"wt");
}

TYPED_TEST(StringTest, PlusNarrowMeasuresTheWideLength) {
  const TypeParam s(u"ab");
  const TypeParam sum = s + "\xC3\xA9\xE2\x82\xAC";  // e-acute and the euro sign: 5 bytes, 2 units
  EXPECT_EQ(Text(sum), u"ab\u00e9\u20ac");
  EXPECT_EQ(sum.GetSize(), (2 + 2 + 1) * 2ul);
  EXPECT_EQ(Text(s + static_cast<const char*>(nullptr)), u"ab");
}

TEST(StringPlus, WideOperandIsMeasuredAsNarrowBytesInCPTStrOnly) {
  const std::u16string tail = u"\u00e9\u20ac\U0001F600";  // 4 units, 2 + 3 + 4 UTF-8 bytes
  const CPTStr t(u"ab");
  const CPTStr tsum = t + tail.c_str();
  EXPECT_EQ(Text(tsum), u"ab" + tail);
  EXPECT_EQ(tsum.GetLen(), 6ul);
  EXPECT_EQ(tsum.GetSize(), (2 + 9 + 1) * 2ul);  // allocated larger than the text
  ExpectWellFormed(tsum);
  const CPWStr w(u"ab");
  const CPWStr wsum = w + tail.c_str();
  EXPECT_EQ(Text(wsum), u"ab" + tail);
  EXPECT_EQ(wsum.GetSize(), (2 + 4 + 1) * 2ul);
}

TEST(StringPlus, NarrowPrefixNeverContributesToACPTStr) {
  const CPTStr right(u"ab");
  const CPTStr sum = "xyz" + right;
  EXPECT_EQ(Text(sum), u"ab");
  EXPECT_EQ(sum.GetSize(), 6ul);
  EXPECT_NE(sum.GetHeader(), right.GetHeader());
  EXPECT_EQ(("xyz" + CPTStr()).GetHeader(), nullptr);
  EXPECT_EQ(("" + CPTStr()).GetHeader(), nullptr);
  EXPECT_EQ(Text(static_cast<const char*>(nullptr) + right), u"ab");
}

TEST(StringPlus, NarrowPrefixOfACPWStrIsMeasuredInBytes) {
  const CPWStr right(u"ab");
  const CPWStr sum = "\xC3\xA9x" + right;  // 3 bytes, 2 units
  EXPECT_EQ(Text(sum), u"\u00e9xab");
  EXPECT_EQ(sum.GetLen(), 4ul);
  EXPECT_EQ(sum.GetSize(), (3 + 2 + 1) * 2ul);
  ExpectWellFormed(sum);
  EXPECT_EQ(Text("xyz" + CPWStr()), u"xyz");
  EXPECT_EQ(("" + CPWStr()).GetHeader(), nullptr);
}

TYPED_TEST(StringTest, WidePrefixIsMeasuredInUnits) {
  const TypeParam right(u"ab");
  const TypeParam sum = u"\U0001F600x" + right;
  EXPECT_EQ(Text(sum), u"\U0001F600xab");
  EXPECT_EQ(sum.GetSize(), (3 + 2 + 1) * 2ul);
  EXPECT_EQ((u"" + TypeParam()).GetHeader(), nullptr);
}

TYPED_TEST(StringTest, AppendGrowsToTheJoinedText) {
  TypeParam s;
  s += "ab";
  EXPECT_EQ(Text(s), u"ab");
  s += u"\u00e9";
  s += TypeParam(u"cd");
  EXPECT_EQ(Text(s), u"ab\u00e9cd");
  EXPECT_EQ(s.GetSize(), (5 + 1) * 2ul);
  const void* header = s.GetHeader();
  s += "";
  s += static_cast<const char*>(nullptr);
  s += u"";
  s += TypeParam();
  EXPECT_EQ(s.GetHeader(), header);
  EXPECT_EQ(Text(s), u"ab\u00e9cd");
}

TYPED_TEST(StringTest, AppendLeavesSharersAlone) {
  TypeParam a(u"base");
  TypeParam b(a);
  b += u"+more";
  EXPECT_EQ(Text(a), u"base");
  EXPECT_EQ(Text(b), u"base+more");
  EXPECT_NE(a.GetHeader(), b.GetHeader());
  EXPECT_EQ(a.GetRefCnt(), 1);
}

TYPED_TEST(StringTest, OwnTextAsOperand) {
  TypeParam s(u"abc");
  s += s;
  EXPECT_EQ(Text(s), u"abcabc");
  s += static_cast<const WCHAR*>(s) + 4;
  EXPECT_EQ(Text(s), u"abcabcbc");
  s = static_cast<const WCHAR*>(s) + 3;
  EXPECT_EQ(Text(s), u"abcbc");
  const CPMemory& self = s;
  s = self;
  EXPECT_EQ(Text(s), u"abcbc");
}

// Construction in place forgets what the storage held: the block it named is not released.
TYPED_TEST(StringTest, ConstructBuildsAnEmptyStringInPlace) {
  TypeParam s(u"in place");
  TypeParam keep(s);
  s.Construct();
  EXPECT_EQ(s.GetHeader(), nullptr);
  EXPECT_EQ(s.GetLen(), 0ul);
  EXPECT_EQ(keep.GetRefCnt(), 2);
  --keep.GetHeader()->iRef;  // the reference the forgotten handle held
  s = u"again";
  EXPECT_EQ(Text(s), u"again");
}

// ---- chunk forms ---------------------------------------------------------------------------------

std::string LE32(DWORD v) {
  std::string out(4, '\0');
  zr::StoreLE32(out.data(), v);
  return out;
}
std::string Chunk(const char* name, const std::string& data) {
  return LE32(GetHashID(name)) + LE32(static_cast<DWORD>(data.size())) + data;
}
std::string Bytes(const std::u16string& units) {
  std::string out;
  for (char16_t u : units) out += {static_cast<char>(u & 0xFF), static_cast<char>(u >> 8)};
  return out;
}
std::string Bytes(const CPMemoryFile& memory) {
  const void* data = memory.GetCDataPtr();
  return data ? std::string(static_cast<const char*>(data), memory.GetSize()) : std::string();
}

// A memory archive holding `content`, open for reading.
struct ReadArchive {
  explicit ReadArchive(const std::string& content) {
    CPMemoryFile file;
    file.Open(CHNK_ACCESS_WRITE);
    file.Write(content.data(), static_cast<DWORD>(content.size()));
    arc.SetContent(file);
    arc.Open(CHNK_ACCESS_READ);
  }
  CMemChunkArchive arc;
};

// What a string saves into a fresh memory archive.
template <class S>
std::string Saved(S& s, int* result = nullptr) {
  CMemChunkArchive arc;
  arc.Open(CHNK_ACCESS_WRITE);
  const int saved = s.DynaSave(N("text"), arc);
  if (result) *result = saved;
  arc.Close();
  return Bytes(arc.GetContent());
}

// Loads the chunk "text" of `content` into a string that held something before.
CPTStr Loaded(const std::string& content, int* result) {
  ReadArchive in(content);
  CPTStr s(u"previous");
  *result = s.DynaLoad(N("text"), in.arc);
  return s;
}

// Form two and the units with their terminator; an empty string saves an empty chunk.
TEST(CPTStrChunk, SavesFormTwoOrAnEmptyChunk) {
  CPTStr s(u"h\u00e9");
  int result = 0;
  EXPECT_EQ(Saved(s, &result), Chunk("text", std::string(1, '\2') + Bytes(std::u16string(u"h\u00e9", 3))));
  EXPECT_EQ(result, 1);
  CPTStr empty;
  EXPECT_EQ(Saved(empty, &result), Chunk("text", ""));
  EXPECT_EQ(result, 1);
  CMemChunkArchive closed;
  EXPECT_EQ(s.DynaSave(N("text"), closed), 0);
}

TEST(CPTStrChunk, RoundTripsThroughMemoryAndFile) {
  const std::u16string text = u"round \u00e9\U0001F600 trip ^";
  CPTStr s(text.c_str());
  int result = 0;
  const std::string bytes = Saved(s, &result);
  ASSERT_EQ(result, 1);
  EXPECT_EQ(Text(Loaded(bytes, &result)), text);
  EXPECT_EQ(result, 1);

  zrtest::TempDir dir;
  const std::u16string path = zr::os::Utf8ToUtf16(dir.File("s.chunks"));
  CChunkArchive out;
  ASSERT_EQ(out.Open(path.c_str(), CHNK_ACCESS_WRITE, zr::os::kCreateAlways, 0), 0ul);
  ASSERT_EQ(s.DynaSave(N("a"), out), 1);
  ASSERT_EQ(s.DynaSave(N("b"), out), 1);
  out.Close();
  CChunkArchive in;
  ASSERT_EQ(in.Open(path.c_str(), CHNK_ACCESS_READ, zr::os::kOpenExisting, 0), 0ul);
  CPTStr a, b;
  EXPECT_EQ(a.DynaLoad(N("a"), in), 1);
  EXPECT_EQ(b.DynaLoad(N("b"), in), 1);  // the first load left the position at the second chunk
  EXPECT_EQ(Text(a), text);
  EXPECT_EQ(Text(b), text);
}

TEST(CPTStrChunk, ShortChunksLoadAsEmpty) {
  int result = 0;
  CPTStr one = Loaded(Chunk("text", std::string(1, '\2')), &result);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(one.GetHeader(), nullptr);
  CPTStr none = Loaded(Chunk("text", ""), &result);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(none.GetHeader(), nullptr);
}

TEST(CPTStrChunk, FormsZeroAndOneHoldNarrowText) {
  int result = 0;
  EXPECT_EQ(Text(Loaded(Chunk("text", std::string("\0abc\0", 5)), &result)), u"abc");
  EXPECT_EQ(result, 1);
  const CPTStr one = Loaded(Chunk("text", std::string("\1caf\xC3\xA9\0", 7)), &result);
  EXPECT_EQ(Text(one), u"caf\u00e9");
  EXPECT_EQ(one.GetSize(), 10ul);
  EXPECT_EQ(result, 1);
  // A payload without its terminator ends at the chunk's end.
  EXPECT_EQ(Text(Loaded(Chunk("text", std::string("\0ab", 3)), &result)), u"ab");
  EXPECT_EQ(Loaded(Chunk("text", std::string("\0\0", 2)), &result).GetHeader(), nullptr);
  EXPECT_EQ(result, 1);
}

TEST(CPTStrChunk, FormTwoKeepsThePayloadAsTheBlock) {
  int result = 0;
  const CPTStr junk = Loaded(Chunk("text", "\2" + Bytes(std::u16string(u"a\0z", 3))), &result);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Text(junk), u"a");
  EXPECT_EQ(junk.GetSize(), 6ul);  // the payload's size
  const CPTStr empty = Loaded(Chunk("text", "\2" + Bytes(std::u16string(1, u'\0'))), &result);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(empty.GetHeader(), nullptr);
}

TEST(CPTStrChunk, FormTwoWithoutTerminatorIsTerminated) {
  int result = 0;
  const CPTStr open_ended = Loaded(Chunk("text", "\2" + Bytes(u"ab")), &result);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Text(open_ended), u"ab");
  ExpectWellFormed(open_ended);
  const CPTStr odd = Loaded(Chunk("text", std::string("\2a\0b", 4)), &result);
  EXPECT_EQ(Text(odd), u"a");
  ExpectWellFormed(odd);
  // A payload that fills the whole allocation is cut to leave room for the terminator.
  const CPTStr full = Loaded(Chunk("text", "\2" + Bytes(std::u16string(48, u'x'))), &result);
  EXPECT_EQ(result, 1);
  ASSERT_EQ(full.GetAllocSize(), 96ul);
  EXPECT_EQ(full.GetLen(), (96ul - 1) / 2 - 1);
  ExpectWellFormed(full);
}

// Any other form: UTF-16 text whose narrow form becomes the block's bytes, read as units.
TEST(CPTStrChunk, OtherFormsTurnWideTextIntoNarrowBytes) {
  for (const std::u16string& wide : {std::u16string(u"abc"), std::u16string(u"ab"), std::u16string(u"\u00e9t\u00e9")}) {
    std::string narrow = zr::os::Utf16ToUtf8(wide);
    narrow.append(3, '\0');
    std::u16string expected;
    for (std::size_t i = 0; i + 1 < narrow.size(); i += 2) {
      const char16_t unit = static_cast<unsigned char>(narrow[i]) | static_cast<unsigned char>(narrow[i + 1]) << 8;
      if (unit == 0) break;
      expected += unit;
    }
    for (char form : {'\3', '\x7F', '\xFF'}) {
      int result = 0;
      const CPTStr s = Loaded(Chunk("text", form + Bytes(wide + u'\0')), &result);
      EXPECT_EQ(result, 1);
      EXPECT_EQ(Text(s), expected);
      ExpectWellFormed(s);
    }
  }
}

TEST(CPTStrChunk, MissingChunkFailsAndLeavesTheStringEmpty) {
  int result = 1;
  const CPTStr s = Loaded(Chunk("other", "\2" + Bytes(std::u16string(u"x", 2))), &result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(s.GetHeader(), nullptr);
}

TEST(CPTStrChunk, HostileChunksAreRefusedWithoutCrash) {
  int result = 1;
  // A size far beyond what the archive holds.
  const std::string claim = LE32(GetHashID("text")) + LE32(0xFFFFFFF0u) + "\2a\0";
  EXPECT_EQ(Loaded(claim, &result).GetHeader(), nullptr);
  EXPECT_EQ(result, 0);
  // Every cut of a saved string, and every form byte over a few payloads.
  CPTStr s(u"hostile \u00e9 text");
  const std::string saved = Saved(s);
  for (std::size_t n = 0; n < saved.size(); ++n) {
    const CPTStr cut = Loaded(saved.substr(0, n), &result);
    ExpectWellFormed(cut);
  }
  const std::string payloads[] = {std::string("\0", 1), "abc", Bytes(u"\xD800\xDC00\xFFFF"), std::string(33, '\xFF')};
  for (int form = 0; form < 256; ++form) {
    for (const std::string& payload : payloads) {
      const CPTStr loaded = Loaded(Chunk("text", static_cast<char>(form) + payload), &result);
      EXPECT_EQ(result, 1);
      ExpectWellFormed(loaded);
    }
  }
}

TEST(CPWStrChunk, SavesThePlainBlockAfterCheckMemory) {
  CPWStr w;
  ASSERT_TRUE(w.Alloc(8));
  std::memcpy(static_cast<WCHAR*>(w), u"wide", 10);
  int result = 0;
  EXPECT_EQ(Saved(w, &result), Chunk("text", Bytes(std::u16string(u"wide", 5))));
  EXPECT_EQ(result, 1);
  CPWStr empty;
  EXPECT_EQ(Saved(empty, &result), Chunk("text", ""));
  EXPECT_EQ(result, 1);
}

TEST(CPWStrChunk, LoadsBackThroughCPMemory) {
  CPWStr w(u"back");
  const std::string bytes = Saved(w);
  ReadArchive in(bytes);
  CPWStr loaded;
  EXPECT_EQ(loaded.CPMemory::DynaLoad(N("text"), in.arc, 0), 1);
  EXPECT_EQ(Text(loaded), u"back");
}

// ---- UEnc and UDec -------------------------------------------------------------------------------

TEST(UEnc, EscapesCaretsAndCharactersOutsidePrintableAscii) {
  const WCHAR source[] = {u'a', u'^', u'b', u'\n', 0};
  const UEnc enc(source);
  EXPECT_EQ(Text(static_cast<const WCHAR*>(enc)), u"a^^b^000A");
  EXPECT_EQ(UEnc::EncLen(source), 10ul);
  const UDec dec(static_cast<const WCHAR*>(enc));
  EXPECT_EQ(Text(static_cast<const WCHAR*>(dec)), std::u16string(source));
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UEnc(u"\x7F~ \x1F\xFFFF"))), u"\x7F~ ^001F^FFFF");
}

TEST(UEnc, NarrowSourcesOfPrintableAscii) {
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UEnc("a^b\x7F"))), u"a^^b\x7F");
  EXPECT_EQ(UEnc::EncLen("a^b"), 5ul);
  // Counting steps over every byte, whatever the encoder would do with it.
  EXPECT_EQ(UEnc::EncLen("\x01"), 6ul);
  EXPECT_EQ(UEnc::EncLen("\xC3\xA9"), 11ul);
  EXPECT_EQ(UEnc::EncLen(static_cast<const char*>(nullptr)), 1ul);
  EXPECT_EQ(UEnc::EncLen(u""), 1ul);
}

TEST(UEnc, NoSourceGivesTheEmptyText) {
  const UEnc none(static_cast<const char*>(nullptr));
  ASSERT_NE(static_cast<const WCHAR*>(none), nullptr);
  EXPECT_EQ(Text(static_cast<const WCHAR*>(none)), u"");
  UEnc again(u"x");
  again = static_cast<const WCHAR*>(again);  // the source is the old result
  EXPECT_EQ(Text(static_cast<const WCHAR*>(again)), u"x");
  again = "^";
  again = static_cast<const WCHAR*>(again);
  EXPECT_EQ(Text(static_cast<const WCHAR*>(again)), u"^^^^");
}

// The narrow encoder does not step past a byte outside 32..127: it keeps writing that byte's escape
// at the same place and never returns. A child shows it: its output, in shared memory, reaches the
// escape, and the encoder never marks its return.
TEST(UEnc, NarrowEncoderStallsOnAByteOutsidePrintableAscii) {
  struct Shared {
    WCHAR out[16];
    int returned;
  };
  void* map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  auto* shared = static_cast<volatile Shared*>(map);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    UEnc::Encode(const_cast<WCHAR*>(shared->out), "ab\x01" "cd");
    shared->returned = 1;
    _exit(0);
  }
  const std::u16string stalled = u"ab^0001";
  bool reached = false;
  for (int i = 0; i < 3000 && !reached; ++i) {  // at most 30 s for the child to get there
    std::u16string seen;
    for (std::size_t k = 0; k < stalled.size(); ++k) seen += shared->out[k];
    reached = seen == stalled;
    if (!reached) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  int status = 0;
  const pid_t ended = waitpid(child, &status, WNOHANG);
  const int returned = shared->returned;
  const WCHAR behind = shared->out[stalled.size()];
  kill(child, SIGKILL);
  if (ended == 0) waitpid(child, &status, 0);
  munmap(map, sizeof(Shared));
  EXPECT_TRUE(reached);
  EXPECT_EQ(ended, 0) << "the encoder ended";
  EXPECT_EQ(returned, 0);
  EXPECT_EQ(behind, 0) << "the encoder went past the byte";
}

TEST(UDec, UnreadableEscapesGiveAnUnderscore) {
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"^zzzz"))), u"_");
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"x^"))), u"x_");
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"^12"))), u"\x12");  // cut short by the end
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"^00e9x"))), u"\u00e9x");  // read as %04X: any case
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"^41zzq"))), u"Aq");  // the source moves on by 5
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec(u"^\u00e9123"))), u"_");
  EXPECT_EQ(UDec::DecLen(u"^zzzz^^a"), 4ul);
  EXPECT_EQ(UDec::DecLen(u""), 1ul);
  EXPECT_EQ(UDec::DecLen(static_cast<const char*>(nullptr)), 1ul);
}

TEST(UDec, NarrowBytesAreSignExtended) {
  EXPECT_EQ(Text(static_cast<const WCHAR*>(UDec("a\xC3\x7F^^^0041"))), std::u16string(u"a\xFFC3\x7F^A"));
}

TEST(UDec, DecodeProducesAtMostUnitsMinusOneCharacters) {
  WCHAR dest[8] = {u'x', u'x', u'x', u'x', u'x', u'x', u'x', u'x'};
  EXPECT_EQ(UDec::Decode(dest, u"abc", 0), dest);
  EXPECT_EQ(dest[0], u'x');
  UDec::Decode(dest, u"abc", 1);
  EXPECT_EQ(dest[0], 0);
  EXPECT_EQ(dest[1], u'x');
  UDec::Decode(dest, u"^^^0042c", 3);
  EXPECT_EQ(Text(dest), u"^B");
  UDec::Decode(dest, "abcdef", 4);
  EXPECT_EQ(Text(dest), u"abc");
}

// Round trips of a generated table: every unit alone and next to carets, digits and itself, and
// runs of surrogate pairs and escapes.
TEST(UEncUDec, EveryUnitRoundTrips) {
  std::vector<std::u16string> table;
  for (char32_t u = 1; u <= 0xFFFF; ++u) {
    const auto c = static_cast<char16_t>(u);
    table.push_back({c});
    table.push_back({u'^', c, u'0', u'0', u'4', u'1', c});
    table.push_back({c, u'^', u'^', c, u' ', u'F'});
  }
  table.push_back(u"\U0001F600\U00010000\U0010FFFF^0041^^^");
  table.push_back(std::u16string(300, u'^') + std::u16string(300, u'\xDBFF'));
  std::vector<WCHAR> encoded, decoded;
  for (const std::u16string& text : table) {
    const unsigned long enc_len = UEnc::EncLen(text.c_str());
    encoded.assign(enc_len + 1, u'#');
    UEnc::Encode(encoded.data(), text.c_str());
    ASSERT_EQ(encoded[enc_len - 1], 0);
    ASSERT_EQ(encoded[enc_len], u'#');
    for (unsigned long i = 0; i + 1 < enc_len; ++i) ASSERT_TRUE(encoded[i] >= 32 && encoded[i] <= 127);
    const unsigned long dec_len = UDec::DecLen(encoded.data());
    ASSERT_EQ(dec_len, text.size() + 1);
    decoded.assign(dec_len, u'#');
    UDec::Decode(decoded.data(), encoded.data(), dec_len);
    ASSERT_EQ(std::u16string(decoded.data()), text);
  }
}

TEST(UEncUDec, PrintableNarrowTextRoundTrips) {
  std::string all;
  for (int c = 32; c <= 127; ++c) all += static_cast<char>(c);
  for (std::size_t start = 0; start < all.size(); ++start) {
    const std::string text = all.substr(start) + all.substr(0, start);
    const UEnc enc(text.c_str());
    std::string narrow;
    for (const WCHAR* p = enc; *p; ++p) narrow += static_cast<char>(*p);
    ASSERT_EQ(narrow.size() + 1, UEnc::EncLen(text.c_str()));
    const UDec dec(narrow.c_str());
    ASSERT_EQ(Text(static_cast<const WCHAR*>(dec)), zr::os::Utf8ToUtf16(text));
  }
}

}  // namespace
