// UEnc and UDec: text escaped into printable ASCII ("^^" for a caret, "^XXXX" for any character
// outside 32..127) and back, with their result buffers on the process heap.
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "memory/heap/privheap_internal.h"
#include "zrobj/cpstr.h"

namespace {

constexpr WCHAR kCaret = u'^';
constexpr WCHAR kUnreadable = u'_';
constexpr int kEscapeDigits = 4;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// A source character as the encoder sees it: a narrow byte's value 00..FF, a wide unit as is.
unsigned CodeOf(char c) { return static_cast<unsigned char>(c); }
unsigned CodeOf(WCHAR c) { return c; }

// A source character as the decoder copies it: narrow bytes are sign-extended to 16 bits.
WCHAR UnitOf(char c) { return static_cast<WCHAR>(static_cast<std::int16_t>(static_cast<signed char>(c))); }
WCHAR UnitOf(WCHAR c) { return c; }

bool IsPrintable(unsigned code) { return code >= 32 && code <= 127; }

unsigned long EncodedUnits(unsigned code) {
  if (!IsPrintable(code)) return 1 + kEscapeDigits;
  return code == kCaret ? 2 : 1;
}

template <class Out>
void PutEscape(Out* out, unsigned code) {
  out[0] = kCaret;
  for (int i = 0; i < kEscapeDigits; ++i) out[1 + i] = kHexDigits[(code >> (4 * (kEscapeDigits - 1 - i))) & 0xF];
}

// The narrow encoder on a byte outside 32..127: it never steps past the byte, so it writes the
// byte's escape at the same place for ever. The stores are volatile, which keeps the endless loop a
// defined one.
[[noreturn]] void EscapeForever(WCHAR* out, unsigned code) {
  volatile WCHAR* const place = out;
  for (;;) PutEscape(place, code);
}

template <class Char>
unsigned long EncodedLen(const Char* text) {
  unsigned long units = 1;
  for (const Char* p = text; p != nullptr && *p != 0; ++p) units += EncodedUnits(CodeOf(*p));
  return units;
}

template <class Char>
WCHAR* EncodeText(WCHAR* dest, const Char* text) {
  WCHAR* out = dest;
  for (const Char* p = text; p != nullptr && *p != 0; ++p) {
    const unsigned code = CodeOf(*p);
    if (IsPrintable(code)) {
      *out++ = static_cast<WCHAR>(code);
      if (code == kCaret) *out++ = kCaret;
      continue;
    }
    if constexpr (std::is_same_v<Char, char>) EscapeForever(out, code);
    PutEscape(out, code);
    out += 1 + kEscapeDigits;
  }
  *out = 0;
  return dest;
}

// One decoding step: the character produced and the source characters taken.
struct Step {
  WCHAR unit;
  unsigned long taken;
};

// The value of up to four characters read as "%04X" does; an escape cut short by the end of the
// text takes only what is there.
template <class Char>
Step ReadEscape(const Char* digits) {
  char narrow[kEscapeDigits + 1] = {};
  unsigned long n = 0;
  for (; n < kEscapeDigits && digits[n] != 0; ++n) {
    const unsigned code = CodeOf(digits[n]);
    narrow[n] = code < 0x7F ? static_cast<char>(code) : '\x7F';  // anything else cannot be read
  }
  unsigned value = 0;
  const WCHAR unit = std::sscanf(narrow, "%4X", &value) == 1 ? static_cast<WCHAR>(value) : kUnreadable;
  return {unit, 1 + n};
}

template <class Char>
Step DecodeStep(const Char* p) {
  if (CodeOf(p[0]) != kCaret) return {UnitOf(p[0]), 1};
  if (CodeOf(p[1]) == kCaret) return {kCaret, 2};
  return ReadEscape(p + 1);
}

template <class Char>
unsigned long DecodedLen(const Char* text) {
  unsigned long units = 1;
  for (const Char* p = text; p != nullptr && *p != 0; p += DecodeStep(p).taken) ++units;
  return units;
}

template <class Char>
WCHAR* DecodeText(WCHAR* dest, const Char* text, unsigned long units) {
  if (units == 0) return dest;
  unsigned long n = 0;
  for (const Char* p = text; p != nullptr && *p != 0 && n + 1 < units;) {
    const Step step = DecodeStep(p);
    dest[n++] = step.unit;
    p += step.taken;
  }
  dest[n] = 0;
  return dest;
}

}  // namespace

// ---- the result buffer ---------------------------------------------------------------------------

UTextBuffer::~UTextBuffer() { Adopt(nullptr); }

UTextBuffer::operator const WCHAR*() const {
  static const WCHAR kEmpty[1] = {0};
  return buffer_ != nullptr ? buffer_ : kEmpty;
}

WCHAR* UTextBuffer::NewBuffer(unsigned long units) {
  if (units == 0 || units > (~static_cast<SIZE_T>(0)) / sizeof(WCHAR)) return nullptr;
  return static_cast<WCHAR*>(zr::HeapAlloc(zr::GetProcessHeap(), 0, units * sizeof(WCHAR)));
}

void UTextBuffer::Adopt(WCHAR* buffer) {
  if (buffer_ != nullptr) zr::HeapFree(zr::GetProcessHeap(), 0, buffer_);
  buffer_ = buffer;
}

// ---- UEnc ------------------------------------------------------------------------------------------

// The new result is made before the old one is freed: the source may be the old result.
template <class Char>
void UEnc::Assign(const Char* text) {
  WCHAR* fresh = text != nullptr ? NewBuffer(EncodedLen(text)) : nullptr;
  if (fresh != nullptr) EncodeText(fresh, text);
  Adopt(fresh);
}

UEnc& UEnc::operator=(const char* text) {
  Assign(text);
  return *this;
}

UEnc& UEnc::operator=(const WCHAR* text) {
  Assign(text);
  return *this;
}

unsigned long UEnc::EncLen(const char* text) { return EncodedLen(text); }
unsigned long UEnc::EncLen(const WCHAR* text) { return EncodedLen(text); }
WCHAR* UEnc::Encode(WCHAR* dest, const char* text) { return EncodeText(dest, text); }
WCHAR* UEnc::Encode(WCHAR* dest, const WCHAR* text) { return EncodeText(dest, text); }

// ---- UDec ------------------------------------------------------------------------------------------

template <class Char>
void UDec::Assign(const Char* text) {
  const unsigned long units = DecodedLen(text);
  WCHAR* fresh = text != nullptr ? NewBuffer(units) : nullptr;
  if (fresh != nullptr) DecodeText(fresh, text, units);
  Adopt(fresh);
}

UDec& UDec::operator=(const char* text) {
  Assign(text);
  return *this;
}

UDec& UDec::operator=(const WCHAR* text) {
  Assign(text);
  return *this;
}

unsigned long UDec::DecLen(const char* text) { return DecodedLen(text); }
unsigned long UDec::DecLen(const WCHAR* text) { return DecodedLen(text); }
WCHAR* UDec::Decode(WCHAR* dest, const char* text, unsigned long units) { return DecodeText(dest, text, units); }
WCHAR* UDec::Decode(WCHAR* dest, const WCHAR* text, unsigned long units) { return DecodeText(dest, text, units); }
