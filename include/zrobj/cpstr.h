// The library's strings: UTF-16 strings in shared memory blocks (CPTStr, CPWStr), conversions
// between narrow (UTF-8) and wide (UTF-16) text buffers, the repair of fixed-size text fields
// loaded from disk, and the escaping of text into printable ASCII (UEnc, UDec).
#pragma once

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class CZRArchive;

// Every conversion works on 0-terminated text. A conversion into a buffer writes whole characters
// only; "the converter's count" is the number of units (or bytes) written including the terminator
// when the whole text fitted, and 0 when it had to be cut (the buffer then holds the cut text,
// terminated). Malformed input converts to U+FFFD.

// Empties a text field of `bytes` bytes: a 0 unit at its start and in its last whole unit. 0 (and
// nothing written) when bytes < 3, else 1.
ZROBJ_EXTERN_C ZROBJ_API int DF_Init(void* buffer, UINT bytes);
// Repairs a fixed-size text field after loading, by its last unit: 0 means it is wide text already;
// 1 or 2 that it holds narrow text, which is converted to wide in place; anything else that it holds
// wide text meant to be narrow, which is converted to narrow in place. The last unit is 0 after
// any conversion. 1 on success (also when bytes < 3); 0 when no temporary could be had.
ZROBJ_EXTERN_C ZROBJ_API int DF_LoadInit(void* buffer, UINT bytes);

// Bytes needed for the wide form including the terminator: null -> 0, empty -> 2.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_WideBufferSize(const char* text);
// Bytes needed for the narrow form including the terminator: null -> 0, empty -> 1.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ANSIBufferSize(const WCHAR* text);
// Units of the wide form / bytes of the narrow form, without the terminator; 0 for null or empty.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_WideLen(const char* text);
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ANSILen(const WCHAR* text);

// Converts `src` into at most `units` units of `dest`, then sets dest[units - 1] = 0; returns the
// converter's count, 0 when any argument is 0 or null.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToWideBuffer(WCHAR* dest, const char* src, UINT units);
// The same into at most `bytes` bytes, dest[bytes - 1] = 0.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToANSIBuffer(char* dest, const WCHAR* src, UINT bytes);
// As DF_ToANSIBuffer, but a character without a narrow form (a lone surrogate) becomes "_" where
// DF_ToANSIBuffer writes U+FFFD: file names keep one character per unconvertible unit.
ZROBJ_EXTERN_C ZROBJ_API UINT DF_ToANSIPath(char* dest, const WCHAR* src, UINT bytes);

// ---- CPTStr and CPWStr ------------------------------------------------------------------------
//
// Growable UTF-16 strings in a reference-counted CPMemory block: copies share the block. The block
// holds the units and a 0 unit; an empty string holds no block at all, so its character pointer is
// null. The two types are alike; CPTStr also loads itself from a tagged chunk, CPWStr only saves.
// A failed allocation leaves an assigned string empty and an appended one unchanged.

class CPTStr;
class CPWStr;

// What the two string types share. `Str` is the type itself, `Other` the other string type.
template <class Str, class Other>
class ZROBJ_API CPStrT : public CPMemory {
 public:
  // The characters, or null without a block (the write form refuses READONLY handles, as CPMemory's).
  operator WCHAR*() { return static_cast<WCHAR*>(GetDataPtr()); }
  operator const WCHAR*() const { return static_cast<const WCHAR*>(GetCDataPtr()); }

  // Drops the block and allocates `chars` units (2 x chars bytes) through CPMemory::Alloc; 1 or 0.
  int Alloc(unsigned long chars);
  // 0 without a block; else the units before the first 0 unit, looked for only inside the data (a
  // block loaded raw need not hold one), and at most the allocated bytes - 1.
  unsigned long GetLen() const;
  // Makes the block hold its text and terminator exactly: a text whose terminator does not fit the
  // allocation is cut to ((allocated - 1) / 2) - 1 units, one without a terminator inside the data
  // gets one behind it, and the data size becomes (length + 1) x 2 bytes.
  void CheckMemory();

