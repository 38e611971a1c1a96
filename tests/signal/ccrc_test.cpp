// CRC engines: tables against a bit-by-bit reference, known check values, input forms, folding,
// inert engines, packing and continuation.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "zrobj/ccrc.h"

namespace {

// Bit-at-a-time MSB-first CRC with zero initial value and no final XOR: the definition the tables
// must reproduce.
DWORD ReferenceCrc(unsigned width, DWORD poly, const std::vector<BYTE>& data) {
  const std::uint64_t top = std::uint64_t{1} << (width - 1);
  const std::uint64_t mask = (std::uint64_t{1} << width) - 1;
  std::uint64_t reg = 0;
  for (BYTE b : data) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool in = ((b >> bit) & 1) != 0;
      const bool msb = (reg & top) != 0;
      reg = (reg << 1) & mask;
      if (msb != in) reg ^= poly;
    }
  }
  return static_cast<DWORD>(reg & mask);
}

std::vector<BYTE> RandomBytes(std::mt19937& rng, std::size_t n) {
  std::vector<BYTE> out(n);
  for (auto& b : out) b = static_cast<BYTE>(rng());
  return out;
}

BYTE Folded(BYTE b) { return b >= 0x61 && b <= 0x7B ? static_cast<BYTE>(b - 0x20) : b; }

TEST(CCrc, KnownCheckValues) {
  const std::string check = "123456789";
  EXPECT_EQ(CMonoCRC(8, 0x07).Eval(check.c_str()), 0xF4u);             // CRC-8
  EXPECT_EQ(CMonoCRC(10, 0x233).Eval(check.c_str()), 0x199u);          // CRC-10/ATM
  EXPECT_EQ(CMonoCRC(15, 0x4599).Eval(check.c_str()), 0x059Eu);        // CRC-15/CAN
  EXPECT_EQ(CMonoCRC(16, 0x1021).Eval(check.data(), 9), 0x31C3u);      // CRC-16/XMODEM
  EXPECT_EQ(CMonoCRC(32, 0x04C11DB7).Eval(check.c_str()), 0x765E7680u ^ 0xFFFFFFFFu);  // CRC-32/CKSUM w/o xorout
}

TEST(CCrc, TablesMatchBitwiseReferenceForAllWidths) {
  std::mt19937 rng(1234);
  for (unsigned width = 8; width <= 32; ++width) {
    const DWORD mask = width == 32 ? 0xFFFFFFFFu : (DWORD{1} << width) - 1;
    const DWORD poly = (static_cast<DWORD>(rng()) & mask) | 1;
    const CMonoCRC crc(width, poly);
    ASSERT_TRUE(crc.IsValid());
    for (std::size_t len : {0u, 1u, 2u, 7u, 64u, 333u}) {
      const auto data = RandomBytes(rng, len);
      EXPECT_EQ(crc.Eval(data.data(), static_cast<unsigned>(len)), ReferenceCrc(width, poly, data))
          << "width " << width << " len " << len;
    }
  }
}

TEST(CCrc, InertEngines) {
  for (unsigned width : {0u, 7u, 33u, 64u}) {
    const CMonoCRC mono(width, 0x1021);
    EXPECT_FALSE(mono.IsValid());
    EXPECT_EQ(mono.Eval("abc"), 0u);
    EXPECT_EQ(mono.Eval(u"abc"), 0u);
    EXPECT_EQ(mono.Evali("abc"), 0u);
    EXPECT_EQ(mono.Eval("xyz", 3), 0u);
  }
  const CDualCRC bad_sum(16, 0x1021, 17, 0x1);
  const CDualCRC bad_width(7, 0x3, 16, 0x1021);
  for (const CDualCRC* dual : {&bad_sum, &bad_width}) {
    EXPECT_FALSE(dual->IsValid());
    EXPECT_EQ(dual->Eval(""), 0xFFFFFFFFu);
    EXPECT_EQ(dual->Eval("abc"), 0xFFFFFFFFu);
    EXPECT_EQ(dual->Evali("abc"), 0xFFFFFFFFu);
    EXPECT_EQ(dual->Eval(u"abc"), 0xFFFFFFFFu);
    EXPECT_EQ(dual->Evali(u"abc"), 0xFFFFFFFFu);
    EXPECT_EQ(dual->Eval("abc", 0), 0xFFFFFFFFu);
    EXPECT_EQ(dual->MainCRC(0x12345678), 0u);
    EXPECT_EQ(dual->SecondaryCRC(0x12345678), 0u);
  }
  EXPECT_TRUE(CDualCRC(8, 0x07, 24, 0x864CFB).IsValid());  // 8 + 24 = 32 is allowed
}

TEST(CCrc, EmptyInputIsZero) {
  const CDualCRC dual(10, 0x83, 16, 0x1021);
  EXPECT_EQ(dual.Eval(""), 0u);
  EXPECT_EQ(dual.Eval(u""), 0u);
  EXPECT_EQ(dual.Eval("x", 0), 0u);
  EXPECT_EQ(CMonoCRC(16, 0x1021).Eval(""), 0u);
}

