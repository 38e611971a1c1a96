// Run-time and persistent objects: lock count and freeing, checked deletes, the deletion watch,
// assertions, change tracking and its events, commit and reload through the object store.
#include "zrobj/czrobj.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

std::string N(const std::u16string& text) { return os::Utf16ToUtf8(text); }
std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

// A persistent class of the tests: one text member, registered with CZRObject as its base.
class TestDoc : public CZRObject {
 public:
  static CZRRuntimeClass classTestDoc;
  static CZRRTObject* Create() { return new TestDoc; }
  CZRRuntimeClass* GetRuntimeClass() const override { return &classTestDoc; }
  ~TestDoc() override { ++destroyed; }

  int StoreData(CZRArchive* archive) override {
    if (!CZRObject::StoreData(archive)) return 0;
    char name[] = "Text";
    const unsigned level = archive->Chnk_Open(name, ZR_ACCESS_WRITE);
    const auto size = static_cast<unsigned long>(text.size());
    return level != CHNK_INVALID && archive->Chnk_Write(text.data(), size) == size && archive->Chnk_Close(level);
  }
  int LoadData(CZRArchive* archive) override {
    if (!CZRObject::LoadData(archive)) return 0;
    char name[] = "Text";
    const unsigned level = archive->Chnk_Open(name, ZR_ACCESS_READ);
    if (level == CHNK_INVALID) return 0;
    text.assign(archive->Chnk_GetSize(level), '\0');
    const bool read = archive->Chnk_Read(text.data(), static_cast<unsigned long>(text.size())) == text.size();
    archive->Chnk_Close(level);
    return read;
  }
  // The tests damage objects on purpose.
  void SetSignature(DWORD value) { signature_ = value; }
  void SetLockCount(DWORD value) { lock_count_ = value; }

  std::string text;
  static inline int destroyed = 0;
};

constexpr GUID kTestDocGuid = {0x7E570D0C, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
CZRRuntimeClass TestDoc::classTestDoc =
    ZRClassRecord("TestDoc", sizeof(TestDoc), kTestDocGuid, ZRCLASS_CREATABLE, &TestDoc::Create, nullptr, 0);
CZRClassRegistration g_test_doc_registration(TestDoc::classTestDoc, &CZRObject::classCZRObject, sizeof(CZRObject));

// Events an object sent through its notifier.
struct Event {
  DWORD event;
  DWORD value;
  bool operator==(const Event&) const = default;
};

int Record(void*, DWORD event, std::uintptr_t& context, std::uintptr_t&, DWORD value) {
  reinterpret_cast<std::vector<Event>*>(context)->push_back({event, value});
  return 1;
}

struct Listener {
  std::vector<Event> events;
  explicit Listener(CZRObject& object) {
    EXPECT_NE(object.GetNotifier().Add(&Record, reinterpret_cast<std::uintptr_t>(&events), 0), 0xFFFFFFFFu);
  }
};

// The channel 0 level 9 lines (the watch lines) of a capture.
std::string WatchLines(const os::ScopedDiagCapture& capture) {
  std::string lines;
  for (const auto& entry : capture.Entries())
    if (entry.channel == 0 && entry.level == 9) lines += N(entry.text);
  return lines;
}

std::string Hex8(const void* address) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address)));
  return text;
}

unsigned HeapItems() {
  unsigned items = 0;
  zr::GetLibraryHeap("CZRRTObjectHeap")->GetHeapState(items);
  return items;
}

// A project registered and working for the test.
struct WorkingProject {
  zrtest::TempDir dir;
  DWORD id = PrjRegistry::AddProject(W(dir.path()).c_str(), nullptr);
  WorkingProject() { EXPECT_EQ(PrjRegistry::SetWorkingProject(id), 1); }
  ~WorkingProject() {
    PrjRegistry::SetWorkingProject(0);
    PrjRegistry::RemoveProject(id);
  }
};

}  // namespace

