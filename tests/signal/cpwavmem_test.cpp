// CPWavMemory: allocation and header, loading WAVE files (including hostile ones), the save that
// always deletes its file, and the save refusal message.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/files.h"
#include "tests/support/test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/cpwavmem.h"

namespace {

using zrtest::DebugMode;
using zrtest::TempDir;

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

void Put16(std::string* out, unsigned value) {
  char b[2];
  zr::StoreLE16(b, static_cast<std::uint16_t>(value));
  out->append(b, 2);
}

void Put32(std::string* out, unsigned value) {
  char b[4];
  zr::StoreLE32(b, value);
  out->append(b, 4);
}

struct Format {
  unsigned tag = 1;
  unsigned channels = 2;
  unsigned rate = 48000;
  unsigned align = 4;
  unsigned bits = 16;
  unsigned chunk_size = 18;  // of "fmt "; the fields past 16 bytes are padded with 0xEE
};

std::string Chunk(const std::string& tag, const std::string& body) {
  std::string out = tag;
  Put32(&out, static_cast<unsigned>(body.size()));
  return out + body;
}

std::string FormatChunk(const Format& f) {
  std::string body;
  Put16(&body, f.tag);
  Put16(&body, f.channels);
  Put32(&body, f.rate);
  Put32(&body, f.rate * f.align);
  Put16(&body, f.align);
  Put16(&body, f.bits);
  Put16(&body, 0);
  body.resize(f.chunk_size, '\xEE');
  return Chunk("fmt ", body);
}

// A whole file: RIFF header, format chunk, `between` (other chunks), the data chunk.
std::string WaveFile(const Format& f, const std::string& data, const std::string& between = "") {
  const std::string rest = "WAVE" + FormatChunk(f) + between + Chunk("data", data);
  std::string out = "RIFF";
  Put32(&out, static_cast<unsigned>(rest.size()));
  return out + rest;
}

std::string Pattern(std::size_t n) {
  std::string out(n, '\0');
  for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 7 + 3);
  return out;
}

class WavFileTest : public ::testing::Test {
 protected:
  // Writes `bytes` to a scratch file and loads it.
  int Load(const std::string& bytes) {
    EXPECT_TRUE(zrtest::WriteFile(path_, bytes));
    return wav_.LoadFromFile(Wide(path_).c_str());
  }
  void ExpectEmpty() {
    EXPECT_EQ(wav_.GetSize(), 0u);
    EXPECT_EQ(wav_.GetWavSize(), 0u);
    EXPECT_EQ(wav_.GetNSamples(), 0u);
    EXPECT_EQ(static_cast<const tagZRWAVFORMAT*>(std::as_const(wav_)), nullptr);
  }
  const BYTE* Bytes() const { return static_cast<const BYTE*>(wav_.GetCDataPtr()); }

  TempDir dir_;
  std::string path_ = dir_.File("in.wav");
  CPWavMemory wav_;
};

TEST(CPWavMemory, AllocWritesTheHeaderAndSizes) {
  CPWavMemory wav;
  ASSERT_EQ(wav.Alloc(100, 48000, 16, 2, 1), 1);
  EXPECT_EQ(wav.GetSize(), 476u);
  EXPECT_EQ(wav.GetWavSize(), 400u);
  EXPECT_EQ(wav.GetNSamples(), 100u);
  const tagZRWAVFORMAT* h = std::as_const(wav);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->wFormatTag, 1);
  EXPECT_EQ(h->nChannels, 2);
  EXPECT_EQ(h->nSamplesPerSec, 48000u);
  EXPECT_EQ(h->nAvgBytesPerSec, 192000u);
  EXPECT_EQ(h->nBlockAlign, 4);
  EXPECT_EQ(h->wBitsPerSample, 16);
  EXPECT_EQ(h->cbSize, 58);
  EXPECT_EQ(h->dwHeaderSize, 76u);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(h) + 24, "VORN", 4), 0);
  EXPECT_EQ(h->dwStreams, 1u);
  EXPECT_EQ(h->dwReserved2, 0xFFFFFFFFu);
  EXPECT_EQ(h->dwReserved3, 0u);
  EXPECT_EQ(std::vector<BYTE>(h->reserved5, h->reserved5 + 28), std::vector<BYTE>(28, 0));
  const short* samples = std::as_const(wav);
  EXPECT_EQ(reinterpret_cast<const BYTE*>(samples), reinterpret_cast<const BYTE*>(h) + 76);
  short* writable = wav;
  EXPECT_EQ(static_cast<const short*>(writable), samples);

  EXPECT_EQ(CPWavMemory::GetMemSizeWav(100, 16, 2, 1), 476u);
  EXPECT_EQ(CPWavMemory::GetMemSizeWav(10, 8, 1, 3), 106u);
  EXPECT_EQ(CPWavMemory::GetMemSizeWav(0xFFFFFFFFul, 16, 2, 2), 0u);  // does not fit 32 bits
  ASSERT_EQ(wav.Alloc(10, 8000, 8, 1, 3), 1);
  EXPECT_EQ(wav.GetWavSize(), 30u);
  EXPECT_EQ(static_cast<const tagZRWAVFORMAT*>(std::as_const(wav))->dwStreams, 3u);
  EXPECT_EQ(static_cast<const tagZRWAVFORMAT*>(std::as_const(wav))->nBlockAlign, 1);
}

