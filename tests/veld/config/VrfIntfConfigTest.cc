// Placing interface configuration in the per-VRF views.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/config/VrfIp6IntfConfigSm.h"
#include "veld/config/VrfIpIntfConfigSm.h"

using namespace Veld;
using Konet::IntfId;
using Mox::make;

namespace {

// Records additions and removals of a view as "<vrf> +<intf>" / "<vrf> -<intf>".
class ViewRecorder : public VrfIpIntfConfig::NotifieeConst {
public:
   ViewRecorder(Mox::Ptr<VrfIpIntfConfig> const& view, std::vector<std::string>* log) : log_(log) {
      notifierIs(view);
   }
   void onIpIntfConfig(IntfId const& intf) override {
      auto view = notifier();
      log_->push_back(view->vrfName().name() + (view->ipIntfConfig(intf) ? " +" : " -") +
                      intf.name());
   }

private:
   std::vector<std::string>* log_;
};

struct VrfIpIntfConfigTest : ::testing::Test {
   Mox::Ptr<Ip::Config> config = make<Ip::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3 = make<L3::Intf::ConfigDir>();
   Mox::Ptr<VrfIpIntfConfigDir> views = make<VrfIpIntfConfigDir>();
   Mox::Ptr<VrfIpIntfConfigSm> sm = VrfIpIntfConfigSmIs(config, views);

   // An interface of `vrf` ("" leaves the VRF unset).
   Mox::Ptr<Ip::IpIntfConfig> intf(char const* name, char const* vrf) {
      auto l3Config = l3->intfConfigIs(IntfId(name));
      l3Config->vrfIs(vrf);
      auto c = config->ipIntfConfigIs(IntfId(name));
      c->l3ConfigIs(l3Config);
      return c;
   }
   void vrfOf(char const* name, char const* vrf) { l3->intfConfig(IntfId(name))->vrfIs(vrf); }
   bool inView(char const* vrf, char const* name) const {
      auto view = views->vrfIpIntfConfig(vrf);
      return view && view->ipIntfConfig(IntfId(name));
   }
};

}  // namespace

TEST_F(VrfIpIntfConfigTest, ParkedInterfaceEntersItsViewWhenTheViewAppears) {
   VeldTest::TraceCapture traces{"VeldVrfIpIntfConfig"};
   auto et1 = intf("Ethernet1", "blue");
   EXPECT_TRUE(traces.contains("VrfIpIntfConfig is NULL for intf Ethernet1"));
   EXPECT_EQ(sm->ipIntfConfig(IntfId("Ethernet1"))->vrfIpIntfConfig(), nullptr);

   auto blue = views->vrfIpIntfConfigIs("blue");
   EXPECT_EQ(blue->ipIntfConfig(IntfId("Ethernet1")), et1);  // the entity itself, not a copy
   EXPECT_EQ(sm->ipIntfConfig(IntfId("Ethernet1"))->vrfIpIntfConfig(), blue);
   EXPECT_TRUE(traces.contains("Added ipIntfConfig Ethernet1 in vrf blue"));
}

TEST_F(VrfIpIntfConfigTest, MoveLeavesTheOldViewBeforeEnteringTheNew) {
   auto red = views->vrfIpIntfConfigIs("red");
   auto blue = views->vrfIpIntfConfigIs("blue");
   intf("Ethernet1", "red");
   std::vector<std::string> log;
   auto onRed = make<ViewRecorder>(red, &log);
   auto onBlue = make<ViewRecorder>(blue, &log);

   vrfOf("Ethernet1", "blue");
   EXPECT_EQ(log, (std::vector<std::string>{"red -Ethernet1", "blue +Ethernet1"}));

   // An unset VRF moves nothing; a VRF without a view parks the interface.
   log.clear();
   vrfOf("Ethernet1", "");
   EXPECT_TRUE(log.empty());
   EXPECT_TRUE(inView("blue", "Ethernet1"));
   vrfOf("Ethernet1", "green");
   EXPECT_EQ(log, (std::vector<std::string>{"blue -Ethernet1"}));
   EXPECT_EQ(sm->ipIntfConfig(IntfId("Ethernet1"))->vrfIpIntfConfig(), nullptr);
}

