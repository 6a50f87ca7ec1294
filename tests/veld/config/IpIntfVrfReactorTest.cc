// The namespace of each interface follows its VRF's local status.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/config/IpIntfVrfReactor.h"

using namespace Veld;
using Konet::IntfId;
using Konet::NamespaceName;
using Mox::make;

namespace {

struct IpIntfVrfReactorTest : ::testing::Test {
   Mox::Ptr<Ip::Config> config = make<Ip::Config>();
   Mox::Ptr<Ip::AllVrfStatusLocal> local = make<Ip::AllVrfStatusLocal>();
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir> nsConfig =
       make<Interface::AllIntfNamespaceConfigDir>();
   Mox::Ptr<L3::Intf::Config> et1L3 = make<L3::Intf::Config>(IntfId("Ethernet1"));
   Mox::Ptr<IpIntfVrfReactor> sm;

   void SetUp() override {
      et1L3->vrfIs("blue");
      config->ipIntfConfigIs(IntfId("Ethernet1"))->l3ConfigIs(et1L3);
   }
   Mox::Ptr<Ip::VrfStatusLocal> vrf(char const* name, char const* ns, Ip::VrfState state) {
      auto s = local->vrfIs(name);
      s->netNsNameIs(ns);
      s->stateIs(state);
      return s;
   }
   void start() { sm = IpIntfVrfReactorIs(config, local, nsConfig); }
   NamespaceName nsOf(char const* intf) const {
      auto c = nsConfig->intfNamespaceConfig(IntfId(intf));
      return c ? c->netNsName() : NamespaceName("<none>");
   }
};

}  // namespace

TEST_F(IpIntfVrfReactorTest, NamespaceFollowsTheVrfState) {
   start();
   EXPECT_EQ(nsOf("Ethernet1"), NamespaceName::defaultNamespace());

   auto blue = vrf("blue", "ns-blue", Ip::VrfState::initializing);
   EXPECT_EQ(nsOf("Ethernet1"), NamespaceName::defaultNamespace());
   blue->stateIs(Ip::VrfState::active);
   EXPECT_EQ(nsOf("Ethernet1"), "ns-blue");

   // A state other than active or deleting leaves the namespace alone.
   blue->stateIs(Ip::VrfState::initializing);
   EXPECT_EQ(nsOf("Ethernet1"), "ns-blue");
   blue->stateIs(Ip::VrfState::deleting);
   EXPECT_EQ(nsOf("Ethernet1"), NamespaceName::defaultNamespace());

   blue->stateIs(Ip::VrfState::active);
   local->vrfDel("blue");
   EXPECT_EQ(nsOf("Ethernet1"), NamespaceName::defaultNamespace());
}

TEST_F(IpIntfVrfReactorTest, VrfChangeAndMissingL3ConfigPickTheRightVrf) {
   vrf("blue", "ns-blue", Ip::VrfState::active);
   vrf("red", "ns-red", Ip::VrfState::active);
   vrf("default", "ns-default", Ip::VrfState::active);
   config->ipIntfConfigIs(IntfId("Ethernet2"));  // no L3 configuration: the default VRF
   start();
   EXPECT_EQ(nsOf("Ethernet1"), "ns-blue");
   EXPECT_EQ(nsOf("Ethernet2"), "ns-default");

   et1L3->vrfIs("red");
   EXPECT_EQ(nsOf("Ethernet1"), "ns-red");
   et1L3->vrfIs("green");  // no status yet
   EXPECT_EQ(nsOf("Ethernet1"), NamespaceName::defaultNamespace());
   vrf("green", "ns-green", Ip::VrfState::active);
   EXPECT_EQ(nsOf("Ethernet1"), "ns-green");
}

TEST_F(IpIntfVrfReactorTest, InterfaceLeavingTheConfigurationLosesItsNamespaceEntry) {
   vrf("blue", "ns-blue", Ip::VrfState::active);
   start();
   config->ipIntfConfigIs(IntfId("Ethernet2"));
   EXPECT_TRUE(nsConfig->intfNamespaceConfig(IntfId("Ethernet2")));

   config->ipIntfConfigDel(IntfId("Ethernet1"));
   EXPECT_FALSE(nsConfig->intfNamespaceConfig(IntfId("Ethernet1")));
   EXPECT_EQ(sm->ipIntfConfigReactorSize(), 1u);

   // Its old VRF changing state no longer reaches it.
   local->vrf("blue")->stateIs(Ip::VrfState::deleting);
   EXPECT_FALSE(nsConfig->intfNamespaceConfig(IntfId("Ethernet1")));
}

TEST_F(IpIntfVrfReactorTest, ReinitialisationReconcilesWithTheConfiguration) {
   vrf("blue", "ns-blue", Ip::VrfState::active);
   start();
   // Changes the machine did not hear about.
   sm->hasNotificationActiveIs(false);
   config->ipIntfConfigDel(IntfId("Ethernet1"));
   config->ipIntfConfigIs(IntfId("Ethernet2"))->l3ConfigIs(et1L3);
   sm->hasNotificationActiveIs(true);

   sm->initializedIs(false);
   sm->handleInitialized();
   EXPECT_FALSE(sm->ipIntfConfigReactor(IntfId("Ethernet1")));
   EXPECT_FALSE(nsConfig->intfNamespaceConfig(IntfId("Ethernet1")));
   EXPECT_EQ(nsOf("Ethernet2"), "ns-blue");
}

TEST_F(IpIntfVrfReactorTest, TracesSayWhyTheNamespaceChanged) {
   VeldTest::TraceCapture traces{"VeldIpIntfVrf"};
   auto blue = vrf("blue", "ns-blue", Ip::VrfState::active);
   start();
   EXPECT_TRUE(traces.contains(" found Status for Vrf:blue"));
   EXPECT_TRUE(traces.contains(" Vrf is active, setting ns: ns-blue"));

   // The VRF's namespace is followed while it is active.
   blue->netNsNameIs("ns-blue2");
   EXPECT_EQ(nsOf("Ethernet1"), "ns-blue2");

   blue->stateIs(Ip::VrfState::deleting);
   EXPECT_TRUE(traces.contains(" Vrf is deleting, removing ns: ns-blue2"));
   local->vrfDel("blue");
   EXPECT_TRUE(traces.contains(" vrfStatusLocal is NULL, removing ns: "));
}
