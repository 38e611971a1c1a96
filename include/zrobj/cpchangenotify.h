// Change notification: a registry of callbacks that Notify calls with an event; a callback that
// answers 0, or whose module was unloaded or replaced, is removed.
#pragma once

#include <cstdint>

#include "zrobj/coslock.h"
#include "zrobj/cpvlist.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// A notification callback: the notifying object, the event, the registration's two context words
// (references into the notifier's copy: changes made through them are not kept) and the event's
// value. 0 asks to be removed. Context words are pointer-sized, so that they can carry an object.
using PFNCHANGENOTIFY = int (*)(void* object, DWORD event, std::uintptr_t& context1, std::uintptr_t& context2,
                                DWORD value);

// One registration: the list's identity first, then the callback, its context words, the module
// that holds the callback's code and the hash of that module's file name. The callback, the
// contexts and the module are pointer-sized here, so the item is 48 bytes.
struct tagNOTIFYSTRUC {
  DWORD dwID;
  PFNCHANGENOTIFY pfnNotify;
  std::uintptr_t dwContext1;
  std::uintptr_t dwContext2;
  HMODULE hModule;
  DWORD dwModuleHash;
};
static_assert(sizeof(tagNOTIFYSTRUC) == 48, "notify item layout");

class ZROBJ_API CPChangeNotify : public CPvList {
 public:
  CPChangeNotify();
  // Takes the other's list as CPvList assignment does (the two share the block).
  CPChangeNotify(const CPChangeNotify& other);
  // Frees the list inside the registries' critical section.
  ~CPChangeNotify() override;
  CPChangeNotify& operator=(const CPChangeNotify&) = delete;
  const char* GetClassID() const override { return "CPChangeNotify"; }

  // Registers `callback` with its context words; returns the registration's identity, or
  // 0xFFFFFFFF when the callback lies in no loaded module or the list cannot grow.
  DWORD Add(PFNCHANGENOTIFY callback, std::uintptr_t context1, std::uintptr_t context2);
  // Removes registration `identity` if it belongs to `callback`: the list's delete result, 0 when
  // there is no such registration or it belongs to another callback (reported in debug mode).
  int Delete(DWORD identity, PFNCHANGENOTIFY callback);
  // Calls every registration with (object, event, its contexts, value), in order, outside the
  // critical section, so callbacks may add and delete registrations. Always 1.
  int Notify(void* object, DWORD event, DWORD value);

  // The one critical section of all registries.
  static COSCriticalSection CS;
};
