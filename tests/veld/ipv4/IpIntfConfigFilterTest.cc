// Which interfaces the IPv4 machine admits and what each configuration change turns into.
// No kernel here: the tests look at the status written and the work scheduled.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/addr/AddrMap.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IpIntfConfigReactors.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/redundancy/WarpState.h"

namespace {

using Konet::IntfId;
using Mox::make;
using Model = Interface::IntfForwardingModel;

Konet::IpAddrWithMask v4(char const* s) { return *Konet::IpAddrWithMask::parse(s); }

class IpIntfConfigFilterTest : public ::testing::Test {
protected:
   void makeSm(bool standby = false) {
      sm = make<Veld::IpIntfSm>(
          Veld::IpIntfSm::Inputs{.ipConfig = ipConfig,
                                 .vrfIpIntfConfig = view,
                                 .addrMap = make<Veld::AddrMap>(kni),
                                 .kernelIntfDir = deviceDir,
                                 .routingInfoConfig = routing,
                                 .systemIntfIpStatus = systemStatus,
                                 .localIntfIpStatus = localStatus,
                                 .systemL3IntfStatus = systemL3,
                                 .localL3IntfStatus = localL3,
                                 .kniIntfStatusManager = manager,
                                 .vrfName = L3::VrfName("default"),
                                 .warpState = make<Veld::WarpState>("w"),
                                 .timerWheel = wheel,
                                 .urpfOnAllIntfStat = make<Urpf::UrpfOnAllIntfStat>()},
          standby);
   }
   // An interface configured in this VRF, its status in the namespace with `model`.
   Mox::Ptr<Ip::IpIntfConfig> intf(char const* id, Model model) {
      auto status = make<Interface::IntfStatus>(IntfId(id));
      status->deviceNameIs(std::string("d") + id);
      status->forwardingModelIs(model);
      statuses[id] = status;
      deviceDir->intfStatusIs(status);
      auto l3 = l3Config->intfConfigIs(IntfId(id));
      l3->vrfIs("default");
      auto c = ipConfig->ipIntfConfigIs(IntfId(id));
      c->l3ConfigIs(l3);
      return c;
   }
   Veld::IpIntfSm::KernelUpdateCodefEntry const* pending(char const* id) {
      return sm->ipIntfKernelUpdateCodef(IntfId(id));
   }

   Mox::ScopedVirtualTime time;
   Mox::Ptr<KernelNetInfo::Status> kni = make<KernelNetInfo::Status>("default");
   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Veld::VrfIpIntfConfig> view = make<Veld::VrfIpIntfConfig>(L3::VrfName("default"));
   Mox::Ptr<Interface::DeviceIntfStatusDir> deviceDir =
       make<Interface::DeviceIntfStatusDir>("default");
   Mox::Ptr<Interface::KniIntfStatusManager> manager =
       make<Interface::KniIntfStatusManager>("default", deviceDir);
   Mox::Ptr<Routing::InfoConfig> routing = make<Routing::InfoConfig>();
   Mox::Ptr<Ip::Input::Status> systemStatus = make<Ip::Input::Status>("veld");
   Mox::Ptr<Ip::Input::Status> localStatus = make<Ip::Input::Status>("veld-local");
   Mox::Ptr<L3::Intf::Input::StatusDir> systemL3 = make<L3::Intf::Input::StatusDir>("veld");
   Mox::Ptr<L3::Intf::Input::StatusDir> localL3 = make<L3::Intf::Input::StatusDir>("veld-local");
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   std::map<std::string, Mox::Ptr<Interface::IntfStatus>> statuses;
   Mox::Ptr<Veld::IpIntfSm> sm;
};

TEST_F(IpIntfConfigFilterTest, OnlyRoutedInterfacesGetAConfigReactor) {
   auto c = intf("Ethernet1", Model::intfForwardingModelBridged);
   view->ipIntfConfigIs(c);
   makeSm();
   EXPECT_EQ(sm->routedIpIntfConfigs(), 0u);
   statuses["Ethernet1"]->forwardingModelIs(Model::intfForwardingModelRouted);
   EXPECT_TRUE(sm->routedIpIntfConfig(IntfId("Ethernet1")));
   EXPECT_TRUE(systemStatus->ipIntfStatus(IntfId("Ethernet1")));
   statuses["Ethernet1"]->forwardingModelIs(Model::intfForwardingModelDiscarded);
   EXPECT_FALSE(sm->routedIpIntfConfig(IntfId("Ethernet1")));
   EXPECT_FALSE(systemStatus->ipIntfStatus(IntfId("Ethernet1")));
   // The status leaving the namespace withdraws the interface too.
   statuses["Ethernet1"]->forwardingModelIs(Model::intfForwardingModelRouted);
   EXPECT_TRUE(sm->routedIpIntfConfig(IntfId("Ethernet1")));
   deviceDir->intfStatusDel(IntfId("Ethernet1"));
   EXPECT_FALSE(sm->routedIpIntfConfig(IntfId("Ethernet1")));
}

TEST_F(IpIntfConfigFilterTest, AConfigurationWithoutInterfaceStatusRemovesALeftoverStatus) {
   auto leftover = systemStatus->ipIntfStatusIs(IntfId("Ethernet7"));
   leftover->vrfIs("default");
   auto other = systemStatus->ipIntfStatusIs(IntfId("Ethernet8"));
   other->vrfIs("blue");  // another VRF's: not ours to remove
   auto l3 = l3Config->intfConfigIs(IntfId("Ethernet7"));
   auto c = ipConfig->ipIntfConfigIs(IntfId("Ethernet7"));
   c->l3ConfigIs(l3);
   view->ipIntfConfigIs(c);
   makeSm();
   EXPECT_FALSE(systemStatus->ipIntfStatus(IntfId("Ethernet7")));
   EXPECT_TRUE(systemStatus->ipIntfStatus(IntfId("Ethernet8")));
}

TEST_F(IpIntfConfigFilterTest, FirstAddressCreatesL3AndIpv4StatusAndSchedulesOneUpdate) {
   auto c = intf("Ethernet1", Model::intfForwardingModelRouted);
   view->ipIntfConfigIs(c);
   makeSm();
   Mox::activityManager().runUntilIdle();
   ASSERT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 0u);
   // Neither status is there when the first address comes.
   systemStatus->ipIntfStatusDel(IntfId("Ethernet1"));
   systemL3->intfStatusDel(IntfId("Ethernet1"));

