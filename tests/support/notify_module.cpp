// A module that tests load, register a callback from and unload again: its callback counts its
// calls in the integer that its first context word points to.
#include <cstdint>

extern "C" __attribute__((visibility("default"))) int ZrNotifyModuleCallback(void*, std::uint32_t, std::uintptr_t& context1,
                                                                             std::uintptr_t&, std::uint32_t) {
  ++*reinterpret_cast<int*>(context1);
  return 1;
}
