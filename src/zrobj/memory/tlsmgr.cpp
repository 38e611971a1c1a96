// Thread-local slots: each thread's shadow (128 bytes from a bounded private heap) holds a signature,
// a reserved word and the thread's values of the 30 process-wide slots.
#include "zrobj/tlsmgr.h"

#include <cstdint>
#include <new>

#include "platform/dlgsvc.h"
#include "platform/module.h"
#include "memory/heap/privheap_internal.h"
#include "platform/tls.h"
#include "frame/frame_internal.h"
#include "zrobj/coslock.h"
#include "memory/tlsmgr_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

using Word = std::uint32_t;  // shadows are addressed by 32-bit word number

constexpr unsigned long kMaxHeapPages = 16;
constexpr unsigned long kFirstSlotWord = 2;
constexpr unsigned long kReservedXor = 0xFFFFFF00ul;
constexpr unsigned long kReservedMask = 0xBADBADFFul;

struct TlsState {
  DWORD index = os::TLS_OUT_OF_INDEXES;
  HANDLE heap = nullptr;
  unsigned char in_use[TlsManager::kSlotCount] = {};
};

TlsState g_state;

// Never destroyed: slot calls may come from thread-exit callbacks late in shutdown.
COSCriticalSection& SlotLock() {
  alignas(COSCriticalSection) static unsigned char storage[sizeof(COSCriticalSection)];
  static COSCriticalSection* lock = ::new (static_cast<void*>(storage)) COSCriticalSection();
  return *lock;
}

// Messages of the manager are written only while debug output is on.
template <typename... Args>
void Report(unsigned level, const char16_t* format, Args... args) {
  if (!IsDebugOn()) return;
  os::wPrintf(3, level, format, args...);
}

bool Initialised() { return g_state.index != os::TLS_OUT_OF_INDEXES; }

DWORD PageSize() {
  SYSTEM_INFO info{};
  os::GetSystemInfo(&info);
  return info.dwPageSize ? info.dwPageSize : 4096;
}

// Applies `op` to the slot's word of the calling thread; 0 when the slot has no address.
template <typename Op>
int UpdateWord(Word* word, Op op) {
  if (!word) return 0;
  *word = static_cast<Word>(op(static_cast<unsigned long>(*word)));
  return 1;
}

}  // namespace

int TlsManager::Init() {
  const DWORD page = PageSize();
  if (g_state.index != os::TLS_OUT_OF_INDEXES || g_state.heap) {
    Report(5, u"TlsManager can be initialized only once");
    return 0;
  }
  g_state.index = os::TlsAlloc();
  if (g_state.index == os::TLS_OUT_OF_INDEXES) {
    Report(4, u"TlsManager:TlsAlloc failed");
    return 0;
  }
  g_state.heap = zr::HeapCreate(0, page, kMaxHeapPages * page);
  if (!g_state.heap) {
    Report(4, u"TlsManager: HeapCreate failed");
    os::TlsFree(g_state.index);
    g_state.index = os::TLS_OUT_OF_INDEXES;
    return 0;
  }
  for (unsigned char& flag : g_state.in_use) flag = 0;
  return 1;
}

int TlsManager::Exit() {
  if (g_state.index != os::TLS_OUT_OF_INDEXES) os::TlsFree(g_state.index);
  if (g_state.heap) zr::HeapDestroy(g_state.heap);
  g_state.index = os::TLS_OUT_OF_INDEXES;
  g_state.heap = nullptr;
  return 1;
}

void TlsManager::InitThread() {
  if (!Initialised() || !g_state.heap) return;
  // A thread whose first use of the library is a slot call must be attached too: its detach at
  // thread end is what gives the shadow back.
  zr::EnsureThreadAttached();
  void* shadow = zr::HeapAlloc(g_state.heap, zr::HEAP_ZERO_MEMORY, kShadowBytes);
  if (shadow) static_cast<Word*>(shadow)[0] = static_cast<Word>(kSignature);
  os::TlsSetValue(g_state.index, shadow);
}

