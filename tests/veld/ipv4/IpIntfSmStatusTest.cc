// What the IPv4 machine leaves behind: statuses without a routed configuration, addresses of
// a device that went, and IFF_NOARP on a device no longer routed.
#include <gtest/gtest.h>

#include <linux/if.h>

#include "IpIntfSmFixture.h"

namespace VeldTest {
namespace {

class IpIntfSmStatusTest : public IpIntfSmFixture {
protected:
   // A status of this VRF as an earlier run of the agent left it.
   void leftBehind(IntfId const& id) {
      systemStatus->ipIntfStatusIs(id)->vrfIs(L3::VrfName("default"));
      updateVrfReq->requestIs(id, L3::VrfName("default"));
   }
   // The L3 status goes with the VRF request (L3IntfStatusVrfSm).
   bool hasStatus(IntfId const& id) { return ipStatus(id) || updateVrfReq->requestHas(id); }
};

TEST_F(IpIntfSmStatusTest, StatusesWithoutARoutedConfigurationGoAtStartAndWhenStandbyEnds) {
   auto e1 = addIntf("Ethernet1");
   auto e2 = addIntf("Ethernet2", false);  // configured here, but bridged
   place(e1);
   place(e2);
   leftBehind(e2.id);
   leftBehind(IntfId("Ethernet3"));  // not configured at all
   mirror->processEvents();
   makeSm();
   EXPECT_FALSE(hasStatus(e2.id));
   EXPECT_FALSE(hasStatus(IntfId("Ethernet3")));
   settle();
   ASSERT_TRUE(ipStatus(e1.id));

   // In standby the deletion is skipped; it is done when standby ends.
   sm->standbyModeIs(true);
   view->ipIntfConfigDel(e1.id);
   EXPECT_TRUE(hasStatus(e1.id));
   sm->standbyModeIs(false);
   EXPECT_FALSE(hasStatus(e1.id));
}

TEST_F(IpIntfSmStatusTest, AVanishedDeviceLeavesNoAddressInTheStatus) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.7.0.1/24"));
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   ASSERT_TRUE(ipStatus(e1.id));
   ASSERT_EQ(ipStatus(e1.id)->addrWithMask().toString(), "10.7.0.1/24");

   ASSERT_EQ(Konet::deleteLink(sock(), e1.veth.ifindex), 0);
   settle();
   ASSERT_TRUE(ipStatus(e1.id));
   EXPECT_EQ(ipStatus(e1.id)->addrWithMask(), Konet::IpAddrWithMask());
}

TEST_F(IpIntfSmStatusTest, NoArpFollowsTheRoutedSet) {
   auto e1 = addIntf("Ethernet1");
   e1.config->noArpIs(Ip::TristateBool::isTrue);
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   EXPECT_TRUE(link(e1.veth.ifindex).flags & IFF_NOARP);

   e1.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelBridged);
   settle();
   EXPECT_FALSE(link(e1.veth.ifindex).flags & IFF_NOARP);
}

}  // namespace
}  // namespace VeldTest
