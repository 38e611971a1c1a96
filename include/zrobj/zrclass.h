// The runtime class registry: static class records (CZRRuntimeClass), their registration from the
// modules that hold them, lookups by GUID and hash id, and the driver libraries loaded on demand.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class CZRRTObject;
class CZRRuntimeClass;

// Makes an instance of the class (null when the allocation failed).
using ZR_CREATEOBJECTPROC = CZRRTObject* (*)();
// The class's control procedure (commands ZRCLASS_CMD_*); the registry stores or ignores the answers.
using ZR_CLASSCTRLPROC = unsigned long (*)(unsigned long command, unsigned long argument);
// Enumeration callback: 0 stops the walk.
using ZR_CLASSENUMPROC = int (*)(CZRRuntimeClass* record, void* argument);

// Record flags.
inline constexpr DWORD ZRCLASS_CREATABLE = 0x001;   // kept only if the class and every base declare it
inline constexpr DWORD ZRCLASS_NEW = 0x002;         // registered, not yet told that it is loaded
inline constexpr DWORD ZRCLASS_APP = 0x004;         // the record lies in the program's executable
inline constexpr DWORD ZRCLASS_HIDDEN = 0x008;      // invisible to lookups and enumerations
inline constexpr DWORD ZRCLASS_DIRECT = 0x010;      // its library was loaded by the registry
inline constexpr DWORD ZRCLASS_CMD3 = 0x020;        // the control procedure answered command 3
inline constexpr DWORD ZRCLASS_USER6 = 0x040;       // declared by the class, kept
inline constexpr DWORD ZRCLASS_USER7 = 0x080;       // declared by the class, kept
inline constexpr DWORD ZRCLASS_TAGGED = 0x100;      // see TagClass
inline constexpr DWORD ZRCLASS_DECLARED_MASK = 0xC1;  // declared bits that survive registration

// Control procedure commands.
inline constexpr unsigned long ZRCLASS_CMD_LOADED = 1;    // SanitizeLoads, in registration order
inline constexpr unsigned long ZRCLASS_CMD_SHUTDOWN = 2;  // UnloadClassLibs, in reverse order
inline constexpr unsigned long ZRCLASS_CMD_QUERY3 = 3;    // at registration: non-zero sets ZRCLASS_CMD3
inline constexpr unsigned long ZRCLASS_CMD_VALUE = 5;     // at registration: the class value

// Record states (other values: the error code of a failed registration).
inline constexpr LONG ZRCLASS_STATE_NEW = -1;           // never registered
inline constexpr LONG ZRCLASS_STATE_REGISTERED = 0;
inline constexpr LONG ZRCLASS_STATE_UNREGISTERED = 13;
inline constexpr LONG ZRCLASS_STATE_FREED = 15;        // its library has been freed

// Registration error codes.
inline constexpr DWORD ZRCLASS_ERR_BASE_FAILED = 2;    // the base's own registration had failed
inline constexpr DWORD ZRCLASS_ERR_DUPLICATE = 4;      // same hash-id high half and GUID registered
inline constexpr DWORD ZRCLASS_ERR_LAYOUT = 6;         // base object size or record size differ
inline constexpr DWORD ZRCLASS_ERR_NOT_FOUND = 9;      // unregistration from an empty bucket
inline constexpr DWORD ZRCLASS_ERR_NO_CREATOR = 11;    // creatable without a creation function
inline constexpr DWORD ZRCLASS_ERR_NO_MODULE = 14;     // no module, or none mapped at the handle

inline constexpr std::size_t ZRCLASS_NAME_LENGTH = 32;          // narrow characters
inline constexpr std::size_t ZRCLASS_DISPLAY_NAME_LENGTH = 128;  // wide characters

// The static data of a class record, in the field order of the 32-bit record (912 bytes there).
// On this 64-bit platform the module handle and the four pointers widen to 8 bytes and 4 bytes of
// padding align the handle: the record is 936 bytes (ZRCLASS_RECORD_SIZE), see the offsets below.
struct CZRRTCData {
  DWORD dwRecordSize;                             // 0: ZRCLASS_RECORD_SIZE, else refused
  DWORD dwObjectSize;                             // 4: size of an instance
  char szClassName[ZRCLASS_NAME_LENGTH];          // 8
  DWORD dwDisplayNameID;                          // 40: string resource id in the class's module
  WCHAR szDisplayName[ZRCLASS_DISPLAY_NAME_LENGTH];  // 44: loaded at registration
  WCHAR szModulePath[ZR_MAX_PATH];                // 300: file name of the registering module
  DWORD dwPadding;                                // 820: aligns the handle (not on 32-bit)
  HMODULE hModule;                                // 824
  DWORD dwHashID;                                 // 832: GetHashID(class name)
  GUID guid;                                      // 836: the class's identity
  DWORD dwFlags;                                  // 852: ZRCLASS_* flags
  DWORD dwOrder;                                  // 856: registered-class count at registration
  DWORD dwClassValue;                             // 860: answer to command 5, else the base's
  ZR_CREATEOBJECTPROC pfnCreateObject;            // 864
  ZR_CLASSCTRLPROC pfnCtrlProc;                   // 872: may be null
  CZRRuntimeClass* pBaseClass;                    // 880
  CZRRuntimeClass* pNext;                         // 888: next record of the directory bucket
  LONG lState;                                    // 896: ZRCLASS_STATE_* or an error code
  DWORD dwVTblVersion;                            // 900: version of the virtual table
  BYTE reserved[32];                              // 904: zero
};

