// VRF roots: when they appear and go, and what they do inside their VRF's namespace.
#include <gtest/gtest.h>

#include "linux/NetNs.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "tests/linux/KernelFixture.h"
#include "tests/veld/TraceCapture.h"
#include "veld/root/Root.h"
#include "veld/root/VrfRootSm.h"

using namespace Veld;
using Konet::NamespaceName;
using L3::VrfName;
using Mox::make;

namespace {

constexpr char kForwarding6[] = "/proc/sys/net/ipv6/conf/all/forwarding";

std::string readIn(NamespaceName const& ns, char const* path) {
   Konet::ScopedNetNs inNs(ns);
   std::string value;
   EXPECT_EQ(Konet::readProcSys(path, &value), 0) << path << " in " << ns;
   return value;
}

class VrfRootTest : public KonetTest::KernelFixture {
protected:
   Mox::Ptr<Larder::EntityManager> mgr = make<Larder::EntityManager>();
   Mox::Ptr<Routing::VrfInfoConfigDir> routing = make<Routing::VrfInfoConfigDir>();
   Mox::Ptr<Routing6::VrfInfoConfigDir> routing6 = make<Routing6::VrfInfoConfigDir>();
   Mox::Ptr<Routing6::InfoConfig> defaultRouting6 = make<Routing6::InfoConfig>();
   Mox::Ptr<Ip::AllVrfStatusGlobal> global = make<Ip::AllVrfStatusGlobal>();
   Mox::Ptr<Ip::AllVrfStatusLocal> local = make<Ip::AllVrfStatusLocal>();
   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<VrfIpIntfConfigDir> views = make<VrfIpIntfConfigDir>();
   Mox::Ptr<VrfIp6IntfConfigDir> views6 = make<VrfIp6IntfConfigDir>();
   Mox::Ptr<Interface::AllIntfStatusDir> intfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managers =
       make<Interface::NetNsIntfStatusManagerRoot>(intfStatus, nullptr, false);
   Mox::Ptr<VrfRootSm> sm;

   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      sm = VrfRootSm::VrfRootSmIs(inputs(defaultRouting6), false);
   }
   void TearDown() override {
      sm = nullptr;
      KernelFixture::TearDown();
   }
   VrfRootSm::Inputs inputs(Mox::Ptr<Routing6::InfoConfig const> const& defaultRouting6) {
      return {.routingVrfInfoConfigDir = routing,
              .allVrfStatusGlobal = global,
              .allVrfStatusLocal = local,
              .ipConfig = ipConfig,
              .allIntfStatusDir = intfStatus,
              .routing6InfoConfig = defaultRouting6,
              .routing6VrfInfoConfigDir = routing6,
              .entityMgr = mgr,
              .vrfIpIntfConfigDir = views,
              .vrfIp6IntfConfigDir = views6,
              .intfStatusManagerRoot = managers};
   }

   // A VRF whose namespace exists and whose kernel mirror is published, in `state`.
   NamespaceName vrfIs(VrfName const& vrf, Ip::VrfState state) {
      auto ns = createNamespace();
      mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()),
                    make<KernelNetInfo::Status>(ns));
      global->vrfIs(vrf);
      auto status = local->vrfIs(vrf);
      status->netNsNameIs(ns);
      status->stateIs(state);
      return ns;
   }
   void routingIs(VrfName const& vrf) {
      routing->vrfConfigIs(vrf);
      routing6->vrfConfigIs(vrf);
   }
};

}  // namespace

TEST_F(VrfRootTest, RootAppearsOnceConfiguredAndReadyInEitherOrder) {
   VeldTest::TraceCapture traces{"VeldVrfRootSm"};
   // Configuration first.
   routingIs("blue");
   EXPECT_TRUE(traces.contains(" not ready for vrf blue"));
   auto blueNs = vrfIs("blue", Ip::VrfState::initializing);
   EXPECT_FALSE(sm->vrfRoot("blue"));
   local->vrf("blue")->stateIs(Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue);
   EXPECT_TRUE(blue->initialized());
   EXPECT_EQ(blue->ns(), blueNs);
   EXPECT_EQ(blue->inputs().vrfIpIntfConfig, views->vrfIpIntfConfig("blue"));
   EXPECT_EQ(blue->inputs().vrfIp6IntfConfig, views6->vrfIpIntfConfig("blue"));

   // Readiness first; IPv4 routing alone is not enough.
   vrfIs("red", Ip::VrfState::active);
   routing->vrfConfigIs("red");
   EXPECT_TRUE(traces.contains(" no routing[6]InfoConfig red"));
   EXPECT_FALSE(sm->vrfRoot("red"));
   routing6->vrfConfigIs("red");
   EXPECT_TRUE(sm->vrfRoot("red"));

   // Re-delivery or loss of the configuration neither rebuilds nor deletes a root.
   sm->handleRoutingVrfConfig("blue");
   routing6->vrfConfigDel("blue");
   routing->vrfConfigDel("blue");
   EXPECT_EQ(sm->vrfRoot("blue"), blue);
   EXPECT_EQ(sm->vrfRootSize(), 2u);
}

