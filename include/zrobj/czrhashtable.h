// A thread-safe table of caller-owned entries keyed by the library's 32-bit hash ids: 1024 buckets
// chosen by the id's low half, each a list sorted by the high half (and by Compare among equal ids).
#pragma once

#include "zrobj/coslock.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The head of every entry; derived tables append their data behind it.
struct tagHASHENTRY {
  DWORD dwHashID;       // bits 0-9 the bucket (bits 10-15 must be 0), bits 16-31 the sort key
  tagHASHENTRY* pNext;  // the next entry of the bucket
};

using ZRHASHENUMPROC = int (*)(tagHASHENTRY* entry, void* argument);

class ZROBJ_API CZRHashTable {
 public:
  static constexpr DWORD kBuckets = 1024;

  CZRHashTable();
  virtual ~CZRHashTable();  // ClearTable (with this class's DeleteEntry), then the lock goes
  CZRHashTable(const CZRHashTable&) = delete;
  CZRHashTable& operator=(const CZRHashTable&) = delete;

  // 0 equal; negative when `key` sorts before `entry`, positive after. The base answers 0.
  virtual int Compare(tagHASHENTRY* key, tagHASHENTRY* entry);
  virtual tagHASHENTRY* AllocEntry(DWORD size);  // the base gives null
  virtual void DeleteEntry(tagHASHENTRY* entry);  // the base does nothing

  void ClearTable();
  tagHASHENTRY* FindEntry(DWORD hashID, tagHASHENTRY* key);
  // The entry, now in the table; an entry already there that Compare finds equal; or null for an
  // id with any of bits 10-15 set.
  tagHASHENTRY* Add(tagHASHENTRY* entry);
  // Always 1. Deleting the head of a bucket empties the whole bucket: the entries behind it leave
  // the table with it (without DeleteEntry). This is the table's required behaviour.
  int Delete(DWORD hashID, tagHASHENTRY* key);
  // 0 without a callback or when the callback stopped the walk with 0, else 1.
  int EnumTable(ZRHASHENUMPROC callback, void* argument);
  int LockTable();    // recursive for its owner
  int UnlockTable();

 private:
  tagHASHENTRY* ClosestMatch(DWORD hashID, tagHASHENTRY* key, tagHASHENTRY** predecessor);

  tagHASHENTRY* buckets_[kBuckets];
  COSCriticalSection lock_;
};