inline constexpr DWORD ZRCLASS_RECORD_SIZE = 936;
static_assert(sizeof(CZRRTCData) == ZRCLASS_RECORD_SIZE, "class record layout");
static_assert(offsetof(CZRRTCData, hModule) == 824 && offsetof(CZRRTCData, dwHashID) == 832 &&
                  offsetof(CZRRTCData, pfnCreateObject) == 864 && offsetof(CZRRTCData, lState) == 896,
              "class record offsets");

// A class record. It adds no data to CZRRTCData and declares no constructor, so a record can be
// constant-initialised (see ZRClassRecord) and is ready before any static initialiser runs.
class ZROBJ_API CZRRuntimeClass : public CZRRTCData {
 public:
  static constexpr DWORD kBuckets = 1024;
  static constexpr DWORD kLoadFailRegion = 0x20000;  // reserved bytes of the load-failure list

  // Registry start-up (process attach) and shut-down (process detach).
  static int Init();
  static int Exit();

  // 0 or a ZRCLASS_ERR_* code, which is also kept in lState.
  DWORD RegisterClass(HMODULE module, CZRRuntimeClass* base, DWORD baseSize);
  DWORD UnRegisterClass();

  int IsKindOf(const CZRRuntimeClass* record) const;
  unsigned long CallClassCtrlProc(unsigned long command, unsigned long argument);
  // Index of the first entry that this class is a kind of, or -1.
  int GetClassFamily(CZRRuntimeClass* const* records, int count) const;

  static CZRRuntimeClass* GetClassPtr(const GUID* guid, DWORD hashId);
  static CZRRuntimeClass* IsUnique(DWORD hashId);
  static CZRRuntimeClass* IsClassLibraryLoaded(const WCHAR* path);
  static int LoadClassLibrary(const WCHAR* path, int sanitise);
  static void SanitizeLoads();
  static void UnloadClassLibs();
  static void KickAllClassesOf(HMODULE module);

  // 1 when the callback stopped the walk with 0, else 0.
  static int EnumClasses(ZR_CLASSENUMPROC callback, void* argument);
  int EnumKindClasses(ZR_CLASSENUMPROC callback, void* argument);
  int EnumChildClasses(ZR_CLASSENUMPROC callback, void* argument);

  // All records sorted by registration order, from the process heap (free with FreeOrderedClassList);
  // null on failure.
  static CZRRuntimeClass** GetOrderedClassList(DWORD* count);
  static void FreeOrderedClassList(CZRRuntimeClass** list);
  // Pointers to all visible records, in directory order.
  static CPMemory GetClassList();

  int CheckVTblVersion(DWORD expected, const CZRRuntimeClass* derived) const;
  // -1 (0xFFFFFFFF) skips a check.
  int CheckRTClass(DWORD objectSize, DWORD vtblVersion) const;

  int TagClass();
  static int UntagClasses();

  static int SetWorkingDir(const WCHAR* path);
  static const WCHAR* GetWorkingDir();
  static void DumpClasses();

  static DWORD GetRegisteredCount();
  // The module that holds `address` (what a module passes to RegisterClass); null when none does.
  static HMODULE ModuleOf(const void* address);

 private:
  static HMODULE LoadLibrary(const WCHAR* path, int sanitise);
  static void LoadFail_Add(const WCHAR* fileName);
  static int LoadFail_Check(const WCHAR* fileName);
};

static_assert(sizeof(CZRRuntimeClass) == ZRCLASS_RECORD_SIZE, "class record layout");

// A record ready for registration: state "never registered", record size set, computed fields zero.
// Names longer than 31 characters are cut.
constexpr CZRRuntimeClass ZRClassRecord(const char* className, DWORD objectSize, const GUID& guid, DWORD flags,
                                        ZR_CREATEOBJECTPROC create, ZR_CLASSCTRLPROC ctrl, DWORD vtblVersion,
                                        DWORD displayNameId = 0) {
  CZRRuntimeClass record{};
  record.dwRecordSize = ZRCLASS_RECORD_SIZE;
  record.dwObjectSize = objectSize;
  for (std::size_t i = 0; className && className[i] && i + 1 < ZRCLASS_NAME_LENGTH; ++i)
    record.szClassName[i] = className[i];
  record.dwDisplayNameID = displayNameId;
  record.guid = guid;
  record.dwFlags = flags;
  record.pfnCreateObject = create;
  record.pfnCtrlProc = ctrl;
  record.lState = ZRCLASS_STATE_NEW;
  record.dwVTblVersion = vtblVersion;
  return record;
}

// Registers a record with the module that holds it for as long as the object lives: a module
// defines one at namespace scope per class (ZR_REGISTER_CLASS), so its classes register when it is
// loaded and leave the directory before it is unloaded. Only a successful registration is undone.
class ZROBJ_API CZRClassRegistration {
 public:
  CZRClassRegistration(CZRRuntimeClass& record, CZRRuntimeClass* base, DWORD baseSize);
  ~CZRClassRegistration();
  CZRClassRegistration(const CZRClassRegistration&) = delete;
  CZRClassRegistration& operator=(const CZRClassRegistration&) = delete;
  DWORD Result() const { return result_; }

 private:
  CZRRuntimeClass* record_;
  DWORD result_;
};

// ZR_REGISTER_CLASS(record, &baseRecord, sizeOfBase) or ZR_REGISTER_CLASS(record, nullptr, 0).
#define ZR_REGISTER_CLASS(record, base, baseSize) \
  static CZRClassRegistration zr_class_registration_##record((record), (base), (baseSize))
