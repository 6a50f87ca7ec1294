// What a reload writes to the library's inputs: only the places that changed, so that an
// untouched interface's entities deliver no notification at all.
#include <gtest/gtest.h>

#include "agent/ConfigWriter.h"
#include "agent/EventLoop.h"
#include "agent/KernelMirrors.h"

namespace {

using namespace VeldAgent;

// Counts every notification of one interface's IPv4 configuration.
class ConfigCounter : public Ip::IpIntfConfig::NotifieeConst {
public:
   int n = 0;
   std::vector<std::string> secondaries;
   void onAddrWithMask() override { ++n; }
   void onSecondaryWithMask(Konet::IpAddrWithMask const& a) override {
      ++n;
      secondaries.push_back(a.toString());
   }
   void onVirtualAddrWithMask() override { ++n; }
   void onVirtualSecondaryWithMask(Konet::IpAddrWithMask const&) override { ++n; }
   void onMaxMssIngress() override { ++n; }
   void onMaxMssEgress() override { ++n; }
   void onConfigSource() override { ++n; }
   void onProxyArpEnabled() override { ++n; }
   void onLocalProxyArpEnabled() override { ++n; }
   void onGratuitousArpAccepted() override { ++n; }
   void onForwarding() override { ++n; }
   void onNoArp() override { ++n; }
   void onDirectedBroadcastEnabled() override { ++n; }
   void onAttachedRoutes() override { ++n; }
   void onUrpf() override { ++n; }
   void onUnnumberedIntfId() override { ++n; }
   void onForceDpRoutingEnabled() override { ++n; }
   void onL3Config() override { ++n; }
};

class StatusCounter : public Interface::IntfStatus::NotifieeConst {
public:
   int n = 0;
   void onForwardingModel() override { ++n; }
   void onDeviceName() override { ++n; }
   void onMtu() override { ++n; }
   void onEui64() override { ++n; }
   void onNetNsName() override { ++n; }
   void onOperUp() override { ++n; }
};

class ConfigWriterTest : public ::testing::Test {
protected:
   Configuration parse(std::string const& secondary, bool routed2 = true) {
      auto r = parseConfiguration(R"({"vrfs": {"red": {}}, "interfaces": {
         "Ethernet1": {"device": "et1", "ipv4": {"address": "10.0.0.1/24",
                       "secondaries": [")" +
                                  secondary + R"("], "proxyArp": true}},
         "Ethernet2": {"device": "et2", "vrf": "red", "routed": )" +
                                  (routed2 ? "true" : "false") + R"(,
                       "ipv4": {"address": "10.0.1.1/24", "urpf": "loose"}}}})");
      EXPECT_TRUE(r.config);
      return *r.config;
   }

   EventLoop loop;
   Entities e;
   KernelMirrors mirrors{loop, e.larder};
   VrfNamespaces vrfs{e, mirrors, "ns-"};
   IntfStatusPublisher intfs{e, mirrors};
   ConfigWriter writer{e, vrfs, intfs};
   Konet::IntfId const e1{"Ethernet1"}, e2{"Ethernet2"};
};

TEST_F(ConfigWriterTest, WritesTheConfigurationToTheLibrarysInputs) {
   writer.apply(parse("10.0.0.2/24"));
   auto c1 = e.cliIpConfig->ipIntfConfig(e1);
   ASSERT_TRUE(c1);
   EXPECT_EQ(c1->addrWithMask().toString(), "10.0.0.1/24");
   EXPECT_TRUE(c1->secondaryWithMask(*Konet::IpAddrWithMask::parse("10.0.0.2/24")));
   EXPECT_TRUE(c1->proxyArpEnabled());
   EXPECT_EQ(c1->l3Config()->vrf(), L3::VrfName("default"));
   auto c2 = e.cliIpConfig->ipIntfConfig(e2);
   EXPECT_EQ(c2->urpf().mode, Urpf::UrpfMode::loose);
   EXPECT_EQ(c2->l3Config()->vrf(), L3::VrfName("red"));
   EXPECT_TRUE(e.routingVrfConfig->vrfConfig(L3::VrfName("red"))->routing());
   EXPECT_FALSE(e.routing6VrfConfig->vrfConfig(L3::VrfName("red"))->routing());
   EXPECT_EQ(e.allIntfStatus->intfStatus(e2)->forwardingModel(),
             Interface::IntfForwardingModel::intfForwardingModelRouted);
   // No kernel mirror here: the devices are missing, and wait.
   EXPECT_EQ(e.allIntfStatus->intfStatus(e1)->deviceName(), "");
}