TEST_F(VrfRootTest, RootWorksInsideItsNamespace) {
   routingIs("blue");
   auto ns = vrfIs("blue", Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue && blue->initialized());

   EXPECT_EQ(readIn(ns, "/proc/sys/net/ipv4/icmp_ratelimit"), "0");
   EXPECT_EQ(readIn(ns, "/proc/sys/net/ipv6/icmp/ratelimit"), "0");
   EXPECT_EQ(readIn(ns, "/proc/sys/net/ipv4/igmp_max_memberships"), "65535");

   // Its socket is in the VRF's namespace: a device of the agent's namespace is not there.
   ASSERT_GE(blue->netlinkSocket(), 0);
   auto veth = createVeth();
   Konet::LinkInfo info;
   EXPECT_NE(Konet::getLink(blue->netlinkSocket(), veth.ifindex, &info), 0);

   EXPECT_EQ(blue->kniStatus(),
             mgr->entity<KernelNetInfo::Status>(Larder::formatPath("kni/ns/%s/status", ns.name())));
   EXPECT_EQ(blue->addrMap()->kniStatus(), blue->kniStatus());
   EXPECT_TRUE(blue->addrMapSm()->initialized());
   EXPECT_EQ(managers->intfStatusManager(ns)->deviceIntfStatusDir(), blue->kernelIntfDir());
   EXPECT_FALSE(blue->cleanupLoopbackIntfSm());  // no loopback configuration published
}

TEST_F(VrfRootTest, DeletingTheLocalStatusDeletesTheRootAndItsIpv4View) {
   mgr->entityIs("interface/config/loopback/intf", make<Interface::LoopbackIntfConfigDir>());
   routingIs("blue");
   auto ns = vrfIs("blue", Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue && blue->initialized());
   EXPECT_EQ(blue->cleanupLoopbackIntfSm()->ns(), ns);

   local->vrfDel("blue");
   EXPECT_FALSE(sm->vrfRoot("blue"));
   EXPECT_FALSE(views->vrfIpIntfConfig("blue"));
   EXPECT_FALSE(managers->intfStatusManager(ns));
   EXPECT_EQ(blue->netlinkSocket(), -1);
   EXPECT_FALSE(blue->addrMap());
}

TEST_F(VrfRootTest, Ipv6RoutingDrivesForwardingInEachNamespace) {
   NamespaceName const def = NamespaceName::defaultNamespace();
   defaultRouting6->routingIs(true);
   EXPECT_EQ(readIn(def, kForwarding6), "1");
   defaultRouting6->routingIs(false);
   EXPECT_EQ(readIn(def, kForwarding6), "0");

   routingIs("blue");
   auto ns = vrfIs("blue", Ip::VrfState::active);
   auto config = routing6->vrfConfig("blue");
   config->routingIs(true);
   EXPECT_EQ(readIn(ns, kForwarding6), "1");
   EXPECT_EQ(readIn(def, kForwarding6), "0");
   config->routingIs(false);
   EXPECT_EQ(readIn(ns, kForwarding6), "0");

   // The agent deletes and makes again the VRF's routing entries while its root lives: the
   // root follows the new ones.
   auto blue = sm->vrfRoot("blue");
   routing6->vrfConfigDel("blue");
   routing->vrfConfigDel("blue");
   routingIs("blue");
   EXPECT_EQ(sm->vrfRoot("blue"), blue);
   EXPECT_EQ(blue->inputs().routingInfoConfig, routing->vrfConfig("blue"));
   EXPECT_EQ(blue->inputs().routing6InfoConfig, routing6->vrfConfig("blue"));
   routing6->vrfConfig("blue")->routingIs(true);
   EXPECT_EQ(readIn(ns, kForwarding6), "1");
   config->routingIs(false);  // the old entry no longer counts
   EXPECT_EQ(readIn(ns, kForwarding6), "1");

   // Asking for the root with other routing entries is no changed parameter either.
   auto inputs = blue->inputs();
   auto other = make<Routing6::InfoConfig>(VrfName("blue"));
   inputs.routing6InfoConfig = other;
   EXPECT_EQ(sm->vrfRootIs("blue", inputs, false), blue);
   EXPECT_EQ(blue->inputs().routing6InfoConfig, other);
   EXPECT_EQ(readIn(ns, kForwarding6), "0");
}

