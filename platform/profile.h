// The "Windows directory" and classic private profile files ("ZRO.INI") kept in it.
#pragma once

#include <string>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

// Copies the Windows directory (no trailing separator) into `buffer`. Returns its length, or the
// size needed including the terminator when `size` is too small (buffer untouched), 0 on failure.
UINT GetWindowsDirectoryW(WCHAR* buffer, UINT size);

// Windows profile semantics on an INI file; a file name without a '/' lies in the Windows
// directory. Null `key` lists the section's keys, null `section` the section names (each
// terminated, the list ends with an extra terminator). A missing value yields `defaultValue`.
// Returns the characters copied without the terminator (size-1 or size-2 when cut).
DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue,
                                         char* buffer, DWORD size, const char* fileName);
// Sets the value (creating file, section and key as needed); null `value` deletes the key, null
// `key` deletes the section. Non-zero on success.
BOOL WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                          const char* fileName);

// $ZROBJ_HOME, else $XDG_CONFIG_HOME/zrobj, else ~/.config/zrobj; read from the environment at
// each call. The directory is created by the first write into it.
std::string WindowsDirectory();

// Points the Windows directory of this process (and of the processes it starts) at `directory`
// by setting $ZROBJ_HOME.
void SetWindowsDirectoryForProcess(const std::string& directory);

// `fileName` resolved like the profile functions do: in the Windows directory unless it has a '/'.
std::string ProfileFilePath(const char* fileName);

}  // namespace zr::os
