// Change notification: registration through the module lookup, removal of callbacks that answer 0
// or whose module is gone, the context words, and callbacks that change the registry while it
// notifies them, on one thread and on two.
#include "zrobj/cpchangenotify.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <latch>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "test_support.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrhash.h"

namespace {

namespace os = zr::os;

constexpr DWORD kInvalid = 0xFFFFFFFF;
const char16_t kMismatch[] = u"\r>>>>>CPChangeNotify::Delete: ID does not match notify proc<<<<<\r\n";
const char16_t kInvalidAddress[] = u"\r>>>>>CPChangeNotify::Notify: Invalid notify address<<<<<\r\n";

// What the recording callbacks saw, in call order.
struct Call {
  int who;
  void* object;
  DWORD event;
  std::uintptr_t context2;
  DWORD value;
};

struct Recorder {
  std::vector<Call> calls;
  int answer = 1;  // what the callbacks return
  std::vector<int> Order() const {
    std::vector<int> order;
    for (const Call& c : calls) order.push_back(c.who);
    return order;
  }
};

// Context word 1 points to a Recorder; context word 2 names the registration.
int Record(void* object, DWORD event, std::uintptr_t& context1, std::uintptr_t& context2, DWORD value) {
  auto* recorder = reinterpret_cast<Recorder*>(context1);
  recorder->calls.push_back({static_cast<int>(context2), object, event, context2, value});
  return recorder->answer;
}

int OtherCallback(void*, DWORD, std::uintptr_t&, std::uintptr_t&, DWORD) { return 1; }

std::uintptr_t Context(Recorder& recorder) { return reinterpret_cast<std::uintptr_t>(&recorder); }

tagNOTIFYSTRUC ItemAt(CPChangeNotify& notifier, DWORD index) {
  tagNOTIFYSTRUC item;
  std::memcpy(&item, notifier.GetItem(index, 1), sizeof item);
  return item;
}

// Diagnostics texts of channel 0, level 0.
std::vector<std::u16string> Alarms(const os::ScopedDiagCapture& capture) {
  std::vector<std::u16string> texts;
  for (const auto& e : capture.Entries())
    if (e.channel == 0 && e.level == 0) texts.push_back(e.text);
  return texts;
}

TEST(CPChangeNotify, AddRecordsTheCallbacksModuleAndIdentities) {
  CPChangeNotify notifier;
  EXPECT_STREQ(notifier.GetClassID(), "CPChangeNotify");
  EXPECT_EQ(notifier.Notify(nullptr, 1, 2), 1);  // nothing registered
  Recorder recorder;
  EXPECT_EQ(notifier.Add(&Record, Context(recorder), 7), 0u);
  EXPECT_EQ(notifier.Add(&Record, Context(recorder), 8), 1u);
  EXPECT_EQ(notifier.Add(&OtherCallback, 0, 0), 2u);
  ASSERT_EQ(notifier.GetNItems(), 3u);
  const tagNOTIFYSTRUC first = ItemAt(notifier, 0);
  EXPECT_EQ(first.dwID, 0u);
  EXPECT_EQ(first.pfnNotify, &Record);
  EXPECT_EQ(first.dwContext1, Context(recorder));
  EXPECT_EQ(first.dwContext2, 7u);
  WCHAR name[ZR_MAX_PATH];
  const HMODULE module = CUnhandledException::GetModuleFilenameFromAddress(reinterpret_cast<const void*>(&Record), name);
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(first.hModule, module);
  EXPECT_EQ(first.dwModuleHash, GetHashIDTi(name));
}

TEST(CPChangeNotify, ACallbackInNoModuleIsNotRegistered) {
  CPChangeNotify notifier;
  auto heap_code = std::make_unique<unsigned char[]>(64);
  EXPECT_EQ(notifier.Add(reinterpret_cast<PFNCHANGENOTIFY>(heap_code.get()), 0, 0), kInvalid);
  EXPECT_EQ(notifier.Add(reinterpret_cast<PFNCHANGENOTIFY>(std::uintptr_t{0x10}), 0, 0), kInvalid);
  EXPECT_EQ(notifier.Add(nullptr, 0, 0), kInvalid);
  EXPECT_EQ(notifier.GetNItems(), 0u);
  EXPECT_EQ(notifier.GetList(), nullptr);
}

TEST(CPChangeNotify, NotifyCallsEveryRegistrationInOrder) {
  CPChangeNotify notifier;
  Recorder recorder;
  for (int who = 1; who <= 3; ++who) notifier.Add(&Record, Context(recorder), static_cast<std::uintptr_t>(who));
  int object = 0;
  EXPECT_EQ(notifier.Notify(&object, 9, 42), 1);
  ASSERT_EQ(recorder.Order(), (std::vector<int>{1, 2, 3}));
  for (const Call& c : recorder.calls) {
    EXPECT_EQ(c.object, &object);
    EXPECT_EQ(c.event, 9u);
    EXPECT_EQ(c.value, 42u);
  }
  EXPECT_EQ(notifier.GetNItems(), 3u);
}

TEST(CPChangeNotify, ACallbackThatAnswersZeroIsRemovedAndNotCalledAgain) {
  CPChangeNotify notifier;
  Recorder keeps, leaves;
  leaves.answer = 0;
  notifier.Add(&Record, Context(keeps), 1);
  const DWORD leaving = notifier.Add(&Record, Context(leaves), 2);
  notifier.Add(&Record, Context(keeps), 3);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  notifier.Notify(nullptr, 1, 0);
  notifier.Notify(nullptr, 2, 0);
  EXPECT_EQ(leaves.Order(), (std::vector<int>{2}));
  EXPECT_EQ(keeps.Order(), (std::vector<int>{1, 3, 1, 3}));
  ASSERT_EQ(notifier.GetNItems(), 2u);
  EXPECT_EQ(notifier.GetItem(leaving, 0), nullptr);
  EXPECT_TRUE(Alarms(capture).empty());
  keeps.answer = 0;  // the last removal frees the list
  notifier.Notify(nullptr, 3, 0);
  EXPECT_EQ(notifier.GetNItems(), 0u);
  EXPECT_EQ(notifier.GetList(), nullptr);
  EXPECT_EQ(notifier.Delete(0, &Record), 0);  // an empty registry
}

TEST(CPChangeNotify, DeleteRemovesTheRegistrationOfItsCallback) {
  CPChangeNotify notifier;
  Recorder recorder;
  notifier.Add(&Record, Context(recorder), 1);
  const DWORD second = notifier.Add(&Record, Context(recorder), 2);
  EXPECT_EQ(notifier.Delete(second, &Record), 1);
  EXPECT_EQ(notifier.Delete(second, &Record), 0);  // gone
  EXPECT_EQ(notifier.Delete(77, &Record), 0);      // never there
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{1}));
}

