// UTF-8 INI files shared between processes: cached reads, and locked read-modify-replace writes.
// The profile store, the settings files and the class-key store are built on it.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zrobj/export.h"

namespace zr::os {

// How a file looks to a reader. An unreadable file (a directory, no permission, too large) reads as
// empty and is never overwritten.
enum class IniFileState { kMissing, kReadable, kUnreadable };

// One change of an update; section and key names are case-insensitive (ASCII).
struct IniOp {
  enum class Kind { kSet, kDeleteKey, kDeleteSection, kDeleteSectionTree, kAddSection };
  Kind kind;
  std::string section;
  std::string key;
  std::string value;
};

IniFileState IniGetState(const std::string& path);

// The value of `key` in `section`; nullopt when the file, section or key is missing or unreadable.
std::optional<std::string> IniRead(const std::string& path, std::string_view section,
                                             std::string_view key);
bool IniHasSection(const std::string& path, std::string_view section);
// Section names in file order; the key names of one section in file order.
std::vector<std::string> IniSections(const std::string& path);
std::vector<std::string> IniKeys(const std::string& path, std::string_view section);

// Applies `ops` to the current contents and replaces the file atomically, under an exclusive lock
// on "<path>.lock", so concurrent writers never lose each other's changes. Creates the directory
// and the file as needed. Fails (false, file untouched) when the file exists but cannot be read,
// when a name cannot be represented in the format (line breaks or NUL bytes, ']' in a section, '='
// in a key, an empty key, a key starting with ';', '#' or '[' once trimmed), when a value holds a
// line break or a NUL byte, or when the lock is not had within 10 seconds.
bool IniUpdate(const std::string& path, std::span<const IniOp> ops);

// Section and key names as the file keeps them: surrounding blanks removed.
std::string_view IniTrimName(std::string_view name);

// Removes the cached parse of every file, so the next read goes to the disk (tests).
void IniDropCache();

}  // namespace zr::os