TEST(CZRObject, TheBaseRecordsAreRegisteredAtAttach) {
  EXPECT_EQ(CZRRTObject::GetClassRegisterPtr()->lState, ZRCLASS_STATE_REGISTERED);
  EXPECT_EQ(CZRObject::GetClassRegisterPtr()->lState, ZRCLASS_STATE_REGISTERED);
  const CZRRuntimeClass* object = CZRObject::GetClassRegisterPtr();
  EXPECT_EQ(CZRRuntimeClass::GetClassPtr(&object->guid, GetHashID("CZRObject")), object);
  // The base classes are found by their fixed identities.
  const GUID rtObjectGuid = {0x35D48101, 0x67BE, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
  const GUID objectGuid = {0x35D48100, 0x67BE, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
  EXPECT_EQ(CZRRuntimeClass::GetClassPtr(&rtObjectGuid, GetHashID("CZRRTObject")), CZRRTObject::GetClassRegisterPtr());
  EXPECT_EQ(CZRRuntimeClass::GetClassPtr(&objectGuid, GetHashID("CZRObject")), object);
  EXPECT_EQ(object->pBaseClass, CZRRTObject::GetClassRegisterPtr());
  const CZRRuntimeClass* root = CZRRTObject::GetClassRegisterPtr();
  EXPECT_EQ(root->dwFlags & ZRCLASS_DECLARED_MASK, 0x01u);
  EXPECT_EQ(object->dwFlags & ZRCLASS_DECLARED_MASK, 0x81u);
  EXPECT_EQ(root->dwVTblVersion, 1u);
  EXPECT_EQ(object->dwVTblVersion, 9u);
  EXPECT_EQ(root->dwDisplayNameID, 40002u);
  EXPECT_EQ(object->dwDisplayNameID, 40001u);
  EXPECT_EQ(TestDoc::classTestDoc.lState, ZRCLASS_STATE_REGISTERED);

  CZRRTObject* created = object->pfnCreateObject();
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->GetRuntimeClass(), object);
  EXPECT_TRUE(created->IsKindOf(CZRRTObject::GetClassRegisterPtr()));
  EXPECT_FALSE(created->IsKindOf(&TestDoc::classTestDoc));
  CZRRuntimeClass* family[] = {&TestDoc::classTestDoc, CZRRTObject::GetClassRegisterPtr()};
  EXPECT_EQ(created->GetClassFamily(family, 2), 1);
  EXPECT_EQ(created->DelObject(), 0u);
}

TEST(CZRObject, LockCountFreesAtTheLastReference) {
  const unsigned items = HeapItems();
  TestDoc::destroyed = 0;
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  ASSERT_NE(doc, nullptr);
  EXPECT_EQ(HeapItems(), items + 1);
  EXPECT_EQ(doc->GetSignature(), ZR_RTOBJECT_SIGNATURE);
  EXPECT_EQ(doc->QueryLockCnt(), 1u);
  EXPECT_EQ(doc->Lock(), 1);
  EXPECT_EQ(doc->QueryLockCnt(), 2u);
  Listener listener(*doc);
  EXPECT_EQ(doc->DelObject(), 1u);
  EXPECT_EQ(TestDoc::destroyed, 0);
  EXPECT_TRUE(listener.events.empty());
  EXPECT_EQ(doc->DelObject(), 0u);
  EXPECT_EQ(TestDoc::destroyed, 1);
  EXPECT_EQ(listener.events, (std::vector<Event>{{ZROBJ_EVENT_DELETING, 0}}));
  EXPECT_EQ(HeapItems(), items);

  // A count already at 0 frees nothing.
  doc = static_cast<TestDoc*>(TestDoc::Create());
  doc->SetLockCount(0);
  EXPECT_EQ(doc->DelObject(), 0u);
  EXPECT_EQ(TestDoc::destroyed, 1);
  EXPECT_EQ(doc->AssertObject(), 0);  // Assert answers 0 at lock count 0
  doc->SetLockCount(1);
  EXPECT_EQ(doc->AssertObject(), 1);
  doc->DelObject();
  EXPECT_EQ(TestDoc::destroyed, 2);
}

TEST(CZRObject, InvalidObjectsAreReportedAndLeaked) {
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  TestDoc::destroyed = 0;
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  doc->SetSignature(0x12345678);
  EXPECT_EQ(doc->DelObject(), 0xFFFFFFFFu);
  EXPECT_EQ(doc->CZRRTObject::DelObject(), 0xFFFFFFFFu);
  EXPECT_EQ(doc->AssertObject(), 0);
  ASSERT_GE(capture.Entries().size(), 2u);
  EXPECT_EQ(N(capture.Entries()[0].text), "\rCZRObject::DelObject() called for INVALID object\r\n");
  EXPECT_EQ(capture.Entries()[0].channel, 3u);
  EXPECT_EQ(capture.Entries()[0].level, 2u);
  EXPECT_NE(capture.Text().find("\rCZRRTObject::DelObject() called for INVALID object\r\n"), std::string::npos);
  EXPECT_EQ(doc->QueryLockCnt(), 1u);
  EXPECT_EQ(TestDoc::destroyed, 0);

  // Deleting a block whose signature is damaged runs the destructor but leaks the block.
  const unsigned items = HeapItems();
  capture.Clear();
  delete doc;
  EXPECT_EQ(TestDoc::destroyed, 1);
  EXPECT_EQ(capture.Text(), "CZRRTObject: Delete bad signature\r\n");
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].level, 1u);
  EXPECT_EQ(HeapItems(), items);  // still allocated
  CZRRTObject::operator delete(nullptr);  // ignored

  // A freed object's signature is 0, so a later delete of the same block is refused too.
  CZRRTObject* plain = CZRRTObject::CreateObject();
  const std::uintptr_t block = reinterpret_cast<std::uintptr_t>(plain);
  plain->DelObject();
  EXPECT_EQ(HeapItems(), items);
  capture.Clear();
  CZRRTObject::operator delete(reinterpret_cast<void*>(block));
  EXPECT_EQ(capture.Text(), "CZRRTObject: Delete bad signature\r\n");
  EXPECT_EQ(HeapItems(), items);
}

