// The hash table: bucket lists kept in order of the ids' high halves, then of Compare, walked under
// the table lock.
#include "zrobj/czrhashtable.h"

namespace {

constexpr DWORD kForeignBits = 0xFC00u;  // bits 10-15 of an id: no table entry ever has them

DWORD Bucket(DWORD id) { return id & 0x3FFu; }
DWORD SortKey(DWORD id) { return id >> 16; }

}  // namespace

CZRHashTable::CZRHashTable() : buckets_{} {}

CZRHashTable::~CZRHashTable() { ClearTable(); }

int CZRHashTable::Compare(tagHASHENTRY*, tagHASHENTRY*) { return 0; }
tagHASHENTRY* CZRHashTable::AllocEntry(DWORD) { return nullptr; }
void CZRHashTable::DeleteEntry(tagHASHENTRY*) {}

// The entry sought, or where it would go (the entry it would follow, null for the bucket's head);
// `predecessor` gets the entry before the result. When a walk among entries of the same id that
// Compare placed the key after reaches a greater id, the place is after the last of them: a bucket
// never loses its order.
tagHASHENTRY* CZRHashTable::ClosestMatch(DWORD id, tagHASHENTRY* key, tagHASHENTRY** predecessor) {
  tagHASHENTRY* previous = nullptr;
  tagHASHENTRY* before_previous = nullptr;
  const auto result = [&](tagHASHENTRY* match, tagHASHENTRY* before) {
    if (predecessor) *predecessor = before;
    return match;
  };
  if (id & kForeignBits) return result(nullptr, nullptr);
  COSAutoLock guard(&lock_);
  for (tagHASHENTRY* entry = buckets_[Bucket(id)]; entry; entry = entry->pNext) {
    if (SortKey(entry->dwHashID) < SortKey(id)) {
      before_previous = previous;
      previous = entry;
      continue;
    }
    if (SortKey(entry->dwHashID) > SortKey(id)) return result(previous, before_previous);
    if (!key) return result(entry, previous);
    const int order = Compare(key, entry);
    if (order == 0) return result(entry, previous);
    if (order < 0) return result(previous, before_previous);
    before_previous = previous;
    previous = entry;
  }
  return result(previous, before_previous);
}

tagHASHENTRY* CZRHashTable::FindEntry(DWORD id, tagHASHENTRY* key) {
  tagHASHENTRY* match = ClosestMatch(id, key, nullptr);
  if (!match || match->dwHashID != id) return nullptr;
  return key && Compare(key, match) != 0 ? nullptr : match;
}

tagHASHENTRY* CZRHashTable::Add(tagHASHENTRY* entry) {
  if (!entry || (entry->dwHashID & kForeignBits)) return nullptr;
  entry->pNext = nullptr;
  COSAutoLock guard(&lock_);
  tagHASHENTRY* match = ClosestMatch(entry->dwHashID, entry, nullptr);
  if (match && match->dwHashID == entry->dwHashID && Compare(match, entry) == 0) return match;
  tagHASHENTRY*& link = match ? match->pNext : buckets_[Bucket(entry->dwHashID)];
  entry->pNext = link;
  link = entry;
  return entry;
}

int CZRHashTable::Delete(DWORD id, tagHASHENTRY* key) {
  COSAutoLock guard(&lock_);
  tagHASHENTRY* predecessor = nullptr;
  tagHASHENTRY* entry = ClosestMatch(id, key, &predecessor);
  if (!entry || entry->dwHashID != id || (key && Compare(key, entry) != 0)) return 1;
  if (predecessor)
    predecessor->pNext = entry->pNext;
  else
    buckets_[Bucket(id)] = nullptr;  // the head takes the rest of its bucket along
  DeleteEntry(entry);
  return 1;
}

void CZRHashTable::ClearTable() {
  COSAutoLock guard(&lock_);
  for (tagHASHENTRY*& head : buckets_) {
    for (tagHASHENTRY* entry = head; entry;) {
      tagHASHENTRY* next = entry->pNext;
      DeleteEntry(entry);
      entry = next;
    }
    head = nullptr;
  }
}

int CZRHashTable::EnumTable(ZRHASHENUMPROC callback, void* argument) {
  if (!callback) return 0;
  COSAutoLock guard(&lock_);
  for (tagHASHENTRY* head : buckets_)
    for (tagHASHENTRY* entry = head; entry; entry = entry->pNext)
      if (!callback(entry, argument)) return 0;
  return 1;
}

int CZRHashTable::LockTable() {
  lock_.Enter();
  return 1;
}

int CZRHashTable::UnlockTable() {
  lock_.Leave();
  return 1;
}