TEST_F(ConfigWriterTest, WritesEachInterfacesAddressSource) {
   auto r = parseConfiguration(R"({"interfaces": {
      "Ethernet1": {"device": "et1", "ipv4": {"dhcp": true}},
      "Ethernet2": {"device": "et2", "ipv4": {"unnumbered": "Ethernet1"}}}})");
   ASSERT_TRUE(r.config);
   writer.apply(*r.config);
   auto c1 = e.cliIpConfig->ipIntfConfig(e1);
   auto c2 = e.cliIpConfig->ipIntfConfig(e2);
   ASSERT_TRUE(c1 && c2);
   EXPECT_EQ(c1->addrSource(), Ip::AddrSource::dhcp);
   EXPECT_EQ(c1->configSource(), Ip::ConfigSource::dhcp);
   EXPECT_TRUE(c1->attachedRoutes());
   EXPECT_EQ(c2->addrSource(), Ip::AddrSource::none);
   EXPECT_EQ(c2->unnumberedIntfId(), e1);
   EXPECT_FALSE(c2->attachedRoutes());  // the lender's subnet is reached through the lender

   writer.apply(parse("10.0.0.2/24"));  // both back on the command line
   EXPECT_EQ(c1->addrSource(), Ip::AddrSource::cli);
   EXPECT_TRUE(c2->unnumberedIntfId().empty());
   EXPECT_TRUE(c2->attachedRoutes());
}

TEST_F(ConfigWriterTest, AReloadNotifiesOnlyWhatChanged) {
   writer.apply(parse("10.0.0.2/24"));
   ConfigCounter c1, c2;
   StatusCounter s2;
   c1.notifierIs(e.cliIpConfig->ipIntfConfig(e1));
   c2.notifierIs(e.cliIpConfig->ipIntfConfig(e2));
   s2.notifierIs(e.allIntfStatus->intfStatus(e2));

   auto diff = writer.apply(parse("10.0.0.3/24"));
   EXPECT_EQ(diff.summary(), "1 interface changed");
   EXPECT_EQ(c1.secondaries, (std::vector<std::string>{"10.0.0.2/24", "10.0.0.3/24"}));
   EXPECT_EQ(c1.n, 2);
   EXPECT_EQ(c2.n, 0);
   EXPECT_EQ(s2.n, 0);

   // The same configuration again: nothing at all.
   EXPECT_TRUE(writer.apply(parse("10.0.0.3/24")).empty());
   EXPECT_EQ(c1.n, 2);

   // Unrouted: the forwarding model, nothing of the addresses.
   writer.apply(parse("10.0.0.3/24", false));
   EXPECT_EQ(c2.n, 0);
   EXPECT_EQ(s2.n, 1);
   EXPECT_EQ(e.allIntfStatus->intfStatus(e2)->forwardingModel(),
             Interface::IntfForwardingModel::intfForwardingModelBridged);
}

TEST_F(ConfigWriterTest, ARemovedInterfaceLeavesTheConfiguration) {
   writer.apply(parse("10.0.0.2/24"));
   auto next = parse("10.0.0.2/24");
   next.interfaces.erase(e2);
   next.vrfs.erase(L3::VrfName("red"));
   writer.apply(next);
   EXPECT_FALSE(e.cliIpConfig->ipIntfConfig(e2));
   EXPECT_FALSE(e.l3Config->intfConfig(e2));
   EXPECT_FALSE(e.routingVrfConfig->vrfConfig(L3::VrfName("red")));
   // Its status stays until its addresses are gone from the kernel (here: at once, on the
   // next run of the scheduler).
   EXPECT_TRUE(e.allIntfStatus->intfStatus(e2));
   loop.runUntil([&] { return !e.allIntfStatus->intfStatus(e2); }, 5.0);
   EXPECT_FALSE(e.allIntfStatus->intfStatus(e2));
}

}  // namespace
