// Kernel objects: default names, events, semaphores, duplicated and named objects shared by two
// processes, single and multiple waits with their re-check loop, and file-change notification.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/posix/waitable_internal.h"
#include "platform/text.h"
#include "platform/waitable.h"
#include "platform/wformat.h"
#include "test_support.h"
#include "sync_test_util.h"
#include "zrobj/cosobject.h"

namespace os = zr::os;

namespace {

using synctest::DebugOn;
using synctest::WaitFor;
using synctest::WaitUntilSleeping;

// A name unique to this process and test.
std::u16string UniqueName(const char* what) {
  return os::Utf8ToUtf16(std::string("ZrKernelTest.") + what + "." + std::to_string(::getpid()));
}

std::u16string DefaultName(DWORD number) { return os::FormatWide(u"CNamedOSObject%u", number); }

COSEvent* ManualEvent(bool initial) { return new COSEvent(nullptr, TRUE, initial, nullptr); }

TEST(CNamedOSObject, DefaultNamesAreCountedKernelNames) {
  const DWORD before = CNamedOSObject::GetObjectCounter();
  COSEvent first;
  COSEvent second;
  EXPECT_EQ(CNamedOSObject::GetObjectCounter(), before + 2);
  WCHAR name[32];
  second.GetDefObjectName(name);
  EXPECT_EQ(std::u16string(name), DefaultName(before + 2));
  COSSemaphore semaphore;  // its CNamedOSObject base counts too
  EXPECT_EQ(CNamedOSObject::GetObjectCounter(), before + 3);

  // The names are real object names: another handle opened by name reaches the same event.
  HANDLE opened = os::OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, DefaultName(before + 1).c_str());
  ASSERT_NE(opened, nullptr);
  ASSERT_TRUE(os::SetEvent(opened));
  EXPECT_EQ(second.Wait(0), WAIT_TIMEOUT);
  EXPECT_EQ(first.Wait(0), 0u);
  os::CloseHandle(opened);
  HANDLE sem = os::OpenSemaphoreW(SYNCHRONIZE, FALSE, DefaultName(before + 3).c_str());
  ASSERT_NE(sem, nullptr);
  EXPECT_EQ(os::WaitForSingleObject(sem, 0), 0u);
  EXPECT_EQ(semaphore.Wait(0), WAIT_TIMEOUT);  // the one unit was taken through the other handle
  os::CloseHandle(sem);
}

TEST(COSEvent, AutoManualAndPulse) {
  COSEvent automatic;
  EXPECT_TRUE(automatic.AssertValid());
  EXPECT_EQ(automatic.Wait(0), WAIT_TIMEOUT);
  EXPECT_TRUE(automatic.Set());
  EXPECT_EQ(automatic.Wait(0), 0u);
  EXPECT_EQ(automatic.Wait(0), WAIT_TIMEOUT);  // consumed

  std::unique_ptr<COSEvent> manual(ManualEvent(true));
  EXPECT_EQ(manual->Wait(0), 0u);
  EXPECT_EQ(manual->Wait(0), 0u);
  EXPECT_TRUE(manual->Reset());
  EXPECT_EQ(manual->Wait(0), WAIT_TIMEOUT);
  EXPECT_TRUE(manual->Pulse());  // nobody waits: stays reset
  EXPECT_EQ(manual->Wait(0), WAIT_TIMEOUT);

  // Starts two threads waiting on `event` (counting the waits that succeed) and waits until both sleep.
  std::atomic<int> released{0};
  std::vector<std::atomic<DWORD>> tids(2);
  std::vector<std::thread> waiters;
  auto start_waiters = [&](COSEvent& event) {
    released = 0;
    waiters.clear();
    for (int i = 0; i < 2; ++i) {
      tids[i] = 0;
      waiters.emplace_back([&, i, waited = &event] {
        tids[i] = os::GetCurrentThreadId();
        if (waited->Wait(20000) == 0) ++released;
      });
    }
    const auto asleep = [&](int i) { return tids[i] != 0 && synctest::Sleeping(tids[i]); };
    return WaitFor([&] { return asleep(0) && asleep(1); });
  };

  // A pulse of a manual-reset event releases every waiter and leaves it reset.
  ASSERT_TRUE(start_waiters(*manual));
  manual->Pulse();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 2);
  EXPECT_EQ(manual->Wait(0), WAIT_TIMEOUT);

  // A pulse of an auto-reset event releases one waiter.
  ASSERT_TRUE(start_waiters(automatic));
  automatic.Pulse();
  ASSERT_TRUE(WaitFor([&] { return released.load() == 1; }));
  // The other waiter goes back to sleep without the event.
  ASSERT_TRUE(WaitFor([&] { return synctest::Sleeping(tids[0]) || synctest::Sleeping(tids[1]); }));
  EXPECT_EQ(released.load(), 1);
  automatic.Set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 2);
  EXPECT_EQ(automatic.Wait(0), WAIT_TIMEOUT);
}