TEST(CPWavMemory, AllocRefusesBadFormats) {
  CPWavMemory wav;
  EXPECT_EQ(wav.Alloc(100, 48000, 24, 2, 1), 0);
  EXPECT_EQ(wav.GetSize(), 0u);
  EXPECT_EQ(wav.GetNSamples(), 0u);
  EXPECT_EQ(static_cast<short*>(wav), nullptr);
  // A refused format returns before the held block is touched.
  ASSERT_EQ(wav.Alloc(4, 8000, 8, 1, 1), 1);
  EXPECT_EQ(wav.Alloc(0, 48000, 16, 2, 1), 0);
  EXPECT_EQ(wav.Alloc(100, 48000, 16, 0, 1), 0);
  EXPECT_EQ(wav.Alloc(100, 48000, 16, 2, 0), 0);
  EXPECT_EQ(wav.Alloc(100, 48000, 12, 2, 1), 0);
  EXPECT_EQ(wav.Alloc(0xFFFFFFFFul, 48000, 16, 2, 2), 0);
  EXPECT_EQ(wav.GetSize(), 80u);
  EXPECT_EQ(wav.GetNSamples(), 4u);
}

TEST(CPWavMemory, CopiesShareAndReleaseTheBlock) {
  CPWavMemory wav;
  ASSERT_EQ(wav.Alloc(10, 8000, 16, 1, 1), 1);
  {
    CPWavMemory copy(wav);
    EXPECT_EQ(copy.GetHeader(), wav.GetHeader());
    EXPECT_EQ(wav.GetRefCnt(), 2);
    CPWavMemory assigned;
    assigned = wav;
    EXPECT_EQ(assigned.GetHeader(), wav.GetHeader());
    EXPECT_EQ(wav.GetRefCnt(), 3);
  }
  EXPECT_EQ(wav.GetRefCnt(), 1);  // each copy let go of its reference on destruction
}

TEST(CPWavMemory, ConstructBuildsAnEmptyHandle) {
  alignas(CPWavMemory) unsigned char place[sizeof(CPWavMemory)];
  std::memset(place, 0xCD, sizeof place);
  CPWavMemory* wav = CPWavMemory::Construct(place);
  EXPECT_EQ(wav->GetWavSize(), 0u);
  EXPECT_STREQ(wav->GetClassID(), "CPWavMemory");
  ASSERT_EQ(wav->Alloc(2, 8000, 8, 1, 1), 1);
  wav->~CPWavMemory();
}

TEST_F(WavFileTest, LoadPutsTheDataOverTheHeader) {
  const std::string data = Pattern(400);  // 100 stereo 16-bit frames
  ASSERT_EQ(Load(WaveFile(Format{}, data)), 1);
  EXPECT_EQ(wav_.GetSize(), 476u);
  EXPECT_EQ(wav_.GetWavSize(), 400u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(Bytes()), 400), data);
  // The header fields now read back sample bytes: the sample count is bytes 40..43 of the data.
  EXPECT_EQ(wav_.GetNSamples(), zr::LoadLE32(data.data() + 40));
  EXPECT_NE(wav_.GetNSamples(), 100u);
}

