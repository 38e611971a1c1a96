// Library lifecycle and settings: application initialisation, init callbacks, the "ZRO.INI" and
// "ZRO.VST" stores, the application root directory, the product name and file-type registration.
#pragma once

#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// An init callback: no arguments, non-zero = success.
using ZROBJ_INITCALLBACK = int (*)();

ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_RegisterInitCallback(ZROBJ_INITCALLBACK callback, ZROBJ_INITCALLBACK* previous);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_UnregisterInitCallback(ZROBJ_INITCALLBACK previous);
ZROBJ_EXTERN_C ZROBJ_API void ZROBJ_AppInitialize();
ZROBJ_EXTERN_C ZROBJ_API void ZROBJ_AppExit();

ZROBJ_EXTERN_C ZROBJ_API UINT ZROBJ_GetCurrentSettingStr(const char* section, const char* key, const WCHAR* defaultValue,
                                                        WCHAR* buffer, UINT length, int writeDefault);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetCurrentSettingInt(const char* section, const char* key, int defaultValue,
                                                       int writeDefault);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetCurrentSettingBool(const char* section, const char* key, int defaultValue,
                                                        int writeDefault);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_WriteCurrentSettingStr(const char* section, const char* key, const WCHAR* value);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_WriteCurrentSettingInt(const char* section, const char* key, int value);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_WriteCurrentSettingBool(const char* section, const char* key, int value);

ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetProfileInt(const char* section, const char* key, int defaultValue, int writeDefault);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_WriteProfileInt(const char* section, const char* key, int value);

// Reading a setting without a default, to tell a missing key from a stored one: 1 when the key is
// set (its value in the buffer, cut to fit and terminated), 0 when it is not, -1 when the file
// cannot be read. "ZRO.VST" (current settings) and "ZRO.INI" (profile) respectively.
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_ReadCurrentSettingStr(const char* section, const char* key, WCHAR* buffer,
                                                        UINT length);
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_ReadProfileString(const char* section, const char* key, char* buffer, UINT size);
// Writes a text value to "ZRO.INI"; 0 when the file cannot be written or cannot hold the names or
// the value (line breaks, "]" in a section, "=" in a key).
ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_WriteProfileString(const char* section, const char* key, const char* value);
// The full path of a file of the settings directory (for example "ZRO.INI", "ZRO.VST"): the number
// of characters, 0 when it does not fit in `length` characters with its terminator.
ZROBJ_EXTERN_C ZROBJ_API UINT ZROBJ_GetSettingsFilePath(const char* fileName, WCHAR* buffer, UINT length);

ZROBJ_EXTERN_C ZROBJ_API int ZROBJ_GetAppRootDir(WCHAR* buffer);  // buffer of ZR_MAX_PATH characters
ZROBJ_EXTERN_C ZROBJ_API const WCHAR* ZROBJ_GetProductName();
ZROBJ_EXTERN_C ZROBJ_API int RegisterFileType(const WCHAR* extension, const WCHAR* typeName, const WCHAR* description,
                                              const WCHAR* icon, const WCHAR* openCommand);

// Process-wide values stored at attach.
ZROBJ_API HMODULE ZROBJ_GetModuleHandle();   // load base of libzrobju.so
// The absolute file name of a loaded module (null: the program), cut to fit and terminated: the
// number of characters, `length` when it was cut, 0 on failure.
ZROBJ_API DWORD ZROBJ_GetModuleFileName(HMODULE module, WCHAR* buffer, DWORD length);
ZROBJ_API DWORD ZROBJ_GetStartTick();         // GetTickCount() at attach
ZROBJ_API DWORD ZROBJ_GetInitCount();
ZROBJ_API const SYSTEM_INFO* ZROBJ_GetSystemInfo();
