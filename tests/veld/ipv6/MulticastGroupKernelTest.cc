// The agent's own multicast groups against the groups the kernel has joined: for an
// interface with IPv6 addresses, the groups the status lists for "veld" are the all-nodes
// group and the solicited-node group of every address, which the kernel joins by itself.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Ip6IntfSmFixture.h"
#include "veld/ipv6/MulticastGroupAppDirSm.h"

namespace VeldTest {
namespace {

class MulticastGroupKernelTest : public Ip6IntfSmFixture {
protected:
   void makeGroupsSm() {
      groupsSm = make<Veld::MulticastGroupAppDirSm>(Veld::MulticastGroupAppDirSm::Inputs{
          .groups = groups, .systemIntfStatus = systemStatus, .localIntfStatus = localStatus});
   }
   // The kernel's groups of a device (/proc/net/igmp6 of the test's namespace) that the
   // kernel joins for its addresses: all-nodes and the solicited-node ones (ff02::1:ff00:0/104).
   Set kernelGroups(std::string const& dev) {
      Set out;
      std::ifstream in("/proc/net/igmp6");
      std::string line;
      while (std::getline(in, line)) {
         std::istringstream f(line);
         std::string index, name, hex;
         f >> index >> name >> hex;
         if (name != dev || hex.size() != 32) continue;
         Konet::Ip6Addr::Bytes b{};
         for (size_t i = 0; i < 16; ++i)
            b[i] = uint8_t(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
         Konet::Ip6Addr g(b);
         bool solicited = b[0] == 0xff && b[1] == 0x02 && b[11] == 0x01 && b[12] == 0xff;
         for (size_t i = 2; i < 11; ++i)
            solicited = solicited && b[i] == 0;
         if (g == Konet::Ip6Addr::allNodes() || solicited) out.insert(g.toString());
      }
      return out;
   }
   // The groups the status lists for an application.
   Set statusGroups(IntfId const& id, char const* app = "veld") {
      Set out;
      if (auto s = systemStatus->ip6IntfStatus(id)) {
         for (auto const& [g, info] : s->mcaddrIterator()) {
            if (info.application(app)) out.insert(g.toString());
         }
      }
      return out;
   }
   Mox::Ptr<Veld::MulticastGroupAppDirSm> groupsSm;
};

TEST_F(MulticastGroupKernelTest, TheAgentsGroupsAreTheGroupsTheKernelJoined) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::aa:bbcc/64"));
   e1.config->addrIs(v6("2001:db8:2::1/64"));  // shares its group with 2001:db8:1::1
   place(e1);
   // Not forwarding: a forwarding interface also joins the groups of its prefixes'
   // subnet-router anycast addresses, which are the kernel's own business.
   routing->routingIs(false);
   makeGroupsSm();  // before the statuses exist: the groups arrive with them
   makeSm();
   settle();
   ASSERT_EQ(kernelAddrs(e1.veth.ifindex).size(), 4u);
   auto want = Set{"ff02::1", "ff02::1:ff00:1", "ff02::1:ffaa:bbcc",
                   v6((linkLocalOf(e1.mac)).c_str()).addr().solicitedNodeMulticast().toString()};
   EXPECT_EQ(kernelGroups(e1.veth.name), want);
   EXPECT_EQ(statusGroups(e1.id), kernelGroups(e1.veth.name));

   // An address that goes takes its group along, in the kernel and in the status; a group
   // another address still needs stays.
   e1.config->addrDel(v6("2001:db8:1::aa:bbcc/64"));
   e1.config->addrDel(v6("2001:db8:2::1/64"));
   settle();
   EXPECT_TRUE(
       KonetTest::waitFor([&] { return !kernelGroups(e1.veth.name).count("ff02::1:ffaa:bbcc"); }));
   EXPECT_EQ(statusGroups(e1.id), kernelGroups(e1.veth.name));
   EXPECT_TRUE(statusGroups(e1.id).count("ff02::1:ff00:1"));

   // A restarted agent finds the same groups.
   groupsSm = nullptr;
   restart();
   makeGroupsSm();
   settle();
   EXPECT_EQ(statusGroups(e1.id), kernelGroups(e1.veth.name));
}

TEST_F(MulticastGroupKernelTest, AnotherApplicationSharesTheAgentsGroupAndLeavesItBehind) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   routing->routingIs(false);  // no subnet-router anycast groups (above)
   makeSm();
   makeGroupsSm();
   settle();
   auto snoop = groups->applicationIs("mld-snoop");
   snoop->multicastAddrIs({e1.id, Konet::Ip6Addr::allNodes()});
   snoop->multicastAddrIs({e1.id, v6("ff02::fb/128").addr()});
   auto const* allNodes = systemStatus->ip6IntfStatus(e1.id)->mcaddr(Konet::Ip6Addr::allNodes());
   ASSERT_TRUE(allNodes);
   EXPECT_EQ(allNodes->applications(), (std::set<Mox::String>{"mld-snoop", "veld"}));
   EXPECT_EQ(statusGroups(e1.id, "mld-snoop"), (Set{"ff02::1", "ff02::fb"}));

   groups->applicationDel("mld-snoop");
   EXPECT_EQ(statusGroups(e1.id, "mld-snoop"), Set{});
   EXPECT_FALSE(systemStatus->ip6IntfStatus(e1.id)->mcaddr(v6("ff02::fb/128").addr()));
   EXPECT_EQ(statusGroups(e1.id), kernelGroups(e1.veth.name));
}

}  // namespace
}  // namespace VeldTest
