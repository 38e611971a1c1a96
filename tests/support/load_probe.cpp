// Loads a library into a process that never had it, after taking every free thread key, and
// reports why a refused load was refused. Used to watch a load whose process attach fails.
#include <dlfcn.h>
#include <pthread.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: load_probe LIBRARY\n");
    return 2;
  }
  pthread_key_t key;
  while (pthread_key_create(&key, nullptr) == 0) {
  }
  if (dlopen(argv[1], RTLD_NOW | RTLD_LOCAL)) return 3;
  std::fprintf(stderr, "load_probe: %s\n", dlerror());
  return 4;
}
