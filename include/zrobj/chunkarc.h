// Chunk archives: nested, named, length-prefixed records in a disk file (CChunkArchive) or in a
// growable memory block (CMemChunkArchive), behind the abstract CZRArchive.
#pragma once

#include "zrobj/cpmemfile.h"
#include "zrobj/czrfile.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD CHNK_ACCESS_READ = 0x80000000u;
inline constexpr DWORD CHNK_ACCESS_WRITE = 0x40000000u;
inline constexpr DWORD CHNK_ACCESS_MASK = CHNK_ACCESS_READ | CHNK_ACCESS_WRITE;
inline constexpr unsigned int CHNK_MAX_LEVELS = 16;
inline constexpr unsigned int CHNK_INVALID = 0xFFFFFFFFu;  // Chnk_Open failed
inline constexpr DWORD CHNK_UNNAMED_ID = ZR_NO_ID;         // id of a chunk written without a name
inline constexpr unsigned long CHNK_OPEN_TIMEOUT = 258;    // CChunkArchive::Open: the file stayed busy

// The 8-byte header in front of every chunk's data, little-endian in files and memory.
struct tagCHNKHEADER {
  DWORD dwID;    // GetHashID of the name; CHNK_UNNAMED_ID without one
  DWORD dwSize;  // data bytes after the header; 0 until the chunk is closed
};
static_assert(sizeof(tagCHNKHEADER) == 8, "chunk header layout");

// One open nesting level.
struct tagCHNKLEVEL {
  DWORD dwHeaderPos;  // offset of the chunk's header
  DWORD dwSize;       // data size from the header (reading) or 0 (writing)
  DWORD dwDone;       // data bytes consumed or produced, from the end of the header
};

// What both archive variants keep after their stream, in this order.
struct tagCHNKSTATE {
  DWORD dwLevels = 0;       // chunks open now, 0 to 16
  DWORD dwChunkAccess = 0;  // read or write, fixed by the first chunk of a nesting
  DWORD dwSpare = 0;        // reset by construction and Open, otherwise unused
  tagCHNKLEVEL levels[CHNK_MAX_LEVELS] = {};
};

class ZROBJ_API CZRArchive {
 public:
  virtual ~CZRArchive();
  // The level index of the opened chunk, or CHNK_INVALID. Reading hashes `name` as given (a null
  // name as the empty one, id 0); writing gives a null name the id CHNK_UNNAMED_ID.
  virtual unsigned int Chnk_Open(char* name, unsigned long access) = 0;
  // Closes `level` and every deeper level; writing patches their sizes at once. 1; 0 if not open
  // or if a size could not be written (the levels are closed all the same).
  virtual int Chnk_Close(unsigned int level) = 0;
  virtual unsigned long Chnk_GetSize(unsigned int level) = 0;
  virtual unsigned long Chnk_Write(void* data, unsigned long count) = 0;
  virtual unsigned long Chnk_Read(void* data, unsigned long count) = 0;
};

// What both variants share: the stream (the archive's file), the levels after it and the five
// chunk operations over them. Instantiated for CZRFile and CPMemoryFile only.
template <class Stream>
class ZROBJ_API CChunkArchiveT : public CZRArchive {
 public:
  unsigned int Chnk_Open(char* name, unsigned long access) override;
  int Chnk_Close(unsigned int level) override;
  unsigned long Chnk_GetSize(unsigned int level) override;
  unsigned long Chnk_Write(void* data, unsigned long count) override;
  // File: reads the larger of `count` and what remains of the innermost chunk (the buffer must
  // hold the remainder; a request beyond the chunk's end reads past it). Memory: reads `count`,
  // clamped only at the end of the data.
  unsigned long Chnk_Read(void* data, unsigned long count) override;

  DWORD GetLevelCount() const { return state_.dwLevels; }
  DWORD GetFilePtr() const { return file_.GetFilePtr(); }
  // Bytes of the stream after the current position: all that a read can still deliver.
  DWORD GetBytesLeft();

 protected:
  CChunkArchiveT() = default;
  CChunkArchiveT(const CChunkArchiveT&) = default;
  CChunkArchiveT& operator=(const CChunkArchiveT&) = default;
  // Closes every open chunk through the virtual slot, then the stream; the stream's result, or 0
  // when a chunk's size could not be written.
  int CloseAll();
  void Reset();  // level count and spare word to 0

  Stream file_;
  tagCHNKSTATE state_;
};

extern template class ZROBJ_API CChunkArchiveT<CZRFile>;
extern template class ZROBJ_API CChunkArchiveT<CPMemoryFile>;

class ZROBJ_API CChunkArchive : public CChunkArchiveT<CZRFile> {
 public:
  CChunkArchive() = default;
  ~CChunkArchive() override;
  CChunkArchive(const CChunkArchive&) = delete;
  CChunkArchive& operator=(const CChunkArchive&) = delete;

  // Opens the file exclusively, retrying every 5 ms while another holder keeps it busy. 0 on
  // success, CHNK_OPEN_TIMEOUT (258) when still busy after `timeout` ms, 0xFFFFFFFF otherwise.
  unsigned long Open(const WCHAR* path, DWORD access, DWORD creation, DWORD timeout);
  int Close() { return CloseAll(); }  // the file's close result (0 if a size patch failed)
  int Delete();                       // CZRFile::Delete
  int SetEOF();  // truncates at the current position; CZRFile::SetEOF's result (always 0)
  // Reading: positions the file at the next sub-chunk called `name` inside the innermost chunk (a
  // null name steps over one sub-chunk). 1 found, 0 not (position restored).
  int Chnk_Find(char* name);
};

class ZROBJ_API CMemChunkArchive : public CChunkArchiveT<CPMemoryFile> {
 public:
  CMemChunkArchive() = default;
  // Copies share the memory (CPMemory rules) and take the levels as they are.
  CMemChunkArchive(const CMemChunkArchive& other) = default;
  CMemChunkArchive& operator=(const CMemChunkArchive& other) = default;
  ~CMemChunkArchive() override = default;  // frees the memory; open chunks are not closed

  int Open(DWORD access);              // CPMemoryFile::Open's result
  int Close() { return CloseAll(); }   // closes every open chunk, then the memory file
  int Delete();                        // closes and frees the memory; 1
  // Takes over the source's content (the source is left empty); reopen with Open to read it. 1.
  int SetContent(CPMemoryFile& source);
  CPMemoryFile GetContent() const { return file_; }
};
