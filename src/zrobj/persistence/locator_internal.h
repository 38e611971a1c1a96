// Start-up and shut-down steps of the object store for the entry point: the locators' watch range.
#pragma once

namespace zr::steps {

void SetLocatorWatchRange(int& min, int& max);  // Locator::SetRWWatchRange
void GetLocatorWatchRange(int* min, int* max);  // Locator::GetRWWatchRange

}  // namespace zr::steps
