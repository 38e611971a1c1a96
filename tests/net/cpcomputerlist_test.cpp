// The computer list, the neighbourhood of the workgroup directory and the ping service.
#include "zrobj/cpcomputerlist.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

std::vector<std::u16string> Names(const CPComputerList& list) {
  std::vector<std::u16string> names;
  for (DWORD i = 0; i < list.GetNItems(); ++i) names.emplace_back(list.GetEntry(i)->Name);
  return names;
}

TEST(CPComputerList, KeepsNamesSortedCaseInsensitively) {
  CPComputerList list;
  EXPECT_EQ(list.GetItemSize(), 36u);
  EXPECT_EQ(list.GetNGrowth(), 5u);
  for (const char16_t* name : {u"mike", u"ALPHA", u"zulu", u"Charlie", u"bravo", u"delta", u"echo"})
    EXPECT_NE(list.Add(name), ZR_INVALID_INDEX);
  EXPECT_EQ(Names(list), (std::vector<std::u16string>{u"ALPHA", u"bravo", u"Charlie", u"delta", u"echo", u"mike",
                                                      u"zulu"}));
  // An equal name is inserted again, in front of its twin.
  EXPECT_NE(list.Add(u"Delta"), ZR_INVALID_INDEX);
  EXPECT_EQ(list.GetNItems(), 8u);
  EXPECT_EQ(std::u16string(list.GetEntry(3)->Name), u"Delta");
  EXPECT_EQ(list.Find(u"DELTA"), 3u);
  EXPECT_EQ(list.Find(u"alpha"), 0u);
  EXPECT_EQ(list.Find(u"ZULU"), 7u);
  EXPECT_EQ(list.Find(u"yankee"), ZR_INVALID_INDEX);
}

// Letters compare as lower case, so the signs between 'Z' and 'a' sort before every letter.
TEST(CPComputerList, SignsBetweenTheCasesSortBeforeLetters) {
  CPComputerList list;
  for (const char16_t* name : {u"AAB", u"A_B", u"A^B", u"ab", u"A[B"}) EXPECT_NE(list.Add(name), ZR_INVALID_INDEX);
  EXPECT_EQ(Names(list), (std::vector<std::u16string>{u"A[B", u"A^B", u"A_B", u"AAB", u"ab"}));
  EXPECT_EQ(list.Find(u"a_b"), 2u);
}

TEST(CPComputerList, RefusesLongAndNullNames) {
  CPComputerList list;
  ASSERT_NE(list.Add(u"FIFTEENCHARSXXX"), ZR_INVALID_INDEX);
  EXPECT_EQ(list.Add(u"SIXTEENCHARSXXXX"), ZR_INVALID_INDEX);
  EXPECT_EQ(list.Add(nullptr), ZR_INVALID_INDEX);
  EXPECT_EQ(list.GetNItems(), 1u);
  EXPECT_EQ(list.Find(u"SIXTEENCHARSXXXX"), ZR_INVALID_INDEX);
  EXPECT_EQ(list.Find(nullptr), ZR_INVALID_INDEX);
  EXPECT_EQ(list.Find(u"fifteencharsxxx"), 0u);
}

TEST(CPComputerList, DeletePastTheEndChangesNothing) {
  CPComputerList list;
  list.Add(u"B");
  list.Add(u"A");
  EXPECT_EQ(list.Delete(2), 1);
  EXPECT_EQ(list.GetNItems(), 2u);
  EXPECT_EQ(list.Delete(0), 1);
  EXPECT_EQ(Names(list), std::vector<std::u16string>{u"B"});
}