// A run-time object whose destructor faults: FreeObject catches the fault and reports it.
class FaultingObject : public CZRRTObject {
 public:
  explicit FaultingObject(const volatile int* unreadable) : unreadable_(unreadable) {}
  ~FaultingObject() override { sink_ = *unreadable_; }

 private:
  const volatile int* unreadable_;
  static inline volatile int sink_ = 0;
};

TEST(CZRObject, FreeObjectReportsAFaultingDestructor) {
  const zrtest::ChildResult result = zrtest::RunChild([] {
    zrtest::DebugMode debug(1);
    void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return 2;
    auto* object = new FaultingObject(static_cast<const volatile int*>(page));
    os::ScopedDiagCapture capture;
    object->FreeObject();
    bool reported = false;
    for (const auto& entry : capture.Entries())
      reported = reported || entry.text == u"CZRRTObject::FreeObject: this pointer is INVALID";
    return reported ? 0 : 1;
  });
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0);
}

TEST(CZRObject, DeletionWatchLines) {
  zrtest::DebugMode debug(1);
  CZRObject::SetFreeWatchRange(1100, 1200, 0);
  os::ScopedDiagCapture capture;
  const auto deleteAt = [&](DWORD id, bool delTrace) {
    auto* doc = static_cast<TestDoc*>(TestDoc::Create());
    EXPECT_EQ(doc->SetLocation(Location::ForObject(3, id)), 1);
    doc->Lock();
    if (delTrace) doc->SetDelTrace();
    const std::string address = Hex8(doc);
    capture.Clear();
    doc->DelObject();  // LockCnt 2 when the watch looks
    const std::string first = WatchLines(capture);
    doc->ClearDelTrace();
    doc->DelObject();
    return std::make_pair(first, address);
  };
  auto [line, address] = deleteAt(1150, false);
  EXPECT_EQ(line, "\rCZRObject::DelObject(0x0000047e[*" + address + "]) watch, LockCnt = 2\r\n");
  EXPECT_NE(capture.Text().find(line), std::string::npos);
  std::tie(line, address) = deleteAt(1200, false);
  EXPECT_EQ(line, "");
  std::tie(line, address) = deleteAt(1099, true);  // the trace bit watches any id
  EXPECT_EQ(line, "\rCZRObject::DelObject(0x0000044b[*" + address + "]) watch, LockCnt = 2\r\n");

  // Virtual objects: only with the trace-virtual switch or the trace bit, named by class.
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  doc->GetLocator().SetVirtual(0);
  doc->Lock();
  capture.Clear();
  doc->DelObject();
  EXPECT_EQ(WatchLines(capture), "");
  CZRObject::SetFreeWatchRange(1100, 1200, 1);
  doc->DelObject();
  EXPECT_EQ(WatchLines(capture), "\rCZRObject::DelObject(VIRTUAL:TestDoc[*" + Hex8(doc) + "]) watch, LockCnt = 1\r\n");

  // An empty range watches nothing; without debug output nothing is printed either.
  CZRObject::SetFreeWatchRange(1200, 1100, 0);
  std::tie(line, address) = deleteAt(1150, false);
  EXPECT_EQ(line, "");
  CZRObject::SetFreeWatchRange(1100, 1200, 0);
  zrtest::DebugMode quiet(0);
  std::tie(line, address) = deleteAt(1150, true);
  EXPECT_EQ(line, "");
  CZRObject::SetFreeWatchRange(0, 0, 0);
}

