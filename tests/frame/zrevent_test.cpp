// The event log: record layout, ring wrap-around, cut and missing texts, logging switched off,
// concurrent loggers, and the line the crash record prints for each record.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "frame/services/zrevent_internal.h"
#include "platform/clock.h"
#include "platform/procinfo.h"
#include "platform/text.h"
#include "frame_home.h"
#include "test_support.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrevent.h"
#include "zrobj/zrobj.h"

namespace {

// The event list as GetEventList hands it out, copied into a vector for easy checks.
struct Events {
  std::vector<tagEVENTRECORD> records;
  bool empty() const { return records.empty(); }
  std::size_t size() const { return records.size(); }
};
Events EventList() {
  const CPMemory block = CEventLogger::GetEventList();
  EXPECT_EQ(block.GetSize() % sizeof(tagEVENTRECORD), 0u);
  const auto records = zr::EventRecords(block);
  return Events{{records.begin(), records.end()}};
}

std::string TextOf(const tagEVENTRECORD& r) { return zr::os::Utf16ToUtf8(r.szText); }
std::string NameOf(const tagEVENTRECORD& r) { return zr::os::Utf16ToUtf8(r.szThreadName); }
std::uint64_t TimeOf(const tagEVENTRECORD& r) {
  return (static_cast<std::uint64_t>(r.ftTime.dwHighDateTime) << 32) | r.ftTime.dwLowDateTime;
}

// Every test starts from a freshly started log.
class EventLog : public ::testing::Test {
 protected:
  void SetUp() override {
    CEventLogger::Exit();
    CEventLogger::Init();
  }
  void TearDown() override {
    zr::SetThreadInfoProvider(nullptr);
    CEventLogger::Exit();
  }
};

TEST_F(EventLog, RecordLayoutIsFixed) {
  EXPECT_EQ(sizeof(tagEVENTRECORD), 1168u);
  EXPECT_EQ(offsetof(tagEVENTRECORD, dwEventNo), 0u);
  EXPECT_EQ(offsetof(tagEVENTRECORD, dwThreadId), 4u);
  EXPECT_EQ(offsetof(tagEVENTRECORD, szThreadName), 8u);
  EXPECT_EQ(offsetof(tagEVENTRECORD, szText), 136u);
  EXPECT_EQ(offsetof(tagEVENTRECORD, ftTime), 1160u);
}

TEST_F(EventLog, RecordsEventsOldestFirstAndOverwritesTheOldest) {
  const DWORD capacity = CEventLogger::GetCapacity();
  ASSERT_EQ(capacity, 1024u);  // the default "HistorySize"
  EXPECT_TRUE(EventList().empty());

  const std::uint64_t before = zr::os::GetSystemTimeAsFileTime();
  CEventLogger::LogEvent(u"first event %d", 1);
  const std::uint64_t after = zr::os::GetSystemTimeAsFileTime();
  Events list = EventList();
  ASSERT_EQ(list.size(), 1u);
  const tagEVENTRECORD& first = list.records[0];
  EXPECT_EQ(first.dwEventNo, 0u);
  EXPECT_EQ(first.dwThreadId, zr::os::CurrentOsThreadId());
  EXPECT_EQ(NameOf(first), "<<Main>>");  // the tests run on the thread that loaded the library
  EXPECT_EQ(TextOf(first), "first event 1");
  EXPECT_GE(TimeOf(first), before);
  EXPECT_LE(TimeOf(first), after);

  // capacity + 1 events in all: event 0 is gone, 1 .. capacity remain, oldest first.
  for (DWORD i = 1; i <= capacity; ++i) CEventLogger::LogEvent(u"event %u", i);
  list = EventList();
  ASSERT_EQ(list.size(), capacity);
  for (DWORD i = 0; i < capacity; ++i) {
    ASSERT_EQ(list.records[i].dwEventNo, i + 1);
    ASSERT_EQ(TextOf(list.records[i]), "event " + std::to_string(i + 1));
  }
  // A restarted log numbers from 0 again.
  CEventLogger::Exit();
  CEventLogger::Init();
  CEventLogger::LogEvent(u"after restart");
  list = EventList();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list.records[0].dwEventNo, 0u);
}