  // Fresh strings: this text followed by the operand's, allocated for the two lengths and a
  // terminator. An operand's length is GetLen for strings, the UTF-16 length of narrow text, and
  // for wide text the UTF-16 length in CPWStr but the UTF-8 byte count in CPTStr (so a CPTStr
  // result may be allocated larger than its text).
  Str operator+(const Str& other) const;
  Str operator+(const Other& other) const;
  Str operator+(const char* text) const;
  Str operator+(const WCHAR* text) const;
  // Appends in place, into a private block when the current one is shared; an empty or null
  // operand changes nothing.
  Str& operator+=(const Str& other);
  Str& operator+=(const Other& other);
  Str& operator+=(const char* text);
  Str& operator+=(const WCHAR* text);

 protected:
  CPStrT() = default;
  // Sharing checks the block's class id: only the final class can copy.
  CPStrT(const CPStrT&) = delete;
  CPStrT& operator=(const CPStrT&) = delete;
  ~CPStrT() override = default;

  void AssignShared(const Str& other);   // shares the block, then CheckMemory
  void AssignCopy(const CPMemory& other);  // copies the other block's text
  void AssignText(const char* text);
  void AssignText(const WCHAR* text);
};

extern template class ZROBJ_API CPStrT<CPTStr, CPWStr>;
extern template class ZROBJ_API CPStrT<CPWStr, CPTStr>;

class ZROBJ_API CPTStr : public CPStrT<CPTStr, CPWStr> {
 public:
  CPTStr() = default;
  CPTStr(const CPTStr& other) { AssignShared(other); }
  CPTStr(const CPWStr& other);
  CPTStr(const CPMemory& other) { AssignCopy(other); }
  CPTStr(const char* text) { AssignText(text); }
  CPTStr(const WCHAR* text) { AssignText(text); }
  ~CPTStr() override { Free(); }  // while GetClassID still answers for this class
  const char* GetClassID() const override { return "CPTStr"; }

  CPTStr& operator=(const CPTStr& other);
  CPTStr& operator=(const CPMemory& other);
  CPTStr& operator=(const char* text);
  CPTStr& operator=(const WCHAR* text);
  operator CPWStr();  // a copy of the text

  void Construct();  // runs the default constructor on this object's storage

  // The chunk `name`: empty for an empty string, else the form byte 2 and the UTF-16 units with
  // their terminator. 1, or 0 when the chunk cannot be opened or a write falls short.
  int DynaSave(char* name, CZRArchive& archive);
  // Loads the chunk `name` by its form byte: 0 or 1 narrow text, 2 UTF-16 units; any other form
  // is taken as UTF-16 text whose narrow form becomes the block's bytes. A chunk of fewer than 2
  // bytes, and any empty text, loads as the empty string. 1, or 0 (empty string) when the chunk
  // cannot be opened, claims more bytes than the archive holds, or cannot be read whole.
  int DynaLoad(char* name, CZRArchive& archive);
};

class ZROBJ_API CPWStr : public CPStrT<CPWStr, CPTStr> {
 public:
  CPWStr() = default;
  CPWStr(const CPWStr& other) { AssignShared(other); }
  CPWStr(const CPTStr& other);
  CPWStr(const CPMemory& other) { AssignCopy(other); }
  CPWStr(const char* text) { AssignText(text); }
  CPWStr(const WCHAR* text) { AssignText(text); }
  ~CPWStr() override { Free(); }
  const char* GetClassID() const override { return "CPWStr"; }

  CPWStr& operator=(const CPWStr& other);
  CPWStr& operator=(const CPMemory& other);
  CPWStr& operator=(const char* text);
  CPWStr& operator=(const WCHAR* text);
  operator CPTStr();  // a copy of the text

  void Construct();

