// Interface ids and bounded names.
#include <gtest/gtest.h>

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
