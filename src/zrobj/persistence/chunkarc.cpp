// Chunk archives: one set of chunk operations over a stream (a CZRFile or a CPMemoryFile), with
// the few rules in which the file and the memory variant differ.
#include "zrobj/chunkarc.h"

#include <algorithm>
#include <cstdint>

#include "zrobj/byteorder.h"
#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

constexpr DWORD kHeaderSize = sizeof(tagCHNKHEADER);
constexpr unsigned long kMaxCount = 0xFFFFFFFFul;  // streams move at most 32 bits at a time
constexpr DWORD kRetryMs = 5;                      // busy-file retry interval of CChunkArchive::Open

// Absolute seek through a stream's signed 32-bit offsets.
template <class Stream>
bool SeekTo(Stream& stream, UINT64 position) {
  constexpr UINT64 kMaxOffset = 0x7FFFFFFF;
  if (position > kMaxCount) return false;
  if (position <= kMaxOffset) return stream.SetFilePtr(static_cast<LONG>(position), os::kFileBegin) != 0;
  return stream.SetFilePtr(static_cast<LONG>(kMaxOffset), os::kFileBegin) &&
         stream.SetFilePtr(static_cast<LONG>(position - kMaxOffset), os::kFileCurrent);
}

// The rules in which the variants differ, by stream.
template <class Stream>
struct ChunkRules;

// The file variant: closing a chunk brings the parents' done counters up to the position, and a
// read delivers at least what remains of the chunk.
template <>
struct ChunkRules<CZRFile> {
  static constexpr const char16_t* kClass = u"CChunkArchive";
  static constexpr const char16_t* kMultipleClose = u"\rCChunkArchive::Chnk_Close: Multiple close detected!";
  static constexpr bool kParentsFollowClose = true;
  static constexpr bool kReadsRemainder = true;
};

// The memory variant leaves the parents' counters alone on close (its reader relies on the memory
// file's end-of-data clamp) and reads exactly what is asked.
template <>
struct ChunkRules<CPMemoryFile> {
  static constexpr const char16_t* kClass = u"CMemChunkArchive";
  static constexpr const char16_t* kMultipleClose = u"\rCMemChunkArchive::Chnk_Close: Multiple close detected!";
  static constexpr bool kParentsFollowClose = false;
  static constexpr bool kReadsRemainder = false;
};

// A null name reads as the empty name (id 0): it never matches an unnamed chunk (0xFC00).
DWORD ReadingId(const char* name) { return GetHashID(name ? name : ""); }
DWORD WritingId(const char* name) { return name ? GetHashID(name) : CHNK_UNNAMED_ID; }

// The chunk operations over `Stream`, which offers GetAccess, GetFilePtr, SetFilePtr(offset,
// method), Write and Read with the file object's meanings. Every call reaches the stream at once:
// the archive holds nothing back, so each result is that of the call's own writes.
template <class Stream>
class ChunkCore {
  using Rules = ChunkRules<Stream>;

 public:
  ChunkCore(Stream& stream, tagCHNKSTATE& state) : stream_(stream), state_(state) {}

  unsigned int Open(const char* name, unsigned long access) {
    const DWORD desired = static_cast<DWORD>(access) & CHNK_ACCESS_MASK;
    const DWORD file_access = stream_.GetAccess();
    if (file_access == 0) return Deny(3, u"\r%s::OpenChunk denied: No file access\r\n");
    if (state_.dwLevels >= CHNK_MAX_LEVELS) return Deny(4, u"\r%s::OpenChunk denied: Max. chunk layers expired\r\n");
    if (!AccessAllowed(desired, file_access)) {
      Report(3, u"%s::OpenChunk denied: dwDesiredAccess=%08X, dwFileAccess=%08X, dwChunkAccess=%08X\r\n", desired,
             file_access, state_.dwChunkAccess);
      return CHNK_INVALID;
    }
    if (state_.dwLevels == 0) state_.dwChunkAccess = desired;
    return desired == CHNK_ACCESS_WRITE ? OpenForWrite(name) : OpenForRead(name);
  }

  int Close(unsigned int level, std::uintptr_t caller) {
    if (stream_.GetAccess() == 0 || level >= state_.dwLevels) return 0;
    const DWORD position = stream_.GetFilePtr();
    bool patched = true;
    if (state_.dwChunkAccess == CHNK_ACCESS_WRITE) {
      patched = PatchSizes(level, position, caller);
    } else {
      const tagCHNKLEVEL& closing = state_.levels[level];
      const UINT64 end = UINT64{closing.dwHeaderPos} + closing.dwSize + kHeaderSize;
      if (position < end) Seek(end);  // skip what was not read
    }
    state_.dwLevels = level;
    if (Rules::kParentsFollowClose) SetDoneFrom(stream_.GetFilePtr());
    return patched ? 1 : 0;  // the levels are closed either way
  }

