// Links the installed library and calls into it, as a client module of the suite would.
#include <cstdio>

#include <zrobj/zrtypes.h>

int main() {
  std::printf("consumer ok\n");
  return 0;
}
