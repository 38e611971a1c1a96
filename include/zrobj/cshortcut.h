// Shortcuts: ".zrs" profile files whose section "Driver" names a target path ("Path") and the
// legacy tag of the component that wrote them ("Legacy").
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class ZROBJ_API CShortCut {
 public:
  // Writes "Legacy" (the tag, or "ZROBJ" for null) and "Path" into the shortcut file. 0, with a
  // debug-mode report, when the shortcut path has no extension or the target is not an existing
  // file; 0 also when the file cannot be written.
  static int Create(const WCHAR* shortcutPath, const WCHAR* targetPath, const WCHAR* legacy);
  // Both empty the buffer first and return 0 unless the extension begins with ".zrs" (any case).
  // GetLegacy reads "Legacy" (default "ZROBJ") and returns 1; ResolvePath reads "Path" and returns
  // 1 only when it is not empty. Values are cut to `length` - 1 characters.
  static int GetLegacy(const WCHAR* shortcutPath, WCHAR* buffer, int length);
  static int ResolvePath(const WCHAR* shortcutPath, WCHAR* buffer, int length);
};
