// COSMailslot end to end on loopback: three mailboxes playing three computers, plain UDP sockets
// playing foreign ones, and the receive path fed directly.
#include "zrobj/cosmail.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/costhread.h"
#include "zrobj/locator.h"
#include "zrobj/zrhash.h"
#include "zrobj/zrobj.h"

namespace {

using nettest::Hex;
using nettest::LineWatch;
using nettest::RawPeer;

constexpr char16_t kSlot[] = u"zrtest";
constexpr char16_t kGroup[] = u"TESTGROUP";

struct Received;

class MailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("ZROBJ_WORKGROUP_DIR", dir_.path().c_str(), 1);
    ZROBJ_WriteProfileInt("Network", "MinTimeout", 100);
    ZROBJ_WriteProfileInt("Network", "MaxTimeout", 400);
  }
  void TearDown() override {
    boxes_.clear();
    ::unsetenv("ZROBJ_WORKGROUP_DIR");
    ZROBJ_WriteProfileInt("Network", "MinTimeout", 1000);
    ZROBJ_WriteProfileInt("Network", "MaxTimeout", 5000);
  }

  COSMailslot& Box(const char16_t* computer, const char16_t* user, bool attach = true) {
    boxes_.push_back(std::make_unique<COSMailslot>());
    COSMailslot& box = *boxes_.back();
    EXPECT_EQ(box.SetIdentity(computer, user), 1);
    EXPECT_EQ(box.Open(kSlot), 1);
    if (attach) {
      EXPECT_EQ(box.AttachWorkgroup(kGroup), 1);
    }
    return box;
  }

  // Writes a registration for a plain socket, so that mailboxes can find it by name.
  void Register(const std::string& computer, std::uint16_t port) {
    const std::string directory = dir_.path() + "/TESTGROUP/zrtest";
    std::string command = "mkdir -p " + directory;
    ASSERT_EQ(std::system(command.c_str()), 0);
    ASSERT_TRUE(zrtest::WriteFile(directory + "/" + computer + ".workgroup2_1",
                                  "127.0.0.1:" + std::to_string(port) + "\nraw user\n"));
  }

  static DWORD Id(const char16_t* computer) { return GetHashIDWi(computer); }

  static bool HasTarget(COSMailslot& box, const char16_t* computer) {
    CPvList list = box.GetTargetList();
    const auto* items = static_cast<const tagMAILTARGET*>(list.GetCList());
    for (DWORD i = 0; i < list.GetNItems(); ++i)
      if (std::u16string(items[i].Computer) == computer) return true;
    return false;
  }

  static tagMAILTARGET TargetOf(COSMailslot& box, DWORD id) {
    CPvList list = box.GetTargetList();
    const auto* items = static_cast<const tagMAILTARGET*>(list.GetCList());
    for (DWORD i = 0; i < list.GetNItems(); ++i)
      if (items[i].ComputerID == id) return items[i];
    return tagMAILTARGET{};
  }

  // ALPHA and BRAVO, greeted (seen by `watch`, made before); BRAVO's change notifications go to
  // `received`. Null when something failed.
  std::pair<COSMailslot*, COSMailslot*> GreetedPair(LineWatch& watch, Received& received);

  zrtest::TempDir dir_;
  std::vector<std::unique_ptr<COSMailslot>> boxes_;
};

TEST_F(MailTest, TimeoutsComeFromTheNetworkSection) {
  ZROBJ_WriteProfileInt("Network", "MinTimeout", 1000);
  ZROBJ_WriteProfileInt("Network", "MaxTimeout", 500);
  COSMailslot box;
  EXPECT_EQ(box.GetMinTimeout(), 1000u);
  EXPECT_EQ(box.GetMaxTimeout(), 2000u);
}