unsigned int* TlsManager::IsValidTLSSignature() {
  if (!Initialised()) return nullptr;
  auto* shadow = static_cast<Word*>(os::TlsGetValue(g_state.index));
  if (!shadow || shadow[0] != kSignature) return nullptr;
  return shadow;
}

unsigned int* TlsManager::CheckTLSValid() {
  if (unsigned int* shadow = IsValidTLSSignature()) return shadow;
  InitThread();
  return IsValidTLSSignature();
}

void TlsManager::ExitThread() {
  Word* shadow = IsValidTLSSignature();
  if (!shadow) return;
  shadow[0] = 0;
  zr::HeapFree(g_state.heap, 0, shadow);
  os::TlsSetValue(g_state.index, nullptr);
}

unsigned long TlsManager::ThreadSlotAlloc() {
  {
    COSAutoLock lock(&SlotLock());
    for (unsigned long slot = 0; slot < kSlotCount; ++slot) {
      if (g_state.in_use[slot]) continue;
      g_state.in_use[slot] = 1;
      return slot;
    }
  }
  Report(4, u"ThreadSlotAlloc failed!");
  return kInvalidSlot;
}

int TlsManager::ThreadSlotFree(unsigned long slot) {
  if (slot >= kSlotCount) {
    Report(4, u"ThreadSlotFree: Invalid index");
    return 0;
  }
  COSAutoLock lock(&SlotLock());
  if (!g_state.in_use[slot]) {
    Report(4, u"ThreadSlotFree: Attempt to free slot never allocated");
    return 0;
  }
  g_state.in_use[slot] = 0;
  return 1;
}

unsigned int* TlsManager::GetThreadValPtr(unsigned long slot, int create) {
  if (!Initialised()) {
    Report(4, u"GetThreadValPtr: Not initialized");
    return nullptr;
  }
  Word* shadow = create ? CheckTLSValid() : IsValidTLSSignature();
  if (!shadow) {
    Report(4, u"GetThreadValPtr: No shadows allocated for this thread");
    return nullptr;
  }
  if (slot < kSlotCount) return shadow + kFirstSlotWord + slot;
  const unsigned long word = (slot ^ kReservedXor) & kReservedMask;
  if (word <= 1) return shadow + word;
  Report(3, u"GetThreadValPtr: Invalid reserved index");
  return nullptr;
}

int TlsManager::SetThreadValue(unsigned long slot, unsigned long value) {
  return UpdateWord(GetThreadValPtr(slot, 1), [value](unsigned long) { return value; });
}

unsigned long TlsManager::GetThreadValue(unsigned long slot) {
  const Word* word = GetThreadValPtr(slot, 1);
  return word ? *word : 0;
}

int TlsManager::SetThreadFlags(unsigned long slot, unsigned long clearMask, unsigned long setMask) {
  return UpdateWord(GetThreadValPtr(slot, 1),
                    [=](unsigned long v) { return (v | setMask) & ~clearMask; });
}

int TlsManager::XORThreadFlags(unsigned long slot, unsigned long mask) {
  return UpdateWord(GetThreadValPtr(slot, 1), [=](unsigned long v) { return v ^ mask; });
}

int TlsManager::ANDThreadFlags(unsigned long slot, unsigned long mask) {
  return UpdateWord(GetThreadValPtr(slot, 1), [=](unsigned long v) { return v & mask; });
}

int TlsManager::ORThreadFlags(unsigned long slot, unsigned long mask) {
  return UpdateWord(GetThreadValPtr(slot, 1), [=](unsigned long v) { return v | mask; });
}

namespace zr::steps {

BOOL InitThreadSlots() { return TlsManager::Init() ? TRUE : FALSE; }
void ExitThreadSlotsOfThread() { TlsManager::ExitThread(); }
void ExitThreadSlots() { TlsManager::Exit(); }

}  // namespace zr::steps