TEST(CZRObject, AssertValidRunsTheSelectedTestsInOrder) {
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  os::ScopedDiagCapture capture;
  EXPECT_EQ(doc->AssertValid(ZRASSERT_TYPE, &TestDoc::classTestDoc, 1, "a.cpp", ZR_CALLER_ADDRESS()), 1);
  EXPECT_EQ(doc->AssertValid(ZRASSERT_KIND | ZRASSERT_OBJECT, CZRRTObject::GetClassRegisterPtr(), 2, "a.cpp",
                             ZR_CALLER_ADDRESS()),
            1);
  EXPECT_TRUE(capture.Entries().empty());
  // Reported whatever the debug mode.
  zrtest::DebugMode quiet(0);
  EXPECT_EQ(doc->AssertValid(ZRASSERT_TYPE, CZRObject::GetClassRegisterPtr(), 42, "b.cpp", ZR_CALLER_ADDRESS()), 0);
  ASSERT_FALSE(capture.Entries().empty());
  EXPECT_EQ(N(capture.Entries()[0].text), "\r\nAssertion [TYPE] failed! Line: 42 File:b.cpp\r\n");
  EXPECT_EQ(capture.Entries()[0].channel, 3u);
  EXPECT_EQ(capture.Entries()[0].level, 0u);
  // The object test fails on a count of 0; a failed kind test stops before it.
  doc->SetLockCount(0);
  capture.Clear();
  EXPECT_EQ(doc->AssertValid(ZRASSERT_KIND | ZRASSERT_OBJECT, CZRObject::GetClassRegisterPtr(), 8, "c.cpp", 0), 0);
  EXPECT_EQ(N(capture.Entries()[0].text), "\r\nAssertion [OBJECT] failed! Line: 8 File:c.cpp\r\n");
  capture.Clear();
  auto* base = static_cast<CZRObject*>(CZRObject::CreateObject());
  EXPECT_EQ(base->AssertValid(ZRASSERT_KIND | ZRASSERT_OBJECT, &TestDoc::classTestDoc, 9, "d.cpp", 0), 0);
  EXPECT_EQ(N(capture.Entries()[0].text), "\r\nAssertion [KIND] failed! Line: 9 File:d.cpp\r\n");
  EXPECT_EQ(capture.Text().find("OBJECT"), std::string::npos);
  base->DelObject();
  doc->SetLockCount(1);
  doc->DelObject();
}

