// IFF_NOARP of a device that both interface machines of a namespace program: the flag
// follows both families' configurations together, whichever machine runs last.
#include <gtest/gtest.h>

#include "Ip6IntfSmFixture.h"
#include "veld/ipv4/IpIntfSm.h"

using namespace VeldTest;

namespace {

class Ip6IntfSmNoArpTest : public Ip6IntfSmFixture {
protected:
   void TearDown() override {
      ipSm = nullptr;
      Ip6IntfSmFixture::TearDown();
   }
   void makeIpSm() {
      ipSm = make<Veld::IpIntfSm>(
          Veld::IpIntfSm::Inputs{.ipConfig = ipConfig,
                                 .vrfIpIntfConfig = ipView,
                                 .addrMap = addrMap,
                                 .kernelIntfDir = manager->deviceIntfStatusDir(),
                                 .kernelProtoConfig = make<Routing::KernelProtoConfig>(),
                                 .routingInfoConfig = make<Routing::InfoConfig>(),
                                 .systemIntfIpStatus = make<Ip::Input::Status>("veld"),
                                 .localIntfIpStatus = make<Ip::Input::Status>("veld-local"),
                                 .systemL3IntfStatus = systemL3,
                                 .localL3IntfStatus = localL3,
                                 .netlinkSocket = ipNetlink_.get(),
                                 .allIntfStatusDir = allIntfStatus,
                                 .kniIntfStatusManager = manager,
                                 .vrfName = ipView->vrfName(),
                                 .warpState = warp,
                                 .timerWheel = wheel,
                                 .vrfIp6IntfConfig = view},
          false);
   }
   // Both machines' backlogs run until both are empty.
   void settleBoth() {
      for (int n = 0; n < 80; ++n) {
         mirror->processEvents();
         Mox::activityManager().advanceBy(0.011);
         if (n > 2 && sm->ip6IntfKernelUpdateCodefListSize() == 0 &&
             ipSm->ipIntfKernelUpdateCodefListSize() == 0) {
            mirror->processEvents();
            if (sm->ip6IntfKernelUpdateCodefListSize() == 0 &&
                ipSm->ipIntfKernelUpdateCodefListSize() == 0) {
               return;
            }
         }
      }
      ADD_FAILURE() << "the backlogs did not empty";
   }
   bool noArp(Intf const& i) { return link(i.veth.ifindex).flags & IFF_NOARP; }
   Mox::Ptr<Ip::IpIntfConfig> ipv4Of(Intf const& i) {
      auto c = ipConfig->ipIntfConfigIs(i.id);
      c->l3ConfigIs(i.config->l3Config());
      ipView->ipIntfConfigIs(c);
      return c;
   }

   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<Veld::IpIntfSm> ipSm;

private:
   void SetUp() override {
      Ip6IntfSmFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      int err = 0;
      ipNetlink_ = Konet::createNetlinkSocket("default", 0, 2, true, 0, &err);
      ASSERT_TRUE(ipNetlink_);
   }
   Konet::Fd ipNetlink_;
};

using TB = Ip::TristateBool;

TEST_F(Ip6IntfSmNoArpTest, TheFlagIsSetWhileEitherFamilyAsksAndClearedWhenNeitherDoes) {
   auto e1 = addIntf("Ethernet1");
   auto ip = ipv4Of(e1);
   place(e1);
   mirror->processEvents();
   makeSm();
   makeIpSm();
   settleBoth();
   ASSERT_FALSE(noArp(e1));

   // IPv6 asks; the IPv4 machine, running later for an address of its own, keeps the flag.
   e1.config->noArpIs(TB::isTrue);
   settleBoth();
   EXPECT_TRUE(noArp(e1));
   ip->addrWithMaskIs(*Konet::IpAddrWithMask::parse("10.0.1.1/24"));
   settleBoth();
   EXPECT_TRUE(noArp(e1));

   // IPv4 asks too, then IPv6 stops asking: still set.
   ip->noArpIs(TB::isTrue);
   settleBoth();
   e1.config->noArpIs(TB::isFalse);
   settleBoth();
   EXPECT_TRUE(noArp(e1));
   // ... and the IPv6 machine, running for an address, keeps it too.
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   settleBoth();
   EXPECT_TRUE(noArp(e1));

   // Neither asks: cleared.
   ip->noArpIs(TB::isUnset);
   settleBoth();
   EXPECT_FALSE(noArp(e1));

   // The IPv6 configuration goes while it asks for no ARP: ARP comes back.
   e1.config->noArpIs(TB::isTrue);
   settleBoth();
   ASSERT_TRUE(noArp(e1));
   view->ipIntfConfigDel(e1.id);
   settleBoth();
   EXPECT_FALSE(noArp(e1));

   // An unrouted interface keeps ARP whatever its configuration says.
   place(e1);
   ip->noArpIs(TB::isTrue);
   settleBoth();
   ASSERT_TRUE(noArp(e1));
   e1.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelBridged);
   settleBoth();
   EXPECT_FALSE(noArp(e1));
}

}  // namespace
