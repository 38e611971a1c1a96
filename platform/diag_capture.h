// A diagnostics sink that records messages, for tests and for tools that post-process output.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/dlgsvc.h"
#include "platform/text.h"

namespace zr::os {

class ScopedDiagCapture : public DiagSink {
 public:
  struct Entry {
    unsigned channel;
    unsigned level;
    std::u16string text;
  };

  ScopedDiagCapture() : previous_filter_(GetDiagFilter()) {
    DiagFilter all = previous_filter_;
    all.channel_mask = 0xFFFFFFFFu;
    all.max_level = 0xFFFFFFFFu;
    SetDiagFilter(all);
    previous_ = SetDiagSink(this);
  }
  ~ScopedDiagCapture() override {
    SetDiagSink(previous_);
    SetDiagFilter(previous_filter_);
  }
  ScopedDiagCapture(const ScopedDiagCapture&) = delete;
  ScopedDiagCapture& operator=(const ScopedDiagCapture&) = delete;

  void Write(unsigned channel, unsigned level, std::u16string_view text) override {
    std::lock_guard lock(mutex_);
    entries_.push_back({channel, level, std::u16string(text)});
  }

  std::vector<Entry> Entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  // All captured text, concatenated, as UTF-8 (handy for substring checks).
  std::string Text() const {
    std::lock_guard lock(mutex_);
    std::u16string all;
    for (const auto& e : entries_) all += e.text;
    return Utf16ToUtf8(all);
  }
  void Clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  DiagSink* previous_ = nullptr;
  DiagFilter previous_filter_;
};

}  // namespace zr::os
