// Start-up and shut-down steps whose families are not written yet. Each block below is deleted
// when its family's own source defines the same functions (see lifecycle_internal.h).

#include "frame/startup/lifecycle_internal.h"

namespace zr::steps {

// ---------------------------------------------------------------------------------------------
// Pending: the class records of CZRRTObject / CZRObject.
DWORD RegisterRTObjectClass(HMODULE) { return 0; }
DWORD RegisterObjectClass(HMODULE) { return 0; }

// ---------------------------------------------------------------------------------------------
// Pending: CZRObject free watch range (kept here so the settings round trip works meanwhile).
namespace {
int g_object_watch[3] = {0, 0, 0};
}  // namespace
void SetObjectFreeWatchRange(int min, int max, int traceVirtual) {
  g_object_watch[0] = min;
  g_object_watch[1] = max;
  g_object_watch[2] = traceVirtual;
}
void GetObjectFreeWatchRange(int* min, int* max, int* traceVirtual) {
  if (min) *min = g_object_watch[0];
  if (max) *max = g_object_watch[1];
  if (traceVirtual) *traceVirtual = g_object_watch[2];
}

// ---------------------------------------------------------------------------------------------
// Pending: Locator read/write watch range (the persistence layer's locators).
namespace {
int g_locator_watch[2] = {0, 0};
}  // namespace
void SetLocatorWatchRange(int& min, int& max) {
  g_locator_watch[0] = min;
  g_locator_watch[1] = max;
}
void GetLocatorWatchRange(int* min, int* max) {
  if (min) *min = g_locator_watch[0];
  if (max) *max = g_locator_watch[1];
}

}  // namespace zr::steps
