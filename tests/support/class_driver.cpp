// A driver library for the class registry's tests, built twice (ZRTEST_DRIVER "A" and "B"): one
// class whose control procedure, like the library's unloading, writes into a log that the test
// program hands over.
#include <string>
#include <vector>

#include "zrobj/zrclass.h"

namespace {

std::vector<std::string>* g_log = nullptr;

void Note(const std::string& line) {
  if (g_log) g_log->push_back(line);
}

unsigned long Control(unsigned long command, unsigned long) {
  Note("CTestDriver" ZRTEST_DRIVER " command " + std::to_string(command));
  return 0;
}

constexpr GUID kGuid = {0x7E570000u + ZRTEST_DRIVER[0], 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};
constinit CZRRuntimeClass g_record =
    ZRClassRecord("CTestDriver" ZRTEST_DRIVER, 16, kGuid, 0, nullptr, &Control, 1);
ZR_REGISTER_CLASS(g_record, nullptr, 0);

// Notes the unloading of the library (destroyed before the registration helper above it).
struct UnloadNote {
  ~UnloadNote() { Note("unload " ZRTEST_DRIVER); }
} g_unload_note;

}  // namespace

extern "C" __attribute__((visibility("default"))) void ZrTestDriverSetLog(std::vector<std::string>* log) { g_log = log; }
