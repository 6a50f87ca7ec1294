// Address programming against the real kernel: add and delete with their success rules,
// the exact IPv6 delete request, and the flush of a device going down.
#include <gtest/gtest.h>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "linux/NetNs.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;

IpAddrWithMask v4(char const* text) { return IpAddrWithMask::parse(text).value(); }
Ip6AddrWithMask v6(char const* text) { return Ip6AddrWithMask::parse(text).value(); }

bool has(std::vector<AddrInfo> const& addrs, IpGenAddr const& a, uint8_t len) {
   return std::any_of(addrs.begin(), addrs.end(),
                      [&](auto const& i) { return i.addr == a && i.prefixLen == len; });
}

// What the kernel itself answers to an add or delete, before the success rules apply.
int rawRequest(int sock, nlmsghdr* nlh) { return netlinkRequest(sock, nlh); }

class NetlinkAddrTest : public KernelFixture {};

TEST_F(NetlinkAddrTest, Ipv4AddAndDeleteCountExistingAndMissingAsDone) {
   Veth veth = createVeth();
   IpAddrWithMask a = v4("192.0.2.1/24");

   ASSERT_EQ(ipAddrAdd(sock(), veth.ifindex, a), 0);
   EXPECT_TRUE(has(addrs(veth.ifindex, AF_INET), a.addr(), 24));
   NetlinkBuf buf;
   EXPECT_EQ(rawRequest(sock(), buildIpAddrMsg(buf, RTM_NEWADDR, veth.ifindex, a)), EEXIST);
   EXPECT_EQ(ipAddrAdd(sock(), veth.ifindex, a), 0);

   // The same address with another length is another address: it stays.
   EXPECT_EQ(ipAddrDel(sock(), veth.ifindex, v4("192.0.2.1/16")), 0);
   EXPECT_TRUE(has(addrs(veth.ifindex, AF_INET), a.addr(), 24));

   ASSERT_EQ(ipAddrDel(sock(), veth.ifindex, a), 0);
   EXPECT_TRUE(addrs(veth.ifindex, AF_INET).empty());
   EXPECT_EQ(rawRequest(sock(), buildIpAddrMsg(buf, RTM_DELADDR, veth.ifindex, a)), EADDRNOTAVAIL);
   EXPECT_EQ(ipAddrDel(sock(), veth.ifindex, a), 0);

   // Other errors come back as they are.
   EXPECT_EQ(ipAddrAdd(sock(), 999999, a), ENODEV);
}

TEST_F(NetlinkAddrTest, Ipv6AddAndDeleteCountExistingAndMissingAsDone) {
   Veth veth = createVeth();
   Ip6AddrWithMask a = v6("2001:db8:1::1/64");

   ASSERT_EQ(ip6AddrAdd(sock(), veth.ifindex, a), 0);
   auto now = addrs(veth.ifindex, AF_INET6);
   ASSERT_TRUE(has(now, a.addr(), 64));
   auto it =
       std::find_if(now.begin(), now.end(), [&](auto const& i) { return i.addr == a.addr(); });
   EXPECT_TRUE(it->flags & IFA_F_PERMANENT);
   NetlinkBuf buf;
   EXPECT_EQ(rawRequest(sock(), buildIp6AddrMsg(buf, RTM_NEWADDR, veth.ifindex, a)), EEXIST);
   EXPECT_EQ(ip6AddrAdd(sock(), veth.ifindex, a), 0);

   ASSERT_EQ(ip6AddrDel(sock(), veth.ifindex, a), 0);
   EXPECT_FALSE(has(addrs(veth.ifindex, AF_INET6), a.addr(), 64));
   EXPECT_EQ(rawRequest(sock(), buildIp6AddrMsg(buf, RTM_DELADDR, veth.ifindex, a)), EADDRNOTAVAIL);
   EXPECT_EQ(ip6AddrDel(sock(), veth.ifindex, a), 0);

   // Flags asked for on add reach the kernel.
   Ip6AddrWithMask b = v6("2001:db8:2::1/64");
   ASSERT_EQ(ip6AddrAdd(sock(), veth.ifindex, b, IFA_F_NODAD), 0);
   now = addrs(veth.ifindex, AF_INET6);
   it = std::find_if(now.begin(), now.end(), [&](auto const& i) { return i.addr == b.addr(); });
   ASSERT_NE(it, now.end());
   EXPECT_TRUE(it->flags & IFA_F_NODAD);
   EXPECT_EQ(ip6AddrDel(sock(), 999999, b), ENODEV);
}

