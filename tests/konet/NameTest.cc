// Interface ids and bounded names.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "konet/IntfId.h"
#include "konet/NamespaceName.h"
#include "konet/VrfName.h"
#include "mox/Error.h"

namespace Konet {
namespace {

TEST(IntfId, ParseAndNone) {
   for (auto t : {"Ethernet1", "Ethernet3/1", "Ethernet3/1.100", "Vlan10", "Management1",
                  "Loopback0", "Port-Channel5"}) {
      auto id = IntfId::parse(t);
      ASSERT_TRUE(id) << t;
      EXPECT_EQ(id->name(), t);
   }
   for (std::string t :
        std::vector<std::string>{"", "1Ethernet", "Ethernet 1", "Ethernet1\n", "Eth\"1",
                                 std::string(IntfId::maxLength + 1, 'E')}) {
      std::string error;
      EXPECT_FALSE(IntfId::parse(t, &error)) << t;
      EXPECT_NE(error.find("is not an interface name"), std::string::npos);
   }
   EXPECT_TRUE(IntfId().empty());
   EXPECT_LT(IntfId(), IntfId("Ethernet1"));
   EXPECT_TRUE(IntfId("Loopback0").isLoopback());
   EXPECT_TRUE(IntfId("Management1").isManagement());
   EXPECT_FALSE(IntfId("Ethernet1").isManagement());
   EXPECT_THROW(IntfId("bad name"), Cinder::AssertException);
   std::unordered_set<IntfId> set{IntfId("Ethernet1"), IntfId("Ethernet1"), IntfId()};
   EXPECT_EQ(set.size(), 2u);
}

// Equal names are one stored entry, however and wherever they were made; order and hash go
// by the name.
TEST(IntfId, EqualNamesAreOneEntryOrderedByName) {
   std::string built = "Ethernet";
   built += "42";
   auto const parsed = IntfId::parse(built);
   ASSERT_TRUE(parsed);
   EXPECT_EQ(*parsed, IntfId("Ethernet42"));
   EXPECT_EQ(&parsed->name(), &IntfId("Ethernet42").name());
   EXPECT_EQ(parsed->hash(), std::hash<IntfId>()(IntfId("Ethernet42")));
   EXPECT_NE(IntfId("Ethernet42"), IntfId("Ethernet4"));
   EXPECT_EQ(IntfId("Ethernet1").hash(), std::hash<std::string_view>()("Ethernet1"));
   // Made in the reverse order of their names: the order is still the names'.
   IntfId const z("Zz9"), a("Aa1");
   EXPECT_LT(a, z);
   EXPECT_GT(IntfId("Ethernet10"), IntfId("Ethernet1"));
   EXPECT_EQ(IntfId("Ethernet1") <=> IntfId("Ethernet1"), std::strong_ordering::equal);
   EXPECT_EQ(IntfId::parse(""), std::nullopt);
   EXPECT_EQ(IntfId(), IntfId());
   EXPECT_EQ(IntfId().name(), "");

   std::vector<IntfId> seen(4);
   std::vector<std::thread> threads;
   for (size_t t = 0; t < seen.size(); ++t) {
      threads.emplace_back([&seen, t] {
         for (int i = 0; i < 200; ++i)
            seen[t] = IntfId("Vlan" + std::to_string(i));
      });
   }
   for (auto& th : threads)
      th.join();
   for (auto const& id : seen)
      EXPECT_EQ(&id.name(), &IntfId("Vlan199").name());
}

TEST(NamespaceName, BoundAndDefault) {
   EXPECT_EQ(NamespaceName(std::string(150, 'n')).name().size(), 150u);
   try {
      NamespaceName(std::string(151, 'n'));
      ADD_FAILURE() << "151 bytes accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(), "NamespaceName::bytes > 150 not allowed");
   }
   EXPECT_EQ(DEFAULT_NS, "default");
   EXPECT_EQ(NamespaceName::defaultNamespace().name(), "default");
   EXPECT_TRUE(NamespaceName::defaultNamespace().isDefault());
   EXPECT_TRUE(NamespaceName().isDefault());
   EXPECT_FALSE(NamespaceName("ns-blue").isDefault());
}

TEST(VrfName, BoundAndDefault) {
   EXPECT_EQ(L3::VrfName(std::string(100, 'v')).name().size(), 100u);
   try {
      L3::VrfName(std::string(101, 'v'));
      ADD_FAILURE() << "101 bytes accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(), "VrfName::bytes > VrfName::maxLength not allowed");
   }
   EXPECT_EQ(L3::VrfName().name(), "default");
   EXPECT_TRUE(L3::VrfName::defaultVrf().isDefault());
   EXPECT_FALSE(L3::VrfName("red").isDefault());
   EXPECT_LT(L3::VrfName("blue"), L3::VrfName("red"));
}

}  // namespace
}  // namespace Konet