  unsigned long GetSize(unsigned int level) const {
    if (stream_.GetAccess() == 0 || level >= state_.dwLevels) return 0;
    return state_.levels[level].dwSize;
  }

  unsigned long Write(const void* data, unsigned long count) {
    if (count == 0 || count > kMaxCount || !InChunk(CHNK_ACCESS_WRITE)) return 0;
    const DWORD done = stream_.Write(data, static_cast<DWORD>(count));
    Innermost().dwDone += done;
    return done;
  }

  unsigned long Read(void* data, unsigned long count) {
    if (count == 0 || !InChunk(CHNK_ACCESS_READ)) return 0;
    UINT64 wanted = count;
    if (Rules::kReadsRemainder) wanted = std::max<UINT64>(wanted, std::max<INT64>(Remaining(Innermost()), 0));
    const DWORD done = stream_.Read(data, static_cast<DWORD>(std::min<UINT64>(wanted, kMaxCount)));
    Innermost().dwDone += done;
    return done;
  }

  int Find(const char* name) {
    if (!InChunk(CHNK_ACCESS_READ)) return 0;
    INT64 remaining = Remaining(Innermost());
    if (remaining < kHeaderSize) {
      Report(4, u"\r%s::Chnk_Find failed: Not enough data for subchunk\r\n");
      return 0;
    }
    const DWORD start = stream_.GetFilePtr();
    const DWORD wanted = WritingId(name);
    UINT64 at = start;
    for (;;) {
      BYTE header[kHeaderSize];
      if (stream_.Read(header, kHeaderSize) < kHeaderSize || INT64{zr::LoadLE32(header + 4)} + kHeaderSize > remaining)
        return Restore(start, u"\r%s::Chnk_Find failed: Bad subchunk info\r\n");
      if (wanted != CHNK_UNNAMED_ID && zr::LoadLE32(header) == wanted) return Found(at);
      const UINT64 skipped = UINT64{zr::LoadLE32(header + 4)} + kHeaderSize;
      at += skipped;
      Seek(at);
      remaining -= static_cast<INT64>(skipped);
      if (wanted == CHNK_UNNAMED_ID) return Found(at);  // a null name steps over one sub-chunk
      if (remaining < kHeaderSize) return Restore(start, u"\r%s::Chnk_Find failed: No matching subchunk\r\n");
    }
  }

 private:
  template <class... Args>
  void Report(unsigned level, const char16_t* format, const Args&... args) {
    if (IsDebugOn()) os::wPrintf(3, level, format, Rules::kClass, args...);
  }
  unsigned int Deny(unsigned level, const char16_t* format) {
    Report(level, format);
    return CHNK_INVALID;
  }
  // A failed search reports and goes back to where it began.
  int Restore(DWORD start, const char16_t* format) {
    Report(4, format);
    Seek(start);
    return 0;
  }
  int Found(UINT64 at) {
    Seek(at);
    SetDoneFrom(static_cast<DWORD>(at));
    return 1;
  }

  bool AccessAllowed(DWORD desired, DWORD file_access) const {
    if (desired != CHNK_ACCESS_READ && desired != CHNK_ACCESS_WRITE) return false;
    if (state_.dwLevels != 0 && desired != state_.dwChunkAccess) return false;
    return (file_access & desired) != 0;
  }
  bool InChunk(DWORD access) const {
    return (stream_.GetAccess() & access) != 0 && state_.dwLevels != 0 && state_.dwChunkAccess == access;
  }
  tagCHNKLEVEL& Innermost() { return state_.levels[state_.dwLevels - 1]; }
  // Signed: a reader that went past a chunk's end has a negative remainder.
  static INT64 Remaining(const tagCHNKLEVEL& level) { return INT64{level.dwSize} - level.dwDone; }

  bool Seek(UINT64 position) { return SeekTo(stream_, position); }

  void SetDoneFrom(DWORD position) {
    for (DWORD i = 0; i < state_.dwLevels; ++i)
      state_.levels[i].dwDone = position - state_.levels[i].dwHeaderPos - kHeaderSize;
  }

  unsigned int PushLevel(DWORD header_pos, DWORD size) {
    state_.levels[state_.dwLevels] = tagCHNKLEVEL{header_pos, size, 0};
    return state_.dwLevels++;
  }

  unsigned int OpenForWrite(const char* name) {
    const DWORD at = stream_.GetFilePtr();
    BYTE header[kHeaderSize];
    zr::StoreLE32(header, WritingId(name));
    zr::StoreLE32(header + 4, 0);
    if (stream_.Write(header, kHeaderSize) < kHeaderSize)
      return Deny(4, u"\r%s::OpenChunk denied: Error writing chunk header\r\n");
    return PushLevel(at, 0);
  }

