// CZRRTObject and CZRObject: checked allocation and deletion on "CZRRTObjectHeap", the lock count,
// assertions, the deletion watch, change tracking and commit through the object's locator.
#include "zrobj/czrobj.h"

#include <atomic>
#include <cstring>
#include <string>

#include "frame/frame_internal.h"
#include "object/czrobj_internal.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/modules.h"
#include "platform/platdiag.h"
#include "platform/text.h"
#include "zrobj/cheap.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrevent.h"

namespace os = zr::os;

namespace {

// The two classes' identities, {35D48101-67BE-11CF-90C2-0000E8CE8246} and {35D48100-...}: modules and
// object files name the base classes by them.
constexpr GUID kRTObjectGuid = {0x35D48101, 0x67BE, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
constexpr GUID kObjectGuid = {0x35D48100, 0x67BE, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
constexpr char kSourceFile[] = "src/zrobj/czrobj";
constexpr std::size_t kSignatureOffset = sizeof(void*);  // after the table pointer
char kParentChunk[] = "ParentLocation";

struct FreeWatch {
  std::atomic<DWORD> min{0}, max{0}, trace_virtual{0};
};
FreeWatch g_free_watch;

CHeap* ObjectHeap() {
  static CHeap* const heap = zr::GetLibraryHeap("CZRRTObjectHeap");
  return heap;
}

std::atomic_ref<DWORD> Counter(DWORD& word) { return std::atomic_ref<DWORD>(word); }

// `this` as the caller gave it: the compiler may not assume that it is never null.
bool IsNull(const void* self) {
  asm volatile("" : "+r"(self));
  return self == nullptr;
}

// The object's class name, "" when its record cannot be had.
const char* ClassName(const CZRRTObject* object) {
  const CZRRuntimeClass* record = object->GetRuntimeClass();
  return record ? record->szClassName : "";
}

void PassToAnalysis() { CUnhandledException::AnalyseException(CUnhandledException::GetExceptionInfo(), 1); }

}  // namespace

// ---- class records ----

// Display name ids and table versions are those the suite's modules check against.
CZRRuntimeClass CZRRTObject::classCZRRTObject =
    ZRClassRecord("CZRRTObject", sizeof(CZRRTObject), kRTObjectGuid, ZRCLASS_CREATABLE, &CZRRTObject::CreateObject,
                  nullptr, 1, 40002);
CZRRuntimeClass CZRObject::classCZRObject =
    ZRClassRecord("CZRObject", sizeof(CZRObject), kObjectGuid, ZRCLASS_CREATABLE | ZRCLASS_USER7, &CZRObject::CreateObject,
                  nullptr, 9, 40001);

CZRRTObject* CZRRTObject::CreateObject() { return new CZRRTObject; }
CZRRTObject* CZRObject::CreateObject() { return new CZRObject; }

// ---- allocation ----

void* CZRRTObject::operator new(std::size_t size) noexcept {
  void* block = ObjectHeap()->Alloc(static_cast<unsigned long>(size), 0, kSourceFile, __LINE__,
                                    static_cast<unsigned long>(ZR_CALLER_ADDRESS()));
  if (!block && IsDebugOn()) os::wPrintf(3, 4, u"\rCZRRTObject::new: Could not allocate %u bytes\r\n", static_cast<DWORD>(size));
  return block;
}

void CZRRTObject::operator delete(void* block) noexcept {
  if (!block) return;
  DWORD signature = 0;
  auto* const word = static_cast<BYTE*>(block) + kSignatureOffset;
  std::memcpy(&signature, word, sizeof signature);
  if (signature != ZR_RTOBJECT_SIGNATURE) {
    if (IsDebugOn()) os::wPrintf(3, 1, u"CZRRTObject: Delete bad signature\r\n");
    return;  // left allocated: a stale or damaged block is never handed back twice
  }
  std::memset(word, 0, sizeof signature);
  ObjectHeap()->Free(block, 0);
}

// ---- CZRRTObject ----

CZRRTObject::CZRRTObject() : signature_(ZR_RTOBJECT_SIGNATURE), lock_count_(1) {}

CZRRTObject::~CZRRTObject() = default;

CZRRuntimeClass* CZRRTObject::GetRuntimeClass() const { return &classCZRRTObject; }

void CZRRTObject::FreeObject() {
  if (IsNull(this)) {
    WarningMsg(u"CZRRTObject::FreeObject: this pointer is NULL", ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
    return;
  }
  CZRRTObject* self = this;
  if (os::Guarded([self] { delete self; }) == 0) return;
  PassToAnalysis();
  if (IsDebugOn()) os::wPrintf(3, 0, u"CZRRTObject::FreeObject: this pointer is INVALID");
}

int CZRRTObject::StoreData(CZRArchive*) { return 1; }
int CZRRTObject::LoadData(CZRArchive*) { return 1; }

void CZRRTObject::ReportInvalid(const char* className, std::uintptr_t caller, std::uintptr_t frame) {
  if (!IsDebugOn()) return;
  os::wPrintf(3, 2, u"\r%hs::DelObject() called for INVALID object\r\n", className);
  os::WalkCallStack(caller, frame, 10, nullptr);
}

DWORD CZRRTObject::ReleaseReference() {
  DWORD count = Counter(lock_count_).load();
  while (count != 0 && !Counter(lock_count_).compare_exchange_weak(count, count - 1)) {
  }
  if (count == 0) return 0;  // already at 0: nothing is freed again
  if (count == 1) FreeObject();
  return count - 1;
}

DWORD CZRRTObject::DelObject() {
  if (!SignatureValid()) {
    ReportInvalid("CZRRTObject", ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
    return 0xFFFFFFFFu;
  }
  return ReleaseReference();
}

int CZRRTObject::Assert() {
  if (QueryLockCnt() == 0) return 0;
  std::uintptr_t table = 0, first = 0;
  os::ModuleInfo module;
  return os::ProbeRead(this, &table, sizeof table) && os::FindModule(table, &module) &&
                 os::ProbeRead(reinterpret_cast<const void*>(table), &first, sizeof first) && os::FindModule(first, &module)
             ? 1
             : 0;
}

int CZRRTObject::Lock() {
  Counter(lock_count_).fetch_add(1);
  return 1;
}

DWORD CZRRTObject::QueryLockCnt() const { return std::atomic_ref<const DWORD>(lock_count_).load(); }

int CZRRTObject::IsKindOf(const CZRRuntimeClass* record) const {
  const CZRRuntimeClass* own = GetRuntimeClass();
  return own && own->IsKindOf(record);
}

int CZRRTObject::GetClassFamily(CZRRuntimeClass* const* records, int count) const {
  const CZRRuntimeClass* own = GetRuntimeClass();
  return own ? own->GetClassFamily(records, count) : -1;
}

int CZRRTObject::AssertObject() {
  if (!SignatureValid()) return 0;
  int result = 0;
  CZRRTObject* self = this;
  if (os::Guarded([self, &result] { result = self->Assert(); }) != 0) return 0;
  return result;
}

int CZRRTObject::AssertValid(DWORD mode, const CZRRuntimeClass* record, DWORD line, const char* file,
                             std::uintptr_t callerAddress) {
  const auto fail = [&](int test) {
    return ZROBJ_ReportAssertionFailure(ZR_ASSERT_TEST_NAMES[test], line, file, callerAddress, ZR_CURRENT_FRAME());
  };
  const CZRRuntimeClass* own = nullptr;
  CZRRTObject* self = this;
  if (zr::FaultsOnCall([self, &own] { own = self->GetRuntimeClass(); })) return fail(0);
  const DWORD classTest = mode & 0xFFFFu;
  if (classTest == ZRASSERT_TYPE && own != record) return fail(1);
  if (classTest == ZRASSERT_KIND && !(own && own->IsKindOf(record))) return fail(2);
  if ((mode & 0xFFFF0000u) == ZRASSERT_OBJECT && !AssertObject()) return fail(3);
  return 1;
}

// ---- CZRObject ----

CZRObject::CZRObject()
    : data_id_(0),
      tag_(0),
      destroyed_(0),
      state_(kStateCommitted),
      change_count_(0),
      change_grade_(0),
      load_count_(0),
      undo_comment_{u'E', u'd', u'i', u't'} {}

CZRObject::~CZRObject() = default;

CZRRuntimeClass* CZRObject::GetRuntimeClass() const { return &classCZRObject; }

void CZRObject::FreeObject() {
  if (!IsNull(this)) delete this;
}

int CZRObject::StoreData(CZRArchive* archive) {
  BYTE bytes[sizeof(Location)];
  const DWORD words[5] = {parent_.dwProject, parent_.dwDir, parent_.dwFile, parent_.dwClass, parent_.dwKind};
  for (int i = 0; i < 5; ++i) zr::StoreLE32(bytes + 4 * i, words[i]);
  const unsigned level = archive ? archive->Chnk_Open(kParentChunk, ZR_ACCESS_WRITE) : CHNK_INVALID;
  if (level == CHNK_INVALID) return 0;
  const bool written = archive->Chnk_Write(bytes, sizeof bytes) == sizeof bytes;
  return archive->Chnk_Close(level) && written ? 1 : 0;
}

int CZRObject::LoadData(CZRArchive* archive) {
  const unsigned level = archive ? archive->Chnk_Open(kParentChunk, ZR_ACCESS_READ) : CHNK_INVALID;
  if (level == CHNK_INVALID) return 0;
  BYTE bytes[sizeof(Location)] = {};
  const bool read = archive->Chnk_GetSize(level) == sizeof bytes && archive->Chnk_Read(bytes, sizeof bytes) == sizeof bytes;
  archive->Chnk_Close(level);
  if (!read) return 0;
  parent_ = Location{zr::LoadLE32(bytes), zr::LoadLE32(bytes + 4), zr::LoadLE32(bytes + 8), zr::LoadLE32(bytes + 12),
                     zr::LoadLE32(bytes + 16)};
  return 1;
}

void CZRObject::WatchDeletion() {
  if (!IsDebugOn()) return;
  const DWORD address = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(this));
  const bool traced = (state_ & kStateDelTrace) != 0;
  if (locator_.QueryFlags() & Locator::kFlagVirtual) {
    if (!traced && !g_free_watch.trace_virtual.load()) return;
    os::wPrintf(0, 9, u"\rCZRObject::DelObject(VIRTUAL:%hs[*%08X]) watch, LockCnt = %u\r\n", ClassName(this), address,
                QueryLockCnt());
    os::WalkCallStack(ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME(), 3, nullptr);
    return;
  }
  const DWORD id = GetObjID();
  if (!traced && !(id >= g_free_watch.min.load() && id < g_free_watch.max.load())) return;
  os::wPrintf(0, 9, u"\rCZRObject::DelObject(0x%08x[*%08X]) watch, LockCnt = %u\r\n", id, address, QueryLockCnt());
  os::WalkCallStack(ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME(), 10, nullptr);
}

DWORD CZRObject::DelObject() {
  if (!SignatureValid()) {
    ReportInvalid("CZRObject", ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME());
    return 0xFFFFFFFFu;
  }
  WatchDeletion();
  if (QueryLockCnt() == 1) notify_.Notify(this, ZROBJ_EVENT_DELETING, 0);
  return ReleaseReference();
}

int CZRObject::Lock() { return CZRRTObject::Lock(); }

int CZRObject::StoreNT(CZRArchive* archive) { return StoreData(archive); }

int CZRObject::LoadNT(CZRArchive* archive) {
  if (!LoadData(archive)) return 0;
  SetChanged(0, 1);
  return 1;
}

int CZRObject::CopyObject(CZRObject* source) {
  if (!source || source == this || !source->IsKindOf(GetRuntimeClass())) return 0;
  CMemChunkArchive archive;
  if (!archive.Open(ZR_ACCESS_WRITE) || !source->StoreNT(&archive) || !archive.Close()) return 0;
  CPMemoryFile content = archive.GetContent();
  archive.SetContent(content);
  return archive.Open(ZR_ACCESS_READ) && LoadNT(&archive) ? 1 : 0;
}

int CZRObject::StoreThunk(void* object, CZRArchive* archive) { return static_cast<CZRObject*>(object)->StoreData(archive); }
int CZRObject::LoadThunk(void* object, CZRArchive* archive) { return static_cast<CZRObject*>(object)->LoadData(archive); }

int CZRObject::Commit(DWORD flags) {
  if (!(locator_.QueryAccess() & ZR_ACCESS_WRITE)) return 0;
  const CZRRuntimeClass* record = GetRuntimeClass();
  if (!locator_.Commit(flags, &StoreThunk, this, record->szClassName, &record->guid)) return 0;
  state_ = (state_ & 0x00FFFFFFu) | kStateCommitted;
  notify_.Notify(this, ZROBJ_EVENT_COMMITTED, change_grade_);
  ClearChanged();
  return 1;
}

int CZRObject::ReleaseAccess() {
  if (!(locator_.QueryAccess() & ZR_ACCESS_WRITE)) return 1;
  notify_.Notify(this, ZROBJ_EVENT_RELEASING, 0);
  const int result = locator_.ReleaseAccess();
  CEventLogger::LogEvent(u"ReleaseAccess obj %08x class %hs", GetObjID(), ClassName(this));
  return result;
}

DWORD CZRObject::ObjProc(DWORD, std::uintptr_t) { return 0; }
DWORD CZRObject::GetDataID() { return data_id_; }

int CZRObject::ProjDestroy() { return locator_.ReleaseAccess(); }

int CZRObject::TagUsed(DWORD tag) {
  tag_ = tag;
  return 1;
}

int CZRObject::Destroy() {
  destroyed_ = 1;
  SetChanged(1, 1);
  return 1;
}

int CZRObject::UnDestroy() {
  destroyed_ = 0;
  SetChanged(1, 1);
  return 1;
}

int CZRObject::Reload() {
  const bool borrowed = locator_.QueryAccess() == 0;
  if (borrowed && locator_.Access(ZR_ACCESS_READ) != Locator::kAccessGranted) return 0;
  const int loaded = locator_.Load(&LoadThunk, this);
  if (borrowed) locator_.ReleaseAccess();
  if (!loaded) return 0;
  ++load_count_;
  ClearChanged();
  return 1;
}

int CZRObject::Refresh() { return QueryChanged() ? 0 : Reload(); }
int CZRObject::Unwind() { return Reload(); }

int CZRObject::SetLocation(const Location& location) { return locator_.SetLocation(location); }

DWORD CZRObject::CreateDiskImage() { return locator_.CreateDiskImage(GetRuntimeClass()->dwHashID); }
int CZRObject::GrantAccess(const WCHAR* user, DWORD access) { return locator_.GrantAccess(user, access); }

// ---- change tracking ----

void CZRObject::SetChanged(int notify, DWORD grade) {
  ++change_count_;
  state_ |= kStateChanged;
  if (grade > change_grade_) change_grade_ = grade;
  if (notify) notify_.Notify(this, ZROBJ_EVENT_CHANGED, grade);
}

void CZRObject::SignalChanged(DWORD kind, DWORD grade) {
  CEventLogger::LogEvent(u"SignalChanged: Obj %08x class %hs Grade %08u", GetObjID(), ClassName(this), grade);
  ++change_count_;
  if (kind == 1) {
    notify_.Notify(this, ZROBJ_EVENT_SIGNALLED, 0);
    return;
  }
  if (grade > change_grade_) change_grade_ = grade;
  notify_.Notify(this, ZROBJ_EVENT_CHANGED, grade);
}

void CZRObject::ClearChanged() {
  change_grade_ = 0;
  state_ &= ~kStateChanged;
}

void CZRObject::SetUndoComment(const WCHAR* text, HMODULE, DWORD) {
  if (!text) return;
  os::WStrCopy(undo_comment_, kUndoCommentLength, text);
}

// ---- the free-watch range ----

void CZRObject::SetFreeWatchRange(DWORD min, DWORD max, DWORD traceVirtual) {
  g_free_watch.min.store(min);
  g_free_watch.max.store(max);
  g_free_watch.trace_virtual.store(traceVirtual);
}

void CZRObject::GetFreeWatchRange(DWORD* min, DWORD* max, DWORD* traceVirtual) {
  if (min) *min = g_free_watch.min.load();
  if (max) *max = g_free_watch.max.load();
  if (traceVirtual) *traceVirtual = g_free_watch.trace_virtual.load();
}

// ---- start-up steps ----

namespace zr::steps {

DWORD RegisterRTObjectClass(HMODULE module) { return CZRRTObject::classCZRRTObject.RegisterClass(module, nullptr, 0); }

DWORD RegisterObjectClass(HMODULE module) {
  return CZRObject::classCZRObject.RegisterClass(module, &CZRRTObject::classCZRRTObject, sizeof(CZRRTObject));
}

void SetObjectFreeWatchRange(int min, int max, int traceVirtual) {
  CZRObject::SetFreeWatchRange(static_cast<DWORD>(min), static_cast<DWORD>(max), static_cast<DWORD>(traceVirtual));
}

void GetObjectFreeWatchRange(int* min, int* max, int* traceVirtual) {
  DWORD values[3];
  CZRObject::GetFreeWatchRange(&values[0], &values[1], &values[2]);
  if (min) *min = static_cast<int>(values[0]);
  if (max) *max = static_cast<int>(values[1]);
  if (traceVirtual) *traceVirtual = static_cast<int>(values[2]);
}

}  // namespace zr::steps