TEST_F(VrfRootTest, StandbyReachesEveryRootAndParametersAreChecked) {
   routingIs("blue");
   vrfIs("blue", Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   sm->standbyModeIs(true);
   EXPECT_TRUE(blue->standbyMode());
   routingIs("red");
   vrfIs("red", Ip::VrfState::active);
   EXPECT_TRUE(sm->vrfRoot("red")->standbyMode());

   auto inputs = blue->inputs();
   EXPECT_EQ(sm->vrfRootIs("blue", inputs, false), blue);
   EXPECT_FALSE(blue->standbyMode());
   inputs.ipConfig = make<Ip::Config>();
   try {
      sm->vrfRootIs("blue", inputs, false);
      FAIL() << "a changed constructor parameter was accepted";
   } catch (Mox::NameInUseException const& e) {
      EXPECT_EQ(std::string(e.what()),
                "Reinstantiating the pointer interface where constructor parameter attribute "
                "_ipConfig has a different value of " +
                    Mox::describe(inputs.ipConfig) + " than the current value of " +
                    Mox::describe(ipConfig) + " not allowed");
   }
}

TEST_F(VrfRootTest, RootWithoutAKernelMirrorStaysUninitialised) {
   routingIs("blue");
   auto ns = vrfIs("blue", Ip::VrfState::initializing);
   mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()), make<Ip::AllVrfConfig>());
   local->vrf("blue")->stateIs(Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue);
   EXPECT_FALSE(blue->initialized());
   EXPECT_EQ(blue->netlinkSocket(), -1);
   EXPECT_FALSE(managers->intfStatusManager(ns));

   // The mirror is published: the root finishes.
   mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()),
                 make<KernelNetInfo::Status>(ns));
   EXPECT_TRUE(blue->initialized());
   EXPECT_GE(blue->netlinkSocket(), 0);
   EXPECT_TRUE(managers->intfStatusManager(ns));
}

TEST_F(VrfRootTest, RootFinishesInitialisingAsWhatItWaitsForArrives) {
   routingIs("blue");
   local->vrfIs("blue")->stateIs(Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue);
   EXPECT_FALSE(blue->initialized());  // no global status

   global->vrfIs("blue");
   EXPECT_FALSE(blue->initialized());  // no namespace
   auto ns = createNamespace();
   local->vrf("blue")->netNsNameIs(ns);
   EXPECT_FALSE(blue->initialized());  // no kernel mirror
   EXPECT_EQ(blue->netlinkSocket(), -1);

   mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()),
                 make<KernelNetInfo::Status>(ns));
   ASSERT_TRUE(blue->initialized());
   EXPECT_EQ(blue->ns(), ns);
   EXPECT_GE(blue->netlinkSocket(), 0);
   EXPECT_TRUE(managers->intfStatusManager(ns));
   EXPECT_EQ(readIn(ns, "/proc/sys/net/ipv4/igmp_max_memberships"), "65535");
   int const sock = blue->netlinkSocket();
   mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()),
                 make<KernelNetInfo::Status>(ns));
   EXPECT_EQ(blue->netlinkSocket(), sock);  // initialised once

   // Local status first, global status last.
   routingIs("red");
   auto redNs = vrfIs("red", Ip::VrfState::active);
   global->vrfDel("red");
   auto red = sm->vrfRoot("red");
   ASSERT_TRUE(red);
   EXPECT_TRUE(red->initialized());  // made while the global status was there
   local->vrfDel("red");
   local->vrfIs("red")->netNsNameIs(redNs);
   local->vrf("red")->stateIs(Ip::VrfState::active);
   red = sm->vrfRoot("red");
   ASSERT_TRUE(red);
   EXPECT_FALSE(red->initialized());
   global->vrfIs("red");
   EXPECT_TRUE(red->initialized());
}

