// CPTStr and CPWStr: UTF-16 strings in shared CPMemory blocks, their assignment, concatenation and
// CPTStr's tagged chunk format.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "persistence/cpmem_archive_internal.h"
#include "platform/text.h"
#include "zrobj/cheap.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpstr.h"
#include "zrobj/zrdiag.h"

namespace {

constexpr unsigned long kUnit = sizeof(WCHAR);
// The most units one block may hold: CPMemory sizes stay below 4 GiB with its header.
constexpr unsigned long long kMaxUnits = (0xFFFFFFFFull - 64) / kUnit;
constexpr const char* kSourceFile = "src/zrobj/cpstr";

// Forms of CPTStr's chunk (its first byte): 0 and 1 narrow text, 2 UTF-16 units.
constexpr BYTE kFormWide = 2;
bool IsNarrowForm(BYTE form) { return form < kFormWide; }

// Units before the first 0 unit among the first `limit`.
unsigned long ScanLen(const WCHAR* text, unsigned long limit) {
  return static_cast<unsigned long>(std::find(text, text + limit, u'\0') - text);
}

// Units of the block's data, whole ones only.
unsigned long DataUnits(const CPMemory& block) { return block.GetSize() / kUnit; }

bool Inside(const CPMemory& block, const void* at) {
  const void* data = block.GetCDataPtr();
  if (data == nullptr || at == nullptr) return false;
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const auto where = reinterpret_cast<std::uintptr_t>(at);
  return where >= begin && where - begin < block.GetAllocSize();
}

// Drops the block and allocates `bytes` bytes, all 0, so that nothing behind a text is left to
// chance. The data, or null (and no block) for 0 bytes or a failure.
void* AllocZeroed(CPMemory& block, unsigned long long bytes) {
  if (bytes == 0 || bytes > kMaxUnits * kUnit) {
    block.Free();
    return nullptr;
  }
  if (!block.CPMemory::Alloc(static_cast<unsigned long>(bytes), 0)) return nullptr;
  void* data = block.GetDataPtr();
  std::memset(data, 0, block.GetAllocSize());
  return data;
}

// One operand of a concatenation or an append: the units measured for it and its text, wide or
// narrow (narrow text is converted where it is written).
struct Piece {
  unsigned long long reserve = 0;
  std::u16string_view wide;
  const char* narrow = nullptr;
};

template <class S>
Piece StringPiece(const S& text) {
  const unsigned long len = text.GetLen();
  return {len, {static_cast<const WCHAR*>(text), len}, nullptr};
}

Piece NarrowPiece(const char* text, unsigned long long reserve) { return {reserve, {}, text}; }

Piece WidePiece(const WCHAR* text, unsigned long long reserve) {
  return {reserve, {text, zr::os::WStrLen(text)}, nullptr};
}

// How CPTStr and CPWStr measure what they do not measure alike: a wide operand of the member
// operator+ and a narrow prefix of the free one.
template <class Str>
unsigned long long WideOperandReserve(const WCHAR* text);
template <>
unsigned long long WideOperandReserve<CPTStr>(const WCHAR* text) { return DF_ANSILen(text); }  // UTF-8 bytes
template <>
unsigned long long WideOperandReserve<CPWStr>(const WCHAR* text) { return zr::os::WStrLen(text); }

template <class Str>
unsigned long long NarrowPrefixReserve(const char* text);
template <>
unsigned long long NarrowPrefixReserve<CPTStr>(const char*) { return 0; }  // the prefix never contributes
template <>
unsigned long long NarrowPrefixReserve<CPWStr>(const char* text) { return text ? std::strlen(text) : 0; }

// A piece whose text lies in `block` is copied out first, so that freeing or moving the block
// cannot pull it away.
void KeepApart(const CPMemory& block, Piece& piece, std::u16string& spare) {
  if (Inside(block, piece.narrow)) {
    spare = zr::os::Utf8ToUtf16(piece.narrow);
    piece.wide = spare;
    piece.narrow = nullptr;
  } else if (Inside(block, piece.wide.data())) {
    spare.assign(piece.wide);
    piece.wide = spare;
  }
}

// Writes the piece's text at `dest`, which has room for reserve + 1 units, and a 0 unit behind it;
// returns the units of text written.
unsigned long Put(WCHAR* dest, const Piece& piece) {
  dest[0] = 0;
  if (piece.reserve == 0) return 0;
  if (piece.narrow != nullptr) {
    DF_ToWideBuffer(dest, piece.narrow, static_cast<UINT>(piece.reserve + 1));
    return ScanLen(dest, static_cast<unsigned long>(piece.reserve));
  }
  const std::size_t units = std::min<unsigned long long>(piece.wide.size(), piece.reserve);
  std::memcpy(dest, piece.wide.data(), units * kUnit);
  dest[units] = 0;
  return static_cast<unsigned long>(units);
}

// A fresh string of `left` followed by `right`, allocated for both reserves and the terminator.
template <class Str>
Str Concat(const Piece& left, const Piece& right) {
  Str result;
  const unsigned long long units = left.reserve + right.reserve;
  if (units == 0) return result;
  auto* chars = static_cast<WCHAR*>(AllocZeroed(result, (units + 1) * kUnit));
  if (chars == nullptr) return result;
  const unsigned long written = Put(chars, left);
  Put(chars + written, right);
  return result;
}

// Appends `piece` behind the `len` units of the string in `block`. A shared block is left to its
// other holders: the string moves to a block of its own.
void Append(CPMemory& block, unsigned long len, Piece piece) {
  if (piece.reserve == 0) return;
  const unsigned long long units = len + piece.reserve + 1;
  if (units > kMaxUnits) return;
  std::u16string spare;
  KeepApart(block, piece, spare);
  const int shared = block.GetRefCnt() > 1;
  if (!block.Realloc(static_cast<unsigned long>(units * kUnit), 0, shared)) return;
  Put(static_cast<WCHAR*>(block.GetDataPtr()) + len, piece);
}

// Replaces the string in `block` by the piece's text (no block for an empty text).
void Assign(CPMemory& block, Piece piece) {
  std::u16string spare;
  KeepApart(block, piece, spare);
  block.Free();
  if (piece.reserve == 0) return;
  auto* chars = static_cast<WCHAR*>(AllocZeroed(block, (piece.reserve + 1) * kUnit));
  if (chars != nullptr) Put(chars, piece);
}

// A temporary from the debug heap, freed on every path.
class HeapTemp {
 public:
  explicit HeapTemp(unsigned long long size) : heap_(zr::GetLibraryHeap("MemPool")) {
    if (heap_ != nullptr && size <= 0xFFFFFFFFull)
      data_ = static_cast<char*>(
          heap_->Alloc(static_cast<unsigned long>(size), 0, kSourceFile, __LINE__, ZR_CALLER_ADDRESS()));
  }
  ~HeapTemp() {
    if (data_ != nullptr) heap_->Free(data_, 0);
  }
  HeapTemp(const HeapTemp&) = delete;
  HeapTemp& operator=(const HeapTemp&) = delete;
  char* get() const { return data_; }