TEST(CPChangeNotify, DeleteWithAnotherCallbackReportsAndRemovesNothing) {
  CPChangeNotify notifier;
  Recorder recorder;
  const DWORD id = notifier.Add(&Record, Context(recorder), 1);
  {
    zrtest::DebugMode debug(1);
    os::ScopedDiagCapture capture;
    EXPECT_EQ(notifier.Delete(id, &OtherCallback), 0);
    EXPECT_EQ(Alarms(capture), (std::vector<std::u16string>{kMismatch}));
  }
  {
    zrtest::DebugMode debug(0);
    os::ScopedDiagCapture capture;
    EXPECT_EQ(notifier.Delete(id, &OtherCallback), 0);
    EXPECT_TRUE(capture.Entries().empty());
  }
  EXPECT_EQ(notifier.GetNItems(), 1u);
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{1}));
}

// Context word 1 counts the calls through the reference; context word 2 keeps what it saw.
int ChangeContexts(void*, DWORD, std::uintptr_t& context1, std::uintptr_t& context2, DWORD) {
  auto* seen = reinterpret_cast<std::vector<std::uintptr_t>*>(context2);
  seen->push_back(context1);
  context1 += 100;
  context2 = 0;
  return 1;
}

TEST(CPChangeNotify, ChangedContextWordsAreNotKept) {
  CPChangeNotify notifier;
  std::vector<std::uintptr_t> seen;
  notifier.Add(&ChangeContexts, 5, reinterpret_cast<std::uintptr_t>(&seen));
  notifier.Notify(nullptr, 1, 0);
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(seen, (std::vector<std::uintptr_t>{5, 5}));
  const tagNOTIFYSTRUC item = ItemAt(notifier, 0);
  EXPECT_EQ(item.dwContext1, 5u);
  EXPECT_EQ(item.dwContext2, reinterpret_cast<std::uintptr_t>(&seen));
}