TEST_F(EventLog, CutsLongTextsAndDescribesMissingFormats) {
  const std::u16string long_text(600, u'x');
  CEventLogger::LogEvent(u"%s", long_text.c_str());
  CEventLogger::LogEvent(u"%5000d", 7);  // more than the 4096-byte formatting buffer
  CEventLogger::LogEvent(nullptr);
  CEventLogger::LogEvent(u"");
  CEventLogger::LogEvent(u"%hs=%d %s %I64u %.2f %c %ld %zu %x%%", "narrow", -5, u"wide", 1ull << 40, 2.5, 'Z',
                         LONG{-7}, std::size_t{12}, 255u);
  const Events list = EventList();
  ASSERT_EQ(list.size(), 5u);
  EXPECT_EQ(TextOf(list.records[0]), std::string(511, 'x'));
  EXPECT_EQ(list.records[0].szText[511], u'\0');
  EXPECT_EQ(TextOf(list.records[1]), std::string(511, ' '));
  EXPECT_EQ(TextOf(list.records[2]), "No description");
  EXPECT_EQ(TextOf(list.records[3]), "No description");
  EXPECT_EQ(TextOf(list.records[4]), "narrow=-5 wide 1099511627776 2.50 Z -7 12 ff%");

  // A thread name longer than the field is cut to 63 characters.
  static const zr::ThreadInfoProvider long_names{
      [](DWORD, WCHAR* buffer, unsigned length) {
        zr::os::WStrCopy(buffer, length, std::u16string(100, u'n'));
        return true;
      },
      nullptr, nullptr};
  zr::SetThreadInfoProvider(&long_names);
  CEventLogger::LogEvent(u"named");
  EXPECT_EQ(NameOf(EventList().records.back()), std::string(63, 'n'));
}

// The arguments LogEvent would capture for `format`.
zr::EventArgs Collect(const char16_t* format, ...) {
  zr::EventArgs args;
  std::va_list ap;
  va_start(ap, format);
  zr::CollectEventArgs(format, ap, args);
  va_end(ap);
  return args;
}

TEST(EventArgs, LongIsReadAs32Bits) {
  const zr::EventArgs args = Collect(u"%ld %lu %d %I64d %zu %hs", LONG{-5}, ULONG{0xFFFFFFFFu}, 7,
                                     std::int64_t{-1} << 40, std::size_t{1} << 33, "text");
  ASSERT_EQ(args.count, 6u);
  EXPECT_EQ(args.items[0].bytes, 4u);  // "%ld" takes a 32-bit long, never 64 bits of the argument area
  EXPECT_TRUE(args.items[0].is_signed);
  EXPECT_EQ(static_cast<std::int64_t>(args.items[0].bits), -5);
  EXPECT_EQ(args.items[1].bytes, 4u);
  EXPECT_FALSE(args.items[1].is_signed);
  EXPECT_EQ(args.items[1].bits, 0xFFFFFFFFu);
  EXPECT_EQ(args.items[2].bits, 7u);
  EXPECT_EQ(args.items[3].bytes, 8u);
  EXPECT_EQ(static_cast<std::int64_t>(args.items[3].bits), std::int64_t{-1} << 40);
  EXPECT_EQ(args.items[4].bits, std::uint64_t{1} << 33);
  EXPECT_EQ(args.items[5].kind, zr::os::FormatArg::Kind::kNarrow);
}

TEST(EventArgs, StarsTakeIntsAndUnknownConversionsTakeNothing) {
  const zr::EventArgs args = Collect(u"%*.*d %Z %q %% %5% %d %n", 6, 2, 42, 9, nullptr);
  ASSERT_EQ(args.count, 5u);
  EXPECT_EQ(args.items[0].bits, 6u);
  EXPECT_EQ(args.items[1].bits, 2u);
  EXPECT_EQ(args.items[2].bits, 42u);
  EXPECT_EQ(args.items[3].bits, 9u);
  EXPECT_EQ(args.items[4].kind, zr::os::FormatArg::Kind::kPointer);
}

TEST_F(EventLog, LongArgumentsAre32BitsInTheRecord) {
  // Enough arguments that the later ones travel on the stack, where a 32-bit value leaves the upper
  // half of its slot undefined.
  CEventLogger::LogEvent(u"%d %d %d %d %d %ld|%lu|%lx|%d|%ld", 1, 2, 3, 4, 5, LONG{-5}, ULONG{4000000000u},
                         LONG{0x1234}, 8, LONG{-2147483647 - 1});
  CEventLogger::LogEvent(u"%Z|%d", 5);  // an unknown conversion takes no argument
  const Events list = EventList();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(TextOf(list.records[0]), "1 2 3 4 5 -5|4000000000|1234|8|-2147483648");
  EXPECT_EQ(TextOf(list.records[1]), "%Z|5");
  char line[1024];
  ASSERT_GT(zr::FormatEventRecord(list.records[0], line, sizeof line), 0u);
  EXPECT_NE(std::string(line).find("] 1 2 3 4 5 -5|4000000000|1234|8|-2147483648\r\n"), std::string::npos);
}

TEST_F(EventLog, SwitchedOffLogsNothing) {
  CEventLogger::Exit();
  EXPECT_EQ(CEventLogger::GetCapacity(), 0u);
  CEventLogger::LogEvent(u"dropped %d", 1);
  EXPECT_TRUE(EventList().empty());
  EXPECT_EQ(zr::VisitEventRecords([](const tagEVENTRECORD&, void*) {}, nullptr, 0), 0u);
  // Init while running keeps the log as it is.
  CEventLogger::Init();
  CEventLogger::LogEvent(u"kept");
  CEventLogger::Init();
  EXPECT_EQ(EventList().size(), 1u);
}