TEST(COSEvent, DuplicatesAndExternalEvents) {
  std::unique_ptr<COSEvent> event(ManualEvent(false));
  COSEvent copy(event->GetHandle());
  ASSERT_TRUE(copy.AssertValid());
  EXPECT_NE(copy.GetHandle(), event->GetHandle());
  EXPECT_TRUE(copy.Set());
  EXPECT_EQ(event->Wait(0), 0u);

  COSEvent none(static_cast<HANDLE>(nullptr));
  EXPECT_FALSE(none.AssertValid());
  EXPECT_EQ(none.Set(), 0);
  EXPECT_EQ(none.Reset(), 0);
  EXPECT_EQ(none.Pulse(), 0);

  COSExtEvent ext;
  EXPECT_FALSE(ext.AssertValid());
  EXPECT_EQ(ext.Open(nullptr), 0);
  EXPECT_EQ(ext.Open(event->GetHandle()), 1);
  HANDLE held = ext.GetHandle();
  std::unique_ptr<COSEvent> other(ManualEvent(false));
  EXPECT_EQ(ext.Open(other->GetHandle()), 0);  // keeps the old handle
  EXPECT_EQ(ext.GetHandle(), held);
  EXPECT_EQ(ext.Wait(0), 0u);
  EXPECT_EQ(ext.Close(), 1);
  EXPECT_FALSE(ext.AssertValid());
  EXPECT_EQ(ext.Close(), 1);
  EXPECT_EQ(event->Wait(0), 0u);  // closing the copy left the original alone
}

