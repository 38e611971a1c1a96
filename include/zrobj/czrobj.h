// Run-time objects (CZRRTObject: signature, lock count, class record, private heap, checked
// deletion) and persistent objects (CZRObject: locator, change notifier, change tracking, commit).
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/chunkarc.h"
#include "zrobj/cpchangenotify.h"
#include "zrobj/export.h"
#include "zrobj/locator.h"
#include "zrobj/zrclass.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD ZR_RTOBJECT_SIGNATURE = 0xBADBADAAu;  // while the object is alive; 0 after deletion

// Events a persistent object sends through its change notifier.
inline constexpr DWORD ZROBJ_EVENT_COMMITTED = 2;   // value: the change grade before the commit cleared it
inline constexpr DWORD ZROBJ_EVENT_RELEASING = 3;   // before the write access is released
inline constexpr DWORD ZROBJ_EVENT_DELETING = 5;    // the last reference goes
inline constexpr DWORD ZROBJ_EVENT_CHANGED = 9;     // value: the grade
inline constexpr DWORD ZROBJ_EVENT_SIGNALLED = 10;  // SignalChanged of kind 1

// Test modes of AssertValid: the low half picks the class test, the high half the object test.
inline constexpr DWORD ZRASSERT_TYPE = 0x1;
inline constexpr DWORD ZRASSERT_KIND = 0x2;
inline constexpr DWORD ZRASSERT_OBJECT = 0x10000;

class ZROBJ_API CZRRTObject {
 public:
  static CZRRuntimeClass classCZRRTObject;
  static CZRRTObject* CreateObject();  // null when the allocation failed
  static CZRRuntimeClass* GetClassRegisterPtr() { return &classCZRRTObject; }

  CZRRTObject();  // signature BADBADAA, lock count 1
  CZRRTObject(const CZRRTObject&) = delete;
  CZRRTObject& operator=(const CZRRTObject&) = delete;

  // From the process-wide debug heap "CZRRTObjectHeap"; null (and a report in debug mode) when the
  // heap has no room. Delete frees only a block whose signature is intact, clearing it; a block
  // with a bad signature is reported and leaked, never handed back.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block) noexcept;

  // The virtual operations, in slot order.
  virtual CZRRuntimeClass* GetRuntimeClass() const;
  virtual void FreeObject();  // destroys and frees the object (guarded against faults)
  virtual int StoreData(CZRArchive* archive);  // 1: a run-time object stores nothing
  virtual int LoadData(CZRArchive* archive);
  virtual ~CZRRTObject();
  // Releases one reference; at 0 the object is freed. The references left (0 when freed);
  // 0xFFFFFFFF for an object whose signature is not intact (reported, nothing else done).
  virtual DWORD DelObject();
  virtual int Assert();  // 0 at lock count 0; else whether the table and its first entry are module code
  virtual int Lock();    // one more reference; 1

  DWORD QueryLockCnt() const;
  DWORD GetSignature() const { return signature_; }
  int IsKindOf(const CZRRuntimeClass* record) const;
  int GetClassFamily(CZRRuntimeClass* const* records, int count) const;
  // 0 for a bad signature, else Assert() through the table, guarded against faults.
  int AssertObject();
  // Runs the tests that `mode` selects (BAD ACCESS always, then TYPE or KIND, then OBJECT) and
  // reports the first that fails with the caller's line and file; 1 valid, 0 failed.
  int AssertValid(DWORD mode, const CZRRuntimeClass* record, DWORD line, const char* file,
                  std::uintptr_t callerAddress);

 protected:
  // Prints the report of an invalid object for `className`'s DelObject with a 10-frame stack.
  static void ReportInvalid(const char* className, std::uintptr_t caller, std::uintptr_t frame);
  bool SignatureValid() const { return signature_ == ZR_RTOBJECT_SIGNATURE; }
  DWORD ReleaseReference();

  DWORD signature_;
  DWORD lock_count_;
};

// The root of persistent objects.
class ZROBJ_API CZRObject : public CZRRTObject {
 public:
  static constexpr DWORD kStateChanged = 0x1;
  static constexpr DWORD kStateDelTrace = 0x2;
  static constexpr DWORD kStateCommitted = 0x01000000;  // the high byte: 1 after construction and each commit
  static constexpr std::size_t kUndoCommentLength = 32;

  static CZRRuntimeClass classCZRObject;
  static CZRRTObject* CreateObject();
  static CZRRuntimeClass* GetClassRegisterPtr() { return &classCZRObject; }