 private:
  CHeap* heap_;
  char* data_ = nullptr;
};

// ---- CPTStr's chunk forms: each takes the payload, terminated by three 0 bytes, at offset 0 of a
// 16-byte aligned buffer; 1 when loaded (or nothing to load), 0 when memory failed.

int LoadNarrowForm(CPTStr& text, const char* narrow) {
  const UINT bytes = DF_WideBufferSize(narrow);
  if (bytes == 0) return 1;
  if (!text.Alloc(bytes / kUnit)) return 0;
  DF_ToWideBuffer(text, narrow, bytes / kUnit);
  text.CheckMemory();
  return 1;
}

int LoadWideForm(CPTStr& text, const char* payload, unsigned long bytes) {
  auto* chars = static_cast<WCHAR*>(AllocZeroed(text, bytes));
  if (chars == nullptr) return 0;
  std::memcpy(chars, payload, bytes);
  // A payload without its terminator is damage: cut so that the text ends inside the block.
  if (ScanLen(chars, DataUnits(text)) == DataUnits(text)) text.CheckMemory();
  return 1;
}

// Any other form: the payload is UTF-16 text, and its narrow form becomes the block's bytes (read
// as units, two narrow bytes make one).
int LoadOtherForm(CPTStr& text, const WCHAR* wide) {
  const UINT bytes = DF_ANSIBufferSize(wide);
  if (bytes == 0) return 1;
  void* data = AllocZeroed(text, bytes);
  if (data == nullptr) return 0;
  DF_ToANSIBuffer(static_cast<char*>(data), wide, bytes);
  text.CheckMemory();
  return 1;
}

// Reads the open chunk of `size` bytes and loads it by its form. The chunk is read whole in one
// call: a file archive hands the whole rest of a chunk to any smaller request.
int LoadTagged(CPTStr& text, CZRArchive& archive, unsigned long size) {
  if (size < 2) return 1;
  if (!zr::ArchiveCanDeliver(archive, size)) return 0;
  HeapTemp chunk(static_cast<unsigned long long>(size) + 3);
  char* bytes = chunk.get();
  if (bytes == nullptr || archive.Chnk_Read(bytes, size) != size) return 0;
  const BYTE form = static_cast<BYTE>(bytes[0]);
  const unsigned long payload = size - 1;
  std::memmove(bytes, bytes + 1, payload);
  std::memset(bytes + payload, 0, 3);
  if (IsNarrowForm(form)) return LoadNarrowForm(text, bytes);
  if (form == kFormWide) return LoadWideForm(text, bytes, payload);
  return LoadOtherForm(text, reinterpret_cast<const WCHAR*>(bytes));
}

int SaveTagged(CPTStr& text, CZRArchive& archive) {
  BYTE form = kFormWide;
  if (archive.Chnk_Write(&form, 1) != 1) return 0;
  const unsigned long size = text.GetSize();
  return archive.Chnk_Write(const_cast<void*>(text.GetCDataPtr()), size) == size;
}

}  // namespace

