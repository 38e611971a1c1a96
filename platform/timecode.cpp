// The default timecode system: one atomic value, started from the environment.
#include "platform/timecode.h"

#include <atomic>
#include <cstdlib>

namespace zr::os {
namespace {

int StartValue() {
  const char* text = std::getenv("ZROBJ_TIMECODE_SYSTEM");
  return text ? std::atoi(text) : 0;
}

std::atomic<int>& DefaultSystem() {
  static std::atomic<int> system{StartValue()};
  return system;
}

}  // namespace

int GetDefTimecodeSystem() { return DefaultSystem().load(std::memory_order_relaxed); }
void SetDefTimecodeSystem(int system) { DefaultSystem().store(system, std::memory_order_relaxed); }

}  // namespace zr::os
