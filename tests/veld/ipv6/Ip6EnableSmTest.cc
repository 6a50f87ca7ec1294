// Merging the applications' requests for IPv6 on an interface.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/ipv6/Ip6EnableSm.h"

using namespace Veld;
using Konet::IntfId;
using Mox::make;

namespace {

// Counts the output's changes per interface.
class OutputWrites : public Ip6::Ip6Enable::NotifieeConst {
public:
   explicit OutputWrites(Mox::Ptr<Ip6::Ip6Enable> const& out) { notifierIs(out); }
   void onEnable(IntfId const&) override { ++writes; }
   int writes = 0;
};

struct Ip6EnableFixture : ::testing::Test {
   Mox::Ptr<Mox::Dir> dir = make<Mox::Dir>("ip6Enable");
   Mox::Ptr<Ip6::Ip6Enable> out = make<Ip6::Ip6Enable>();
   Mox::Ptr<Ip6EnableSm> sm = Ip6EnableSmIs(dir, out);
   Mox::Ptr<OutputWrites> writes = make<OutputWrites>(out);
   IntfId const et1{"Ethernet1"};
   IntfId const et2{"Ethernet2"};

   Mox::Ptr<Ip6::Ip6Enable> app(char const* name) {
      auto e = make<Ip6::Ip6Enable>();
      dir->entryIs(name, e);
      return e;
   }
};

}  // namespace

TEST_F(Ip6EnableFixture, EnabledWhileAnyApplicationEnables) {
   auto dhcp = app("dhcp6");
   auto relay = app("relay");
   dhcp->enableIs(et1, true);
   relay->enableIs(et1, true);
   EXPECT_TRUE(out->enable(et1));
   EXPECT_EQ(writes->writes, 1);  // the second enabling finds it true already

   dhcp->enableIs(et1, false);  // one withdraws by setting false
   EXPECT_TRUE(out->enable(et1));
   relay->enableIs(et1, false);
   EXPECT_FALSE(out->enable(et1));
   EXPECT_EQ(writes->writes, 2);

   // Withdrawing an interface never enabled, while the output is false, writes nothing.
   relay->enableIs(et2, false);
   EXPECT_EQ(writes->writes, 2);
}

TEST_F(Ip6EnableFixture, ARemovedApplicationLeavesTheOutputAsItWas) {
   auto dhcp = app("dhcp6");
   auto relay = app("relay");
   dhcp->enableIs(et1, true);
   dhcp->enableIs(et2, true);
   relay->enableIs(et2, true);
   dir->entryDel("dhcp6");
   EXPECT_EQ(sm->appIp6EnableSm("dhcp6"), nullptr);
   EXPECT_TRUE(out->enable(et1));  // deliberately kept
   EXPECT_TRUE(out->enable(et2));
   dhcp->enableIs(et1, false);  // the entity no longer counts
   EXPECT_TRUE(out->enable(et1));

   // The output follows again once an application changes the interface.
   relay->enableIs(et1, true);
   relay->enableIs(et1, false);
   EXPECT_FALSE(out->enable(et1));
   relay->enableIs(et2, false);  // the removed application does not hold it up
   EXPECT_FALSE(out->enable(et2));

   // The merge machine going leaves the output too.
   relay->enableIs(et2, true);
   sm = nullptr;
   EXPECT_TRUE(out->enable(et2));
}

TEST_F(Ip6EnableFixture, ReCreatedUnderTheSameNameFollowsTheNewEntity) {
   auto first = app("dhcp6");
   first->enableIs(et1, true);
   dir->entryDel("dhcp6");
   auto second = app("dhcp6");
   auto machine = sm->appIp6EnableSm("dhcp6");
   ASSERT_TRUE(machine);
   EXPECT_EQ(machine->ip6Enable(), second);
   second->enableIs(et2, true);
   EXPECT_TRUE(out->enable(et2));
   second->enableIs(et1, false);  // never enabled by the new one: nothing to withdraw
   EXPECT_TRUE(out->enable(et1));
   second->enableIs(et1, true);
   second->enableIs(et1, false);
   EXPECT_FALSE(out->enable(et1));

   // Replaced in place, without a deletion in between.
   auto third = make<Ip6::Ip6Enable>();
   third->enableIs(et1, true);
   dir->entryIs("dhcp6", third);
   EXPECT_EQ(sm->appIp6EnableSm("dhcp6")->ip6Enable(), third);
   EXPECT_TRUE(out->enable(et1));
   second->enableIs(et2, false);   // the replaced entity no longer counts ...
   EXPECT_TRUE(out->enable(et2));  // ... and what it enabled stays, as for a removed one
   third->enableIs(et2, true);
   third->enableIs(et2, false);
   EXPECT_FALSE(out->enable(et2));

   try {
      sm->appIp6EnableSmIs("dhcp6", second);
      FAIL() << "a machine was re-made on another entity";
   } catch (Mox::NameInUseException const& e) {
      EXPECT_EQ(std::string(e.what()),
                "Reinstantiating the pointer interface where constructor parameter attribute "
                "_ip6Enable has a different value of " +
                    Mox::describe(Mox::Ptr<Ip6::Ip6Enable const>(second)) +
                    " than the current value of " +
                    Mox::describe(Mox::Ptr<Ip6::Ip6Enable const>(third)) + " not allowed");
   }
   EXPECT_EQ(sm->appIp6EnableSmIs("dhcp6", third), sm->appIp6EnableSm("dhcp6"));
}

TEST_F(Ip6EnableFixture, EntriesPresentBeforeTheMachineAndEntriesOfAnotherType) {
   auto early = make<Ip6::Ip6Enable>();
   early->enableIs(et1, true);
   auto dir2 = make<Mox::Dir>();
   dir2->entryIs("early", early);
   dir2->entryIs("stranger", make<Ip6::Config>());
   auto out2 = make<Ip6::Ip6Enable>();
   auto sm2 = Ip6EnableSmIs(dir2, out2);
   EXPECT_TRUE(out2->enable(et1));
   EXPECT_EQ(sm2->appIp6EnableSmSize(), 1u);
   EXPECT_EQ(sm2->appIp6EnableSm("stranger"), nullptr);

   // An application's entry replaced by something else loses its machine.
   dir2->entryIs("early", make<Ip6::Config>());
   EXPECT_EQ(sm2->appIp6EnableSmSize(), 0u);
   EXPECT_TRUE(out2->enable(et1));
   EXPECT_FALSE(sm2->isAnyIp6Enabled(et1));
}

TEST_F(Ip6EnableFixture, TracesUnderItsOwnFacility) {
   VeldTest::TraceCapture trace({"VeldIp6Enable"});
   auto dhcp = app("dhcp6");
   dhcp->enableIs(et1, true);
   dir->entryDel("dhcp6");
   EXPECT_TRUE(trace.contains("create Ip6EnableSm"));
   EXPECT_TRUE(trace.contains(" for Ethernet1"));
   EXPECT_TRUE(trace.contains("Delete Ip6EnableSm"));
}