// A callback whose module was replaced (another file name hashed at its address) is not called.
TEST(CPChangeNotify, ACallbackWhoseModuleNameChangedIsRemovedUncalled) {
  CPChangeNotify notifier;
  Recorder recorder;
  notifier.Add(&Record, Context(recorder), 1);
  notifier.Add(&Record, Context(recorder), 2);
  tagNOTIFYSTRUC item = ItemAt(notifier, 0);
  item.dwModuleHash ^= 0x10000;
  std::memcpy(notifier.GetItem(0, 1), &item, sizeof item);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{2}));
  EXPECT_EQ(Alarms(capture), (std::vector<std::u16string>{kInvalidAddress}));
  ASSERT_EQ(notifier.GetNItems(), 1u);
  EXPECT_EQ(ItemAt(notifier, 0).dwID, 1u);
}

bool IsLoaded(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

TEST(CPChangeNotify, ACallbackWhoseModuleWasUnloadedIsRemovedUncalled) {
  // A private copy, so that no other test keeps the module loaded.
  zrtest::TempDir dir;
  const std::string path = dir.File("notify_module_copy.so");
  std::filesystem::copy_file(ZROBJ_NOTIFY_MODULE, path);
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  auto callback = reinterpret_cast<PFNCHANGENOTIFY>(dlsym(module, "ZrNotifyModuleCallback"));
  ASSERT_NE(callback, nullptr);
  CPChangeNotify notifier;
  int calls = 0;
  Recorder recorder;
  notifier.Add(callback, reinterpret_cast<std::uintptr_t>(&calls), 0);
  notifier.Add(&Record, Context(recorder), 2);
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(dlclose(module), 0);
  ASSERT_FALSE(IsLoaded(path));
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{2, 2}));
  EXPECT_EQ(Alarms(capture), (std::vector<std::u16string>{kInvalidAddress}));
  ASSERT_EQ(notifier.GetNItems(), 1u);
  EXPECT_EQ(ItemAt(notifier, 0).pfnNotify, &Record);
}

// Works in `directory` for its lifetime.
class ScopedWorkingDirectory {
 public:
  explicit ScopedWorkingDirectory(const std::string& directory) : previous_(std::filesystem::current_path()) {
    std::filesystem::current_path(directory);
  }
  ~ScopedWorkingDirectory() { std::filesystem::current_path(previous_); }

 private:
  std::filesystem::path previous_;
};

