// The L3 status's VRF when an interface's two address families move at different moments,
// in virtual time (the deferred handling of a deleted IPv6 status waits for the clock).
#include <gtest/gtest.h>

#include "mox/Clock.h"
#include "veld/ipv6/L3IntfStatusVrfSm.h"

namespace VeldTest {
namespace {

using Konet::IntfId;
using Mox::make;

class L3IntfStatusVrfTest : public ::testing::Test {
protected:
   void makeSm(bool standby = false) {
      sm = make<Veld::L3IntfStatusVrfSm>(
          Veld::L3IntfStatusVrfSm::Inputs{.updateIpIntfStatusVrfReq = ipReq,
                                          .updateIp6IntfStatusVrfReq = ip6Req,
                                          .ipStatus = ipStatus,
                                          .ip6Status = ip6Status,
                                          .clock = clock,
                                          .systemL3IntfStatus = systemL3,
                                          .localL3IntfStatus = localL3,
                                          .updateIpIntfStatusReq = ipRefresh,
                                          .updateIp6IntfStatusReq = ip6Refresh},
          standby);
   }
   // A family's machine moving the interface: its status in the VRF, then its request.
   void ipTo(IntfId const& id, char const* vrf) {
      auto s = make<Ip::IpIntfStatus>(id);
      s->vrfIs(vrf);
      ipStatus->intfIs(s);
      ipReq->requestIs(id, vrf);
   }
   void ip6To(IntfId const& id, char const* vrf) {
      auto s = make<Ip6::IntfStatus>(id);
      s->vrfIs(vrf);
      ip6Status->intfIs(s);
      ip6Req->requestIs(id, vrf);
   }
   std::string l3Vrf(IntfId const& id) {
      auto const& dir = id.name().starts_with("Test") ? localL3 : systemL3;
      auto s = dir->intfStatus(id);
      return s ? s->vrf().name() : "(none)";
   }

   Mox::ScopedVirtualTime time{1000.0};
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> ipReq = make<L3::UpdateIpIntfStatusVrfRequests>();
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> ip6Req = make<L3::UpdateIpIntfStatusVrfRequests>();
   Mox::Ptr<Ip::Status> ipStatus = make<Ip::Status>();
   Mox::Ptr<Ip6::Status> ip6Status = make<Ip6::Status>();
   Mox::Ptr<Mox::Clock> clock = make<Mox::Clock>();
   Mox::Ptr<L3::Intf::Input::StatusDir> systemL3 = make<L3::Intf::Input::StatusDir>("veld");
   Mox::Ptr<L3::Intf::Input::StatusDir> localL3 = make<L3::Intf::Input::StatusDir>("veld-local");
   Mox::Ptr<L3::UpdateIpIntfStatusRequests> ipRefresh = make<L3::UpdateIpIntfStatusRequests>();
   Mox::Ptr<L3::UpdateIpIntfStatusRequests> ip6Refresh = make<L3::UpdateIpIntfStatusRequests>();
   Mox::Ptr<Veld::L3IntfStatusVrfSm> sm;
   IntfId const e1{"Ethernet1"};
};

TEST_F(L3IntfStatusVrfTest, TheL3StatusMovesOnlyWhenBothFamiliesAreInTheNewVrf) {
   makeSm();
   ipTo(e1, "blue");
   ip6To(e1, "blue");
   ASSERT_EQ(l3Vrf(e1), "blue");
   for (bool ipv4First : {true, false}) {
      SCOPED_TRACE(ipv4First ? "IPv4 side first" : "IPv6 side first");
      auto const from = l3Vrf(e1);
      auto const to = from == "blue" ? "red" : "blue";
      auto const refreshes = ipRefresh->request(e1), refreshes6 = ip6Refresh->request(e1);
      ipv4First ? ipTo(e1, to) : ip6To(e1, to);
      EXPECT_EQ(l3Vrf(e1), from);  // the families disagree
      EXPECT_EQ(ipRefresh->request(e1), refreshes);
      ipv4First ? ip6To(e1, to) : ipTo(e1, to);
      EXPECT_EQ(l3Vrf(e1), to);
      // Both families are asked to recompute the interface.
      EXPECT_EQ(ipRefresh->request(e1), refreshes + 1);
      EXPECT_EQ(ip6Refresh->request(e1), refreshes6 + 1);
   }
}

TEST_F(L3IntfStatusVrfTest, IPv4LeadsAndIPv6AloneMovesNothing) {
   makeSm();
   ip6To(e1, "blue");
   EXPECT_EQ(l3Vrf(e1), "(none)");  // waits for the IPv4 status
   ipTo(e1, "blue");
   EXPECT_EQ(l3Vrf(e1), "blue");

   IntfId const e2("Ethernet2");  // IPv4 only: it moves at once
   ipTo(e2, "red");
   EXPECT_EQ(l3Vrf(e2), "red");
   ipTo(e2, "blue");
   EXPECT_EQ(l3Vrf(e2), "blue");

   // A family that withdraws its request leaves the L3 status to the other's VRF.
   ipTo(e1, "red");
   ASSERT_EQ(l3Vrf(e1), "blue");
   ip6Req->requestDel(e1);
   EXPECT_EQ(l3Vrf(e1), "red");
}

TEST_F(L3IntfStatusVrfTest, TheL3StatusGoesWithTheLastFamilysStatusAfterTheDeferredIPv6Handling) {
   makeSm();
   ipTo(e1, "blue");
   ip6To(e1, "blue");
   ip6Status->intfDel(e1);
   EXPECT_TRUE(sm->deletedIp6IntfStatus().contains(e1));
   Mox::activityManager().advanceBy(0.01);
   EXPECT_TRUE(sm->deletedIp6IntfStatus().empty());
   EXPECT_EQ(l3Vrf(e1), "blue");  // IPv4 still holds it
   ipStatus->intfDel(e1);
   EXPECT_EQ(l3Vrf(e1), "(none)");

   // An IPv6 status deleted and made again before the clock ticks changes nothing; one that
   // stays deleted takes the L3 status along once IPv4 has none either.
   ipTo(e1, "red");
   ip6To(e1, "red");
   ip6Status->intfDel(e1);
   ip6To(e1, "red");
   Mox::activityManager().advanceBy(0.01);
   EXPECT_EQ(l3Vrf(e1), "red");
   ipStatus->intfDel(e1);
   EXPECT_EQ(l3Vrf(e1), "red");  // IPv6 still holds it
   ip6Status->intfDel(e1);
   EXPECT_EQ(l3Vrf(e1), "red");  // not before the clock ticks
   Mox::activityManager().advanceBy(0.01);
   EXPECT_EQ(l3Vrf(e1), "(none)");
}

TEST_F(L3IntfStatusVrfTest, StandbyChangesOnlyLocalInterfacesUntilItEnds) {
   IntfId const t1("Test1");
   makeSm(true);
   ipTo(e1, "blue");
   ipTo(t1, "blue");
   EXPECT_EQ(l3Vrf(e1), "(none)");
   EXPECT_EQ(l3Vrf(t1), "blue");
   sm->standbyModeIs(false);  // what standby skipped is done now
   EXPECT_EQ(l3Vrf(e1), "blue");
   sm->standbyModeIs(true);
   ipStatus->intfDel(e1);
   EXPECT_EQ(l3Vrf(e1), "blue");
}

}  // namespace
}  // namespace VeldTest
