// Links the installed library and calls into it, as a client module of the suite would.
#include <cstdio>

#include <zrobj/zrdiag.h>
#include <zrobj/zrobj.h>

int main() {
  ZROBJ_AppInitialize();
  if (ZROBJ_GetInitCount() != 1) return std::printf("init count %u\n", ZROBJ_GetInitCount()), 1;
  ZROBJ_WriteProfileInt("Consumer", "Runs", 3);
  const int runs = ZROBJ_GetProfileInt("Consumer", "Runs", 0, 0);
  const int width = ZROBJ_GetCurrentSettingInt("Consumer", "Width", 640, 1);
  ZROBJ_AppExit();
  if (runs != 3 || width != 640 || ZROBJ_GetInitCount() != 0) return std::printf("settings failed\n"), 1;
  DetailedMessageBeep(0, __FILE__, __LINE__);
  std::printf("consumer ok\n");
  return 0;
}
