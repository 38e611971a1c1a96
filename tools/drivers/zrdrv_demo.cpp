// A small driver library: two classes (a shape and a circle derived from it) that register when the
// library is loaded and leave the registry when it is unloaded.
#include "zrobj/zrclass.h"

namespace {

constexpr GUID kShapeGuid = {0x6A1C0F10, 0x2B7E, 0x4C11, {0x9A, 0x51, 0x00, 0x3E, 0x1D, 0x52, 0x80, 0x01}};
constexpr GUID kCircleGuid = {0x6A1C0F11, 0x2B7E, 0x4C11, {0x9A, 0x51, 0x00, 0x3E, 0x1D, 0x52, 0x80, 0x01}};

// Commands 3 and 5 describe the class; the others (loaded, shutdown) need no work here.
unsigned long ShapeControl(unsigned long command, unsigned long) { return command == ZRCLASS_CMD_VALUE ? 0x5A : 0; }
unsigned long CircleControl(unsigned long command, unsigned long) {
  if (command == ZRCLASS_CMD_QUERY3) return 1;
  return 0;  // class value 0: the shape's is taken
}

constinit CZRRuntimeClass g_shape = ZRClassRecord("CZRDemoShape", 24, kShapeGuid, 0, nullptr, &ShapeControl, 1);
constinit CZRRuntimeClass g_circle = ZRClassRecord("CZRDemoCircle", 32, kCircleGuid, 0, nullptr, &CircleControl, 1);

ZR_REGISTER_CLASS(g_shape, nullptr, 0);
ZR_REGISTER_CLASS(g_circle, &g_shape, 24);

}  // namespace