  // CheckMemory, then the block as one plain chunk (CPMemory::DynaSave): no form byte.
  int DynaSave(char* name, CZRArchive& archive);
};

// Narrow text before a string. The CPTStr form measures the prefix as 0 whatever it holds, so the
// prefix never contributes: the result is a copy of `text`. The CPWStr form measures it by its
// byte count and converts it in front of the text.
ZROBJ_API CPTStr operator+(const char* prefix, const CPTStr& text);
ZROBJ_API CPWStr operator+(const char* prefix, const CPWStr& text);
ZROBJ_API CPTStr operator+(const WCHAR* prefix, const CPTStr& text);
ZROBJ_API CPWStr operator+(const WCHAR* prefix, const CPWStr& text);

// ---- UEnc and UDec ----------------------------------------------------------------------------
//
// An escaping of text into printable ASCII and back. Encoded text holds only characters 32..127:
// each of those stands for itself, except the caret, which is doubled; every other character c
// becomes "^" and four upper-case hexadecimal digits of c. Both classes keep their result in a
// buffer from the process heap; without one (no source, or no memory) they present "".

// The result buffer of UEnc and UDec.
class ZROBJ_API UTextBuffer {
 public:
  UTextBuffer(const UTextBuffer&) = delete;
  UTextBuffer& operator=(const UTextBuffer&) = delete;
  operator const WCHAR*() const;  // the buffer, or a static empty string: never null

 protected:
  UTextBuffer() = default;
  ~UTextBuffer();
  static WCHAR* NewBuffer(unsigned long units);  // null on failure
  void Adopt(WCHAR* buffer);  // frees the current buffer and keeps `buffer`

 private:
  WCHAR* buffer_ = nullptr;
};

class ZROBJ_API UEnc : public UTextBuffer {
 public:
  // A narrow source must hold bytes 32..127 only (see Encode).
  UEnc(const char* text) { *this = text; }
  UEnc(const WCHAR* text) { *this = text; }
  UEnc& operator=(const char* text);
  UEnc& operator=(const WCHAR* text);

  // Units of the encoded form, terminator included (1 for null or empty text).
  static unsigned long EncLen(const char* text);
  static unsigned long EncLen(const WCHAR* text);
  // Writes the encoded form of `text` and its terminator to `dest`, which holds EncLen(text)
  // units; returns dest. The narrow form steps to the next source byte only after a printable one:
  // on a byte outside 32..127 it writes that byte's escape at the same place again and again and
  // NEVER RETURNS. Give it printable ASCII only; nothing in the library or in zrtool passes it
  // anything else (zrtool refuses such text). The wide form takes any text.
  static WCHAR* Encode(WCHAR* dest, const char* text);
  static WCHAR* Encode(WCHAR* dest, const WCHAR* text);

 private:
  template <class Char>
  void Assign(const Char* text);
};

class ZROBJ_API UDec : public UTextBuffer {
 public:
  UDec(const char* text) { *this = text; }
  UDec(const WCHAR* text) { *this = text; }
  UDec& operator=(const char* text);
  UDec& operator=(const WCHAR* text);

  // Units of the decoded form, terminator included (1 for null or empty text).
  static unsigned long DecLen(const char* text);
  static unsigned long DecLen(const WCHAR* text);
  // Decodes at most units - 1 characters into `dest` and terminates them; units 0 leaves dest
  // untouched. "^^" gives "^"; "^" and four characters give the value those read as hexadecimal
  // ("%04X"), or "_" when they cannot be read; anything else stands for itself (a narrow byte
  // sign-extended, so bytes 128..255 give 0xFF80..0xFFFF). An escape cut short by the end of the
  // text ends there. Returns dest.
  static WCHAR* Decode(WCHAR* dest, const char* text, unsigned long units);
  static WCHAR* Decode(WCHAR* dest, const WCHAR* text, unsigned long units);

 private:
  template <class Char>
  void Assign(const Char* text);
};