// ---- what both string types share ----------------------------------------------------------------

template <class Str, class Other>
int CPStrT<Str, Other>::Alloc(unsigned long chars) {
  return AllocZeroed(*this, static_cast<unsigned long long>(chars) * kUnit) != nullptr;
}

template <class Str, class Other>
unsigned long CPStrT<Str, Other>::GetLen() const {
  const WCHAR* chars = *this;
  const unsigned long allocated = GetAllocSize();
  if (chars == nullptr || allocated == 0) return 0;
  return std::min(ScanLen(chars, DataUnits(*this)), allocated - 1);
}

template <class Str, class Other>
void CPStrT<Str, Other>::CheckMemory() {
  if (GetHeader() == nullptr) return;
  auto* chars = static_cast<WCHAR*>(GetDataPtr());  // null for READONLY handles: left as they are
  if (chars == nullptr) return;
  const unsigned long allocated = GetAllocSize();
  const unsigned long limit = DataUnits(*this);
  unsigned long len = ScanLen(chars, limit);
  if ((len + 1) * kUnit > allocated) {
    len = (allocated - 1) / kUnit - 1;
    chars[len] = 0;
  } else if (len == limit) {
    chars[len] = 0;  // no terminator inside the data: one behind it, still inside the allocation
  }
  SetSize((len + 1) * kUnit);
}

template <class Str, class Other>
Str CPStrT<Str, Other>::operator+(const Str& other) const {
  return Concat<Str>(StringPiece(*this), StringPiece(other));
}

template <class Str, class Other>
Str CPStrT<Str, Other>::operator+(const Other& other) const {
  return Concat<Str>(StringPiece(*this), StringPiece(other));
}

template <class Str, class Other>
Str CPStrT<Str, Other>::operator+(const char* text) const {
  return Concat<Str>(StringPiece(*this), NarrowPiece(text, DF_WideLen(text)));
}

template <class Str, class Other>
Str CPStrT<Str, Other>::operator+(const WCHAR* text) const {
  return Concat<Str>(StringPiece(*this), WidePiece(text, WideOperandReserve<Str>(text)));
}

template <class Str, class Other>
Str& CPStrT<Str, Other>::operator+=(const Str& other) {
  Append(*this, GetLen(), StringPiece(other));
  return static_cast<Str&>(*this);
}

template <class Str, class Other>
Str& CPStrT<Str, Other>::operator+=(const Other& other) {
  Append(*this, GetLen(), StringPiece(other));
  return static_cast<Str&>(*this);
}

template <class Str, class Other>
Str& CPStrT<Str, Other>::operator+=(const char* text) {
  Append(*this, GetLen(), NarrowPiece(text, DF_WideLen(text)));
  return static_cast<Str&>(*this);
}

template <class Str, class Other>
Str& CPStrT<Str, Other>::operator+=(const WCHAR* text) {
  Append(*this, GetLen(), WidePiece(text, zr::os::WStrLen(text)));
  return static_cast<Str&>(*this);
}

template <class Str, class Other>
void CPStrT<Str, Other>::AssignShared(const Str& other) {
  CPMemory::operator=(other);
  CheckMemory();
}