// The loader keeps a relative name for a module opened by one; the module is recognised whatever
// the working directory is when it registers and when it is notified.
TEST(CPChangeNotify, ACallbackOfAModuleOpenedByARelativePathIsCalled) {
  zrtest::TempDir dir;
  std::filesystem::copy_file(ZROBJ_NOTIFY_MODULE, dir.File("notify_module_relative.so"));
  int calls = 0;
  void* module = nullptr;
  CPChangeNotify notifier;
  {
    ScopedWorkingDirectory in_dir(dir.path());
    module = dlopen("./notify_module_relative.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto callback = reinterpret_cast<PFNCHANGENOTIFY>(dlsym(module, "ZrNotifyModuleCallback"));
    ASSERT_NE(callback, nullptr);
    ASSERT_NE(notifier.Add(callback, reinterpret_cast<std::uintptr_t>(&calls), 0), kInvalid);
    notifier.Notify(nullptr, 1, 0);
  }
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(notifier.GetNItems(), 1u);
  notifier.Free();
  dlclose(module);
}

// Another file loaded after the unload usually takes the freed addresses; whether it does or not,
// the stale registration must not call into it.
TEST(CPChangeNotify, ARegistrationIntoAReplacedModuleIsRemovedUncalled) {
  zrtest::TempDir dir;
  const std::string first_path = dir.File("notify_module_first.so");
  const std::string second_path = dir.File("notify_module_second.so");
  std::filesystem::copy_file(ZROBJ_NOTIFY_MODULE, first_path);
  std::filesystem::copy_file(ZROBJ_NOTIFY_MODULE, second_path);
  void* first = dlopen(first_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(first, nullptr) << dlerror();
  auto stale = reinterpret_cast<PFNCHANGENOTIFY>(dlsym(first, "ZrNotifyModuleCallback"));
  ASSERT_NE(stale, nullptr);
  CPChangeNotify notifier;
  int calls = 0;
  ASSERT_NE(notifier.Add(stale, reinterpret_cast<std::uintptr_t>(&calls), 0), kInvalid);
  ASSERT_EQ(dlclose(first), 0);
  ASSERT_FALSE(IsLoaded(first_path));
  void* second = dlopen(second_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(second, nullptr) << dlerror();
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(Alarms(capture), (std::vector<std::u16string>{kInvalidAddress}));
  EXPECT_EQ(notifier.GetNItems(), 0u);
  dlclose(second);
}

// ---- Callbacks that change the registry while it notifies them ----

struct Reentry {
  CPChangeNotify* notifier;
  Recorder* recorder;
  DWORD victim = kInvalid;  // deleted by the first call of the deleter
  DWORD added = kInvalid;   // registered by the first call of the adder
};

int AddOnce(void*, DWORD, std::uintptr_t& context1, std::uintptr_t&, DWORD) {
  auto* r = reinterpret_cast<Reentry*>(context1);
  r->recorder->calls.push_back({10, nullptr, 0, 0, 0});
  if (r->added == kInvalid) r->added = r->notifier->Add(&Record, Context(*r->recorder), 11);
  return 1;
}

int DeleteVictim(void*, DWORD, std::uintptr_t& context1, std::uintptr_t&, DWORD) {
  auto* r = reinterpret_cast<Reentry*>(context1);
  r->recorder->calls.push_back({20, nullptr, 0, 0, 0});
  if (r->victim != kInvalid) {
    EXPECT_EQ(r->notifier->Delete(r->victim, &Record), 1);
  }
  r->victim = kInvalid;
  return 1;
}

TEST(CPChangeNotify, CallbacksMayAddAndDeleteWhileNotified) {
  CPChangeNotify notifier;
  Recorder recorder;
  Reentry reentry{&notifier, &recorder};
  const auto context = reinterpret_cast<std::uintptr_t>(&reentry);
  notifier.Add(&AddOnce, context, 0);
  notifier.Add(&DeleteVictim, context, 0);
  reentry.victim = notifier.Add(&Record, Context(recorder), 30);
  // The round works on its snapshot: the deleted registration is still called, the added one not yet.
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{10, 20, 30}));
  recorder.calls.clear();
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{10, 20, 11}));
  EXPECT_EQ(notifier.GetNItems(), 3u);
}

// A registration that is deleted by an earlier callback and then answers 0 in the same round is
// already gone; its removal finds nothing and reports nothing.
TEST(CPChangeNotify, RemovingARegistrationDeletedInTheSameRoundIsHarmless) {
  CPChangeNotify notifier;
  Recorder recorder, leaving;
  leaving.answer = 0;
  Reentry reentry{&notifier, &recorder};
  notifier.Add(&DeleteVictim, reinterpret_cast<std::uintptr_t>(&reentry), 0);
  reentry.victim = notifier.Add(&Record, Context(leaving), 30);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(leaving.Order(), (std::vector<int>{30}));
  EXPECT_EQ(notifier.GetNItems(), 1u);
  EXPECT_TRUE(Alarms(capture).empty());
}

