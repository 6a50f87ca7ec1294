// What the IPv6 machine publishes beside the addresses: uRPF, routing in the data plane, the
// uRPF-anywhere summary, and a deleted address leaving the status with the deletion.
#include <gtest/gtest.h>

#include "Ip6IntfSmFixture.h"

namespace VeldTest {
namespace {

class Ip6IntfSmStatusTest : public Ip6IntfSmFixture {};

TEST_F(Ip6IntfSmStatusTest, UrpfAndDataPlaneRoutingFollowTheConfigurationAndTheVrf) {
   auto e1 = addIntf("Ethernet1");
   auto e2 = addIntf("Ethernet2");
   place(e1);
   place(e2);
   mirror->processEvents();
   makeSm();
   settle();
   auto s1 = systemStatus->ip6IntfStatus(e1.id);
   auto s2 = systemStatus->ip6IntfStatus(e2.id);
   ASSERT_TRUE(s1 && s2);
   EXPECT_TRUE(s1->dpRoutingEnabled());
   EXPECT_FALSE(systemStatus->urpfConfiguredOnAnyIntf());

   e1.config->urpfIs({Urpf::UrpfMode::strict, true});
   settle();
   EXPECT_EQ(s1->urpf(), (Urpf::UrpfConfig{Urpf::UrpfMode::strict, true}));
   EXPECT_EQ(urpf->intfUrpf(e1.id), Urpf::UrpfMode::strict);
   EXPECT_TRUE(systemStatus->urpfConfiguredOnAnyIntf());

   // The VRF stops routing IPv6: no routing in the data plane, unless the interface forces it.
   routing->routingIs(false);
   e2.config->forceDpRoutingEnabledIs(true);
   settle();
   EXPECT_FALSE(s1->dpRoutingEnabled());
   EXPECT_TRUE(s2->dpRoutingEnabled());
   EXPECT_EQ(proc(e1.veth.name, "forwarding"), "0");

   // The configuration goes: the summary forgets the interface.
   view->ipIntfConfigDel(e1.id);
   settle();
   EXPECT_EQ(urpf->intfUrpf(e1.id), Urpf::UrpfMode::disable);
   EXPECT_FALSE(systemStatus->urpfConfiguredOnAnyIntf());

   // A restarted machine publishes the summary it finds.
   e2.config->urpfIs({Urpf::UrpfMode::loose, false});
   restart();
   settle();
   EXPECT_TRUE(systemStatus->urpfConfiguredOnAnyIntf());
   EXPECT_EQ(systemStatus->ip6IntfStatus(e2.id)->urpf().mode, Urpf::UrpfMode::loose);
}

TEST_F(Ip6IntfSmStatusTest, AnAddressTheAgentDeletesLeavesTheStatusWithTheDeletion) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::2/64"));
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   ASSERT_EQ(statusAddrs(e1.id).count("2001:db8:1::2/64"), 1u);
   auto joined = [&] {
      auto veld = groups->application(Mcast::veldApplication());
      return veld &&
             veld->multicastAddr({e1.id, v6("2001:db8:1::2/64").addr().solicitedNodeMulticast()});
   };
   ASSERT_TRUE(joined());
   // One backlog run, before the kernel's event about the deletion is read.
   e1.config->addrDel(v6("2001:db8:1::2/64"));
   for (int n = 0; n < 3 && sm->ip6IntfKernelUpdateCodefListSize(); ++n)
      Mox::activityManager().advanceBy(0.011);
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::2/64"), 0u);
   EXPECT_EQ(statusAddrs(e1.id).count("2001:db8:1::2/64"), 0u);
   EXPECT_FALSE(joined());
   EXPECT_EQ(statusAddrs(e1.id).count("2001:db8:1::1/64"), 1u);
   settle();
   EXPECT_EQ(statusAddrs(e1.id).count("2001:db8:1::2/64"), 0u);
}

}  // namespace
}  // namespace VeldTest
