// The platform's own small machines and lookups.
#include <gtest/gtest.h>

#include "platform/KernelNetInfo.h"
#include "platform/NetNsIntfStatusManagerRoot.h"

using Mox::make;

namespace {

struct Fixture : ::testing::Test {
   Mox::Ptr<Interface::AllIntfStatusDir> all = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::AllIntfStatusLocalDir> local = make<Interface::AllIntfStatusLocalDir>();

   Mox::Ptr<Interface::IntfStatus> intf(char const* id, char const* dev, char const* ns) {
      auto s = all->intfStatusIs(Konet::IntfId(id));
      s->deviceNameIs(dev);
      s->netNsNameIs(ns);
      return s;
   }
};

}  // namespace

TEST_F(Fixture, InterfacesFollowTheirDeviceIntoRegisteredNamespaces) {
   auto e1 = intf("Ethernet1", "et1", "default");
   auto root = make<Interface::NetNsIntfStatusManagerRoot>(all, local, true);
   auto def = root->intfStatusManagerIs("");  // "" and "default" are the same namespace
   EXPECT_EQ(root->intfStatusManagerIs("default"), def);
   EXPECT_EQ(def->deviceIntf("et1"), Konet::IntfId("Ethernet1"));
   EXPECT_EQ(def->deviceIntfStatusDir()->intfStatusAndDeviceName(Konet::IntfId("Ethernet1")).second,
             "et1");

   // Moving the device to a namespace registered later places it there when it registers.
   e1->netNsNameIs("ns-blue");
   EXPECT_TRUE(def->deviceIntf("et1").empty());
   EXPECT_EQ(def->deviceIntfStatusDir()->intfStatus(Konet::IntfId("Ethernet1")), nullptr);
   auto blue = root->intfStatusManagerIs("ns-blue");
   EXPECT_EQ(blue->deviceIntf("et1"), Konet::IntfId("Ethernet1"));

   // A renamed device, a device removed, a status removed.
   e1->deviceNameIs("et1b");
   EXPECT_TRUE(blue->deviceIntf("et1").empty());
   EXPECT_EQ(blue->deviceIntf("et1b"), Konet::IntfId("Ethernet1"));
   e1->deviceNameIs("");
   EXPECT_EQ(blue->deviceIntfStatusDir()->intfStatus(Konet::IntfId("Ethernet1")), nullptr);
   e1->deviceNameIs("et1");
   all->intfStatusDel(Konet::IntfId("Ethernet1"));
   EXPECT_TRUE(blue->deviceIntf("et1").empty());
}

TEST_F(Fixture, LocalInterfacesOnlyWhenAsked) {
   auto l = local->intfStatusIs(Konet::IntfId("Test1"));
   l->deviceNameIs("t1");
   auto without = make<Interface::NetNsIntfStatusManagerRoot>(all, local, false);
   auto with = make<Interface::NetNsIntfStatusManagerRoot>(all, local, true);
   EXPECT_TRUE(without->intfStatusManagerIs("default")->deviceIntf("t1").empty());
   EXPECT_EQ(with->intfStatusManagerIs("default")->deviceIntf("t1"), Konet::IntfId("Test1"));
}

TEST(KernelNetInfo, RecordsByKeyAndByDeviceNameFollowRenames) {
   auto status = make<KernelNetInfo::Status>("default");
   KernelNetInfo::Interface rec;
   rec.key.ifIndex = 7;
   rec.deviceName = "et1";
   status->interfaceIs(rec);
   EXPECT_EQ(status->interfaceByName("et1").key.ifIndex, 7u);
   rec.deviceName = "et1b";
   status->interfaceIs(rec);
   EXPECT_EQ(status->interfaceByName("et1"), KernelNetInfo::Interface());
   EXPECT_EQ(status->interfaceByName("et1b").key.ifIndex, 7u);
   status->interfaceDel(rec.key);
   EXPECT_EQ(status->interfaceByName("et1b"), KernelNetInfo::Interface());
   EXPECT_EQ(status->interface(rec.key), KernelNetInfo::Interface());
   EXPECT_THROW(status->interface().set(rec.key, rec), Cinder::NoPermissionException);
}