TEST(CPChangeNotify, ACopySharesTheRegistrations) {
  CPChangeNotify notifier;
  Recorder recorder;
  notifier.Add(&Record, Context(recorder), 1);
  notifier.Add(&Record, Context(recorder), 2);
  {
    CPChangeNotify copy(notifier);
    EXPECT_EQ(copy.GetNItems(), 2u);
    EXPECT_EQ(copy.GetCList(), notifier.GetCList());
    copy.Notify(nullptr, 1, 0);
  }
  EXPECT_EQ(notifier.GetNItems(), 2u);
  notifier.Notify(nullptr, 1, 0);
  EXPECT_EQ(recorder.Order(), (std::vector<int>{1, 2, 1, 2}));
}

// Two threads notify one registry at once. A persistent callback registers a one-shot callback at
// every call and hands its identity to a deleter, which deletes what it is handed; the one-shots
// answer 0. Each notification calls the spawner exactly once, and in the end only the deleter is left.
struct Churn {
  CPChangeNotify notifier;
  std::atomic<int> spawned{0};
  std::atomic<int> one_shot_calls{0};
  std::mutex mutex;
  std::vector<DWORD> handed;  // identities for the deleter
  std::vector<DWORD> all_ids;
};

int OneShot(void*, DWORD, std::uintptr_t& context1, std::uintptr_t&, DWORD) {
  reinterpret_cast<Churn*>(context1)->one_shot_calls.fetch_add(1);
  return 0;
}

int Spawner(void*, DWORD, std::uintptr_t& context1, std::uintptr_t&, DWORD) {
  auto* churn = reinterpret_cast<Churn*>(context1);
  const DWORD id = churn->notifier.Add(&OneShot, context1, 0);
  if (id == kInvalid) return 1;
  churn->spawned.fetch_add(1);
  std::lock_guard lock(churn->mutex);
  churn->handed.push_back(id);
  churn->all_ids.push_back(id);
  return 1;
}

int Deleter(void*, DWORD, std::uintptr_t& context1, std::uintptr_t&, DWORD) {
  auto* churn = reinterpret_cast<Churn*>(context1);
  DWORD id = kInvalid;
  {
    std::lock_guard lock(churn->mutex);
    if (churn->handed.empty()) return 1;
    id = churn->handed.back();
    churn->handed.pop_back();
  }
  churn->notifier.Delete(id, &OneShot);  // 0 when a notification removed it first
  return 1;
}

TEST(CPChangeNotify, TwoThreadsNotifyWhileCallbacksAddAndDelete) {
  constexpr int kRounds = 300;
  Churn churn;
  const auto context = reinterpret_cast<std::uintptr_t>(&churn);
  const DWORD spawner = churn.notifier.Add(&Spawner, context, 0);
  churn.notifier.Add(&Deleter, context, 0);
  std::latch start(2);
  auto run = [&] {
    start.arrive_and_wait();
    for (int i = 0; i < kRounds; ++i) churn.notifier.Notify(nullptr, 1, static_cast<DWORD>(i));
  };
  std::thread a(run), b(run);
  a.join();
  b.join();
  EXPECT_EQ(churn.spawned.load(), 2 * kRounds);
  EXPECT_EQ(std::set<DWORD>(churn.all_ids.begin(), churn.all_ids.end()).size(), churn.all_ids.size());
  ASSERT_EQ(churn.notifier.Delete(spawner, &Spawner), 1);
  churn.notifier.Notify(nullptr, 2, 0);  // the one-shots still there answer 0
  ASSERT_EQ(churn.notifier.GetNItems(), 1u);
  EXPECT_EQ(ItemAt(churn.notifier, 0).pfnNotify, &Deleter);
  EXPECT_LE(churn.one_shot_calls.load(), 2 * churn.spawned.load());
}

}  // namespace
