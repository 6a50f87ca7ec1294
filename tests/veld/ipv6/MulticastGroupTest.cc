// Multicast group membership of both families, one typed test each: the IPv6 machines and
// their IPv4 twins must behave alike.
#include <gtest/gtest.h>

#include "../TraceCapture.h"
#include "veld/ipv4/MulticastIpGroupAppDirSm.h"
#include "veld/ipv6/MulticastGroupAppDirSm.h"

namespace VeldTest {
namespace {

using Konet::IntfId;
using Mox::make;
using Names = std::set<Mox::String>;

struct V6 {
   using DirSm = Veld::MulticastGroupAppDirSm;
   using Groups = Ip6::MulticastGroupsForApplications;
   using Input = Ip6::Input::Status;
   using Addr = Konet::Ip6Addr;
   static constexpr char const* facility = "VeldMulticast6";
   static Addr group(int n) { return *Konet::Ip6Addr::parse("ff02::" + std::to_string(n)); }
   static auto statusIs(Input& in, IntfId const& id) { return in.ip6IntfStatusIs(id); }
   static auto status(Input& in, IntfId const& id) { return in.ip6IntfStatus(id); }
   static void statusDel(Input& in, IntfId const& id) { in.ip6IntfStatusDel(id); }
};
struct V4 {
   using DirSm = Veld::MulticastIpGroupAppDirSm;
   using Groups = Ip::MulticastGroupsForApplications;
   using Input = Ip::Input::Status;
   using Addr = Konet::IpAddr;
   static constexpr char const* facility = "VeldMulticast";
   static Addr group(int n) { return *Konet::IpAddr::parse("224.0.0." + std::to_string(n)); }
   static auto statusIs(Input& in, IntfId const& id) { return in.ipIntfStatusIs(id); }
   static auto status(Input& in, IntfId const& id) { return in.ipIntfStatus(id); }
   static void statusDel(Input& in, IntfId const& id) { in.ipIntfStatusDel(id); }
};

template <class F>
class MulticastGroupTest : public ::testing::Test {
protected:
   void makeSm() {
      sm = make<typename F::DirSm>(typename F::DirSm::Inputs{
          .groups = groups, .systemIntfStatus = system, .localIntfStatus = local});
   }
   // The applications of a group on an interface (empty: the group is not listed).
   Names apps(char const* intf, int group, bool isLocal = false) {
      auto s = F::status(isLocal ? *local : *system, IntfId(intf));
      auto const* info = s ? s->mcaddr(F::group(group)) : nullptr;
      return info ? info->applications() : Names{};
   }
   void join(char const* app, char const* intf, int group) {
      groups->applicationIs(app)->multicastAddrIs({IntfId(intf), F::group(group)});
   }
   void leave(char const* app, char const* intf, int group) {
      groups->applicationIs(app)->multicastAddrDel({IntfId(intf), F::group(group)});
   }

   Mox::Ptr<typename F::Groups> groups = make<typename F::Groups>();
   Mox::Ptr<typename F::Input> system = make<typename F::Input>("veld");
   Mox::Ptr<typename F::Input> local = make<typename F::Input>("veld-local");
   Mox::Ptr<typename F::DirSm> sm;
};

using Families = ::testing::Types<V6, V4>;
TYPED_TEST_SUITE(MulticastGroupTest, Families);

TYPED_TEST(MulticastGroupTest, ApplicationsShareAGroupUntilTheLastOneLeaves) {
   TypeParam::statusIs(*this->system, IntfId("Ethernet1"));
   this->makeSm();
   EXPECT_TRUE(this->groups->application("veld"));  // the agent's own, first
   EXPECT_EQ(this->sm->appSmSize(), 1u);
   this->join("veld", "Ethernet1", 1);
   this->join("snoop", "Ethernet1", 1);
   this->join("snoop", "Ethernet1", 1);  // once is enough
   EXPECT_EQ(this->apps("Ethernet1", 1), (Names{"snoop", "veld"}));
   this->leave("veld", "Ethernet1", 1);
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{"snoop"});
   this->leave("veld", "Ethernet1", 1);  // leaving twice changes nothing
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{"snoop"});
   this->leave("snoop", "Ethernet1", 1);
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{});
   EXPECT_TRUE(TypeParam::status(*this->system, IntfId("Ethernet1"))->mcaddrIterator().empty());
}

TYPED_TEST(MulticastGroupTest, AnApplicationThatGoesLeavesEveryGroupOfEveryInterface) {
   TypeParam::statusIs(*this->system, IntfId("Ethernet1"));
   TypeParam::statusIs(*this->system, IntfId("Ethernet2"));
   TypeParam::statusIs(*this->local, IntfId("Test1"));
   this->makeSm();
   this->join("snoop", "Ethernet1", 1);
   this->join("snoop", "Ethernet1", 2);
   this->join("snoop", "Ethernet2", 1);
   this->join("snoop", "Test1", 3);
   this->join("veld", "Ethernet1", 1);
   ASSERT_EQ(this->apps("Test1", 3, true), Names{"snoop"});  // local interfaces' own status
   this->groups->applicationDel("snoop");
   EXPECT_EQ(this->sm->appSmSize(), 1u);
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{"veld"});
   EXPECT_EQ(this->apps("Ethernet1", 2), Names{});
   EXPECT_EQ(this->apps("Ethernet2", 1), Names{});
   EXPECT_EQ(this->apps("Test1", 3, true), Names{});

   // The same name again is a new application, which starts from its own entries.
   this->join("snoop", "Ethernet2", 2);
   EXPECT_EQ(this->apps("Ethernet2", 2), Names{"snoop"});
   EXPECT_EQ(this->apps("Ethernet1", 2), Names{});
}

TYPED_TEST(MulticastGroupTest, GroupsWaitForTheirInterfacesStatus) {
   this->makeSm();
   TraceCapture traces{TypeParam::facility};
   this->join("snoop", "Ethernet1", 1);
   this->join("snoop", "Ethernet1", 2);
   this->join("veld", "Ethernet1", 2);
   EXPECT_TRUE(traces.contains(" status intf not available"));
   TypeParam::statusIs(*this->system, IntfId("Ethernet1"));
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{"snoop"});
   EXPECT_EQ(this->apps("Ethernet1", 2), (Names{"snoop", "veld"}));
   // Both twins say "No ip6Status" when a status goes.
   TypeParam::statusDel(*this->system, IntfId("Ethernet1"));
   EXPECT_TRUE(traces.contains("No ip6Status for Ethernet1"));
   // A status made again gets the groups again.
   TypeParam::statusIs(*this->system, IntfId("Ethernet1"));
   EXPECT_EQ(this->apps("Ethernet1", 2), (Names{"snoop", "veld"}));
}

TYPED_TEST(MulticastGroupTest, AStartForgetsApplicationsThatAreGone) {
   // Left on a status by an earlier run: one group of a departed application only, one
   // shared with one that is still there.
   auto s = TypeParam::statusIs(*this->system, IntfId("Ethernet1"));
   s->mcaddrIs(TypeParam::group(1), Mcast::MulticastGroupInfo(Names{"gone"}));
   s->mcaddrIs(TypeParam::group(2), Mcast::MulticastGroupInfo(Names{"gone", "snoop"}));
   this->join("snoop", "Ethernet1", 2);
   this->makeSm();
   EXPECT_EQ(this->apps("Ethernet1", 1), Names{});
   EXPECT_EQ(this->apps("Ethernet1", 2), Names{"snoop"});
   EXPECT_EQ(this->sm->appSmSize(), 2u);
}

}  // namespace
}  // namespace VeldTest
