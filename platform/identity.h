// Who and where: the computer name and the user name of this process, as the library reports them.
#pragma once

#include <string>

#include "zrobj/zrtypes.h"

namespace zr::os {

inline constexpr DWORD kMaxComputerNameLength = 15;  // characters, without the terminator

// The computer's name, in this order:
//  1. the environment variable ZROBJ_COMPUTERNAME when set and not empty (so tests can play several
//     computers); set but empty, it stands for a system without a name;
//  2. the host name, unless it is empty, "(none)", "localhost" or "localhost.localdomain";
//  3. the name kept by StoreComputerName for a machine whose system has none.
// Names from 1 and 2 are upper-cased (ASCII) and cut to 15 characters.
// On entry *length is the capacity of `buffer` in characters. On success the name is copied with its
// terminator and *length is its length without the terminator. On failure nothing is written; *length
// is the capacity needed (length + 1) when a name exists but does not fit, unchanged when there is none.
bool QueryComputerName(WCHAR* buffer, DWORD* length);

// Keeps `name` as this machine's computer name for when the system has none. The host name itself is
// never changed; the name is published atomically in StoredComputerNamePath() and never overwritten,
// so concurrent processes agree on one name. Fails when the name is invalid (empty, longer than 15
// characters, characters other than A-Z, 0-9, '-' and '_'), when a valid name is already kept, or
// when the file cannot be written. A damaged file (no valid name in it) is replaced.
bool StoreComputerName(const WCHAR* name);

// The file that keeps a generated computer name: "COMPUTERNAME" in the settings directory
// ($ZROBJ_HOME, else $XDG_CONFIG_HOME/zrobj, else ~/.config/zrobj).
std::string StoredComputerNamePath();

// The user's name: ZROBJ_USERNAME when set and not empty, else the account name of the effective
// user, else $USER. Same buffer and length contract as QueryComputerName; not upper-cased or cut.
bool QueryUserName(WCHAR* buffer, DWORD* length);

}  // namespace zr::os
