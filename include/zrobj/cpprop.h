// Properties: typed, identified CPMemory blocks with an instance id (tagPUID) and a cached checksum,
// lists of properties, and the process-wide converters that bring old properties up to date.
#pragma once

#include <cstddef>
#include <new>

#include "zrobj/cpmem.h"
#include "zrobj/cpvlist.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The instance id of a property: project part (0xFC00 while unassigned), object part (the running
// number of CreatePUID) and a word free for the owner.
struct ZROBJ_API tagPUID {
  DWORD dwProject;
  DWORD dwObject;
  DWORD dwCustom;

  bool operator==(const tagPUID& other) const;
  bool operator!=(const tagPUID& other) const { return !(*this == other); }
  bool operator!() const;  // equal to puidUnassigned
  bool IsAssigned() const { return dwProject != ZR_NO_ID || dwObject != 0 || dwCustom != 0; }
  void Unassign();
  void CreatePUID();  // {0xFC00, next process-wide number, 0}
  DWORD GetCRC() const;  // GetCRC1615 of the three words, little-endian
};
static_assert(sizeof(tagPUID) == 12, "PUID layout");

ZROBJ_API extern const tagPUID puidUnassigned;  // {0xFC00, 0, 0}

class CPProperty;
// Called with the property when its last reference is freed.
using PROPFREEHANDLER = void (*)(CPProperty& property);
// A converter brings a property of an older form up to date; non-zero stops the conversion.
using PROPCONVERTER = int (*)(CPProperty& property, void* context);

inline constexpr DWORD CPPROP_CRC_NONE = 0xFFFFFFFFu;

// A CPMemory block (the property's data) with a type, an id, an instance id, a cached checksum and
// a free handler. Its blocks come from the property allocator: the "PropHeap" pools for blocks up to
// 2040 bytes with the header, the "PropertyPool" heap above.
class ZROBJ_API CPProperty : public CPMemory {
 public:
  CPProperty();
  CPProperty(DWORD type, const GUID& id);
  CPProperty(const CPProperty& other);
  // Copies the memory reference and every field, the free handler included. The reference given
  // up is freed as Free() does (the handler runs if it was the last one).
  CPProperty& operator=(const CPProperty& other);
  ~CPProperty() override;
  const char* GetClassID() const override { return "CPProperty"; }

  DWORD GetPropertyType() const { return type_; }
  const GUID& GetPropertyID() const;  // the all-zero GUID while the type is 0
  const tagPUID& GetPUID() const { return puid_; }
  DWORD GetCRC() const { return type_ == 0 ? CPPROP_CRC_NONE : crc_; }
  DWORD GetPUIDCRC() const { return puid_.GetCRC(); }
  PROPFREEHANDLER GetFreeHandler() const { return freeHandler_; }

  void SetPropertyID(DWORD type, const GUID& id);  // also invalidates the cached checksum
  void SetCRC(DWORD crc) { crc_ = crc; }
  void SetPUID(const tagPUID& puid) { puid_ = puid; }
  void SetPUID(DWORD project, DWORD object, DWORD custom) { puid_ = {project, object, custom}; }
  void SetPUIDprj(DWORD project) { puid_.dwProject = project; }
  void SetPUIDobj(DWORD object) { puid_.dwObject = object; }
  void SetPUIDcustom(DWORD custom) { puid_.dwCustom = custom; }
  void CreatePUID() { puid_.CreatePUID(); }

  int IsValid() const { return GetHeader() != nullptr && type_ != 0; }
  int IsFamilyMember(DWORD mask) const { return (type_ & mask) == mask; }

  void SetFreeHandler(PROPFREEHANDLER handler) { freeHandler_ = handler; }
  // Calls the free handler when this is the block's last reference, clears it in any case, then
  // drops the reference. 1, or the result of the block's release.
  int Free();
  // Free(), then type 0, no checksum, zero id and the PUID {0, 0, 0} (which counts as assigned).
  void Reset();
  // Runs the default constructor on this object, forgetting what it held without releasing it.
  void Construct();
  static CPProperty* Construct(void* place);

  // Runs the registered converters in order; the first non-zero result is returned, else 0 (1 when
  // none are registered).
  int Convert();
  // The converter's identity in the process-wide list, or 0xFFFFFFFF.
  static DWORD RegisterPropertyConverter(PROPCONVERTER converter, void* context);
  static void UnregisterPropertyConverter(DWORD id);

 protected:
  IMallocator* GetMallocator() override;

 private:
  void CopyFields(const CPProperty& other);

  DWORD type_ = 0;
  GUID id_{};
  tagPUID puid_{ZR_NO_ID, 0, 0};
  DWORD crc_ = CPPROP_CRC_NONE;
  PROPFREEHANDLER freeHandler_ = nullptr;
};
static_assert(sizeof(CPProperty) == 72, "property layout");

namespace zr {
// The property allocator's choice for a block of `bytes` (header included): the pool's name and the
// bytes it grants, or "PropertyPool" and the size rounded up to 32 above the largest pool.
struct PropertyBlockChoice {
  const char* pool;
  unsigned long granted;
};
ZROBJ_API PropertyBlockChoice ChoosePropertyBlock(unsigned long bytes);
}  // namespace zr

// One list item: the list's identity word, then a property built in place. The list puts item k at
// data + 4 + 80k, so the property starts on an 8-byte boundary; 4 spare bytes round the item to 80.
struct tagPROPLISTITEM {
  DWORD dwID;
  BYTE property[sizeof(CPProperty)];
  BYTE spare[4];

  CPProperty& Property() { return *std::launder(reinterpret_cast<CPProperty*>(property)); }
  const CPProperty& Property() const { return *std::launder(reinterpret_cast<const CPProperty*>(property)); }
};
static_assert(sizeof(tagPROPLISTITEM) == 80, "property list item layout");

class ZROBJ_API CPPropertyList : public CPvList {
 public:
  static constexpr DWORD kGrowth = CPvList::kDefaultGrowth;

  CPPropertyList();
  CPPropertyList(const CPPropertyList& other);
  CPPropertyList& operator=(const CPPropertyList& other);
  ~CPPropertyList() override;
  const char* GetClassID() const override { return "CPPropertyList"; }

  // Inserts a private copy of `property` before `index` (0xFFFFFFFF appends); the new identity or
  // 0xFFFFFFFF.
  DWORD Add(CPProperty& property) { return Insert(property, ZR_INVALID_INDEX); }
  DWORD Insert(CPProperty& property, DWORD index);
  // Overwrites the first item with the same PUID and property id (returning its index) or appends
  // (returning the new identity).
  DWORD AddExclusive(CPProperty& property);
  CPProperty* GetItem(DWORD key, int bByIndex);
  tagPROPLISTITEM* GetList() { return static_cast<tagPROPLISTITEM*>(CPvList::GetList()); }
  const tagPROPLISTITEM* GetCList() const { return static_cast<const tagPROPLISTITEM*>(CPvList::GetCList()); }

 protected:
  void InitItem(void* item) override;
  void InsertItem(void* item, const void* source) override;
  int DeleteItem(void* item, DWORD flags) override;
  // Properties cannot be stored: a loaded item's bytes are replaced by an empty property.
  void LoadInitItem(void* item) override;
  void ReleaseItem(void* item) override;
};
