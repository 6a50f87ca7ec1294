// The kernel mirror following the real kernel: links, running-state counts, addresses and
// their flags, dumps against queued messages, and recovery after the kernel dropped
// notifications.
#include <gtest/gtest.h>

#include <linux/if.h>
#include <linux/if_addr.h>
#include <sys/socket.h>

#include "linux/KernelMirror.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "mox/Clock.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;

class KernelMirrorTest : public KernelFixture {
protected:
   KernelNetInfo::Interface rec(KernelMirror& m, int ifindex) {
      return m.status()->interface(KernelNetInfo::InterfaceKey{uint32_t(ifindex)});
   }
   // Polls the mirror's events until `pred` holds.
   template <class Pred>
   bool converge(KernelMirror& m, Pred pred) {
      return waitFor([&] {
         m.processEvents();
         return pred();
      });
   }
   KernelNetInfo::IpKey key(int ifindex, char const* addr, uint32_t len) {
      return KernelNetInfo::IpKey{KernelNetInfo::InterfaceKey{uint32_t(ifindex)},
                                  *IpGenAddr::parse(addr), len};
   }
};

TEST_F(KernelMirrorTest, FollowsLinksAndCountsRunningStateChanges) {
   Veth veth = createVeth();
   KernelMirror m("default");
   ASSERT_EQ(m.start(), 0);
   auto r0 = rec(m, veth.ifindex);
   EXPECT_EQ(r0.deviceName, veth.name);
   EXPECT_FALSE(r0.running());
   EXPECT_EQ(m.status()->interfaceByName(veth.name).key.ifIndex, uint32_t(veth.ifindex));
   // The device's IPv4 settings come with it, as /proc/sys/net/ipv4/conf shows them.
   ASSERT_EQ(writeProcSys("/proc/sys/net/ipv4/conf/" + veth.name + "/arp_ignore", "2"), 0);
   ASSERT_EQ(m.resync(), 0);
   uint32_t arpIgnore = 0;
   ASSERT_TRUE(rec(m, veth.ifindex).ipv4ConfValue(ipv4DevconfIndex("arp_ignore"), &arpIgnore));
   EXPECT_EQ(arpIgnore, 2u);
   // And the IPv6 settings the machines write, each as /proc/sys/net/ipv6/conf shows it; a
   // dump refreshes the time of the report even where nothing changed.
   ASSERT_EQ(writeProcSys("/proc/sys/net/ipv6/conf/" + veth.name + "/accept_ra", "2"), 0);
   Mox::ScopedVirtualTime time;
   ASSERT_EQ(m.resync(), 0);
   auto r1 = rec(m, veth.ifindex);
   for (auto file : KernelNetInfo::kIp6ConfFiles) {
      std::string held;
      ASSERT_EQ(
          readProcSys("/proc/sys/net/ipv6/conf/" + veth.name + "/" + std::string(file), &held), 0);
      int32_t reported = -1;
      ASSERT_TRUE(r1.ipv6ConfValue(file, &reported)) << file;
      EXPECT_EQ(std::to_string(reported), held) << file;
   }
   EXPECT_TRUE(r1.confFresh(Mox::System::currentTime()));
   time.source().elapse(KernelNetInfo::kConfFreshFor + 1);
   EXPECT_FALSE(rec(m, veth.ifindex).confFresh(Mox::System::currentTime()));
   ASSERT_EQ(m.resync(), 0);
   EXPECT_TRUE(rec(m, veth.ifindex).confFresh(Mox::System::currentTime()));

   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, true), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.ifindex, true), 0);
   ASSERT_TRUE(converge(m, [&] { return rec(m, veth.ifindex).running(); }));
   uint32_t upCount = rec(m, veth.ifindex).runningStateChanges;
   EXPECT_GT(upCount, r0.runningStateChanges);

   // A flap the mirror does not watch happen: the carrier count still shows it.
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, false), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, true), 0);
   ASSERT_TRUE(waitFor([&] { return link(veth.ifindex).flags & IFF_RUNNING; }));
   KernelMirror late("default");  // a second mirror that only sees before and after
   ASSERT_EQ(late.start(), 0);
   uint32_t before = rec(late, veth.ifindex).runningStateChanges;
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, false), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, true), 0);
   ASSERT_TRUE(waitFor([&] { return link(veth.ifindex).flags & IFF_RUNNING; }));
   ASSERT_EQ(late.resync(), 0);  // one observation after the flap
   EXPECT_GE(rec(late, veth.ifindex).runningStateChanges - before, 2u);
   EXPECT_TRUE(rec(late, veth.ifindex).running());

   ASSERT_EQ(deleteLink(sock(), veth.ifindex), 0);  // takes the peer along
   ASSERT_TRUE(converge(m, [&] { return rec(m, veth.ifindex) == KernelNetInfo::Interface(); }));
   EXPECT_EQ(m.status()->interfaceByName(veth.name), KernelNetInfo::Interface());
}