TEST_F(MailTest, ThreadsStartNamedAndEndWithLines) {
  LineWatch watch;
  {
    COSMailslot& a = Box(u"ALPHA", u"alice", false);
    for (const char16_t* line : {u"\rProcessor started\r\n", u"\rReader started\r\n", u"\rWriter started\r\n",
                                 u"\rEscrow started\r\n"})
      EXPECT_TRUE(watch.WaitFor(line)) << std::string(line, line + 8);
    unsigned long size = 0;
    void* dump = COSThreadRegister::GetThreadDump(size);
    ASSERT_NE(dump, nullptr);
    std::u16string all;
    const auto* bytes = static_cast<const BYTE*>(dump);
    for (unsigned long i = 0; i + 1 < size; i += 2) all.push_back(static_cast<char16_t>(zr::LoadLE16(bytes + i)));
    COSThreadRegister::FreeThreadDump(dump);
    for (const char16_t* name : {u"COSMailSlot::Processor", u"COSMailSlot::Reader", u"COSMailSlot::Write",
                                 u"COSMailSlot::Escrow"})
      EXPECT_NE(all.find(name), std::u16string::npos);
    a.Close();
    EXPECT_EQ(a.IsOpen(), 0);
  }
  for (const char16_t* line : {u"\rProcessor exited\r\n", u"\rReader exited\r\n", u"\rWriter exited\r\n",
                               u"\rEscrow exited\r\n"})
    EXPECT_EQ(watch.Count(line), 1);
}

TEST_F(MailTest, ThreeComputersGreetPingAndSayGoodbye) {
  LineWatch watch;
  COSMailslot& a = Box(u"ALPHA", u"alice");
  COSMailslot& b = Box(u"BRAVO", u"bob");
  COSMailslot& c = Box(u"CHARLIE", u"carol");
  // BRAVO greets ALPHA; CHARLIE greets both; the answers are HELLO_ACKs.
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"BRAVO")) + u" (BRAVO) said HELLO\r\n"));
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"CHARLIE")) + u" (CHARLIE) said HELLO\r\n", 2));
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"ALPHA")) + u" (ALPHA) said HELLO ACKNOWLEDGED\r\n", 2));
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"BRAVO")) + u" (BRAVO) said HELLO ACKNOWLEDGED\r\n"));
  EXPECT_TRUE(HasTarget(a, u"BRAVO") && HasTarget(a, u"CHARLIE"));
  EXPECT_TRUE(HasTarget(b, u"ALPHA") && HasTarget(b, u"CHARLIE"));
  EXPECT_TRUE(HasTarget(c, u"ALPHA") && HasTarget(c, u"BRAVO"));
  EXPECT_EQ(std::u16string(TargetOf(c, Id(u"ALPHA")).User), u"alice");
  const std::u16string party(static_cast<const WCHAR*>(a.GetPartyList()));
  EXPECT_TRUE(party == u"BRAVO\r\nCHARLIE\r\n" || party == u"CHARLIE\r\nBRAVO\r\n") << party.size();

  ASSERT_EQ(a.PingComputer(Id(u"CHARLIE")), 1);
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"ALPHA")) + u" (ALPHA) said PING\r\n"));
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"CHARLIE")) + u" (CHARLIE) answered PONG\r\n"));
  EXPECT_EQ(a.PingComputer(0x12345678), 0);  // not a target

  b.Close();
  EXPECT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"BRAVO")) + u" said GOODBYE\r\n", 2));
  EXPECT_FALSE(HasTarget(a, u"BRAVO"));
  EXPECT_FALSE(HasTarget(c, u"BRAVO"));
  EXPECT_TRUE(HasTarget(a, u"CHARLIE"));
}

TEST_F(MailTest, SmsIsPrintedAndShown) {
  LineWatch watch;
  std::mutex shown_lock;
  std::u16string shown;
  zr::os::DesktopHandlers handlers;
  handlers.message_box = [&](HWND, std::u16string_view text, std::u16string_view caption, UINT) {
    std::lock_guard hold(shown_lock);
    shown = std::u16string(caption) + u"|" + std::u16string(text);
    return 1;
  };
  const zr::os::DesktopHandlers previous = zr::os::SetDesktopHandlers(handlers);
  COSMailslot& a = Box(u"ALPHA", u"alice");
  Box(u"BRAVO", u"bob");
  ASSERT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"ALPHA")) + u" (ALPHA) said HELLO ACKNOWLEDGED\r\n"));
  ASSERT_EQ(a.SMSComputer(Id(u"BRAVO"), u"lunch at noon"), 1);
  EXPECT_TRUE(watch.WaitFor(u"\rSMS: Computer " + Hex(Id(u"ALPHA")) + u" (ALPHA): lunch at noon\r\n"));
  boxes_.clear();
  zr::os::SetDesktopHandlers(previous);
  EXPECT_EQ(shown, u"SMS from ALPHA|lunch at noon");
}

