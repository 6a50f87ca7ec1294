// The trie builder container and the nexthop resolver on route tables filled by the test,
// with the task scheduler run by hand under virtual time.
#include <gtest/gtest.h>

#include "mox/Clock.h"
#include "tests/veld/TraceCapture.h"
#include "veld/nexthop/NexthopResolverSm.h"
#include "veld/nexthop/TrieBuilderContainer.h"

namespace {

using Konet::AddressFamily;
using Routing::GenPrefix;

Konet::IpGenAddr addr(char const* s) { return *Konet::IpGenAddr::parse(s); }
GenPrefix prefix(char const* s) { return *GenPrefix::parse(s); }
Routing::FibRoute via(char const* gw, int ifindex) {
   return Routing::FibRoute{{Routing::FibVia{addr(gw), ifindex}}};
}

class NexthopResolverTest : public ::testing::Test {
protected:
   NexthopResolverTest() {
      routing4->routingIs(true);
      routing6->routingIs(true);
      client = Mox::make<Routing::NexthopConfig>(Mox::Name("bgp"));
      configDir->entryIs(Mox::Name("bgp"), client);
      container = Veld::trieBuilderContainerFactory(
          vrf, {containerConfig, containerStatus, routes4, routes6, configDir});
   }
   ~NexthopResolverTest() override {
      resolver = nullptr;
      container = nullptr;
   }

   // The client's configuration in the VRF, with a resolver for it.
   void makeResolver() {
      vrfConfig = client->vrfIs(vrf);
      resolver = Routing::nexthopResolverSmFactory(
          vrf, Mox::Name("bgp"),
          {vrfConfig, containerStatus, routing4, routing6, status, scheduler});
   }
   void nexthop(char const* a) { vrfConfig->nexthopIs({addr(a)}); }
   void run() { scheduler->runUntilIdle(); }
   Routing::NexthopStatusEntry const* resolved(char const* a) const {
      return status->nexthop(addr(a));
   }
   GenPrefix resolvedVia(char const* a) const {
      auto const* e = resolved(a);
      return e ? e->prefix : GenPrefix();
   }

   Mox::ScopedVirtualTime time{1000.0};
   L3::VrfName vrf{"red"};
   Mox::Ptr<Bolt::TaskScheduler> scheduler = Mox::make<Bolt::TaskScheduler>();
   Mox::Ptr<Routing::FibRouteTable> routes4 =
       Mox::make<Routing::FibRouteTable>(AddressFamily::ipv4);
   Mox::Ptr<Routing::FibRouteTable> routes6 =
       Mox::make<Routing::FibRouteTable>(AddressFamily::ipv6);
   Mox::Ptr<Veld::TrieBuilderContainerConfig> containerConfig =
       Veld::trieBuilderContainerConfigFactory(false);
   Mox::Ptr<Veld::TrieBuilderContainerStatus> containerStatus =
       Veld::trieBuilderContainerStatusFactory();
   Mox::Ptr<Mox::Dir> configDir = Mox::make<Mox::Dir>(Mox::Name("nexthop"));
   Mox::Ptr<Routing::InfoConfig> routing4 = Mox::make<Routing::InfoConfig>(vrf);
   Mox::Ptr<Routing6::InfoConfig> routing6 = Mox::make<Routing6::InfoConfig>(vrf);
   Mox::Ptr<Routing::NexthopVrfStatus> status = Mox::make<Routing::NexthopVrfStatus>(vrf);
   Mox::Ptr<Routing::NexthopConfig> client;
   Mox::Ptr<Routing::NexthopVrfConfig> vrfConfig;
   Mox::Ptr<Veld::TrieBuilderContainer> container;
   Mox::Ptr<Routing::NexthopResolverSm> resolver;
};

TEST_F(NexthopResolverTest, TriesExistOnlyWhileAClientOfThisVrfNeedsThemOutOfStandby) {
   EXPECT_FALSE(containerStatus->trie4());
   // A client of another VRF only.
   client->vrfIs(L3::VrfName("blue"));
   EXPECT_FALSE(containerStatus->enabled());
   EXPECT_EQ(container->vrfClient().size(), 0u);

   containerConfig->standbyModeIs(true);
   client->vrfIs(vrf);
   EXPECT_EQ(container->vrfClient().size(), 1u);
   EXPECT_FALSE(containerStatus->trie4());

   containerConfig->standbyModeIs(false);
   ASSERT_TRUE(containerStatus->trie4());
   ASSERT_TRUE(containerStatus->trie6());
   EXPECT_TRUE(containerStatus->enabled());
   EXPECT_EQ(containerStatus->trie4()->af(), AddressFamily::ipv4);
   EXPECT_EQ(containerStatus->trie6()->af(), AddressFamily::ipv6);

   // enabled goes false before the tries go.
   struct Order : Veld::TrieBuilderContainerStatus::NotifieeConst {
      std::vector<std::string> seen;
      void onEnabled() override { seen.push_back(notifier()->enabled() ? "on" : "off"); }
      void onTrie4() override { seen.push_back(notifier()->trie4() ? "trie4" : "-trie4"); }
   };
   auto order = Mox::make<Order>();
   order->notifierIs(containerStatus);
   auto firstTrie = containerStatus->trie4();
   client->vrfDel(vrf);  // the last client leaves
   EXPECT_EQ(order->seen, (std::vector<std::string>{"off", "-trie4"}));
   EXPECT_FALSE(containerStatus->trie6());

   // A client's configuration replaced under the same name counts as the new one.
   auto again = Mox::make<Routing::NexthopConfig>(Mox::Name("bgp"));
   again->vrfIs(vrf);
   configDir->entryIs(Mox::Name("bgp"), again);
   ASSERT_TRUE(containerStatus->trie4());
   EXPECT_NE(containerStatus->trie4(), firstTrie);  // built from scratch
   configDir->entryDel(Mox::Name("bgp"));
   EXPECT_FALSE(containerStatus->trie4());
   EXPECT_EQ(container->nexthopConfigPtrs(), 0u);
}

TEST_F(NexthopResolverTest, ResolvesToTheLongestCoveringRouteAndFollowsIt) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   routes4->routeIs(prefix("10.1.0.0/16"), via("192.0.2.2", 4));
   routes6->routeIs(prefix("2001:db8::/32"), via("fe80::1", 5));
   makeResolver();
   nexthop("10.1.2.3");
   nexthop("10.9.9.9");
   nexthop("2001:db8::7");
   nexthop("172.16.0.1");
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.1.0.0/16"));
   EXPECT_EQ(resolved("10.1.2.3")->vias, via("192.0.2.2", 4).vias);
   EXPECT_EQ(resolvedVia("10.9.9.9"), prefix("10.0.0.0/8"));
   EXPECT_EQ(resolvedVia("2001:db8::7"), prefix("2001:db8::/32"));
   EXPECT_FALSE(resolved("172.16.0.1"));
   auto trie4 = containerStatus->trie4();
   EXPECT_EQ(trie4->routeMarks(prefix("10.1.0.0/16")), 1u);

