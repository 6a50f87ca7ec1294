// Device flags, lookups and moves against the real kernel, and the parsing of link and
// address messages from untrusted bytes.
#include <gtest/gtest.h>

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <random>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkLink.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;

class NetlinkLinkTest : public KernelFixture {};

TEST_F(NetlinkLinkTest, NoArpSetsAndClearsOnlyThatFlag) {
   Veth veth = createVeth();
   ASSERT_EQ(setLinkUp(sock(), veth.ifindex, true), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, true), 0);
   EXPECT_TRUE(waitFor([&] { return link(veth.ifindex).flags & IFF_RUNNING; }))
       << "a veth pair with both ends up gets carrier";
   uint32_t before = link(veth.ifindex).flags;
   EXPECT_FALSE(before & IFF_NOARP);

   ASSERT_EQ(setKintfFlags(sock(), veth.ifindex, IFF_NOARP, IFF_NOARP), 0);
   EXPECT_EQ(link(veth.ifindex).flags, before | IFF_NOARP);
   ASSERT_EQ(setKintfFlags(sock(), veth.ifindex, 0, IFF_NOARP), 0);
   EXPECT_EQ(link(veth.ifindex).flags, before);

   EXPECT_EQ(setKintfFlags(sock(), 999999, IFF_NOARP, IFF_NOARP), ENODEV);
}

TEST_F(NetlinkLinkTest, CarrierChangesAdvanceWithTheLink) {
   Veth veth = createVeth();
   uint32_t start = link(veth.ifindex).carrierChanges;
   ASSERT_EQ(setLinkUp(sock(), veth.peerIfindex, true), 0);
   ASSERT_EQ(setLinkUp(sock(), veth.ifindex, true), 0);
   EXPECT_TRUE(waitFor([&] { return link(veth.ifindex).carrierChanges > start; }));
}

TEST_F(NetlinkLinkTest, BridgePortsAndMovesBetweenNamespaces) {
   Veth veth = createVeth();
   int bridge = 0;
   createBridge(&bridge);
   ASSERT_EQ(setLinkMaster(sock(), veth.ifindex, bridge), 0);
   EXPECT_EQ(link(veth.ifindex).master, bridge);
   ASSERT_EQ(setLinkMaster(sock(), veth.ifindex, 0), 0);
   EXPECT_EQ(link(veth.ifindex).master, 0);

   // By name, then back by descriptor.
   NamespaceName ns = createNamespace();
   ASSERT_EQ(moveLinkToNamedNetNs(sock(), veth.ifindex, ns), 0);
   int here = 0;
   EXPECT_EQ(linkIndex(sock(), veth.name, &here), ENODEV);
   int error = 0;
   Fd nsSock = createNetlinkSocket(ns, 0, 2, true, 0, &error);
   ASSERT_TRUE(nsSock);
   int there = 0;
   ASSERT_EQ(linkIndex(nsSock.get(), veth.name, &there), 0);

   Fd home = getns();
   ASSERT_TRUE(home);
   ASSERT_EQ(moveLinkToNetNs(nsSock.get(), there, home.get()), 0);
   EXPECT_EQ(linkIndex(sock(), veth.name, &here), 0);

   ASSERT_EQ(deleteLink(sock(), here), 0);
   EXPECT_EQ(linkIndex(sock(), veth.peer, &here), ENODEV) << "the peer goes with it";
}

TEST_F(NetlinkLinkTest, UnsafeDeviceNamesAreRefusedBeforeTheKernel) {
   LogCapture log;
   int ifindex = 0;
   EXPECT_EQ(linkIndex(sock(), "a/b", &ifindex), EINVAL);
   EXPECT_EQ(createVethPair(sock(), "ok0", "sixteen-bytes-xx"), EINVAL);
   EXPECT_EQ(Konet::createBridge(sock(), "br 0"), EINVAL);
   EXPECT_TRUE(log.contains("Refusing device name \"sixteen-bytes-xx\": too long"));
   std::vector<LinkInfo> links;
   ASSERT_EQ(dumpLinks(sock(), &links), 0);
   EXPECT_EQ(links.size(), 1u) << "nothing but lo was created";
}