struct Received {
  std::mutex lock;
  std::condition_variable arrived;
  std::vector<std::vector<BYTE>> items;
  std::u16string from;
  bool Wait(std::size_t n) {
    std::unique_lock hold(lock);
    return arrived.wait_for(hold, std::chrono::milliseconds(nettest::kWaitMs), [&] { return items.size() >= n; });
  }
};

void OnMessage(COSMailslot&, const tagMAILHEADER* item, const WCHAR* computer, void* context) {
  auto* r = static_cast<Received*>(context);
  std::lock_guard hold(r->lock);
  const auto* bytes = reinterpret_cast<const BYTE*>(item);
  r->items.emplace_back(bytes, bytes + item->Size);
  r->from = computer;
  r->arrived.notify_all();
}

void OnNotify(const tagMAILHEADER* item, void* context) {
  auto* r = static_cast<Received*>(context);
  std::lock_guard hold(r->lock);
  const auto* bytes = reinterpret_cast<const BYTE*>(item);
  r->items.emplace_back(bytes, bytes + item->Size);
  r->arrived.notify_all();
}

TEST_F(MailTest, ApplicationMessagesReachTheHandlerOrWaitForGetMessage) {
  LineWatch watch;
  COSMailslot& a = Box(u"ALPHA", u"alice");
  COSMailslot& b = Box(u"BRAVO", u"bob");
  ASSERT_TRUE(watch.WaitFor(u"\rComputer " + Hex(Id(u"ALPHA")) + u" (ALPHA) said HELLO ACKNOWLEDGED\r\n"));

  // Without a handler the message waits.
  ASSERT_EQ(a.SendMessage(u"BRAVO", u"first"), 1);
  for (int i = 0; i < 500 && b.GetMessageSize() == 0; ++i) zr::os::Sleep(10);
  ASSERT_EQ(b.GetMessageSize(), 16u + 12u);
  std::vector<BYTE> kept(64);
  EXPECT_EQ(b.GetMessage(kept.data(), 10), 0u);  // too small
  ASSERT_EQ(b.GetMessage(kept.data(), 64), 28u);
  EXPECT_EQ(static_cast<LONG>(zr::LoadLE32(kept.data() + 12)), MAIL_MESSAGE);
  EXPECT_EQ(nettest::TextAt(kept, 16, 6), u"first");
  EXPECT_EQ(b.GetMessageSize(), 0u);

  Received received;
  b.SetMessageHandler(OnMessage, &received);
  const BYTE payload[5] = {1, 2, 3, 0, 0xFF};
  ASSERT_EQ(a.SendMessageEx(u"BRAVO", payload, sizeof payload), 1);
  ASSERT_TRUE(received.Wait(1));
  std::lock_guard hold(received.lock);
  EXPECT_EQ(received.from, u"ALPHA");
  ASSERT_EQ(received.items[0].size(), 21u);
  EXPECT_EQ(zr::LoadLE32(received.items[0].data() + 4), Id(u"ALPHA"));
  EXPECT_EQ(0, std::memcmp(received.items[0].data() + 16, payload, sizeof payload));
}

std::pair<COSMailslot*, COSMailslot*> MailTest::GreetedPair(LineWatch& watch, Received& received) {
  COSMailslot& a = Box(u"ALPHA", u"alice");
  COSMailslot& b = Box(u"BRAVO", u"bob");
  if (b.RegisterChangeNotify(OnNotify, &received) != 1) return {nullptr, nullptr};
  if (!watch.WaitFor(u"\rComputer " + Hex(Id(u"ALPHA")) + u" (ALPHA) said HELLO ACKNOWLEDGED\r\n")) return {nullptr, nullptr};
  return {&a, &b};
}

