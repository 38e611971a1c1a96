// Thread-local slots: 30 numbered per-thread values (or flag words) on top of one TLS index.
#pragma once

#include "zrobj/export.h"

class ZROBJ_API TlsManager {
 public:
  static constexpr unsigned long kSlotCount = 30;
  static constexpr unsigned long kInvalidSlot = 0xFFFFFFFFul;
  static constexpr unsigned long kSignature = 0x544C5361ul;  // bytes "aSLT"
  static constexpr unsigned long kShadowBytes = 128;

  static int Init();
  static int Exit();
  static void ExitThread();
  static unsigned long ThreadSlotAlloc();
  static int ThreadSlotFree(unsigned long slot);
  static int SetThreadValue(unsigned long slot, unsigned long value);
  static unsigned long GetThreadValue(unsigned long slot);
  static int SetThreadFlags(unsigned long slot, unsigned long clearMask, unsigned long setMask);
  static int XORThreadFlags(unsigned long slot, unsigned long mask);
  static int ANDThreadFlags(unsigned long slot, unsigned long mask);
  static int ORThreadFlags(unsigned long slot, unsigned long mask);

 private:
  static unsigned int* IsValidTLSSignature();
  static unsigned int* CheckTLSValid();
  static void InitThread();
  static unsigned int* GetThreadValPtr(unsigned long slot, int create);
};
