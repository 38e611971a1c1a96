// CRC evaluation: the byte, narrow-text and 16-bit-text input forms of CMonoCRC and CDualCRC.
#include "zrobj/ccrc.h"

namespace {

// The case folding of the "i" forms: 0x61..0x7B ('a'..'{') move down by 0x20, nothing else.
constexpr BYTE FoldByte(BYTE b) { return (b >= 0x61 && b <= 0x7B) ? static_cast<BYTE>(b - 0x20) : b; }

// Input forms: each calls sink(byte) for every byte the CRC consumes, in order.
struct ByteInput {
  const BYTE* data;
  unsigned int length;
  template <class Sink>
  void operator()(Sink&& sink) const {
    for (unsigned int i = 0; i < length; ++i) sink(data[i]);
  }
};

struct NarrowInput {
  const char* text;
  bool fold;
  template <class Sink>
  void operator()(Sink&& sink) const {
    for (const char* p = text; *p; ++p) {
      const BYTE b = static_cast<BYTE>(*p);
      sink(fold ? FoldByte(b) : b);
    }
  }
};

// 16-bit units are fed low byte first; folding applies only when the high byte is zero.
struct WideInput {
  const WCHAR* text;
  bool fold;
  template <class Sink>
  void operator()(Sink&& sink) const {
    for (const WCHAR* p = text; *p; ++p) {
      const BYTE low = static_cast<BYTE>(*p & 0xFF);
      const BYTE high = static_cast<BYTE>(*p >> 8);
      sink(fold && high == 0 ? FoldByte(low) : low);
      sink(high);
    }
  }
};

// One step of the MSB-first register: shift a byte out at the top, look up its remainder.
inline DWORD Step(DWORD reg, DWORD shift, const DWORD* table, BYTE b) {
  return (reg << 8) ^ table[((reg >> shift) & 0xFF) ^ b];
}

}  // namespace

// ---- CMonoCRC ---------------------------------------------------------------------------------

template <class Feed>
DWORD CMonoCRC::Run(DWORD previous, Feed&& feed) const {
  DWORD reg = previous & mask_;
  feed([&](BYTE b) { reg = Step(reg, shift_, table_, b); });
  return reg & mask_;  // an inert engine has mask 0 and so yields 0
}

DWORD CMonoCRC::Eval(const void* data, unsigned int length) const {
  return Run(0, ByteInput{static_cast<const BYTE*>(data), length});
}
DWORD CMonoCRC::EvalMore(DWORD previous, const void* data, unsigned int length) const {
  return Run(previous, ByteInput{static_cast<const BYTE*>(data), length});
}
DWORD CMonoCRC::Eval(const char* text) const { return Run(0, NarrowInput{text, false}); }
DWORD CMonoCRC::Evali(const char* text) const { return Run(0, NarrowInput{text, true}); }
DWORD CMonoCRC::Eval(const WCHAR* text) const { return Run(0, WideInput{text, false}); }
DWORD CMonoCRC::Evali(const WCHAR* text) const { return Run(0, WideInput{text, true}); }

// ---- CDualCRC ---------------------------------------------------------------------------------

template <class Feed>
DWORD CDualCRC::Run(DWORD previous, Feed&& feed) const {
  if (!IsValid()) return 0xFFFFFFFFu;
  DWORD main = MainCRC(previous);
  DWORD secondary = SecondaryCRC(previous);
  feed([&](BYTE b) {
    main = Step(main, main_shift_, main_table_, b);
    secondary = Step(secondary, secondary_shift_, secondary_table_, b);
  });
  return ((secondary & secondary_mask_) << (24 - secondary_shift_)) | (main & main_mask_);
}

DWORD CDualCRC::Eval(const void* data, unsigned int length) const {
  return Run(0, ByteInput{static_cast<const BYTE*>(data), length});
}
DWORD CDualCRC::EvalMore(DWORD previous, const void* data, unsigned int length) const {
  return Run(previous, ByteInput{static_cast<const BYTE*>(data), length});
}
DWORD CDualCRC::Eval(const char* text) const { return Run(0, NarrowInput{text, false}); }
DWORD CDualCRC::Evali(const char* text) const { return Run(0, NarrowInput{text, true}); }
DWORD CDualCRC::Eval(const WCHAR* text) const { return Run(0, WideInput{text, false}); }
DWORD CDualCRC::Evali(const WCHAR* text) const { return Run(0, WideInput{text, true}); }
