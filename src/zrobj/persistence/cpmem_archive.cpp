// CPMemory's archive persistence (its data as one named chunk), kept with the chunk archives it
// is written through so that reference-counted memory itself stays below the persistence layer.
#include "zrobj/chunkarc.h"
#include "zrobj/cpmem.h"
#include "zrobj/cpmemfile.h"
#include "zrobj/czrfile.h"
#include "persistence/cpmem_archive_internal.h"

int CPMemory::DynaSave(char* name, CZRArchive& archive) {
  const unsigned int level = archive.Chnk_Open(name, CHNK_ACCESS_WRITE);
  if (level == CHNK_INVALID) return 0;
  const unsigned long size = GetSize();
  const unsigned long written = size == 0 ? 0 : archive.Chnk_Write(const_cast<void*>(GetCDataPtr()), size);
  archive.Chnk_Close(level);
  return written == size ? 1 : 0;
}

bool zr::ArchiveCanDeliver(CZRArchive& archive, unsigned long size) {
  if (auto* file = dynamic_cast<CChunkArchiveT<CZRFile>*>(&archive)) return size <= file->GetBytesLeft();
  if (auto* memory = dynamic_cast<CChunkArchiveT<CPMemoryFile>*>(&archive)) return size <= memory->GetBytesLeft();
  return true;
}

// Opens the entry and loads it whole into this handle (in place when the block is not shared);
// the entry's size, or -1 when it could not be loaded.
long long CPMemory::LoadEntry(char* name, CZRArchive& archive) {
  const unsigned int level = archive.Chnk_Open(name, CHNK_ACCESS_READ);
  if (level == CHNK_INVALID) return -1;
  const unsigned long size = archive.Chnk_GetSize(level);
  bool loaded = size == 0 ? Free() != 0 : zr::ArchiveCanDeliver(archive, size) && LoadRealloc(size) && GetSize() == size;
  if (loaded && size != 0) loaded = archive.Chnk_Read(GetDataPtr(), size) == size;
  archive.Chnk_Close(level);
  return loaded ? static_cast<long long>(size) : -1;
}

int CPMemory::DynaLoad(char* name, CZRArchive& archive, int) { return LoadEntry(name, archive) >= 0 ? 1 : 0; }

int CPMemory::DynaRead(char* name, CZRArchive& archive) {
  const long long size = LoadEntry(name, archive);
  return size > 0 ? static_cast<int>(size) : 0;
}