// Link messages still queued when the mirror dumps are older than the dump: a setting
// written in between, which no message tells of, is not put back by them.
TEST_F(KernelMirrorTest, MessagesQueuedBeforeADumpDoNotUndoIt) {
   Veth veth = createVeth();
   KernelMirror m("default");
   ASSERT_EQ(m.start(), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.ifindex, true), 0);  // a link message, not yet read
   std::string const file = "/proc/sys/net/ipv6/conf/" + veth.name + "/disable_ipv6";
   ASSERT_EQ(writeProcSys(file, "1"), 0);
   ASSERT_EQ(m.resync(), 0);
   ASSERT_EQ(m.processEvents(), 0);
   int32_t reported = -1;
   ASSERT_TRUE(rec(m, veth.ifindex).ipv6ConfValue("disable_ipv6", &reported));
   EXPECT_EQ(reported, 1);
   EXPECT_TRUE(rec(m, veth.ifindex).flags & IFF_UP);
}

TEST_F(KernelMirrorTest, FollowsAddressesAndTheirFlags) {
   Veth veth = createVeth();
   KernelMirror m("default");
   ASSERT_EQ(m.start(), 0);
   auto ips = [&] { return m.status()->ipState(); };
   ASSERT_EQ(ipAddrAdd(sock(), veth.ifindex, *IpAddrWithMask::parse("10.1.0.1/24")), 0);
   ASSERT_EQ(ip6AddrAdd(sock(), veth.ifindex, *Ip6AddrWithMask::parse("2001:db8::1/64")), 0);
   auto k4 = key(veth.ifindex, "10.1.0.1", 24);
   auto k6 = key(veth.ifindex, "2001:db8::1", 64);
   ASSERT_TRUE(converge(m, [&] { return ips().find(k4) && ips().find(k6); }));
   EXPECT_TRUE(ips().find(k4)->assigned);
   // The device is down: the IPv6 address waits for duplicate address detection.
   EXPECT_TRUE(ips().find(k6)->flags & IFA_F_TENTATIVE);
   EXPECT_TRUE(ips().find(k6)->flags & IFA_F_PERMANENT);

   ASSERT_EQ(ipAddrDel(sock(), veth.ifindex, *IpAddrWithMask::parse("10.1.0.1/24")), 0);
   ASSERT_TRUE(converge(m, [&] { return !ips().find(k4); }));
   EXPECT_TRUE(ips().find(k6));

   ASSERT_EQ(deleteLink(sock(), veth.ifindex), 0);
   ASSERT_TRUE(converge(m, [&] { return !ips().find(k6); }));
}

TEST_F(KernelMirrorTest, RecoversWhenTheKernelDropsNotifications) {
   Veth veth = createVeth();
   KernelMirror m("default", nullptr, 4096);  // a receive buffer too small for a burst
   ASSERT_EQ(m.start(), 0);
   for (int i = 0; i < 300; ++i) {
      auto a = IpAddrWithMask(IpAddr(0x0a020000u + uint32_t(i)), 32);
      ASSERT_EQ(ipAddrAdd(sock(), veth.ifindex, a), 0);
   }
   ASSERT_EQ(m.processEvents(), 0);
   EXPECT_GE(m.overflows(), 1u);
   EXPECT_GE(m.resyncs(), 2u);
   size_t mine = 0;
   auto ips = m.status()->ipState();
   for (auto it = ips.begin(); it != ips.end(); ++it) {
      mine += it.key().intfKey.ifIndex == uint32_t(veth.ifindex);
   }
   EXPECT_EQ(mine, 300u);
}

}  // namespace
}  // namespace KonetTest
