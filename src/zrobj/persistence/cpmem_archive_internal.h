// What loaders of archive entries share inside the library: the check that an entry's claimed size
// can be there at all, before anything is allocated for it.
#pragma once

class CZRArchive;

namespace zr {

// False when `archive` is one of the library's own archives and fewer than `size` bytes follow its
// position: a size no such archive can deliver is damage (a hostile header could otherwise ask for
// 4 GiB). Other archives are trusted.
bool ArchiveCanDeliver(CZRArchive& archive, unsigned long size);

}  // namespace zr