   c->addrWithMaskIs(v4("10.0.0.1/24"));
   auto l3 = systemL3->intfStatus(IntfId("Ethernet1"));
   ASSERT_TRUE(l3);
   EXPECT_EQ(l3->vrf(), L3::VrfName("default"));
   ASSERT_TRUE(systemStatus->ipIntfStatus(IntfId("Ethernet1")));
   EXPECT_EQ(systemStatus->ipIntfStatus(IntfId("Ethernet1"))->vrf(), L3::VrfName("default"));
   ASSERT_TRUE(pending("Ethernet1"));
   EXPECT_TRUE(pending("Ethernet1")->addrUpdatePending);
   EXPECT_FALSE(pending("Ethernet1")->procUpdatePending);
   EXPECT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 1u);
   EXPECT_EQ(sm->backlogTimerTime(), time.now() + 0.01);
   c->secondaryWithMaskIs(v4("10.0.0.2/24"));
   EXPECT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 1u);  // one entry however many changes
}

TEST_F(IpIntfConfigFilterTest, SecondaryRemovalAndNoArpRewrites) {
   auto c = intf("Ethernet1", Model::intfForwardingModelRouted);
   c->secondaryWithMaskIs(v4("10.0.0.2/24"));
   c->secondaryWithMaskIs(v4("10.0.0.3/24"));
   view->ipIntfConfigIs(c);
   makeSm();
   auto s = systemStatus->ipIntfStatus(IntfId("Ethernet1"));
   s->activeSecondaryWithMaskIs(v4("10.0.0.2/24"));
   s->activeSecondaryWithMaskIs(v4("10.0.0.3/24"));
   c->secondaryWithMaskDel(v4("10.0.0.2/24"));
   EXPECT_FALSE(s->activeSecondaryWithMask(v4("10.0.0.2/24")));
   EXPECT_TRUE(s->activeSecondaryWithMask(v4("10.0.0.3/24")));

   Mox::activityManager().runUntilIdle();  // nothing to program here: the backlog empties
   ASSERT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 0u);
   c->noArpIs(Ip::TristateBool::isTrue);
   EXPECT_EQ(s->noArp(), Ip::TristateBool::isTrue);
   EXPECT_TRUE(pending("Ethernet1") && pending("Ethernet1")->addrUpdatePending);
   Mox::activityManager().runUntilIdle();
   ASSERT_FALSE(pending("Ethernet1"));
   // A configuration change to the value the status holds already reaches the handler and
   // schedules nothing.
   s->noArpIs(Ip::TristateBool::isFalse);
   VeldTest::TraceCapture traces{"Veld"};
   c->noArpIs(Ip::TristateBool::isFalse);
   EXPECT_EQ(traces.count("noArp for Ethernet1 is"), 1u);
   EXPECT_FALSE(pending("Ethernet1"));
}

TEST_F(IpIntfConfigFilterTest, StandbyWritesNoStatus) {
   auto c = intf("Ethernet1", Model::intfForwardingModelRouted);
   view->ipIntfConfigIs(c);
   makeSm();
   auto s = systemStatus->ipIntfStatus(IntfId("Ethernet1"));
   ASSERT_TRUE(s);
   sm->standbyModeIs(true);
   c->attachedRoutesIs(false);
   c->directedBroadcastEnabledIs(true);
   c->maxMssIngressIs(1400);
   EXPECT_TRUE(s->attachedRoutes());
   EXPECT_FALSE(s->directedBroadcastEnabled());
   EXPECT_EQ(s->maxMssIngress(), 0);
   c->secondaryWithMaskIs(v4("10.0.0.2/24"));
   EXPECT_TRUE(pending("Ethernet1")->addrUpdatePending);  // the kernel still follows
   sm->standbyModeIs(false);
   EXPECT_FALSE(s->attachedRoutes());
   EXPECT_EQ(s->maxMssIngress(), 1400);
}

TEST_F(IpIntfConfigFilterTest, ConfOptTypeRoundTripsThroughItsNames) {
   using T = Veld::IpIntfSm::IpIntfConfOptType;
   int n = 0;
   for (auto const& e : moxEnumNames(T{})) {
      EXPECT_EQ(Mox::enumValue(e.value), n++);
      EXPECT_EQ(Mox::enumFromName<T>(Mox::stringValue(e.value)), e.value);
   }
   EXPECT_EQ(n, 10);
   EXPECT_EQ(Mox::stringValue(T::confOptUseIcmpSrcIpAddr), "confOptUseIcmpSrcIpAddr");
}

}  // namespace
