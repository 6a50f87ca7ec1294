// Merging the IPv4 and L3 interface statuses of several producers.
#include <gtest/gtest.h>

#include "veld/ipv4/IpIntfStatusSm.h"
#include "veld/ipv4/L3IntfStatusSm.h"

using namespace Veld;
using Konet::IntfId;
using Mox::make;

namespace {

struct IpFixture : ::testing::Test {
   Mox::Ptr<Ip::IpInputStatusDir> inputs = make<Ip::IpInputStatusDir>();
   Mox::Ptr<Ip::Status> published = make<Ip::Status>();
   Mox::Ptr<Ip::Input::Status> a = inputs->inputStatusIs("veld-default");
   Mox::Ptr<Ip::Input::Status> b = inputs->inputStatusIs("other-agent");
   Mox::Ptr<IpIntfStatusSm> sm = make<IpIntfStatusSm>(inputs, nullptr, published);

   Mox::Ptr<Ip::IpIntfStatus> status(Mox::Ptr<Ip::Input::Status> const& in, char const* intf,
                                     char const* vrf) {
      auto s = in->ipIntfStatusIs(IntfId(intf));
      s->vrfIs(vrf);
      return s;
   }
   std::vector<std::string> vrfIntfs(char const* vrf) const {
      std::vector<std::string> out;
      if (auto e = published->vrfIpIntfStatus(vrf)) {
         for (auto const& [id, s] : e->ipIntfStatusIterator())
            out.push_back(id.name());
      }
      return out;
   }
};

}  // namespace

TEST_F(IpFixture, PublishesTheInputsOwnObjectUnderItsVrf) {
   auto s = status(a, "Ethernet1", "default");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), s);
   EXPECT_EQ(vrfIntfs("default"), std::vector<std::string>{"Ethernet1"});
   s->addrWithMaskIs(*Konet::IpAddrWithMask::parse("10.0.0.1/24"));
   EXPECT_EQ(published->intf(IntfId("Ethernet1"))->addrWithMask().toString(), "10.0.0.1/24");
}

TEST_F(IpFixture, AnInterfaceHeldByTwoInputsStaysPublishedWhenOneGoes) {
   auto sa = status(a, "Ethernet1", "default");
   auto sb = status(b, "Ethernet1", "default");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), sb);  // the latest addition wins
   inputs->inputStatusDel("other-agent");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), sa);
   a->ipIntfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), nullptr);
   EXPECT_EQ(published->vrfIpIntfStatus("default"), nullptr);
}

TEST_F(IpFixture, OneInputDroppingAnInterfaceRepublishesAnotherInputsStatus) {
   auto sa = status(a, "Ethernet1", "default");
   auto sb = status(b, "Ethernet1", "blue");
   b->ipIntfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), sa);
   EXPECT_EQ(vrfIntfs("default"), std::vector<std::string>{"Ethernet1"});
   EXPECT_EQ(published->vrfIpIntfStatus("blue"), nullptr);
}

TEST_F(IpFixture, TheLastInterfaceLeavingAVrfRemovesItsEntry) {
   auto s1 = status(a, "Ethernet1", "blue");
   auto s2 = status(a, "Ethernet2", "blue");
   s1->vrfIs("red");
   EXPECT_EQ(vrfIntfs("blue"), std::vector<std::string>{"Ethernet2"});
   EXPECT_EQ(vrfIntfs("red"), std::vector<std::string>{"Ethernet1"});
   s2->vrfIs("red");
   EXPECT_EQ(published->vrfIpIntfStatus("blue"), nullptr);
   EXPECT_EQ(vrfIntfs("red"), (std::vector<std::string>{"Ethernet1", "Ethernet2"}));
}

TEST_F(IpFixture, UrpfFlagIsTheOrOfAllInputs) {
   a->urpfConfiguredOnAnyIntfIs(true);
   EXPECT_TRUE(published->urpfConfiguredOnAnyIntf());
   b->urpfConfiguredOnAnyIntfIs(true);
   a->urpfConfiguredOnAnyIntfIs(false);
   EXPECT_TRUE(published->urpfConfiguredOnAnyIntf());
   inputs->inputStatusDel("other-agent");
   EXPECT_FALSE(published->urpfConfiguredOnAnyIntf());
}

TEST_F(IpFixture, RepointingToAnotherDirectoryResyncs) {
   status(a, "Ethernet1", "default");
   auto other = make<Ip::IpInputStatusDir>();
   auto s = status(other->inputStatusIs("x"), "Ethernet9", "default");
   sm->notifierIs(other);
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), nullptr);
   EXPECT_EQ(published->intf(IntfId("Ethernet9")), s);
   a->ipIntfStatusIs(IntfId("Ethernet2"));  // the old directory no longer counts
   EXPECT_EQ(published->intf(IntfId("Ethernet2")), nullptr);
}

TEST_F(IpFixture, InputsPresentAtStartAreMerged) {
   status(a, "Ethernet1", "default");
   auto published2 = make<Ip::Status>();
   auto sm2 = make<IpIntfStatusSm>(inputs, nullptr, published2);
   EXPECT_TRUE(published2->intf(IntfId("Ethernet1")));
}

TEST(L3IntfStatusSm, PublishesOwnStatusesWhileAnyInputHoldsTheInterface) {
   auto inputs = make<L3::Intf::InputStatusDir>();
   auto out = make<L3::Intf::StatusDir>();
   auto v4 = inputs->inputStatusIs("ip");
   auto v6 = inputs->inputStatusIs("ip6");
   auto sm = make<L3IntfStatusSm>(inputs, out);

   auto s4 = v4->intfStatusIs(IntfId("Ethernet1"));
   s4->vrfIs("blue");
   auto pub = out->intfStatus(IntfId("Ethernet1"));
   ASSERT_TRUE(pub);
   EXPECT_NE(pub, s4);  // the machine's own object
   EXPECT_EQ(pub->vrf(), L3::VrfName("blue"));

   auto s6 = v6->intfStatusIs(IntfId("Ethernet1"));
   s6->vrfIs("blue");
   v4->intfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(out->intfStatus(IntfId("Ethernet1")), pub);  // still held by the IPv6 input
   s6->vrfIs("red");
   EXPECT_EQ(pub->vrf(), L3::VrfName("red"));
   inputs->inputStatusDel("ip6");
   EXPECT_EQ(out->intfStatus(IntfId("Ethernet1")), nullptr);
}