TEST(CCrc, DualPacksTwoIndependentRegisters) {
  std::mt19937 rng(99);
  const CDualCRC dual(16, 0x1021, 15, 0x8123);
  const CMonoCRC main(16, 0x1021), secondary(15, 0x8123);
  for (int round = 0; round < 50; ++round) {
    const auto data = RandomBytes(rng, rng() % 200);
    const auto n = static_cast<unsigned>(data.size());
    const DWORD packed = dual.Eval(data.data(), n);
    EXPECT_EQ(dual.MainCRC(packed), main.Eval(data.data(), n));
    EXPECT_EQ(dual.SecondaryCRC(packed), secondary.Eval(data.data(), n));
    EXPECT_EQ(packed, (secondary.Eval(data.data(), n) << 17) | main.Eval(data.data(), n));
    EXPECT_EQ(packed & 0x10000u, 0u);  // bit 16 unused
  }
  const CDualCRC ids(10, 0x83, 16, 0x1021);
  const DWORD id = ids.Eval("SomeClassName");
  EXPECT_EQ(ids.MainCRC(id), CMonoCRC(10, 0x83).Eval("SomeClassName"));
  EXPECT_EQ(ids.SecondaryCRC(id), CMonoCRC(16, 0x1021).Eval("SomeClassName"));
  EXPECT_EQ(id & 0xFC00u, 0u);
}

TEST(CCrc, TextFormsAndFoldingTable) {
  const CDualCRC dual(10, 0x83, 16, 0x1021);
  const CMonoCRC mono(16, 0x1021);
  // Every single byte: the folded form feeds exactly the table's replacement.
  for (int b = 1; b < 256; ++b) {
    const char text[2] = {static_cast<char>(b), 0};
    const char folded[2] = {static_cast<char>(Folded(static_cast<BYTE>(b))), 0};
    EXPECT_EQ(dual.Evali(text), dual.Eval(folded)) << b;
    EXPECT_EQ(mono.Evali(text), mono.Eval(folded)) << b;
    const WCHAR wide[2] = {static_cast<WCHAR>(b), 0};
    const BYTE fed[2] = {Folded(static_cast<BYTE>(b)), 0};
    EXPECT_EQ(dual.Evali(wide), dual.Eval(fed, 2)) << b;
  }
  EXPECT_EQ(dual.Evali("a{z"), dual.Eval("A[Z"));
  EXPECT_NE(dual.Evali("`|"), dual.Eval("@\\"));  // 0x60 and 0x7C stay as they are
  EXPECT_EQ(dual.Evali("`|"), dual.Eval("`|"));

  // 16-bit units go low byte first; a non-zero high byte disables folding.
  const BYTE a_bytes[2] = {0x41, 0x00};
  EXPECT_EQ(dual.Eval(u"A"), dual.Eval(a_bytes, 2));
  EXPECT_EQ(mono.Eval(u"A"), mono.Eval(a_bytes, 2));
  const WCHAR high[] = {0x0161, 0x017B, 0};
  const BYTE high_bytes[] = {0x61, 0x01, 0x7B, 0x01};
  EXPECT_EQ(dual.Evali(high), dual.Eval(high_bytes, 4));
  EXPECT_EQ(mono.Evali(u"ab{"), mono.Eval(u"AB["));
  EXPECT_NE(dual.Eval(u"A"), dual.Eval("A"));
}

TEST(CCrc, ContinuationAndValueSemantics) {
  std::mt19937 rng(7);
  const auto data = RandomBytes(rng, 1000);
  const CDualCRC dual(16, 0x1021, 15, 0x8123);
  const CMonoCRC mono(32, 0x04C11DB7);
  for (unsigned split : {0u, 1u, 500u, 999u, 1000u}) {
    EXPECT_EQ(dual.EvalMore(dual.Eval(data.data(), split), data.data() + split, 1000 - split), dual.Eval(data.data(), 1000));
    EXPECT_EQ(mono.EvalMore(mono.Eval(data.data(), split), data.data() + split, 1000 - split), mono.Eval(data.data(), 1000));
  }
  EXPECT_EQ(CDualCRC(16, 0, 17, 0).EvalMore(0, data.data(), 10), 0xFFFFFFFFu);

  CDualCRC copy(16, 0, 17, 0);  // inert, then overwritten by a valid one
  copy = dual;
  EXPECT_EQ(copy.Eval(data.data(), 1000), dual.Eval(data.data(), 1000));
  CMonoCRC mono_copy = mono;
  EXPECT_EQ(mono_copy.Eval("abc"), mono.Eval("abc"));
  mono_copy = CMonoCRC(7, 0);
  EXPECT_EQ(mono_copy.Eval("abc"), 0u);
}

}  // namespace