   // A more specific route takes over; the nexthop moves its mark.
   routes4->routeIs(prefix("10.1.2.0/24"), via("192.0.2.3", 4));
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.1.2.0/24"));
   EXPECT_EQ(trie4->routeMarks(prefix("10.1.0.0/16")), 0u);
   EXPECT_EQ(trie4->routeMarks(prefix("10.1.2.0/24")), 1u);

   // A changed gateway of the route in use is published.
   routes4->routeIs(prefix("10.1.2.0/24"), via("192.0.2.9", 4));
   run();
   EXPECT_EQ(resolved("10.1.2.3")->vias, via("192.0.2.9", 4).vias);

   // Withdrawn: back to the shorter route, then to the /8, then unresolved.
   routes4->routeDel(prefix("10.1.2.0/24"));
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.1.0.0/16"));
   routes4->routeDel(prefix("10.1.0.0/16"));
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.0.0.0/8"));
   EXPECT_EQ(trie4->routeMarks(prefix("10.0.0.0/8")), 2u);
   routes4->routeDel(prefix("10.0.0.0/8"));
   run();
   EXPECT_FALSE(resolved("10.1.2.3"));
   EXPECT_FALSE(resolved("10.9.9.9"));
   EXPECT_EQ(trie4->markedRoutes(), 0u);

   // Unresolved to resolved: a new covering route, even the default one.
   routes4->routeIs(prefix("0.0.0.0/0"), via("192.0.2.254", 3));
   run();
   EXPECT_EQ(resolvedVia("172.16.0.1"), prefix("0.0.0.0/0"));
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("0.0.0.0/0"));

   // A nexthop taken out of the configuration loses its status and its mark.
   vrfConfig->nexthopDel(addr("10.1.2.3"));
   run();
   EXPECT_FALSE(resolved("10.1.2.3"));
   EXPECT_EQ(trie4->routeMarks(prefix("0.0.0.0/0")), 2u);
}