TEST_F(WavFileTest, ShortDataLeavesTheRestOfTheAllocatedHeader) {
  const std::string data = Pattern(12);  // 3 frames: only the first 12 header bytes are covered
  ASSERT_EQ(Load(WaveFile(Format{}, data)), 1);
  EXPECT_EQ(wav_.GetWavSize(), 12u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(Bytes()), 12), data);
  EXPECT_EQ(wav_.GetNSamples(), 3u);
  EXPECT_EQ(static_cast<const tagZRWAVFORMAT*>(std::as_const(wav_))->wBitsPerSample, 16);
}

TEST_F(WavFileTest, SixteenByteFormatTakesTheShortPath) {
  Format f;
  f.chunk_size = 16;
  f.bits = 8;  // ignored: the short form computes 4 x 8 / 2 = 16
  const std::string data = Pattern(8);
  ASSERT_TRUE(zrtest::WriteFile(path_, WaveFile(f, data)));
  ZRWavFileFormat format;
  ASSERT_EQ(CPWavMemory::ReadFileFormat(Wide(path_).c_str(), &format), 1);
  EXPECT_EQ(format.bitsPerSample, 16u);
  EXPECT_EQ(format.dataSize, 8u);
  EXPECT_EQ(format.sampleCount, 2u);
  ASSERT_EQ(Load(WaveFile(f, data)), 1);  // the 2 bytes behind the 14 are skipped to reach "data"
  EXPECT_EQ(wav_.GetWavSize(), 8u);
  EXPECT_EQ(static_cast<const tagZRWAVFORMAT*>(std::as_const(wav_))->wBitsPerSample, 16);
}

TEST_F(WavFileTest, LongFormatChunkIsSkipped) {
  Format f;
  f.chunk_size = 40;
  f.channels = 1;
  f.align = 1;
  f.bits = 8;
  ASSERT_EQ(Load(WaveFile(f, Pattern(5))), 1);
  EXPECT_EQ(wav_.GetWavSize(), 5u);
}

// A failed load frees the block held before.
TEST_F(WavFileTest, ChunkBetweenFormatAndDataOrMissingFileFails) {
  ASSERT_EQ(wav_.Alloc(4, 8000, 8, 1, 1), 1);
  EXPECT_EQ(Load(WaveFile(Format{}, Pattern(16), Chunk("LIST", "INFOabcd"))), 0);
  ExpectEmpty();
  ASSERT_EQ(wav_.Alloc(4, 8000, 8, 1, 1), 1);
  EXPECT_EQ(wav_.LoadFromFile(Wide(dir_.File("none.wav")).c_str()), 0);
  ExpectEmpty();
}

TEST_F(WavFileTest, EveryCutFileFails) {
  const std::string whole = WaveFile(Format{}, Pattern(40));
  for (std::size_t n = 0; n < whole.size(); ++n) {
    EXPECT_EQ(Load(whole.substr(0, n)), 0) << n;
    ExpectEmpty();
  }
  EXPECT_EQ(Load(whole), 1);
}

TEST_F(WavFileTest, BadHeadersFail) {
  std::string file = WaveFile(Format{}, Pattern(8));
  for (std::size_t at : {0u, 8u, 12u}) {
    std::string bad = file;
    bad[at] ^= 0x20;
    EXPECT_EQ(Load(bad), 0) << at;
  }
  Format f;
  f.tag = 3;
  EXPECT_EQ(Load(WaveFile(f, Pattern(8))), 0);
  f = Format{};
  f.chunk_size = 16;
  f.tag = 0xFFFE;
  EXPECT_EQ(Load(WaveFile(f, Pattern(8))), 0);
  ExpectEmpty();
}

TEST_F(WavFileTest, HostileFormatsFail) {
  Format zero_align;
  zero_align.align = 0;
  EXPECT_EQ(Load(WaveFile(zero_align, Pattern(8))), 0);
  Format zero_channels;
  zero_channels.chunk_size = 14;
  zero_channels.channels = 0;
  EXPECT_EQ(Load(WaveFile(zero_channels, Pattern(8))), 0);
  Format tiny;
  tiny.chunk_size = 10;
  EXPECT_EQ(Load(WaveFile(tiny, Pattern(8))), 0);
  Format wide;
  wide.bits = 24;
  wide.align = 6;
  EXPECT_EQ(Load(WaveFile(wide, Pattern(12))), 0);
  // A block align larger than channels x bits / 8 would make the data outgrow the block.
  Format loose;
  loose.channels = 1;
  loose.bits = 8;
  loose.align = 8;
  EXPECT_EQ(Load(WaveFile(loose, Pattern(800))), 0);
  ExpectEmpty();
}