TEST_F(VrfRootTest, RefusesWhatMustNeverHappen) {
   try {
      sm->vrfStatusLocalIs(nullptr);
      FAIL() << "a null status was accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(),
                   "null _vrfStatusLocal parameter to mutator for "
                   "Veld::VrfRootSm::vrfStatusLocal not allowed");
   }
   try {
      sm->handleRoutingVrfConfig();
      FAIL() << "a whole-collection notification was accepted";
   } catch (Cinder::AssertException const& e) {
      EXPECT_EQ(e.expression(), "false");
   }
   EXPECT_THROW(VrfName(std::string(101, 'v')), Mox::RangeException);
}

TEST_F(VrfRootTest, StartsFromWhatExistsAndServesNonDefaultVrfsWithANamespaceOnly) {
   routingIs("blue");
   routingIs("green");
   routingIs("default");
   auto blueNs = vrfIs("blue", Ip::VrfState::active);
   vrfIs("green", Ip::VrfState::initializing);
   vrfIs("default", Ip::VrfState::active);
   sm = nullptr;
   EXPECT_FALSE(managers->intfStatusManager(blueNs));  // the old roots went with their machine

   sm = VrfRootSm::VrfRootSmIs(inputs(nullptr), false);
   EXPECT_TRUE(sm->vrfRoot("blue")->initialized());
   EXPECT_TRUE(managers->intfStatusManager(blueNs));
   EXPECT_FALSE(sm->vrfRoot("default"));
   EXPECT_FALSE(sm->vrfRoot("green"));
   local->vrf("green")->stateIs(Ip::VrfState::active);
   EXPECT_TRUE(sm->vrfRoot("green")->initialized());

   // A VRF whose status names no namespace gets a root that does nothing.
   routingIs("red");
   global->vrfIs("red");
   local->vrfIs("red")->stateIs(Ip::VrfState::active);
   auto red = sm->vrfRoot("red");
   ASSERT_TRUE(red);
   EXPECT_FALSE(red->initialized());
   EXPECT_EQ(red->netlinkSocket(), -1);
}

TEST_F(VrfRootTest, RootGetsTheViewThatAlreadyHoldsItsParkedInterfaces) {
   auto config = make<Ip::Config>();
   auto placer = VrfIpIntfConfigSmIs(config, views);
   auto l3 = make<L3::Intf::Config>(Konet::IntfId("Ethernet1"));
   l3->vrfIs("blue");
   auto et1 = config->ipIntfConfigIs(Konet::IntfId("Ethernet1"));
   et1->l3ConfigIs(l3);
   EXPECT_EQ(placer->ipIntfConfig(Konet::IntfId("Ethernet1"))->vrfIpIntfConfig(), nullptr);

   routingIs("blue");
   vrfIs("blue", Ip::VrfState::active);
   auto view = sm->vrfRoot("blue")->inputs().vrfIpIntfConfig;
   EXPECT_EQ(view->ipIntfConfig(Konet::IntfId("Ethernet1")), et1);

   // The VRF goes and comes back: a new root with a new view, the interface in it again.
   local->vrfDel("blue");
   EXPECT_EQ(placer->ipIntfConfig(Konet::IntfId("Ethernet1"))->vrfIpIntfConfig(), nullptr);
   global->vrfDel("blue");
   auto ns = vrfIs("blue", Ip::VrfState::active);
   auto again = sm->vrfRoot("blue");
   ASSERT_TRUE(again && again->initialized());
   EXPECT_EQ(again->ns(), ns);
   EXPECT_NE(again->inputs().vrfIpIntfConfig, view);
   EXPECT_EQ(again->inputs().vrfIpIntfConfig->ipIntfConfig(Konet::IntfId("Ethernet1")), et1);
}

TEST_F(VrfRootTest, RootOfAVrfWithoutGlobalStatusWaits) {
   routingIs("blue");
   auto ns = vrfIs("blue", Ip::VrfState::initializing);
   global->vrfDel("blue");
   local->vrf("blue")->stateIs(Ip::VrfState::active);
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue);
   EXPECT_FALSE(blue->initialized());
   EXPECT_TRUE(blue->ns().name().empty());
   EXPECT_FALSE(managers->intfStatusManager(ns));
   global->vrfIs("blue");
   EXPECT_TRUE(blue->initialized());
   EXPECT_EQ(blue->ns(), ns);
}