TEST(NetlinkAddrMsg, Ipv6DeleteIsThe44ByteRequest) {
   NetlinkBuf buf;
   Ip6AddrWithMask a = v6("2001:db8::1:2/96");
   nlmsghdr* nlh = buildIp6AddrMsg(buf, RTM_DELADDR, 0x01020304, a);
   uint8_t const expected[44] = {
       44,   0,    0,    0,                 // nlmsg_len
       21,   0,                             // RTM_DELADDR
       0x05, 0,                             // NLM_F_REQUEST | NLM_F_ACK
       0,    0,    0,    0,    0, 0, 0, 0,  // seq and port id: set on send
       10,   96,   0,    0,                 // AF_INET6, prefix length, flags, scope
       4,    3,    2,    1,                 // ifindex
       20,   0,    1,    0,                 // IFA_ADDRESS, 16 bytes
       0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2,
   };
   ASSERT_EQ(nlh->nlmsg_len, sizeof expected);
   EXPECT_EQ(std::memcmp(nlh, expected, sizeof expected), 0);
}

// Reads every notification queued on a listening socket.
std::vector<std::pair<uint16_t, AddrInfo>> drainNotifications(int sock) {
   std::vector<std::pair<uint16_t, AddrInfo>> out;
   alignas(nlmsghdr) char buf[16384];
   ssize_t n;
   while ((n = ::recv(sock, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
      int len = static_cast<int>(n);
      for (auto* nlh = reinterpret_cast<nlmsghdr*>(buf); mnl_nlmsg_ok(nlh, len);
           nlh = mnl_nlmsg_next(nlh, &len)) {
         AddrInfo info;
         if (parseAddrMsg(nlh, &info)) out.emplace_back(nlh->nlmsg_type, info);
      }
   }
   return out;
}

// Many adds in one go: over several datagrams, in their order (the first of a subnet is its
// primary), each with its own result, a failed one in the middle stopping nothing.
TEST_F(NetlinkAddrTest, AddAllKeepsTheOrderAndEachRequestsResult) {
   Veth veth = createVeth();
   ASSERT_EQ(ipAddrAdd(sock(), veth.ifindex, v4("10.9.0.3/24")), 0);
   std::vector<IpAddrAdd> adds;
   for (int i = 1; i <= 40; ++i) {
      std::string a = "10.1." + std::to_string(i) + ".1/24";
      adds.push_back({veth.ifindex, v4(a.c_str())});
   }
   adds.push_back({veth.ifindex, v4("10.9.0.3/24")});  // there already: done
   adds.push_back({999999, v4("10.8.0.1/24")});        // no such device
   adds.push_back({veth.ifindex, v4("10.1.1.2/24")});  // a secondary of the first
   adds.push_back({veth.ifindex, v4("10.7.0.1/24"), IFA_F_NOPREFIXROUTE});
   std::vector<int> results;
   ipAddrAddAll(sock(), adds, &results);
   ASSERT_EQ(results.size(), adds.size());
   for (size_t i = 0; i < adds.size(); ++i)
      EXPECT_EQ(results[i], i == 41 ? ENODEV : 0) << adds[i].addr;

   auto now = addrs(veth.ifindex, AF_INET);
   EXPECT_EQ(now.size(), 43u);
   for (auto const& i : now) {
      if (i.addr.toString() == "10.1.1.2") {
         EXPECT_TRUE(i.flags & IFA_F_SECONDARY);
      } else {
         EXPECT_FALSE(i.flags & IFA_F_SECONDARY) << i.addr.toString();
      }
      EXPECT_EQ(bool(i.flags & IFA_F_NOPREFIXROUTE), i.addr.toString() == "10.7.0.1");
   }

   // Nothing is left behind on the socket: the next request gets its own answer.
   EXPECT_EQ(ipAddrDel(sock(), veth.ifindex, v4("10.7.0.1/24")), 0);
   EXPECT_EQ(addrs(veth.ifindex, AF_INET).size(), 42u);
}

TEST_F(NetlinkAddrTest, FlushRemovesPrimariesAndSecondariesWithoutPromotion) {
   NamespaceName ns = createNamespace();
   Veth veth = createVeth();
   ASSERT_EQ(moveLinkToNamedNetNs(sock(), veth.ifindex, ns), 0);
   int error = 0;
   Fd nsSock = createNetlinkSocket(ns, 0, 2, true, 0, &error);
   ASSERT_TRUE(nsSock) << error;
   Fd listener = createNetlinkSocket(ns, RTMGRP_IPV4_IFADDR, 2, true, 1 << 20, &error);
   ASSERT_TRUE(listener) << error;
   int ifindex = 0;
   ASSERT_EQ(linkIndex(nsSock.get(), veth.name, &ifindex), 0);

   std::string promote = std::string(V4_PROC_CONF) + "/" + veth.name + "/promote_secondaries";
   ASSERT_EQ(writeProcSysInNetNs(promote, "1", ns), 0);
   for (char const* a :
        {"10.1.0.1/24", "10.1.0.2/24", "10.1.0.3/24", "10.2.0.1/16", "10.2.0.5/16"}) {
      ASSERT_EQ(ipAddrAdd(nsSock.get(), ifindex, v4(a)), 0) << a;
   }
   ASSERT_EQ(ip6AddrAdd(nsSock.get(), ifindex, v6("2001:db8::5/64")), 0);
   auto before = addrs(ifindex, AF_INET, nsSock.get());
   ASSERT_EQ(before.size(), 5u);
   EXPECT_EQ(std::count_if(before.begin(), before.end(),
                           [](auto const& i) { return i.flags & IFA_F_SECONDARY; }),
             3);
   drainNotifications(listener.get());

   ASSERT_EQ(ipAddrFlush(nsSock.get(), ifindex, veth.name, ns.name()), 0);

   EXPECT_TRUE(addrs(ifindex, AF_INET, nsSock.get()).empty());
   EXPECT_TRUE(has(addrs(ifindex, AF_INET6, nsSock.get()), v6("2001:db8::5/64").addr(), 64))
       << "the IPv4 flush must leave IPv6 alone";
   // Every address went by deletion; a promotion would show as RTM_NEWADDR.
   auto events = drainNotifications(listener.get());
   EXPECT_EQ(events.size(), 5u);
   for (auto const& [type, info] : events) {
      EXPECT_EQ(type, RTM_DELADDR) << "promoted " << info.addr;
   }
   std::string value;
   {
      ScopedNetNs inNs(ns);
      ASSERT_TRUE(inNs.ok());
      ASSERT_EQ(readProcSys(promote, &value), 0);
   }
   EXPECT_EQ(value, "1");

   // Nothing left to flush is a success too.
   EXPECT_EQ(ipAddrFlush(nsSock.get(), ifindex, veth.name, ns.name()), 0);
}

TEST_F(NetlinkAddrTest, FlushRefusesBadNames) {
   Veth veth = createVeth();
   LogCapture log;
   EXPECT_EQ(ipAddrFlush(sock(), veth.ifindex, "../../../etc", ""), EINVAL);
   EXPECT_EQ(ipAddrFlush(sock(), veth.ifindex, veth.name, "../x"), EINVAL);
   EXPECT_THROW(ipAddrFlush(sock(), veth.ifindex, veth.name, std::string(151, 'n')),
                Mox::RangeException);
   // A device of another namespace has no promote_secondaries here.
   EXPECT_EQ(ipAddrFlush(sock(), veth.ifindex, "nosuchdev", ""), ENOENT);
}

}  // namespace
}  // namespace KonetTest
