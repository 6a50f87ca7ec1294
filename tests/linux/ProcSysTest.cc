// /proc/sys/net writers against the real kernel: they land in the namespace asked for,
// report a missing device as ENOENT, and never leave /proc/sys/net.
#include <gtest/gtest.h>

#include "linux/NetNs.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;

std::string readIn(NamespaceName const& ns, std::string const& path) {
   ScopedNetNs inNs(ns);
   std::string value;
   EXPECT_TRUE(inNs.ok());
   EXPECT_EQ(readProcSys(path, &value), 0) << path;
   return value;
}

class ProcSysTest : public KernelFixture {};

TEST_F(ProcSysTest, WritesInANamedNamespaceLandThereOnly) {
   NamespaceName ns = createNamespace();
   NamespaceName here;
   char const* ratelimit = "/proc/sys/net/ipv4/icmp_ratelimit";
   std::string mine = readIn(here, ratelimit);
   ASSERT_NE(mine, "0");

   ASSERT_EQ(writeProcSysInNetNs(ratelimit, "0", ns), 0);
   EXPECT_EQ(readIn(ns, ratelimit), "0");
   EXPECT_EQ(readIn(here, ratelimit), mine);

   // A device that lives in the namespace only.
   Veth veth = createVeth();
   ASSERT_EQ(moveLinkToNamedNetNs(sock(), veth.ifindex, ns), 0);
   std::string forwarding = std::string(V6_PROC_CONF) + "/" + veth.name + "/forwarding";
   EXPECT_EQ(readIn(ns, forwarding), "0");
   EXPECT_TRUE(setIpv6ProcSysInNetNs(veth.name, "forwarding", "1", ns, false));
   EXPECT_EQ(readIn(ns, forwarding), "1");
   EXPECT_EQ(writeProcSysDev(V6_PROC_CONF, veth.name, "forwarding", "1"), ENOENT)
       << "the device is not in the caller's namespace";
   {
      ScopedNetNs inNs(ns);
      ASSERT_EQ(writeProcSysDev(V6_PROC_NEIGH, veth.name, "retrans_time_ms", "2500"), 0);
      ASSERT_EQ(writeProcSysDev(V4_PROC_CONF + std::string("/"), veth.name, "arp_accept", "1"), 0);
   }
   EXPECT_EQ(readIn(ns, std::string(V6_PROC_NEIGH) + "/" + veth.name + "/retrans_time_ms"), "2500");
   EXPECT_EQ(readIn(ns, std::string(V4_PROC_CONF) + "/" + veth.name + "/arp_accept"), "1");

   // An unknown namespace fails without writing anywhere.
   LogCapture log;
   EXPECT_EQ(writeProcSysInNetNs(ratelimit, "7", NamespaceName("veldtest-nope")), ENOENT);
   EXPECT_EQ(readIn(here, ratelimit), mine);
   EXPECT_TRUE(log.contains("writeProcSysInNetNs: Failed to setns to NS: veldtest-nope"));
}

TEST_F(ProcSysTest, MissingDeviceIsEnoentAndTheCallerDecides) {
   LogCapture log;
   EXPECT_EQ(writeProcSysDev(V6_PROC_CONF, "nosuchdev0", "forwarding", "1"), ENOENT);
   EXPECT_EQ(writeProcSysDev(V4_PROC_CONF, "nosuchdev0", "forwarding", "1"), ENOENT);
   EXPECT_TRUE(setIpv6ProcSysInNetNs("nosuchdev0", "forwarding", "1", NamespaceName(), true));
   EXPECT_FALSE(setIpv6ProcSysInNetNs("nosuchdev0", "forwarding", "1", NamespaceName(), false));
   EXPECT_TRUE(log.lines().empty()) << "a vanished device is not worth a log line";

   // A value the kernel refuses is logged with the errno, the value and the path.
   Veth veth = createVeth();
   std::string path = std::string(V6_PROC_CONF) + "/" + veth.name + "/accept_dad";
   EXPECT_EQ(writeProcSys(path, "abc"), EINVAL);
   EXPECT_TRUE(log.contains("Failed (err: 22) to write abc to " + path));
}

TEST_F(ProcSysTest, IfconfListsInterfacesWithIpv4Addresses) {
   Veth veth = createVeth();
   std::vector<IfconfEntry> entries;
   ASSERT_EQ(ifconfInterfaces(&entries), 0);
   EXPECT_TRUE(entries.empty()) << "no IPv4 address anywhere yet (lo is down)";
   ASSERT_EQ(setLinkUp(sock(), veth.ifindex, true), 0);
   ASSERT_EQ(ipAddrAdd(sock(), veth.ifindex, IpAddrWithMask::parse("198.51.100.7/24").value()), 0);
   ASSERT_EQ(ifconfInterfaces(&entries), 0);
   ASSERT_EQ(entries.size(), 1u);
   EXPECT_EQ(entries[0].name, veth.name);
   EXPECT_EQ(entries[0].addr.toString(), "198.51.100.7");
}

// Inside a namespace scope the writer keeps the last directory open: a write must still
// reach the device of that name now (one deleted and made again under the same name) and
// the namespace the thread is in now (one entered within the scope).
TEST_F(ProcSysTest, AKeptDirectoryNeverWritesToAGoneDeviceOrAnotherNamespace) {
   ScopedNetNs scope{NamespaceName()};
   Veth veth = createVeth();
   std::string dir = std::string(V4_PROC_CONF) + "/" + veth.name + "/";
   ASSERT_EQ(writeProcSys(dir + "arp_ignore", "1"), 0);
   ASSERT_EQ(writeProcSys(dir + "arp_announce", "2"), 0);
   EXPECT_EQ(readIn(NamespaceName(), dir + "arp_announce"), "2");

   ASSERT_EQ(deleteLink(sock(), veth.ifindex), 0);
   EXPECT_EQ(writeProcSys(dir + "arp_ignore", "2"), ENOENT) << "the device is gone";
   ASSERT_EQ(createVethPair(sock(), veth.name, veth.peer), 0);
   ASSERT_EQ(writeProcSys(dir + "arp_ignore", "2"), 0);
   EXPECT_EQ(readIn(NamespaceName(), dir + "arp_ignore"), "2") << "the new device has it";

   // The same path in another namespace is another device's.
   NamespaceName ns = createNamespace();
   int ifindex = 0;
   ASSERT_EQ(linkIndex(sock(), veth.peer, &ifindex), 0);
   ASSERT_EQ(moveLinkToNamedNetNs(sock(), ifindex, ns), 0);
   std::string peerDir = std::string(V4_PROC_CONF) + "/" + veth.peer + "/";
   {
      ScopedNetNs there(ns);
      ASSERT_TRUE(there.ok());
      ASSERT_EQ(writeProcSys(peerDir + "arp_ignore", "1"), 0);
   }
   EXPECT_EQ(writeProcSys(peerDir + "arp_ignore", "2"), ENOENT) << "not in this namespace";
   {
      ScopedNetNs there(ns);
      ASSERT_EQ(writeProcSys(peerDir + "arp_announce", "1"), 0);
      ScopedNetNs back{NamespaceName()};  // default: stays, with a scope of its own
      ASSERT_EQ(writeProcSys(peerDir + "arp_ignore", "2"), 0);
   }
   EXPECT_EQ(readIn(ns, peerDir + "arp_ignore"), "2");
   EXPECT_EQ(readIn(ns, peerDir + "arp_announce"), "1");
}

}  // namespace
}  // namespace KonetTest