TEST_F(VrfIpIntfConfigTest, DeletedViewParksItsInterfacesAndARecreatedOneTakesThemBack) {
   views->vrfIpIntfConfigIs("blue");
   intf("Ethernet1", "blue");
   intf("Ethernet2", "blue");
   intf("Ethernet3", "red");
   auto old = views->vrfIpIntfConfig("blue");

   views->vrfIpIntfConfigDel("blue");
   EXPECT_EQ(old->ipIntfConfigSize(), 0u);
   EXPECT_EQ(sm->ipIntfConfig(IntfId("Ethernet1"))->vrfIpIntfConfig(), nullptr);

   auto again = views->vrfIpIntfConfigIs("blue");
   EXPECT_EQ(again->ipIntfConfigSize(), 2u);
   EXPECT_FALSE(again->ipIntfConfig(IntfId("Ethernet3")));
}

TEST_F(VrfIpIntfConfigTest, InterfaceLeavesItsViewWithTheConfigurationOrItsL3Config) {
   auto blue = views->vrfIpIntfConfigIs("blue");
   auto et1 = intf("Ethernet1", "blue");
   intf("Ethernet2", "blue");

   config->ipIntfConfigDel(IntfId("Ethernet1"));
   EXPECT_FALSE(blue->ipIntfConfig(IntfId("Ethernet1")));
   EXPECT_EQ(sm->ipIntfConfigSize(), 1u);

   // A new L3 configuration is followed: its VRF decides.
   auto other = make<L3::Intf::Config>(IntfId("Ethernet2"));
   other->vrfIs("red");
   auto red = views->vrfIpIntfConfigIs("red");
   config->ipIntfConfig(IntfId("Ethernet2"))->l3ConfigIs(other);
   EXPECT_FALSE(blue->ipIntfConfig(IntfId("Ethernet2")));
   EXPECT_TRUE(red->ipIntfConfig(IntfId("Ethernet2")));
   other->vrfIs("blue");
   EXPECT_TRUE(blue->ipIntfConfig(IntfId("Ethernet2")));

   // Letting the machine go takes everything it placed out of the views.
   sm = nullptr;
   EXPECT_EQ(blue->ipIntfConfigSize(), 0u);
}

TEST(VrfIp6IntfConfigTest, PlacesIpv6ConfigurationLikeIpv4) {
   auto config = make<Ip6::Config>();
   auto views = make<VrfIp6IntfConfigDir>();
   auto sm = VrfIp6IntfConfigSmIs(config, views);
   VeldTest::TraceCapture traces{"VeldVrfIp6IntfConfig"};
   auto vlan10 = config->intfIs(IntfId("Vlan10"));
   EXPECT_TRUE(traces.contains("No l3Config"));
   auto l3Config = make<L3::Intf::Config>(IntfId("Vlan10"));
   l3Config->vrfIs("blue");
   vlan10->l3ConfigIs(l3Config);
   EXPECT_TRUE(traces.contains("VrfIpIntfConfig is NULL"));

   auto blue = views->vrfIpIntfConfigIs("blue");
   EXPECT_EQ(blue->ipIntfConfig(IntfId("Vlan10")), vlan10);
   EXPECT_TRUE(traces.contains("Added ip6IntfConfig Vlan10 in vrf blue"));
   config->intfDel(IntfId("Vlan10"));
   EXPECT_EQ(blue->ipIntfConfigSize(), 0u);

   try {
      blue->ipIntfConfigIs(nullptr);
      FAIL() << "a null configuration was accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(),
                   "null _ipIntfConfig parameter to mutator for "
                   "Veld::VrfIp6IntfConfig::ipIntfConfig not allowed");
   }
}

TEST_F(VrfIpIntfConfigTest, StartsFromTheConfigurationAndFollowsReplacedEntities) {
   auto blue = views->vrfIpIntfConfigIs("blue");
   intf("Ethernet1", "blue");
   auto bare = config->ipIntfConfigIs(IntfId("Ethernet2"));  // no L3 configuration yet
   sm = nullptr;
   EXPECT_EQ(blue->ipIntfConfigSize(), 0u);

   VeldTest::TraceCapture traces{"VeldVrfIpIntfConfig"};
   sm = VrfIpIntfConfigSmIs(config, views);
   EXPECT_TRUE(inView("blue", "Ethernet1"));
   EXPECT_TRUE(traces.contains("No l3Config for intf Ethernet2"));
   bare->l3ConfigIs(l3->intfConfig(IntfId("Ethernet1")));
   EXPECT_EQ(blue->ipIntfConfig(IntfId("Ethernet2")), bare);

   // A replaced entity replaces the view's reference.
   config->ipIntfConfigDel(IntfId("Ethernet1"));
   auto fresh = intf("Ethernet1", "blue");
   EXPECT_EQ(blue->ipIntfConfig(IntfId("Ethernet1")), fresh);
}