TEST(Neighbourhood, ListsTheRegisteredComputersOnce) {
  zrtest::TempDir dir;
  ::setenv("ZROBJ_WORKGROUP_DIR", dir.path().c_str(), 1);
  ::setenv("ZROBJ_WORKGROUP", "OFFICE", 1);
  ASSERT_EQ(std::system(("mkdir -p " + dir.path() + "/OFFICE/a " + dir.path() + "/OFFICE/b").c_str()), 0);
  ASSERT_TRUE(zrtest::WriteFile(dir.File("OFFICE/a/ZED.workgroup2_1"), "127.0.0.1:5000\nzoe\n"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("OFFICE/b/ZED.workgroup2_1"), "127.0.0.1:5001\nzoe\n"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("OFFICE/a/AMY.workgroup2_1"), "127.0.0.2:6000\namy\n"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("OFFICE/a/BAD.workgroup2_1"), "not an address\n"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("OFFICE/a/OLD.workgroup1_0"), "127.0.0.1:7000\n"));
  const CPComputerList list = ZRNET_GetNetworkNeighbourhood();
  EXPECT_EQ(Names(list), (std::vector<std::u16string>{u"AMY", u"ZED"}));

  CPvList members(sizeof(tagWORKGROUPMEMBER));
  EXPECT_EQ(ZRNET_GetWorkgroupMembers(u"office", members), 3u);
  CPvList wrong(8);
  EXPECT_EQ(ZRNET_GetWorkgroupMembers(u"office", wrong), 0u);
  ::unsetenv("ZROBJ_WORKGROUP");
  EXPECT_EQ(ZRNET_GetNetworkNeighbourhood().GetNItems(), 0u);  // "WORKGROUP" has nobody
  ::unsetenv("ZROBJ_WORKGROUP_DIR");
}

TEST(COSPing, UnresolvableHostGivesTwoAndTheTimeout) {
  unsigned int rtt = 0;
  EXPECT_EQ(COSPing::Ping("no-such-host.invalid", 321, &rtt), ZRPING_UNREACHABLE);
  EXPECT_EQ(rtt, 321u);
  EXPECT_EQ(COSPing::Ping(static_cast<const char*>(nullptr), 5, &rtt), ZRPING_UNREACHABLE);
}

// With an echo socket (root, CAP_NET_RAW, or ping_group_range) this is a real ICMP echo; without
// one it is the reachability fallback, which reports the timeout as the round trip.
TEST(COSPing, LoopbackAnswers) {
  unsigned int rtt = 12345;
  EXPECT_EQ(COSPing::Ping(u"127.0.0.1", 2000, &rtt), ZRPING_OK);
  if (COSPing::HasIcmp()) {
    EXPECT_LT(rtt, 2000u);
  } else {
    EXPECT_EQ(rtt, 2000u);
  }
}

TEST(COSPing, NotInitialisedGivesOne) {
  COSPing::Shutdown();
  unsigned int rtt = 0;
  EXPECT_EQ(COSPing::IsInitialised(), 0);
  EXPECT_EQ(COSPing::Ping("127.0.0.1", 77, &rtt), ZRPING_NOT_INITIALISED);
  EXPECT_EQ(rtt, 77u);
  COSPing::Startup();
  EXPECT_EQ(COSPing::IsInitialised(), 1);
}

TEST(COSPing, PingPathOfLocalAndNetworkPaths) {
  zrtest::TempDir dir;
  const std::u16string local(dir.path().begin(), dir.path().end());
  unsigned int rtt = 99;
  EXPECT_EQ(COSPing::PingPath(local.c_str(), 100, &rtt, 0), 0u);
  EXPECT_EQ(rtt, 0u);
  EXPECT_EQ(COSPing::PingPath(u"", 100, &rtt, 0), 1u);
  EXPECT_EQ(COSPing::PingPath(nullptr, 100, &rtt, 0), 1u);
  // A network path pings its server; it has no local directory to create.
  EXPECT_EQ(COSPing::PingPath(u"\\\\127.0.0.1\\share\\dir", 2000, &rtt, 0), 0u);
  EXPECT_EQ(COSPing::PingPath(u"//127.0.0.1/share/dir", 2000, &rtt, 1), 6u);
  EXPECT_EQ(COSPing::PingPath(u"//no-such-host.invalid/share", 50, &rtt, 0), 2u);
  EXPECT_EQ(rtt, 50u);
}

}  // namespace