  unsigned int OpenForRead(const char* name) {
    if (state_.dwLevels != 0 && Remaining(Innermost()) < kHeaderSize)
      return Deny(4, u"\r%s::OpenChunk denied: Parent chunk exceeded\r\n");
    const DWORD at = stream_.GetFilePtr();
    BYTE header[kHeaderSize];
    if (stream_.Read(header, kHeaderSize) == kHeaderSize && zr::LoadLE32(header) == ReadingId(name))
      return PushLevel(at, zr::LoadLE32(header + 4));
    Seek(at);
    return Deny(4, u"\r%s::OpenChunk denied: Error reading chunk header\r\n");
  }

  // Sizes are measured from the current position, for the closing level and every deeper one.
  // False when a size did not reach the stream or the position could not be restored.
  bool PatchSizes(unsigned int level, DWORD position, std::uintptr_t caller) {
    if (IsDebugOn() && state_.dwLevels - level > 1) WarningMsg(Rules::kMultipleClose, caller, ZR_CURRENT_FRAME());
    bool patched = true;
    for (DWORD i = level; i < state_.dwLevels; ++i) {
      BYTE size[4];
      zr::StoreLE32(size, position - state_.levels[i].dwHeaderPos - kHeaderSize);
      patched = Seek(UINT64{state_.levels[i].dwHeaderPos} + 4) && stream_.Write(size, sizeof size) == sizeof size &&
                patched;
    }
    return Seek(position) && patched;
  }

  Stream& stream_;
  tagCHNKSTATE& state_;
};

template <class Stream>
ChunkCore<Stream> CoreOf(Stream& file, tagCHNKSTATE& state) {
  return ChunkCore<Stream>(file, state);
}

}  // namespace

CZRArchive::~CZRArchive() = default;

// ---- Shared by both variants ----

template <class Stream>
unsigned int CChunkArchiveT<Stream>::Chnk_Open(char* name, unsigned long access) {
  return CoreOf(file_, state_).Open(name, access);
}

template <class Stream>
int CChunkArchiveT<Stream>::Chnk_Close(unsigned int level) {
  return CoreOf(file_, state_).Close(level, ZR_CALLER_ADDRESS());
}

template <class Stream>
unsigned long CChunkArchiveT<Stream>::Chnk_GetSize(unsigned int level) {
  return CoreOf(file_, state_).GetSize(level);
}

template <class Stream>
unsigned long CChunkArchiveT<Stream>::Chnk_Write(void* data, unsigned long count) {
  return CoreOf(file_, state_).Write(data, count);
}

template <class Stream>
unsigned long CChunkArchiveT<Stream>::Chnk_Read(void* data, unsigned long count) {
  return CoreOf(file_, state_).Read(data, count);
}

template <class Stream>
DWORD CChunkArchiveT<Stream>::GetBytesLeft() {
  const DWORD position = GetFilePtr();
  const DWORD size = file_.GetSize();
  return size > position ? size - position : 0;
}

template <class Stream>
int CChunkArchiveT<Stream>::CloseAll() {
  const int patched = state_.dwLevels != 0 ? Chnk_Close(0) : 1;
  const int closed = file_.Close();
  return patched ? closed : 0;
}

template <class Stream>
void CChunkArchiveT<Stream>::Reset() {
  state_.dwLevels = 0;
  state_.dwSpare = 0;
}

template class CChunkArchiveT<CZRFile>;
template class CChunkArchiveT<CPMemoryFile>;

// ---- CChunkArchive ----

CChunkArchive::~CChunkArchive() { Close(); }

unsigned long CChunkArchive::Open(const WCHAR* path, DWORD access, DWORD creation, DWORD timeout) {
  Reset();
  const DWORD start = os::GetTickCount();
  for (;;) {
    const unsigned int result = file_.Open(path, access, 0, creation, os::kFileFlagSequentialScan, 0);
    if (result == CZRFile::kOpened) return 0;
    if (result != CZRFile::kSharingViolation) return 0xFFFFFFFFul;
    if (os::GetTickCount() - start > timeout) return CHNK_OPEN_TIMEOUT;
    os::Sleep(kRetryMs);
  }
}

int CChunkArchive::Delete() { return file_.Delete(); }

int CChunkArchive::SetEOF() { return file_.SetEOF(file_.GetFilePtr()); }

int CChunkArchive::Chnk_Find(char* name) { return CoreOf(file_, state_).Find(name); }

// ---- CMemChunkArchive ----

int CMemChunkArchive::Open(DWORD access) {
  Reset();
  return file_.Open(access);
}

int CMemChunkArchive::Delete() {
  file_.Close();
  file_.Free();
  return 1;
}

int CMemChunkArchive::SetContent(CPMemoryFile& source) {
  Delete();
  file_ = source;
  source.Free();
  return 1;
}
