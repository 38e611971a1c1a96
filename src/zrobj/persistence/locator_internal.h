// Start-up and shut-down steps of the object store for the entry point (the locators' watch
// range), and what the Locator's sources share among themselves.
#pragma once

namespace zr::steps {

void SetLocatorWatchRange(int& min, int& max);  // Locator::SetRWWatchRange
void GetLocatorWatchRange(int* min, int* max);  // Locator::GetRWWatchRange

}  // namespace zr::steps

namespace zr {

// A failure detail of the store: channel 3, level 4, only while debug output is on.
void ReportLocatorFailure(const char16_t* text);

}  // namespace zr
