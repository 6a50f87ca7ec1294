// Merging the IPv6 interface statuses of several producers into the published status.
#include <gtest/gtest.h>

#include <algorithm>

#include "veld/ipv6/Ip6IntfStatusSm.h"

using namespace Veld;
using Konet::IntfId;
using Mox::make;

namespace {

struct Ip6StatusFixture : ::testing::Test {
   Mox::Ptr<Ip6::Ip6InputStatusDir> inputs = make<Ip6::Ip6InputStatusDir>();
   Mox::Ptr<Ip6::Status> published = make<Ip6::Status>();
   Mox::Ptr<Ip6::Input::Status> a = inputs->inputStatusIs("veld");
   Mox::Ptr<Ip6::Input::Status> b = inputs->inputStatusIs("other-agent");
   Mox::Ptr<Ip6IntfStatusSm> sm = make<Ip6IntfStatusSm>(inputs, nullptr, published);

   Mox::Ptr<Ip6::IntfStatus> status(Mox::Ptr<Ip6::Input::Status> const& in, char const* intf,
                                    char const* vrf) {
      auto s = in->ip6IntfStatusIs(IntfId(intf));
      s->vrfIs(vrf);
      return s;
   }
   std::vector<std::string> vrfIntfs(char const* vrf) const {
      std::vector<std::string> out;
      if (auto e = published->vrfIp6IntfStatus(vrf)) {
         for (auto const& [id, s] : e->ip6IntfStatusIterator())
            out.push_back(id.name());
      }
      std::sort(out.begin(), out.end());
      return out;
   }
   static Konet::Ip6AddrWithMask addr(char const* text) {
      return *Konet::Ip6AddrWithMask::parse(text);
   }
};

}  // namespace

TEST_F(Ip6StatusFixture, PublishesTheInputsOwnObjectSoItsAddressesShowAtOnce) {
   auto s = status(a, "Ethernet1", "default");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), s);
   s->addrIs(addr("2001:db8::1/64"));
   s->dadFailedAddrIs(addr("2001:db8::2/64"));
   auto shown = published->intf(IntfId("Ethernet1"));
   EXPECT_TRUE(shown->addrHas(addr("2001:db8::1/64")));
   EXPECT_TRUE(shown->dadFailedAddrHas(addr("2001:db8::2/64")));
   EXPECT_EQ(vrfIntfs("default"), std::vector<std::string>{"Ethernet1"});
}

TEST_F(Ip6StatusFixture, InterfacesOfSeveralVrfsAndMovesBetweenThem) {
   auto s1 = status(a, "Ethernet1", "blue");
   auto s2 = status(a, "Ethernet2", "blue");
   auto s3 = status(b, "Ethernet3", "red");
   EXPECT_EQ(vrfIntfs("blue"), (std::vector<std::string>{"Ethernet1", "Ethernet2"}));
   EXPECT_EQ(vrfIntfs("red"), std::vector<std::string>{"Ethernet3"});

   s1->vrfIs("red");
   EXPECT_EQ(vrfIntfs("blue"), std::vector<std::string>{"Ethernet2"});
   EXPECT_EQ(vrfIntfs("red"), (std::vector<std::string>{"Ethernet1", "Ethernet3"}));
   s2->vrfIs("red");  // the last interface of blue
   EXPECT_EQ(published->vrfIp6IntfStatus("blue"), nullptr);
   EXPECT_EQ(published->vrfIp6IntfStatusIterator().size(), 1u);

   // Moving back and forth and deleting leave no empty entry behind.
   s3->vrfIs("green");
   b->ip6IntfStatusDel(IntfId("Ethernet3"));
   EXPECT_EQ(published->vrfIp6IntfStatus("green"), nullptr);
   EXPECT_EQ(published->intf(IntfId("Ethernet3")), nullptr);
}

TEST_F(Ip6StatusFixture, AnInterfaceHeldByTwoInputsStaysPublishedWhenOneGoes) {
   auto sa = status(a, "Ethernet1", "default");
   auto sb = status(b, "Ethernet1", "blue");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), sb);  // the latest addition
   sa->vrfIs("red");                                     // not the published one: nothing moves
   EXPECT_EQ(vrfIntfs("blue"), std::vector<std::string>{"Ethernet1"});
   EXPECT_EQ(published->vrfIp6IntfStatus("red"), nullptr);

   inputs->inputStatusDel("other-agent");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), sa);
   EXPECT_EQ(published->vrfIp6IntfStatus("blue"), nullptr);
   EXPECT_EQ(vrfIntfs("red"), std::vector<std::string>{"Ethernet1"});
}

TEST_F(Ip6StatusFixture, WithEveryInputGoneNothingIsPublishedAndUrpfIsOff) {
   status(a, "Ethernet1", "default");
   status(b, "Ethernet2", "blue");
   a->urpfConfiguredOnAnyIntfIs(true);
   b->urpfConfiguredOnAnyIntfIs(true);
   EXPECT_TRUE(published->urpfConfiguredOnAnyIntf());
   a->urpfConfiguredOnAnyIntfIs(false);
   EXPECT_TRUE(published->urpfConfiguredOnAnyIntf());
   inputs->inputStatusDel("veld");
   inputs->inputStatusDel("other-agent");
   EXPECT_TRUE(published->intfIterator().empty());
   EXPECT_TRUE(published->vrfIp6IntfStatusIterator().empty());
   EXPECT_FALSE(published->urpfConfiguredOnAnyIntf());
}

TEST_F(Ip6StatusFixture, AnInputReCreatedUnderItsNameIsFollowed) {
   status(a, "Ethernet1", "default");
   inputs->inputStatusDel("veld");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), nullptr);
   auto again = inputs->inputStatusIs("veld");
   auto s = status(again, "Ethernet1", "blue");
   EXPECT_EQ(published->intf(IntfId("Ethernet1")), s);
   EXPECT_EQ(vrfIntfs("blue"), std::vector<std::string>{"Ethernet1"});
}

TEST_F(Ip6StatusFixture, StatusesPresentAtStartAndRepointing) {
   status(a, "Ethernet1", "default");
   auto published2 = make<Ip6::Status>();
   auto sm2 = make<Ip6IntfStatusSm>(inputs, nullptr, published2);
   EXPECT_TRUE(published2->intf(IntfId("Ethernet1")));

   auto other = make<Ip6::Ip6InputStatusDir>();
   auto s = status(other->inputStatusIs("x"), "Ethernet9", "red");
   sm2->notifierIs(other);
   EXPECT_EQ(published2->intf(IntfId("Ethernet1")), nullptr);
   EXPECT_EQ(published2->intf(IntfId("Ethernet9")), s);
   EXPECT_EQ(published2->vrfIp6IntfStatus("default"), nullptr);
   a->ip6IntfStatusIs(IntfId("Ethernet2"));  // the old directory no longer counts
   EXPECT_EQ(published2->intf(IntfId("Ethernet2")), nullptr);
}