TEST_F(NexthopResolverTest, AChangeOfAPrefixWithoutNexthopsSchedulesNothing) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   makeResolver();
   nexthop("10.1.2.3");
   run();
   VeldTest::TraceCapture traces{"VeldNexthopResolver"};
   routes4->routeIs(prefix("192.168.0.0/16"), via("192.0.2.1", 3));
   EXPECT_FALSE(resolver->reviewNexthopTask()->taskScheduled());
   EXPECT_TRUE(traces.contains(" prefix 192.168.0.0/16 ignored (no match)"));
   routes4->routeDel(prefix("192.168.0.0/16"));  // withdrawn, used by nobody
   EXPECT_FALSE(resolver->reviewNexthopTask()->taskScheduled());
   EXPECT_TRUE(traces.contains(" prefix 192.168.0.0/16 (ignored)"));
   // A longer route under the nexthop's prefix is looked at.
   routes4->routeIs(prefix("10.1.0.0/16"), via("192.0.2.1", 3));
   EXPECT_TRUE(resolver->reviewNexthopTask()->taskScheduled());
   EXPECT_TRUE(traces.contains(" prefix 10.1.0.0/16 affected 1 entries"));
}

TEST_F(NexthopResolverTest, RoutingOffRemovesOnlyThatFamilysStatusAndOnResolvesAgain) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   routes6->routeIs(prefix("::/0"), via("fe80::1", 5));
   makeResolver();
   nexthop("10.1.2.3");
   nexthop("2001:db8::7");
   run();
   ASSERT_TRUE(resolved("10.1.2.3"));
   routing4->routingIs(false);  // at once, no review
   EXPECT_FALSE(resolved("10.1.2.3"));
   EXPECT_TRUE(resolved("2001:db8::7"));
   // While off, route changes publish nothing for the family.
   routes4->routeIs(prefix("10.1.0.0/16"), via("192.0.2.1", 3));
   run();
   EXPECT_FALSE(resolved("10.1.2.3"));
   routing4->routingIs(true);
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.1.0.0/16"));
}

TEST_F(NexthopResolverTest, StandbyDropsTheTriesAndTheStatusAndReCreationReviewsAll) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   makeResolver();
   nexthop("10.1.2.3");
   run();
   ASSERT_TRUE(resolved("10.1.2.3"));
   containerConfig->standbyModeIs(true);
   EXPECT_FALSE(resolved("10.1.2.3"));
   EXPECT_FALSE(containerStatus->trie4());
   // Changed meanwhile, seen when the tries come back.
   routes4->routeIs(prefix("10.1.0.0/16"), via("192.0.2.2", 4));
   containerConfig->standbyModeIs(false);
   run();
   EXPECT_EQ(resolvedVia("10.1.2.3"), prefix("10.1.0.0/16"));
   EXPECT_EQ(containerStatus->trie4()->routeMarks(prefix("10.1.0.0/16")), 1u);
}

TEST_F(NexthopResolverTest, ALargeReviewRunsOverSeveralTaskRunsThatReschedule) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   makeResolver();
   resolver->reviewNexthopTask()->group()->taskGroupQuantumIs(50);
   EXPECT_EQ(resolver->reviewNexthopTask()->group()->priority(), 2);
   EXPECT_EQ(std::string(resolver->reviewNexthopTask()->name().charPtr()), "NexthopReview-red-bgp");
   for (uint32_t i = 0; i < 1000; ++i) {
      vrfConfig->nexthopIs({Konet::IpGenAddr(Konet::IpAddr(0x0a000000 + i * 7))});
   }
   size_t runs = 0;
   while (scheduler->hasReadyTasks()) {
      scheduler->runSlice();
      ++runs;
      EXPECT_LE(status->nexthopIterator().size(), runs * 50);
   }
   EXPECT_EQ(runs, 20u);
   EXPECT_EQ(status->nexthopIterator().size(), 1000u);
   EXPECT_EQ(containerStatus->trie4()->routeMarks(prefix("10.0.0.0/8")), 1000u);
}

TEST_F(NexthopResolverTest, DeletedWithWorkPendingAndReCreatedUnderTheSameName) {
   routes4->routeIs(prefix("10.0.0.0/8"), via("192.0.2.1", 3));
   makeResolver();
   nexthop("10.1.2.3");
   run();
   nexthop("10.1.2.4");
   ASSERT_TRUE(scheduler->hasReadyTasks());
   auto trie4 = containerStatus->trie4();
   resolver = nullptr;  // with a review pending
   EXPECT_FALSE(scheduler->hasReadyTasks());
   EXPECT_EQ(trie4->markedRoutes(), 0u);  // its marks went with it
   makeResolver();
   run();
   EXPECT_TRUE(resolved("10.1.2.3"));
   EXPECT_TRUE(resolved("10.1.2.4"));
   EXPECT_EQ(trie4->routeMarks(prefix("10.0.0.0/8")), 2u);
}

}  // namespace