template <class Str, class Other>
void CPStrT<Str, Other>::AssignCopy(const CPMemory& other) {
  const auto* chars = static_cast<const WCHAR*>(other.GetCDataPtr());
  const unsigned long len = chars == nullptr ? 0 : ScanLen(chars, DataUnits(other));
  Assign(*this, {len, {chars, len}, nullptr});
}

template <class Str, class Other>
void CPStrT<Str, Other>::AssignText(const char* text) {
  Assign(*this, NarrowPiece(text, DF_WideLen(text)));
}

template <class Str, class Other>
void CPStrT<Str, Other>::AssignText(const WCHAR* text) {
  Assign(*this, WidePiece(text, zr::os::WStrLen(text)));
}

template class CPStrT<CPTStr, CPWStr>;
template class CPStrT<CPWStr, CPTStr>;

// ---- CPTStr ----------------------------------------------------------------------------------------

CPTStr::CPTStr(const CPWStr& other) { AssignCopy(other); }

CPTStr& CPTStr::operator=(const CPTStr& other) {
  if (this != &other) AssignShared(other);
  return *this;
}

CPTStr& CPTStr::operator=(const CPMemory& other) {
  AssignCopy(other);
  return *this;
}

CPTStr& CPTStr::operator=(const char* text) {
  AssignText(text);
  return *this;
}

CPTStr& CPTStr::operator=(const WCHAR* text) {
  AssignText(text);
  return *this;
}

// Through the const form: a plain CPWStr(*this) would choose this very conversion again.
CPTStr::operator CPWStr() { return CPWStr(static_cast<const CPTStr&>(*this)); }

void CPTStr::Construct() { new (this) CPTStr(); }

int CPTStr::DynaSave(char* name, CZRArchive& archive) {
  CheckMemory();
  const unsigned int level = archive.Chnk_Open(name, CHNK_ACCESS_WRITE);
  if (level == CHNK_INVALID) return 0;
  const int saved = GetLen() == 0 ? 1 : SaveTagged(*this, archive);
  archive.Chnk_Close(level);
  return saved;
}

int CPTStr::DynaLoad(char* name, CZRArchive& archive) {
  Free();
  const unsigned int level = archive.Chnk_Open(name, CHNK_ACCESS_READ);
  if (level == CHNK_INVALID) return 0;
  const int loaded = LoadTagged(*this, archive, archive.Chnk_GetSize(level));
  archive.Chnk_Close(level);
  if (!loaded || GetLen() == 0) Free();  // an empty string holds no block
  return loaded;
}

// ---- CPWStr ----------------------------------------------------------------------------------------

CPWStr::CPWStr(const CPTStr& other) { AssignCopy(other); }

CPWStr& CPWStr::operator=(const CPWStr& other) {
  if (this != &other) AssignShared(other);
  return *this;
}

CPWStr& CPWStr::operator=(const CPMemory& other) {
  AssignCopy(other);
  return *this;
}

CPWStr& CPWStr::operator=(const char* text) {
  AssignText(text);
  return *this;
}

CPWStr& CPWStr::operator=(const WCHAR* text) {
  AssignText(text);
  return *this;
}

CPWStr::operator CPTStr() { return CPTStr(static_cast<const CPWStr&>(*this)); }

void CPWStr::Construct() { new (this) CPWStr(); }

int CPWStr::DynaSave(char* name, CZRArchive& archive) {
  CheckMemory();
  return CPMemory::DynaSave(name, archive);
}

// ---- narrow and wide text before a string -----------------------------------------------------------

CPTStr operator+(const char* prefix, const CPTStr& text) {
  return Concat<CPTStr>(NarrowPiece(prefix, NarrowPrefixReserve<CPTStr>(prefix)), StringPiece(text));
}

CPWStr operator+(const char* prefix, const CPWStr& text) {
  return Concat<CPWStr>(NarrowPiece(prefix, NarrowPrefixReserve<CPWStr>(prefix)), StringPiece(text));
}

CPTStr operator+(const WCHAR* prefix, const CPTStr& text) {
  return Concat<CPTStr>(WidePiece(prefix, zr::os::WStrLen(prefix)), StringPiece(text));
}

CPWStr operator+(const WCHAR* prefix, const CPWStr& text) {
  return Concat<CPWStr>(WidePiece(prefix, zr::os::WStrLen(prefix)), StringPiece(text));
}