TEST_F(EventLog, HistorySizeZeroFromTheSettingsSwitchesLoggingOff) {
  zrtest::ScopedHome home;
  ASSERT_TRUE(zrtest::WriteFile(home.File("ZRO.VST"), "[EventLog]\nHistorySize=0\n"));
  ASSERT_EQ(ZROBJ_GetCurrentSettingInt("EventLog", "HistorySize", 1024, 0), 0) << "the settings store did not read ZRO.VST";
  CEventLogger::Exit();
  CEventLogger::Init();
  EXPECT_EQ(CEventLogger::GetCapacity(), 0u);
  CEventLogger::LogEvent(u"dropped");
  EXPECT_TRUE(EventList().empty());
}

TEST_F(EventLog, ConcurrentLoggersKeepEveryRecordWhole) {
  constexpr int kThreads = 4;
  constexpr int kEach = 600;
  static std::mutex names_mutex;
  static std::map<DWORD, std::u16string> names;
  static const zr::ThreadInfoProvider named{
      [](DWORD id, WCHAR* buffer, unsigned length) {
        std::lock_guard lock(names_mutex);
        const auto it = names.find(id);
        if (it == names.end()) return false;
        zr::os::WStrCopy(buffer, length, it->second);
        return true;
      },
      nullptr, nullptr};
  zr::SetThreadInfoProvider(&named);

  std::atomic<bool> go{false};
  std::atomic<bool> done{false};
  std::map<int, DWORD> ids;
  std::mutex ids_mutex;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      const DWORD id = zr::os::CurrentOsThreadId();
      {
        std::lock_guard lock(names_mutex);
        names[id] = u"worker " + zr::os::Utf8ToUtf16(std::to_string(t));
      }
      {
        std::lock_guard lock(ids_mutex);
        ids[t] = id;
      }
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kEach; ++i) CEventLogger::LogEvent(u"thread %d event %d", t, i);
    });
  // A reader copies the log while the writers run: every copy is in order.
  bool reader_ok = true;
  std::thread reader([&] {
    while (!done.load()) {
      const Events list = EventList();
      for (std::size_t i = 1; i < list.size(); ++i) reader_ok &= list.records[i].dwEventNo == list.records[i - 1].dwEventNo + 1;
    }
  });
  go = true;
  for (std::thread& t : threads) t.join();
  done = true;
  reader.join();
  EXPECT_TRUE(reader_ok);

  const Events list = EventList();
  ASSERT_EQ(list.size(), 1024u);
  const std::regex pattern("thread ([0-9]) event ([0-9]+)");
  int last_event[kThreads] = {-1, -1, -1, -1};
  for (std::size_t i = 0; i < list.size(); ++i) {
    const tagEVENTRECORD& r = list.records[i];
    ASSERT_EQ(r.dwEventNo, kThreads * kEach - 1024 + i);
    std::smatch m;
    const std::string text = TextOf(r);
    ASSERT_TRUE(std::regex_match(text, m, pattern)) << text;
    const int t = std::stoi(m[1]);
    const int e = std::stoi(m[2]);
    EXPECT_EQ(r.dwThreadId, ids[t]);
    EXPECT_EQ(NameOf(r), "worker " + std::to_string(t));
    // What remains of a thread is a run of its latest events, in order, without gaps.
    if (last_event[t] >= 0) {
      EXPECT_EQ(e, last_event[t] + 1);
    }
    last_event[t] = e;
  }
  for (int t = 0; t < kThreads; ++t) {
    if (last_event[t] >= 0) {
      EXPECT_EQ(last_event[t], kEach - 1);
    }
  }
  std::lock_guard lock(names_mutex);
  names.clear();
}

TEST_F(EventLog, FormatsTheCrashRecordLine) {
  tagEVENTRECORD r{};
  r.dwEventNo = 7;
  r.dwThreadId = 0x1A2B;
  zr::os::WStrCopy(r.szThreadName, 64, u"worker");
  zr::os::WStrCopy(r.szText, 512, u"hello \u00e9");
  const std::uint64_t ft = 133536855091230000ull;  // 2024-02-29 13:05:09.123 UTC
  r.ftTime.dwLowDateTime = static_cast<DWORD>(ft);
  r.ftTime.dwHighDateTime = static_cast<DWORD>(ft >> 32);
  char line[256];
  const std::size_t n = zr::FormatEventRecord(r, line, sizeof line);
  EXPECT_EQ(std::string(line, n), "\r* 7     29.2.2024 13:5:9:123 Thread 00001A2B [worker] hello \xc3\xa9\r\n");
  // A field without its terminator is read only within the field.
  std::fill(std::begin(r.szThreadName), std::end(r.szThreadName), u'a');
  zr::FormatEventRecord(r, line, sizeof line);
  EXPECT_NE(std::string(line).find("[" + std::string(63, 'a') + "]"), std::string::npos);
}

}  // namespace