TEST_F(MailTest, ChangeNotificationReachesTheOtherMailbox) {
  LineWatch watch;  // before the mailboxes open, so that it sees their greeting
  Received received;
  const auto [alpha, bravo] = GreetedPair(watch, received);
  ASSERT_TRUE(alpha && bravo);
  COSMailslot& a = *alpha;
  COSMailslot& b = *bravo;
  struct {
    tagMAILHEADER header;
    DWORD location[5];
    DWORD flag;
  } item = {{40, 0, 0, 2}, {0x11111111, 0x22222222, 0x33333333, 0x44444444, 0x55555555}, 1};
  static_assert(sizeof item == 40);
  ASSERT_EQ(a.Notify(&item.header), 1);
  ASSERT_TRUE(received.Wait(1));
  std::lock_guard hold(received.lock);
  const std::vector<BYTE>& got = received.items[0];
  ASSERT_EQ(got.size(), 40u);
  EXPECT_EQ(zr::LoadLE32(got.data()), 40u);
  EXPECT_EQ(zr::LoadLE32(got.data() + 4), Id(u"ALPHA"));
  EXPECT_EQ(zr::LoadLE32(got.data() + 12), 2u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(zr::LoadLE32(got.data() + 16 + 4 * i), item.location[i]);
  EXPECT_EQ(zr::LoadLE32(got.data() + 36), 1u);
  EXPECT_EQ(b.UnregisterChangeNotify(OnNotify, &received), 1);
  EXPECT_EQ(b.UnregisterChangeNotify(OnNotify, &received), 0);
}

// An access list created and removed through a locator is announced through the store's mailbox.
TEST_F(MailTest, AccessListChangesGoOutThroughTheStoreMailbox) {
  LineWatch watch;  // before the mailboxes open, so that it sees their greeting
  Received received;
  const auto [alpha, bravo] = GreetedPair(watch, received);
  ASSERT_TRUE(alpha && bravo);
  EXPECT_EQ(ZRNET_SetStoreMailslot(alpha), nullptr);
  EXPECT_EQ(ZRNET_GetStoreMailslot(), alpha);

  ::setenv("ZROBJ_USERNAME", "alice", 1);
  zrtest::TempDir projectDir;
  const DWORD project = PrjRegistry::AddProject(zr::os::Utf8ToUtf16(projectDir.path()).c_str(), nullptr);
  ASSERT_NE(project, 0u);
  ASSERT_EQ(PrjRegistry::SetWorkingProject(project), 1);
  Locator locator;
  ASSERT_EQ(locator.CreateDiskImage(GetHashID("CTestObject")), Locator::kAccessGranted);
  ASSERT_EQ(locator.Commit(0, nullptr, nullptr, "CTestObject"), 1);
  ASSERT_EQ(locator.GrantAccess(u"bob", 0x80000000u), 1);
  ASSERT_EQ(locator.GrantAccess(nullptr, 0), 1);
  ASSERT_TRUE(received.Wait(2));
  {
    std::lock_guard hold(received.lock);
    const Location& at = locator.GetLocation();
    const DWORD words[5] = {at.dwProject, at.dwDir, at.dwFile, at.dwClass, at.dwKind};
    for (DWORD flag : {1u, 0u}) {
      const std::vector<BYTE>& got = received.items[1 - flag];
      ASSERT_EQ(got.size(), 40u);
      EXPECT_EQ(zr::LoadLE32(got.data()), 40u);
      EXPECT_EQ(zr::LoadLE32(got.data() + 4), Id(u"ALPHA"));
      EXPECT_EQ(zr::LoadLE32(got.data() + 12), 2u);
      for (int i = 0; i < 5; ++i) EXPECT_EQ(zr::LoadLE32(got.data() + 16 + 4 * i), words[i]);
      EXPECT_EQ(zr::LoadLE32(got.data() + 36), flag);
    }
  }
  locator.Reset();
  PrjRegistry::SetWorkingProject(0);
  PrjRegistry::RemoveProject(project);
  ::unsetenv("ZROBJ_USERNAME");

  // Taking the mailbox away stops the sending; so does destroying it.
  const BYTE item[40] = {40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
  EXPECT_EQ(zr::SendStoreNotification(item, sizeof item), 1);
  EXPECT_EQ(ZRNET_SetStoreMailslot(nullptr), alpha);
  EXPECT_EQ(zr::SendStoreNotification(item, sizeof item), 0);
  ZRNET_SetStoreMailslot(bravo);
  EXPECT_EQ(zr::SendStoreNotification(item, 39), 0);  // the size word must match
  boxes_.clear();
  EXPECT_EQ(ZRNET_GetStoreMailslot(), nullptr);
  EXPECT_EQ(zr::SendStoreNotification(item, sizeof item), 0);
}

TEST_F(MailTest, WireBytesOfEveryTypeAreExact) {
  LineWatch watch;
  RawPeer raw;
  Register("RAWPC", raw.port());
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  a.SetHelloFlags(MAIL_FLAG_OPEN_PROJECTS);
  const DWORD alpha = Id(u"ALPHA");

  // HELLO towards a computer found by name.
  ASSERT_EQ(a.AttachComputer(u"RAWPC"), 1);
  std::vector<BYTE> hello = raw.ReceiveType(MAIL_HELLO);
  ASSERT_EQ(hello.size(), 184u);
  EXPECT_EQ(zr::LoadLE32(hello.data()), 184u);
  EXPECT_EQ(zr::LoadLE32(hello.data() + 4), alpha);
  EXPECT_EQ(zr::LoadLE32(hello.data() + 8), 1u);
  EXPECT_EQ(nettest::TextAt(hello, 16, 16), u"ALPHA");
  EXPECT_EQ(nettest::TextAt(hello, 48, 64), u"alice");
  for (std::size_t i = 16 + 2 * 5; i < 48; ++i) EXPECT_EQ(hello[i], 0) << i;
  EXPECT_EQ(zr::LoadLE32(hello.data() + 176), 0x20001u);
  EXPECT_EQ(zr::LoadLE32(hello.data() + 180), 2u);

  // The raw computer greets back; it is acknowledged with the next tag.
  ASSERT_TRUE(raw.SendTo(static_cast<std::uint16_t>(a.GetLocalPort()), nettest::Hello(Id(u"RAWPC"), 1, u"RAWPC")));
  std::vector<BYTE> ack = raw.ReceiveType(MAIL_HELLO_ACK);
  ASSERT_EQ(ack.size(), 184u);
  EXPECT_EQ(zr::LoadLE32(ack.data() + 8), 2u);
  EXPECT_EQ(nettest::TextAt(ack, 16, 16), u"ALPHA");

  ASSERT_EQ(a.PingComputer(Id(u"RAWPC")), 1);
  const std::vector<BYTE> ping = raw.ReceiveType(MAIL_PING);
  EXPECT_EQ(ping, nettest::Header(16, alpha, 3, MAIL_PING));

  ASSERT_TRUE(raw.SendTo(static_cast<std::uint16_t>(a.GetLocalPort()), nettest::Header(16, Id(u"RAWPC"), 2, MAIL_PING)));
  EXPECT_EQ(raw.ReceiveType(MAIL_PONG), nettest::Header(16, alpha, 4, MAIL_PONG));

  ASSERT_EQ(a.SMSComputer(Id(u"RAWPC"), u"hi"), 1);
  std::vector<BYTE> sms = nettest::Header(22, alpha, 5, MAIL_SMS);
  sms.resize(22);
  nettest::PutText(sms, 16, u"hi");
  EXPECT_EQ(raw.ReceiveType(MAIL_SMS), sms);

  ASSERT_EQ(a.SendMessage(Id(u"RAWPC"), u"x"), 1);
  std::vector<BYTE> message = nettest::Header(20, alpha, 6, MAIL_MESSAGE);
  message.resize(20);
  nettest::PutText(message, 16, u"x");
  EXPECT_EQ(raw.ReceiveType(MAIL_MESSAGE), message);

  // GOODBYE goes to the members of the workgroup when the mailbox leaves it.
  ASSERT_EQ(a.AttachWorkgroup(kGroup), 1);
  raw.ReceiveType(MAIL_HELLO);  // the greeting of the attach
  a.Close();
  EXPECT_EQ(raw.ReceiveType(MAIL_GOODBYE), nettest::Header(16, alpha, 8, MAIL_GOODBYE));
}

TEST_F(MailTest, LostAndRepeatedTagsAreCountedAndDropped) {
  LineWatch watch;
  COSMailslot box;  // not open: the receive path runs on this thread
  box.SetIdentity(u"ALPHA", u"alice");
  const DWORD raw = Id(u"RAWPC");
  const std::u16string ping = u"\rComputer " + Hex(raw) + u" (RAWPC) said PING\r\n";
  auto feed = [&](const std::vector<BYTE>& bytes) {
    return box.HandleDatagram(bytes.data(), static_cast<DWORD>(bytes.size()), 0x7F000001, 4000);
  };
  ASSERT_EQ(feed(nettest::Hello(raw, 5, u"RAWPC")), 1);
  ASSERT_EQ(feed(nettest::Header(16, raw, 6, MAIL_PING)), 1);
  ASSERT_EQ(feed(nettest::Header(16, raw, 9, MAIL_PING)), 1);
  EXPECT_EQ(watch.Count(u"Mailslot zrtest: 2 tags lost\r\n") + watch.Count(u"Mailslot : 2 tags lost\r\n"), 1);
  EXPECT_EQ(TargetOf(box, raw).LostTags, 2u);
  EXPECT_EQ(TargetOf(box, raw).LastTag, 9u);
  EXPECT_EQ(watch.Count(ping), 2);
  // A repeat is dropped, unless it is a HELLO.
  ASSERT_EQ(feed(nettest::Header(16, raw, 9, MAIL_PING)), 1);
  ASSERT_EQ(feed(nettest::Header(16, raw, 4, MAIL_PING)), 1);
  EXPECT_EQ(watch.Count(ping), 2);
  EXPECT_EQ(watch.CountContaining(u"repeated, dropped"), 2);
  ASSERT_EQ(feed(nettest::Hello(raw, 9, u"RAWPC")), 1);
  EXPECT_EQ(watch.Count(u"\rComputer " + Hex(raw) + u" (RAWPC) said HELLO\r\n"), 2);
  EXPECT_EQ(TargetOf(box, raw).LostTags, 2u);
}

TEST_F(MailTest, MalformedDatagramsAreDroppedWithALine) {
  LineWatch watch;
  COSMailslot box;
  Received received;
  box.RegisterChangeNotify(OnNotify, &received);
  auto feed = [&](const std::vector<BYTE>& bytes, DWORD length) {
    return box.HandleDatagram(bytes.data(), length, 0x7F000001, 4000);
  };
  const std::vector<BYTE> short15(15, 0);
  EXPECT_EQ(feed(short15, 15), 0);
  EXPECT_EQ(watch.Count(u"\rMailslot : datagram of 15 bytes from 127.0.0.1:4000 dropped (shorter than a message header)\r\n"), 1);
  EXPECT_EQ(feed(nettest::Header(20, 1, 1, MAIL_PING), 16), 0);
  EXPECT_EQ(watch.Count(u"\rMailslot : datagram from 127.0.0.1:4000 dropped (Size=20, 16 bytes received)\r\n"), 1);
  EXPECT_EQ(feed(nettest::Header(0xFFFFFFF0u, 1, 1, MAIL_SMS), 16), 0);
  EXPECT_EQ(box.HandleDatagram(nullptr, 16, 0, 0), 0);

  // Types outside the system range go to the default handler: negative ones are dropped, the
  // others reach the change-notification receivers.
  EXPECT_EQ(feed(nettest::Header(16, 0xABCD, 1, -9), 16), 1);
  EXPECT_EQ(watch.Count(u"\rMailslot : message type -9 from computer 0000ABCD dropped\r\n"), 1);
  EXPECT_EQ(feed(nettest::Header(16, 0xABCD, 1, -8), 16), 1);
  EXPECT_EQ(watch.Count(u"\rMailslot : message type -8 from computer 0000ABCD dropped\r\n"), 1);
  EXPECT_EQ(feed(nettest::Header(16, 0xABCD, 1, 0), 16), 1);
  EXPECT_EQ(feed(nettest::Header(16, 0xABCD, 2, 0x7FFFFFFF), 16), 1);  // the largest type, no overflow
  EXPECT_EQ(received.items.size(), 2u);

  // HELLOs of the wrong size or interface version are refused, the sender stays unknown.
  const DWORD raw = Id(u"RAWPC");
  for (DWORD size : {183u, 185u}) {
    EXPECT_EQ(feed(nettest::Hello(raw, 1, u"RAWPC", MAIL_HELLO, size), size), 1);
  }
  EXPECT_EQ(feed(nettest::Hello(raw, 1, u"RAWPC", MAIL_HELLO, 184, 0x20000), 184), 1);
  EXPECT_EQ(watch.Count(u"\rComputer " + Hex(raw) + u" (RAWPC) HELLO: Incompatible interface, refused...\r\n"), 3);
  EXPECT_EQ(feed(nettest::Hello(raw, 1, u"RAWPC", MAIL_HELLO_ACK, 184, 0x20002), 184), 1);
  EXPECT_EQ(watch.Count(u"\rComputer " + Hex(raw) + u" (RAWPC) HELLO_ACK: Incompatible interface, refused...\r\n"), 1);
  EXPECT_EQ(feed(nettest::Hello(raw, 1, u"", MAIL_HELLO, 16), 16), 1);  // too short for a name
  EXPECT_EQ(watch.Count(u"\rComputer " + Hex(raw) + u" () HELLO: Incompatible interface, refused...\r\n"), 1);
  EXPECT_EQ(box.GetTargetList().GetNItems(), 0u);

  // An application message from an unknown computer is dropped silently; a GOODBYE prints.
  EXPECT_EQ(feed(nettest::Header(16, raw, 1, MAIL_MESSAGE), 16), 1);
  EXPECT_EQ(box.GetMessageSize(), 0u);
  EXPECT_EQ(feed(nettest::Header(16, raw, 1, MAIL_GOODBYE), 16), 1);
  EXPECT_EQ(watch.Count(u"\rComputer " + Hex(raw) + u" said GOODBYE\r\n"), 1);
  // An SMS without its terminating zero or with an odd length still reads within its bounds.
  std::vector<BYTE> sms = nettest::Header(21, raw, 2, MAIL_SMS);
  std::fill(sms.begin() + 16, sms.end(), BYTE{'A'});
  EXPECT_EQ(feed(sms, 21), 1);
  EXPECT_EQ(watch.CountContaining(u"\rSMS: Computer " + Hex(raw) + u" (): \u4141\u4141\r\n"), 1);
}

TEST_F(MailTest, AFloodOfMalformedDatagramsLeavesThePingsAnswered) {
  RawPeer raw;
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  const auto port = static_cast<std::uint16_t>(a.GetLocalPort());
  {
    LineWatch quiet;  // keeps the 100,000 drop lines off the output
    std::vector<BYTE> junk = nettest::Header(16, 7, 1, MAIL_PING);
    for (int i = 0; i < 100000; ++i) {
      junk.resize(1 + i % 40);
      zr::StoreLE32(junk.data(), 0xFFFF0000u + static_cast<DWORD>(i));
      if (junk.size() < 4) junk.resize(4);
      raw.SendTo(port, junk);
    }
    // The flood may still be queued in the socket: ask until a PONG comes back (bounded).
    std::vector<BYTE> pong;
    for (int attempt = 0; attempt < 50 && pong.empty(); ++attempt) {
      raw.SendTo(port, nettest::Header(16, 7, 1, MAIL_PING));
      pong = raw.ReceiveType(MAIL_PONG, 200);
    }
    ASSERT_EQ(pong.size(), 16u);
    EXPECT_EQ(zr::LoadLE32(pong.data() + 4), Id(u"ALPHA"));
    EXPECT_GT(quiet.CountContaining(u"dropped"), 0);
  }
  EXPECT_EQ(a.IsOpen(), 1);
}

// PINGs are answered to whatever address they come from; thousands of such addresses must not
// disturb the tag counting towards a known computer (its tags keep rising, never restart).
TEST_F(MailTest, RepliesToManyAddressesKeepAKnownComputersTags) {
  RawPeer raw;
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  const auto port = static_cast<std::uint16_t>(a.GetLocalPort());
  const DWORD raw_id = Id(u"RAWPC");
  ASSERT_TRUE(raw.SendTo(port, nettest::Hello(raw_id, 1, u"RAWPC")));
  const std::vector<BYTE> ack = raw.ReceiveType(MAIL_HELLO_ACK, nettest::kWaitMs);
  ASSERT_FALSE(ack.empty());
  DWORD last = zr::LoadLE32(ack.data() + 8);
  DWORD raw_tag = 2;
  LineWatch quiet;
  for (DWORD batch = 0; batch < 30; ++batch) {
    for (DWORD i = 0; i < 200; ++i) {
      const DWORD n = batch * 200 + i;
      const std::vector<BYTE> ping = nettest::Header(16, 0x10000 + n, 1, MAIL_PING);
      a.HandleDatagram(ping.data(), 16, 0x7F000001, 20000 + n);
    }
    ASSERT_TRUE(raw.SendTo(port, nettest::Header(16, raw_id, raw_tag++, MAIL_PING)));
    const std::vector<BYTE> pong = raw.ReceiveType(MAIL_PONG, nettest::kWaitMs);
    ASSERT_EQ(pong.size(), 16u);
    const DWORD tag = zr::LoadLE32(pong.data() + 8);
    EXPECT_GT(tag, last) << "batch " << batch;
    last = tag;
  }
}

TEST_F(MailTest, ASilentComputerGoesIntoEscrowAndComesBack) {
  LineWatch watch;
  RawPeer raw;
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  const auto port = static_cast<std::uint16_t>(a.GetLocalPort());
  const DWORD id = Id(u"GHOST");
  ASSERT_TRUE(raw.SendTo(port, nettest::Hello(id, 1, u"GHOST")));
  ASSERT_TRUE(watch.WaitFor(u"\rComputer " + Hex(id) + u" (GHOST) said HELLO\r\n"));
  // It never answers the pings: after MaxTimeout it is put into escrow and retried.
  ASSERT_TRUE(watch.WaitFor(u"\rCOSMail::Putting GHOST into escrow\r\n"));
  EXPECT_EQ(watch.CountContaining(u"\rNetwork: Computer GHOST unreachable (timeout "), 1);
  EXPECT_FALSE(HasTarget(a, u"GHOST"));
  EXPECT_EQ(a.GetEscrowList().GetNItems(), 1u);
  ASSERT_TRUE(watch.WaitFor(u"\rRetrying to connect to GHOST\r\n"));
  // A message for it waits as its pending one and goes out when it greets again.
  ASSERT_EQ(a.SendMessage(id, u"later"), 1);
  ASSERT_TRUE(raw.SendTo(port, nettest::Hello(id, 50, u"GHOST")));
  ASSERT_TRUE(watch.WaitFor(u"\rCOSMailslot::Removing GHOST from escrow\r\n"));
  EXPECT_TRUE(HasTarget(a, u"GHOST"));
  EXPECT_EQ(a.GetEscrowList().GetNItems(), 0u);
  const std::vector<BYTE> pending = raw.ReceiveType(MAIL_MESSAGE);
  EXPECT_EQ(nettest::TextAt(pending, 16, 8), u"later");
}

// A reply that cannot be sent (port 0 is refused by the kernel) puts its destination into escrow
// under the destination's own id, so that messages for it wait there and its GOODBYE clears it.
TEST_F(MailTest, AFailedSendEscrowsTheDestinationUnderItsId) {
  LineWatch watch;
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  const DWORD id = Id(u"NOPORT");
  const std::vector<BYTE> hello = nettest::Hello(id, 1, u"NOPORT");
  ASSERT_EQ(a.HandleDatagram(hello.data(), static_cast<DWORD>(hello.size()), 0x7F000001, 0), 1);
  ASSERT_TRUE(watch.WaitFor(u"\rCOSMail::Putting NOPORT into escrow\r\n"));
  EXPECT_EQ(watch.CountContaining(u"\rNetwork: Computer NOPORT unreachable (timeout) Result="), 1);
  CPvList escrow = a.GetEscrowList();
  ASSERT_EQ(escrow.GetNItems(), 1u);
  EXPECT_EQ(static_cast<const tagMAILTARGET*>(escrow.GetCList())->ComputerID, id);
  EXPECT_FALSE(HasTarget(a, u"NOPORT"));
  EXPECT_EQ(a.SendMessage(id, u"later"), 1);  // kept as its pending message
  const std::vector<BYTE> goodbye = nettest::Header(16, id, 2, MAIL_GOODBYE);
  ASSERT_EQ(a.HandleDatagram(goodbye.data(), 16, 0x7F000001, 0), 1);
  EXPECT_EQ(a.GetEscrowList().GetNItems(), 0u);
}

TEST_F(MailTest, UnknownComputersAndUnusableNames) {
  LineWatch watch;
  COSMailslot& a = Box(u"ALPHA", u"alice", false);
  EXPECT_EQ(a.AttachComputer(u"NOBODY"), 0);
  EXPECT_EQ(watch.Count(u"\rNetwork: Computer NOBODY unreachable (no handle)\r\n"), 1);
  EXPECT_EQ(watch.Count(u"\rCOSMail::Putting NOBODY into escrow\r\n"), 1);
  EXPECT_EQ(a.UnscrowComputer(u"nobody"), 1);
  EXPECT_EQ(a.UnscrowComputer(u"NOBODY"), 0);
  EXPECT_EQ(a.AttachWorkgroup(u"../x"), 0);
  EXPECT_EQ(watch.Count(u"\rNetwork notifications: Could not register on ../x\r\n"), 1);
  COSMailslot b;
  EXPECT_EQ(b.SetIdentity(u"A/B", nullptr), 0);
  EXPECT_EQ(b.SetIdentity(u"SIXTEENCHARSXXXX", nullptr), 0);
  EXPECT_EQ(b.Open(u""), 0);
  EXPECT_EQ(a.Open(u"again"), 0);  // already open
}

}  // namespace