// Builds a well-formed RTM_NEWADDR message for the parser tests.
nlmsghdr* addrMsg(char* buf, uint8_t family, uint16_t addrType, size_t addrLen) {
   std::memset(buf, 0, 256);
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
   nlh->nlmsg_type = RTM_NEWADDR;
   auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
   ifa->ifa_family = family;
   ifa->ifa_prefixlen = 24;
   ifa->ifa_flags = IFA_F_SECONDARY;
   ifa->ifa_index = 7;
   uint8_t addr[16] = {10, 0, 0, 9};
   mnl_attr_put(nlh, addrType, addrLen, addr);
   mnl_attr_put_u32(nlh, IFA_FLAGS, IFA_F_SECONDARY | IFA_F_NOPREFIXROUTE);
   return nlh;
}

TEST(NetlinkParse, AddressMessages) {
   alignas(nlmsghdr) char buf[256];
   AddrInfo info;
   ASSERT_TRUE(parseAddrMsg(addrMsg(buf, AF_INET, IFA_LOCAL, 4), &info));
   EXPECT_EQ(info.ifindex, 7);
   EXPECT_EQ(info.addr, IpGenAddr(IpAddr::parse("10.0.0.9").value()));
   EXPECT_EQ(info.prefixLen, 24);
   EXPECT_EQ(info.flags, uint32_t{IFA_F_SECONDARY | IFA_F_NOPREFIXROUTE}) << "IFA_FLAGS wins";

   EXPECT_FALSE(parseAddrMsg(addrMsg(buf, AF_INET, IFA_LOCAL, 16), &info)) << "size";
   EXPECT_FALSE(parseAddrMsg(addrMsg(buf, AF_INET6, IFA_ADDRESS, 4), &info)) << "size";
   EXPECT_FALSE(parseAddrMsg(addrMsg(buf, AF_PACKET, IFA_ADDRESS, 4), &info)) << "family";
   EXPECT_FALSE(parseAddrMsg(addrMsg(buf, AF_INET, IFA_LABEL, 4), &info)) << "no address";
   nlmsghdr* nlh = addrMsg(buf, AF_INET, IFA_LOCAL, 4);
   nlh->nlmsg_len = mnl_nlmsg_size(sizeof(ifaddrmsg) - 1);
   EXPECT_FALSE(parseAddrMsg(nlh, &info)) << "short header";
}

// Random damage to valid link and address messages: the parsers refuse or accept, never
// read outside the message (the sanitizer build checks that).
TEST(NetlinkParse, DamagedMessagesAreSafe) {
   std::mt19937 rng(42);
   for (int round = 0; round < 20000; ++round) {
      alignas(nlmsghdr) char buf[256];
      nlmsghdr* nlh = addrMsg(buf, round % 2 ? AF_INET : AF_INET6, IFA_ADDRESS, round % 2 ? 4 : 16);
      if (round % 3 == 0) {
         nlh->nlmsg_type = RTM_NEWLINK;
         mnl_attr_put_strz(nlh, IFLA_IFNAME, "et1");
      }
      size_t len = nlh->nlmsg_len;
      for (int i = 0; i < 4; ++i)
         buf[sizeof(nlmsghdr) + rng() % (len - sizeof(nlmsghdr))] = static_cast<char>(rng());
      nlh->nlmsg_len =
          static_cast<uint32_t>(sizeof(nlmsghdr) + rng() % (len - sizeof(nlmsghdr) + 1));
      // Copy to a buffer of exactly the message's size so that overreads are caught.
      std::vector<char> exact(buf, buf + nlh->nlmsg_len);
      auto const* msg = reinterpret_cast<nlmsghdr const*>(exact.data());
      AddrInfo addr;
      LinkInfo link;
      parseAddrMsg(msg, &addr);
      if (parseLinkMsg(msg, &link)) {
         EXPECT_LE(link.name.size(), len);
      }
   }
}

}  // namespace
}  // namespace KonetTest