TEST(CZRObject, ChangeTrackingGradesAndEvents) {
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  Listener listener(*doc);
  EXPECT_EQ(doc->QueryState(), CZRObject::kStateCommitted);
  EXPECT_EQ(N(doc->GetUndoComment()), "Edit");
  EXPECT_FALSE(doc->QueryChanged());
  doc->SetChanged(0, 5);
  doc->SetChanged(0, 3);
  EXPECT_TRUE(doc->QueryChanged());
  EXPECT_EQ(doc->QueryChangeGrade(), 5u);
  EXPECT_EQ(doc->QueryChangeCnt(), 2u);
  EXPECT_TRUE(listener.events.empty());
  doc->SetChanged(1, 4);
  doc->SignalChanged(1, 9);  // kind 1: event 10, the grade stays
  EXPECT_EQ(doc->QueryChangeGrade(), 5u);
  doc->ClearChanged();
  doc->SignalChanged(2, 7);  // does not set the changed bit
  EXPECT_FALSE(doc->QueryChanged());
  EXPECT_EQ(doc->QueryChangeGrade(), 7u);
  EXPECT_EQ(doc->QueryChangeCnt(), 5u);
  EXPECT_EQ(listener.events,
            (std::vector<Event>{{ZROBJ_EVENT_CHANGED, 4}, {ZROBJ_EVENT_SIGNALLED, 0}, {ZROBJ_EVENT_CHANGED, 7}}));

  // Without write access a commit does nothing and a release answers 1 silently.
  listener.events.clear();
  EXPECT_EQ(doc->Commit(0), 0);
  EXPECT_EQ(doc->ReleaseAccess(), 1);
  EXPECT_TRUE(listener.events.empty());
  EXPECT_EQ(doc->QueryChangeGrade(), 7u);

  doc->SetUndoComment(u"Move the clip to the second track now", nullptr, 0);
  EXPECT_EQ(N(doc->GetUndoComment()), "Move the clip to the second tra");
  doc->SetUndoComment(nullptr, nullptr, 5);
  EXPECT_EQ(N(doc->GetUndoComment()), "Move the clip to the second tra");
  doc->DelObject();
}

TEST(CZRObject, CommitNotifiesTheGradeAndClearsIt) {
  WorkingProject project;
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  Listener listener(*doc);
  ASSERT_EQ(doc->CreateDiskImage(), Locator::kAccessGranted);
  EXPECT_EQ(doc->GetObjID(), 1024u);
  EXPECT_EQ(doc->GetLocator().GetLocation().dwClass, GetHashID("TestDoc"));
  doc->text = "scene 1";
  doc->SetChanged(0, 5);
  doc->SetChanged(0, 3);
  ASSERT_EQ(doc->Commit(0), 1);
  EXPECT_EQ(listener.events, (std::vector<Event>{{ZROBJ_EVENT_COMMITTED, 5}}));
  EXPECT_EQ(doc->QueryChangeGrade(), 0u);
  EXPECT_FALSE(doc->QueryChanged());
  EXPECT_EQ(doc->QueryState() & 0xFF000000u, CZRObject::kStateCommitted);
  listener.events.clear();
  EXPECT_EQ(doc->ReleaseAccess(), 1);
  EXPECT_EQ(listener.events, (std::vector<Event>{{ZROBJ_EVENT_RELEASING, 0}}));
  EXPECT_EQ(doc->GetLocator().QueryAccess(), 0u);

  ObjectFileHeader header;
  ASSERT_EQ(doc->GetLocator().Access(ZR_ACCESS_READ), Locator::kAccessGranted);
  ASSERT_EQ(doc->GetLocator().ReadHeader(&header), 1);
  EXPECT_STREQ(header.className, "TestDoc");
  EXPECT_EQ(header.classGuid, kTestDocGuid);
  doc->GetLocator().ReleaseAccess();
  doc->DelObject();
}