TEST(COSEvent, OpenByNameUsesAccessZero) {
  std::u16string missing = UniqueName("missing");
  COSEvent absent(missing.data(), 0);
  EXPECT_FALSE(absent.AssertValid());
  EXPECT_EQ(os::GetLastError(), ERROR_FILE_NOT_FOUND);

  std::u16string name = UniqueName("open");
  COSEvent created(name.data(), 1);
  ASSERT_TRUE(created.AssertValid());
  EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS);
  COSEvent again(name.data(), 1);  // creating an existing name opens it
  EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
  COSEvent opened(name.data(), 0);
  ASSERT_TRUE(opened.AssertValid());
  // Opened with access 0: the handle names the event but may neither wait nor set.
  EXPECT_EQ(opened.Wait(0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(opened.Set(), 0);
  EXPECT_TRUE(again.Set());
  EXPECT_EQ(created.Wait(0), 0u);

  // The same name as another type is refused.
  EXPECT_EQ(os::CreateSemaphoreW(nullptr, 1, 1, name.c_str()), nullptr);
  EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(COSSemaphore, CountsAndLimits) {
  COSSemaphore one;
  EXPECT_EQ(one.Wait(0), 0u);
  EXPECT_EQ(one.Wait(0), WAIT_TIMEOUT);
  LONG previous = -1;
  EXPECT_TRUE(one.Release(1, &previous));
  EXPECT_EQ(previous, 0);
  EXPECT_FALSE(one.Release(1, &previous));
  EXPECT_EQ(os::GetLastError(), ERROR_TOO_MANY_POSTS);

  COSSemaphore three(2, 3, nullptr);
  EXPECT_EQ(three.Wait(0), 0u);
  EXPECT_EQ(three.Wait(0), 0u);
  EXPECT_EQ(three.Wait(0), WAIT_TIMEOUT);
  EXPECT_FALSE(three.Release(4, nullptr));
  EXPECT_TRUE(three.Release(3, &previous));
  EXPECT_EQ(previous, 0);
  EXPECT_FALSE(three.Release(0, nullptr));

  COSSemaphore invalid(5, 2, nullptr);
  EXPECT_FALSE(invalid.AssertValid());
  EXPECT_EQ(invalid.Release(1, nullptr), 0);
}

TEST(COSObject, MissingObjectsAndTooManyObjects) {
  DebugOn debug;
  os::ScopedDiagCapture capture;
  COSExtEvent empty;
  EXPECT_EQ(empty.Wait(10), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), 0x80000000u);
  EXPECT_NE(capture.Text().find("ObjectWait: Object does not exist"), std::string::npos);

  std::vector<std::unique_ptr<COSEvent>> events;
  std::vector<COSObject*> objects;
  for (int i = 0; i < 65; ++i) {
    events.emplace_back(ManualEvent(i == 63));
    objects.push_back(events.back().get());
  }
  capture.Clear();
  EXPECT_EQ(COSObject::WaitMultiple(65, objects.data(), FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), 0x80000001u);
  EXPECT_NE(capture.Text().find("ObjectWaitMultiple: Too many objects"), std::string::npos);
  EXPECT_EQ(COSObject::MsgWaitMultiple(65, objects.data(), FALSE, 0, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), 0x80000001u);
  EXPECT_NE(capture.Text().find("MsgObjectWaitMultiple: Too many objects"), std::string::npos);
  EXPECT_EQ(COSObject::WaitMultiple(64, objects.data(), FALSE, 0), 63u);  // 64 is the limit

  capture.Clear();
  COSObject* with_gap[] = {objects[0], &empty};
  EXPECT_EQ(COSObject::WaitMultiple(2, with_gap, FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), 0x80000000u);
  EXPECT_NE(capture.Text().find("ObjectWaitMultiple: Object(s) do(es) not exist"), std::string::npos);
  COSObject* gap_first[] = {&empty, objects[0]};
  EXPECT_EQ(COSObject::MsgWaitMultiple(2, gap_first, FALSE, 0, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), 0x80000000u);
  EXPECT_NE(capture.Text().find("MsgObjectWaitMultiple: Object(s) do(es) not exist"), std::string::npos);
}

TEST(COSObject, WaitMultipleAnyAndAll) {
  COSEvent e0, e1, e2;
  COSSemaphore sem(0, 2, nullptr);
  COSObject* three[] = {&e0, &e1, &e2};
  EXPECT_EQ(COSObject::WaitMultiple(3, three, FALSE, 20), WAIT_TIMEOUT);

  // Any: the lowest signalled index wins and only that auto-reset event is consumed.
  e2.Set();
  e1.Set();
  EXPECT_EQ(COSObject::WaitMultiple(3, three, FALSE, 0), 1u);
  EXPECT_EQ(e1.Wait(0), WAIT_TIMEOUT);
  EXPECT_EQ(COSObject::WaitMultiple(3, three, FALSE, 0), 2u);
  EXPECT_EQ(e2.Wait(0), WAIT_TIMEOUT);

  // All: nothing is consumed until everything is signalled, then everything at once.
  COSObject* all[] = {&e0, &e1, &sem};
  e0.Set();
  sem.Release(1, nullptr);
  EXPECT_EQ(COSObject::WaitMultiple(3, all, TRUE, 20), WAIT_TIMEOUT);
  std::atomic<DWORD> waiter{0};
  std::atomic<DWORD> result{0xDEAD};
  std::thread t([&] {
    waiter = os::GetCurrentThreadId();
    result = COSObject::WaitMultiple(3, all, TRUE, 20000);
  });
  ASSERT_TRUE(WaitFor([&] { return waiter.load() != 0; }));
  ASSERT_TRUE(WaitUntilSleeping(waiter));
  e1.Set();
  t.join();
  EXPECT_EQ(result.load(), 0u);
  EXPECT_EQ(e0.Wait(0), WAIT_TIMEOUT);
  EXPECT_EQ(e1.Wait(0), WAIT_TIMEOUT);
  EXPECT_EQ(sem.Wait(0), WAIT_TIMEOUT);

  // An object twice in a wait for all is refused.
  COSObject* twice[] = {&e0, &e0};
  EXPECT_EQ(COSObject::WaitMultiple(2, twice, TRUE, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(COSObject, MsgWaitMultipleWaitsOnTheFirstObjectOnly) {
  COSEvent first, second;
  COSExtEvent empty;
  COSObject* pair[] = {&first, &second};
  second.Set();
  EXPECT_EQ(COSObject::MsgWaitMultiple(2, pair, FALSE, 20, 0xFF), WAIT_TIMEOUT);
  EXPECT_EQ(second.Wait(0), 0u);  // never looked at
  first.Set();
  EXPECT_EQ(COSObject::MsgWaitMultiple(2, pair, FALSE, 0, 0xFF), 0u);
  // Only the first object's handle is checked.
  COSObject* gap_second[] = {&first, &empty};
  first.Set();
  EXPECT_EQ(COSObject::MsgWaitMultiple(2, gap_second, FALSE, 0, 0), 0u);
  // Waiting for all of the same handle twice is refused by the system.
  first.Set();
  EXPECT_EQ(COSObject::MsgWaitMultiple(2, pair, TRUE, 0, 0), WAIT_FAILED);
  EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);
  COSObject* single[] = {&first};
  EXPECT_EQ(COSObject::MsgWaitMultiple(1, single, TRUE, 0, 0), 0u);
}

// A manual-reset event whose wake-ups are rejected a number of times, each costing 30 ms of the
// injected clock.
class RejectingEvent : public COSEvent {
 public:
  explicit RejectingEvent(int rejections) : COSEvent(nullptr, TRUE, TRUE, nullptr), rejections_(rejections) {}
  DWORD VerifyWaitSuccessful(DWORD result) override {
    ++calls;
    synctest::FakeTicks::Advance(30);
    return calls <= rejections_ ? WAIT_TIMEOUT : result;
  }
  int calls = 0;

 private:
  int rejections_;
};

TEST(COSObject, RejectedWakeUpsShortenTheRestOfTheWait) {
  synctest::FakeTicks ticks(1000);
  // Elapsed is measured from the start and taken from the already reduced remainder:
  // 100 -> 70 after 30 ms -> 10 after 60 ms -> over after 90 ms (three looks, not four).
  RejectingEvent always(1000);
  EXPECT_EQ(always.Wait(100), WAIT_TIMEOUT);
  EXPECT_EQ(always.calls, 3);

  RejectingEvent twice(2);
  EXPECT_EQ(twice.Wait(100), 0u);
  EXPECT_EQ(twice.calls, 3);

  RejectingEvent in_group(1000);
  COSEvent other;
  COSObject* group[] = {&other, &in_group};
  EXPECT_EQ(COSObject::WaitMultiple(2, group, FALSE, 100), WAIT_TIMEOUT);
  EXPECT_EQ(in_group.calls, 3);
}

// ---- Two processes ----

TEST(NamedObjects, SharedBetweenTwoProcesses) {
  std::u16string event_name = UniqueName("event");
  std::u16string sem_name = UniqueName("semaphore");
  {
    COSEvent event(nullptr, FALSE, FALSE, event_name.data());
    COSSemaphore semaphore(0, 5, sem_name.data());
    ASSERT_TRUE(event.AssertValid());
    ASSERT_TRUE(semaphore.AssertValid());

    zrtest::ChildResult child;
    std::thread runner([&] {
      child = zrtest::RunChild([&] {
        COSEvent mine(nullptr, FALSE, FALSE, event_name.data());
        if (!mine.AssertValid() || os::GetLastError() != ERROR_ALREADY_EXISTS) return 10;
        COSSemaphore counter(0, 5, sem_name.data());
        if (!counter.AssertValid() || os::GetLastError() != ERROR_ALREADY_EXISTS) return 11;
        if (!counter.Release(1, nullptr)) return 12;  // ready
        if (mine.Wait(20000) != 0) return 13;          // the parent's Set
        if (!counter.Release(2, nullptr)) return 14;
        return 0;
      }, 30000);
    });
    EXPECT_EQ(semaphore.Wait(20000), 0u);
    EXPECT_TRUE(event.Set());
    EXPECT_EQ(semaphore.Wait(20000), 0u);
    EXPECT_EQ(semaphore.Wait(20000), 0u);
    runner.join();
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exit_code, 0);
    EXPECT_EQ(event.Wait(0), WAIT_TIMEOUT);  // the child consumed the auto-reset event
  }
  // The last handle anywhere is gone, and so is the object.
  EXPECT_EQ(os::OpenEventW(SYNCHRONIZE, FALSE, event_name.c_str()), nullptr);
  EXPECT_EQ(os::GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(os::OpenSemaphoreW(SYNCHRONIZE, FALSE, sem_name.c_str()), nullptr);
}

// What a wait for all objects gives back when it finds one missing: a semaphore's unit only up to
// its maximum (a release in between may have filled it), an auto-reset event's signal.
TEST(WaitForAll, GivingBackNeverPassesTheSemaphoreMaximum) {
  os::WaitCore semaphore;
  semaphore.InitSemaphore(2, 2, false);
  os::posix::GiveBack(&semaphore);
  EXPECT_EQ(semaphore.word.load(), 2u);
  semaphore.word.store(1);
  os::posix::GiveBack(&semaphore);
  EXPECT_EQ(semaphore.word.load(), 2u);
  os::WaitCore event;
  event.InitEvent(false, false, false);
  os::posix::GiveBack(&event);
  EXPECT_TRUE(event.TryAcquire());
  EXPECT_FALSE(event.TryAcquire());
}

TEST(NamedObjects, SurviveProcessesThatDie) {
  // A process that dies holding the shared lock word does not hang the others.
  const zrtest::ChildResult holder = zrtest::RunChild([] { return os::LockSharedWaitWord() ? 0 : 1; });
  ASSERT_TRUE(holder.exited);
  ASSERT_EQ(holder.exit_code, 0);
  std::u16string a = UniqueName("all.a"), b = UniqueName("all.b");
  COSEvent first(nullptr, TRUE, TRUE, a.data());
  COSEvent second(nullptr, FALSE, TRUE, b.data());
  const zrtest::ChildResult waiter = zrtest::RunChild([&] {
    COSObject* both[] = {&first, &second};
    return COSObject::WaitMultiple(2, both, TRUE, 5000) == 0 ? 0 : 1;
  }, 20000);
  EXPECT_TRUE(waiter.exited) << "the wait for all hung on the dead holder's lock";
  EXPECT_EQ(waiter.exit_code, 0);

  // A named object whose only process died without closing it is gone for the others.
  std::u16string stale = UniqueName("stale");
  const zrtest::ChildResult creator = zrtest::RunChild([&] {
    auto* leaked = new COSEvent(nullptr, TRUE, TRUE, stale.data());
    return leaked->AssertValid() ? 0 : 1;
  });
  ASSERT_EQ(creator.exit_code, 0);
  EXPECT_EQ(os::OpenEventW(SYNCHRONIZE, FALSE, stale.c_str()), nullptr);
  EXPECT_EQ(os::GetLastError(), ERROR_FILE_NOT_FOUND);
  COSEvent fresh(nullptr, FALSE, FALSE, stale.data());
  EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS);
  EXPECT_EQ(fresh.Wait(0), WAIT_TIMEOUT);
}

// ---- File-change notification ----

// Counts the wake-ups that the notification rejected.
class CountingNotify : public COSFileChangeNotify {
 public:
  CountingNotify(const std::string& path, DWORD filter) : COSFileChangeNotify(os::Utf8ToUtf16(path).c_str(), filter) {}
  DWORD VerifyWaitSuccessful(DWORD result) override {
    const DWORD verdict = COSFileChangeNotify::VerifyWaitSuccessful(result);
    if (verdict == WAIT_TIMEOUT) ++rejected;
    return verdict;
  }
  int rejected = 0;
};

void Append(const std::string& path, const std::string& text) {
  std::FILE* f = std::fopen(path.c_str(), "ab");
  ASSERT_NE(f, nullptr);
  std::fputs(text.c_str(), f);
  std::fclose(f);
}

void SetWriteTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

constexpr DWORD kLong = 10000;   // a change that counts ends the wait long before this
constexpr DWORD kShort = 300;    // a change that does not count is seen and rejected within this

TEST(COSFileChangeNotify, IgnoresOtherFilesAndWakesAsTheFilterSays) {
  zrtest::TempDir dir;
  const std::string watched = dir.File("watched.txt"), other = dir.File("other.txt");
  ASSERT_TRUE(zrtest::WriteFile(watched, "one"));
  ASSERT_TRUE(zrtest::WriteFile(other, "x"));

  CountingNotify all(watched, 0xFFFFFFFFu);
  ASSERT_TRUE(all.AssertValid());
  EXPECT_EQ(all.GetFilter(), 0x1Du);
  Append(other, "more");
  EXPECT_EQ(all.Wait(kShort), WAIT_TIMEOUT);
  EXPECT_GE(all.rejected, 1);

  // Size (and time): an append.
  CountingNotify size(watched, FILE_NOTIFY_CHANGE_SIZE);
  Append(watched, "two");
  EXPECT_EQ(size.Wait(kLong), 0u);
  EXPECT_EQ(size.GetLastChange() & 8u, 8u);
  EXPECT_EQ(all.Wait(kLong), 0u);

  // Time only: a size filter keeps waiting (woken by the other file, it sees only a new time), a
  // time filter wakes.
  CountingNotify time(watched, FILE_NOTIFY_CHANGE_LAST_WRITE);
  SetWriteTime(watched, 1000000000);
  Append(other, "again");
  EXPECT_EQ(size.Wait(kShort), WAIT_TIMEOUT);
  EXPECT_GE(size.rejected, 1);
  EXPECT_EQ(time.Wait(kLong), 0u);
  EXPECT_EQ(time.GetLastChange(), 16u);

  // Attributes: taking the write permission away makes the file read-only.
  CountingNotify attributes(watched, FILE_NOTIFY_CHANGE_ATTRIBUTES);
  ASSERT_EQ(::chmod(watched.c_str(), 0444), 0);
  EXPECT_EQ(attributes.Wait(kLong), 0u);
  EXPECT_EQ(attributes.GetLastChange(), 4u);
  ASSERT_EQ(::chmod(watched.c_str(), 0644), 0);
}

TEST(COSFileChangeNotify, NamesAndDeletion) {
  zrtest::TempDir dir;
  const std::string watched = dir.File("late.txt"), other = dir.File("early.txt");
  CountingNotify name(watched, FILE_NOTIFY_CHANGE_FILE_NAME);
  ASSERT_TRUE(name.AssertValid());
  ASSERT_TRUE(zrtest::WriteFile(other, "x"));
  EXPECT_EQ(name.Wait(kShort), WAIT_TIMEOUT);  // another name appeared
  EXPECT_GE(name.rejected, 1);
  ASSERT_EQ(std::rename(other.c_str(), watched.c_str()), 0);
  EXPECT_EQ(name.Wait(kLong), 0u);  // the watched name appeared
  EXPECT_EQ(name.GetLastChange() & 1u, 1u);

  // Deletion ends the wait only with the file-name bit in the filter.
  CountingNotify keeps(watched, FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE);
  ASSERT_EQ(::unlink(watched.c_str()), 0);
  ASSERT_TRUE(zrtest::WriteFile(other, "wakes the size filter"));
  EXPECT_EQ(name.Wait(kLong), 0u);
  EXPECT_EQ(keeps.Wait(kShort), WAIT_TIMEOUT);
  EXPECT_GE(keeps.rejected, 1);
}

TEST(COSFileChangeNotify, RefusedSetups) {
  zrtest::TempDir dir;
  EXPECT_FALSE(COSFileChangeNotify(u"", 0x1D).AssertValid());
  EXPECT_FALSE(COSFileChangeNotify(nullptr, 0x1D).AssertValid());
  EXPECT_FALSE(COSFileChangeNotify(os::Utf8ToUtf16(dir.File("a")).c_str(), FILE_NOTIFY_CHANGE_DIR_NAME).AssertValid());
  EXPECT_FALSE(COSFileChangeNotify(u"no-directory.txt", 0x1D).AssertValid());
  EXPECT_FALSE(COSFileChangeNotify(os::Utf8ToUtf16(dir.File("missing/a.txt")).c_str(), 0x1D).AssertValid());
  COSFileChangeNotify none(u"", 0x1D);
  EXPECT_EQ(none.VerifyWaitSuccessful(0), WAIT_FAILED);
}

}  // namespace
