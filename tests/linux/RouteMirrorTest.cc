// The route mirror following the real kernel's routes, changed with `ip route` inside the
// test's own namespace, and its recovery after the kernel dropped notifications.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "linux/RouteMirror.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;
using Routing::GenPrefix;

GenPrefix prefix(char const* s) { return *GenPrefix::parse(s); }
IpGenAddr addr(char const* s) { return *IpGenAddr::parse(s); }

class RouteMirrorTest : public KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped()) return;
      veth = createVeth();
      ip("link set " + veth.name + " up");
      ip("link set " + veth.peer + " up");
      ip("addr add 10.9.0.1/24 dev " + veth.name);
      ip("-6 addr add 2001:db8:9::1/64 dev " + veth.name + " nodad");
   }
   void TearDown() override {
      if (!IsSkipped()) {
         std::system("ip route flush 10.77.0.0/16 2>/dev/null");
      }
      KernelFixture::TearDown();
   }
   static void ip(std::string const& args) {
      std::string cmd = "ip " + args;
      ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
   }
   // Runs a batch of `ip` commands, one a line.
   static void ipBatch(std::string const& lines) {
      FILE* f = popen("ip -batch -", "w");
      ASSERT_TRUE(f);
      std::fputs(lines.c_str(), f);
      ASSERT_EQ(pclose(f), 0);
   }
   template <class Pred>
   bool converge(RouteMirror& m, Pred pred) {
      return waitFor([&] {
         m.processEvents();
         return pred();
      });
   }
   // The mirror's tables equal what a fresh dump of the kernel gives.
   void expectSameAsKernel(RouteMirror& m) {
      RouteMirror fresh("default");
      ASSERT_EQ(fresh.start(), 0);
      EXPECT_EQ(m.routes4()->routes(), fresh.routes4()->routes());
      EXPECT_EQ(m.routes6()->routes(), fresh.routes6()->routes());
   }
   Veth veth;
};

TEST_F(RouteMirrorTest, FollowsRoutesOfBothFamilies) {
   RouteMirror m("default");
   ASSERT_EQ(m.start(), 0);
   auto r4 = m.routes4();
   auto r6 = m.routes6();
   ASSERT_TRUE(r4->route(prefix("10.9.0.0/24")));  // connected, from the dump
   EXPECT_EQ(r4->route(prefix("10.9.0.0/24"))->vias[0].ifindex, veth.ifindex);

   ip("route add 10.77.0.0/16 via 10.9.0.2");
   ip("-6 route add 2001:db8:77::/48 via 2001:db8:9::2");
   ASSERT_TRUE(converge(m, [&] {
      return r4->route(prefix("10.77.0.0/16")) && r6->route(prefix("2001:db8:77::/48"));
   }));
   EXPECT_EQ(r4->route(prefix("10.77.0.0/16"))->vias[0].gateway, addr("10.9.0.2"));
   EXPECT_EQ(r6->route(prefix("2001:db8:77::/48"))->vias[0].gateway, addr("2001:db8:9::2"));

   // Replaced, then a worse metric beside it, then the better one withdrawn.
   ip("route replace 10.77.0.0/16 via 10.9.0.3");
   ASSERT_TRUE(converge(
       m, [&] { return r4->route(prefix("10.77.0.0/16"))->vias[0].gateway == addr("10.9.0.3"); }));
   ip("route add 10.77.0.0/16 via 10.9.0.4 metric 50");
   ip("route add 10.77.1.0/24 nexthop via 10.9.0.5 nexthop via 10.9.0.6");
   ASSERT_TRUE(converge(m, [&] { return r4->route(prefix("10.77.1.0/24")) != nullptr; }));
   EXPECT_EQ(r4->route(prefix("10.77.1.0/24"))->vias.size(), 2u);
   EXPECT_EQ(r4->route(prefix("10.77.0.0/16"))->vias[0].gateway, addr("10.9.0.3"));
   ip("route del 10.77.0.0/16 via 10.9.0.3 metric 0");
   ASSERT_TRUE(converge(
       m, [&] { return r4->route(prefix("10.77.0.0/16"))->vias[0].gateway == addr("10.9.0.4"); }));
   expectSameAsKernel(m);

   // A route of another table is not the FIB's.
   ip("route add 10.78.0.0/16 via 10.9.0.2 table 100");
   ip("route del 10.77.0.0/16");
   ip("-6 route del 2001:db8:77::/48");
   ASSERT_TRUE(converge(m, [&] {
      return !r4->route(prefix("10.77.0.0/16")) && !r6->route(prefix("2001:db8:77::/48"));
   }));
   EXPECT_FALSE(r4->route(prefix("10.78.0.0/16")));

   // The device goes behind the mirror's back: its routes go with it.
   ip("link del " + veth.name);
   ASSERT_TRUE(converge(m, [&] { return !r4->route(prefix("10.9.0.0/24")); }));
   expectSameAsKernel(m);
}

TEST_F(RouteMirrorTest, ResyncsAfterAnOverrunWithoutLosingAChange) {
   RouteMirror m("default", nullptr, nullptr, 4096);  // too small for a burst
   ASSERT_EQ(m.start(), 0);
   // Every change must reach the table once: count them.
   struct Count : Routing::FibRouteTable::NotifieeConst {
      size_t changes = 0;
      void onRoute(GenPrefix const&) override { ++changes; }
   };
   auto count = Mox::make<Count>();
   count->notifierIs(m.routes4());
   std::string adds, dels;
   for (int i = 0; i < 500; ++i) {
      auto p = "10.77." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "/32";
      adds += "route add " + p + " via 10.9.0.2\n";
      if (i % 2) dels += "route del " + p + "\n";
   }
   ipBatch(adds);
   ipBatch(dels);
   ASSERT_EQ(m.processEvents(), 0);
   EXPECT_GE(m.overflows(), 1u);
   EXPECT_GE(m.resyncs(), 2u);
   size_t mine = 0;
   for (auto const& [p, r] : m.routes4()->routes())
      mine += prefix("10.77.0.0/16").contains(p.network);
   EXPECT_EQ(mine, 250u);
   expectSameAsKernel(m);
   // Nothing reported twice: at most one change per route added and one per route deleted.
   EXPECT_LE(count->changes, 750u);
}

}  // namespace
}  // namespace KonetTest