  CZRObject();

  CZRRuntimeClass* GetRuntimeClass() const override;
  void FreeObject() override;
  int StoreData(CZRArchive* archive) override;  // the parent location
  int LoadData(CZRArchive* archive) override;
  ~CZRObject() override;
  DWORD DelObject() override;  // with the deletion watch and event 5 for the last reference
  int Lock() override;
  // Further virtual operations, in slot order.
  // The object's members into or out of any archive (a copy, the clipboard): LoadNT marks the
  // object changed (grade 1), since its content no longer is the committed one.
  virtual int StoreNT(CZRArchive* archive);
  virtual int LoadNT(CZRArchive* archive);
  // Takes over the members of `source`, an object of the same class or a derived one; 1 / 0.
  virtual int CopyObject(CZRObject* source);
  // With write access: stores through the locator, notifies event 2 with the grade, clears the
  // change state; 1. Without write access, or when the store failed: 0.
  virtual int Commit(DWORD flags);
  // With write access: notifies event 3 and gives the access up; the locator's result. Else 1.
  virtual int ReleaseAccess();
  virtual DWORD ObjProc(DWORD message, std::uintptr_t argument);  // 0: no message is understood here
  virtual DWORD GetDataID();     // the data id word (0 unless a class sets it)
  virtual int ProjDestroy();     // the project goes away: gives up any access; 1
  virtual int TagUsed(DWORD tag);  // keeps the tag word; 1
  virtual int Destroy();         // marks the object destroyed (a change of grade 1); 1
  virtual int UnDestroy();       // takes the mark back (a change of grade 1); 1
  virtual int Refresh();         // reloads an unchanged object whose file was committed elsewhere
  virtual int Unwind();          // drops the changes: reloads from the file
  virtual int Reload();          // reads the object from its file (taking read access if none is held)
  virtual int SetLocation(const Location& location);  // binds the locator (access given up)

  // Change tracking.
  void SetChanged(int notify, DWORD grade);
  void SignalChanged(DWORD kind, DWORD grade);
  void ClearChanged();
  int QueryChanged() const { return (state_ & kStateChanged) != 0; }
  DWORD QueryChangeCnt() const { return change_count_; }
  DWORD QueryChangeGrade() const { return change_grade_; }
  DWORD QueryState() const { return state_; }
  void SetDelTrace() { state_ |= kStateDelTrace; }
  void ClearDelTrace() { state_ &= ~kStateDelTrace; }
  int IsDestroyed() const { return destroyed_ != 0; }
  DWORD GetTag() const { return tag_; }

  // At most 31 characters are kept; a null text keeps the comment (there are no string resources
  // to take it from on this platform, so `module` and `resourceId` are not used).
  void SetUndoComment(const WCHAR* text, HMODULE module, DWORD resourceId);
  const WCHAR* GetUndoComment() const { return undo_comment_; }

  Locator& GetLocator() { return locator_; }
  DWORD GetObjID() const { return locator_.GetObjID(); }
  const Location& GetParentLocation() const { return parent_; }
  void SetParentLocation(const Location& parent) { parent_ = parent; }
  CPChangeNotify& GetNotifier() { return notify_; }

  // Creates a new object file for this object in the working project (write access held); the
  // locator's result (Locator::kAccessGranted = 0 on success).
  DWORD CreateDiskImage();
  // Grants `access` to `user` on this object (null removes its access list): Locator::GrantAccess.
  int GrantAccess(const WCHAR* user, DWORD access);

  // The class-wide free-watch range [min, max) of object ids and the trace-virtual switch.
  static void SetFreeWatchRange(DWORD min, DWORD max, DWORD traceVirtual);
  static void GetFreeWatchRange(DWORD* min, DWORD* max, DWORD* traceVirtual);

 private:
  void WatchDeletion();
  static int StoreThunk(void* object, CZRArchive* archive);
  static int LoadThunk(void* object, CZRArchive* archive);

  Locator locator_;           // its object id is the locator's
  DWORD data_id_;             // GetDataID
  DWORD tag_;                 // TagUsed
  DWORD destroyed_;           // Destroy / UnDestroy
  CPChangeNotify notify_;
  DWORD state_;
  DWORD change_count_;
  DWORD change_grade_;
  DWORD load_count_;          // loads from the object file so far
  WCHAR undo_comment_[kUndoCommentLength];
  Location parent_;
};