TEST(CZRObject, GrantAccessGoesThroughTheLocator) {
  WorkingProject project;
  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  EXPECT_EQ(doc->GrantAccess(u"bob", ZR_ACCESS_READ), 0);  // no file, no write access
  ASSERT_EQ(doc->CreateDiskImage(), Locator::kAccessGranted);
  ASSERT_EQ(doc->GrantAccess(u"bob", ZR_ACCESS_READ), 1);
  std::vector<std::string> users;
  EXPECT_EQ(doc->GetLocator().EnumRights(
                [](const WCHAR* user, DWORD, void* context) {
                  static_cast<std::vector<std::string>*>(context)->push_back(N(user));
                },
                &users),
            2);
  EXPECT_EQ(users.back(), "bob");
  EXPECT_EQ(doc->GrantAccess(nullptr, 0), 1);
  EXPECT_EQ(doc->GetLocator().EnumRights([](const WCHAR*, DWORD, void*) {}, nullptr), 0);
  doc->DelObject();
}

TEST(CZRObject, AnObjectCommittedByAChildIsReloadedByTheParent) {
  WorkingProject project;
  PrjRegistry::SetWorkingProject(0);  // the child opens the project's ids itself
  int result[2];
  ASSERT_EQ(::pipe(result), 0);
  const Location parent = Location::ForObject(project.id, 5000);
  const auto child = zrtest::RunChild([&] {
    if (!PrjRegistry::SetWorkingProject(project.id)) return 1;
    auto* doc = static_cast<TestDoc*>(TestDoc::Create());
    if (doc->CreateDiskImage() != Locator::kAccessGranted) return 2;
    doc->text = "made in the child";
    doc->SetParentLocation(parent);
    if (!doc->Commit(Locator::kCommitRelease)) return 3;
    const DWORD id = doc->GetObjID();
    doc->DelObject();
    return ::write(result[1], &id, sizeof id) == sizeof id ? 0 : 4;
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exit_code, 0);
  DWORD id = 0;
  ASSERT_EQ(::read(result[0], &id, sizeof id), static_cast<ssize_t>(sizeof id));
  ::close(result[0]);
  ::close(result[1]);

  auto* doc = static_cast<TestDoc*>(TestDoc::Create());
  ASSERT_EQ(doc->SetLocation(Location::ForObject(project.id, id)), 1);
  doc->SetChanged(0, 2);
  EXPECT_EQ(doc->Refresh(), 0);  // a changed object is not refreshed
  ASSERT_EQ(doc->Reload(), 1);
  EXPECT_EQ(doc->text, "made in the child");
  EXPECT_TRUE(doc->GetParentLocation().SameObject(parent));
  EXPECT_FALSE(doc->QueryChanged());
  EXPECT_EQ(doc->GetLocator().QueryAccess(), 0u);  // the read access was only borrowed
  doc->text = "local edit";
  EXPECT_EQ(doc->Unwind(), 1);
  EXPECT_EQ(doc->text, "made in the child");

  // A copy takes the members and counts as a change.
  auto* copy = static_cast<TestDoc*>(TestDoc::Create());
  ASSERT_EQ(copy->CopyObject(doc), 1);
  EXPECT_EQ(copy->text, "made in the child");
  EXPECT_TRUE(copy->QueryChanged());
  EXPECT_EQ(copy->CopyObject(copy), 0);
  auto* base = static_cast<CZRObject*>(CZRObject::CreateObject());
  EXPECT_EQ(copy->CopyObject(base), 0);  // not of the copy's class
  base->DelObject();
  copy->DelObject();
  doc->DelObject();
}