TEST_F(WavFileTest, HugeSizesFailWithoutAllocating) {
  std::string file = WaveFile(Format{}, Pattern(8));
  std::string huge_data = file;
  zr::StoreLE32(huge_data.data() + 20 + 18 + 4, 0xFFFFFFFCu);
  EXPECT_EQ(Load(huge_data), 0);
  std::string huge_fmt = file;
  zr::StoreLE32(huge_fmt.data() + 16, 0xFFFFFFF0u);
  EXPECT_EQ(Load(huge_fmt), 0);
  std::string huge_riff = file;
  zr::StoreLE32(huge_riff.data() + 4, 0xFFFFFFFFu);
  EXPECT_EQ(Load(huge_riff), 1);  // the RIFF size is not checked
  EXPECT_EQ(wav_.GetWavSize(), 8u);
}

// Records the size of every system write.
std::vector<DWORD> g_writes;
DWORD RecordWrite(zr::os::FileHandle, DWORD count) {
  g_writes.push_back(count);
  return count;
}

class ScopedWriteRecorder {
 public:
  ScopedWriteRecorder() : previous_(zr::os::SetFileWriteHook(RecordWrite)) { g_writes.clear(); }
  ~ScopedWriteRecorder() { zr::os::SetFileWriteHook(previous_); }
  ScopedWriteRecorder(const ScopedWriteRecorder&) = delete;
  ScopedWriteRecorder& operator=(const ScopedWriteRecorder&) = delete;

 private:
  zr::os::FileWriteHook previous_;
};

constexpr char kRefusal[] = "\rCPWavMemory::SaveToFile: Empty wav or uStreams>1\r\n";

// A short wave still writes eighteen sample bytes.
TEST_F(WavFileTest, SaveWritesEverythingThenFailsItsLastCheckAndDeletes) {
  for (const unsigned bits : {16u, 8u}) {
    SCOPED_TRACE(bits);
    const DWORD frames = bits == 16 ? 20 : 1;
    ASSERT_EQ(wav_.Alloc(frames, 8000, bits, 1, 1), 1);
    ASSERT_TRUE(zrtest::WriteFile(path_, "old contents"));
    DebugMode debug(1);
    zr::os::ScopedDiagCapture capture;
    {
      ScopedWriteRecorder recorder;
      EXPECT_EQ(wav_.SaveToFile(Wide(path_).c_str()), 0);
      EXPECT_EQ(g_writes, (std::vector<DWORD>{20, 18, 8, 18}));
    }
    EXPECT_EQ(zr::os::GetFileAttributesW(Wide(path_).c_str()), zr::os::kInvalidFileAttributes);
    EXPECT_TRUE(capture.Entries().empty());
    EXPECT_EQ(wav_.GetWavSize(), frames * bits / 8);  // the block is untouched
  }
}

TEST_F(WavFileTest, SaveRefusesSeveralStreamsAndEmptyBlocks) {
  ASSERT_EQ(wav_.Alloc(20, 8000, 16, 1, 2), 1);
  {
    DebugMode debug(1);
    zr::os::ScopedDiagCapture capture;
    ScopedWriteRecorder recorder;
    EXPECT_EQ(wav_.SaveToFile(Wide(path_).c_str()), 0);
    EXPECT_TRUE(g_writes.empty());
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].channel, 4u);
    EXPECT_EQ(capture.Entries()[0].level, 3u);
    EXPECT_EQ(capture.Text(), kRefusal);
    capture.Clear();
    CPWavMemory empty;
    EXPECT_EQ(empty.SaveToFile(Wide(path_).c_str()), 0);
    EXPECT_EQ(capture.Text(), kRefusal);
  }
  {
    DebugMode quiet(0);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(wav_.SaveToFile(Wide(path_).c_str()), 0);
    EXPECT_TRUE(capture.Entries().empty());
  }
  EXPECT_EQ(zr::os::GetFileAttributesW(Wide(path_).c_str()), zr::os::kInvalidFileAttributes);
}

}  // namespace
