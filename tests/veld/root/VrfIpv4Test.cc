// A VRF from configuration to its namespace's kernel: the VRF root's IPv4 machine programs
// an interface whose device lives in the VRF's namespace, and leaves it when the VRF goes.
#include <gtest/gtest.h>

#include <linux/if.h>
#include <sys/socket.h>

#include "linux/KernelMirror.h"
#include "linux/NetNs.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "tests/linux/KernelFixture.h"
#include "veld/root/Root.h"
#include "veld/root/VrfRootSm.h"

using namespace Veld;
using Konet::IntfId;
using Mox::make;

namespace {

class VrfIpv4Test : public KonetTest::KernelFixture {
protected:
   Mox::ScopedVirtualTime time;
   Mox::Ptr<Larder::EntityManager> mgr = make<Larder::EntityManager>();
   Mox::Ptr<Routing::VrfInfoConfigDir> routing = make<Routing::VrfInfoConfigDir>();
   Mox::Ptr<Routing6::VrfInfoConfigDir> routing6 = make<Routing6::VrfInfoConfigDir>();
   Mox::Ptr<Ip::AllVrfStatusGlobal> global = make<Ip::AllVrfStatusGlobal>();
   Mox::Ptr<Ip::AllVrfStatusLocal> local = make<Ip::AllVrfStatusLocal>();
   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Ip::Input::Status> ipStatus = make<Ip::Input::Status>("veld");
   Mox::Ptr<L3::Intf::Input::StatusDir> l3Status = make<L3::Intf::Input::StatusDir>("veld");
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> vrfReq = make<L3::UpdateIpIntfStatusVrfRequests>();
   Mox::Ptr<Interface::AllIntfStatusDir> intfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managers =
       make<Interface::NetNsIntfStatusManagerRoot>(intfStatus, nullptr, false);
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   Mox::Ptr<VrfIpIntfConfigDir> views = make<VrfIpIntfConfigDir>();
   Mox::Ptr<VrfIp6IntfConfigDir> views6 = make<VrfIp6IntfConfigDir>();
   Mox::Ptr<VrfIpIntfConfigSm> placer;
   Mox::Ptr<VrfRootSm> sm;
   std::unique_ptr<Konet::KernelMirror> mirror;

   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      placer = VrfIpIntfConfigSmIs(ipConfig, views);
      sm = VrfRootSm::VrfRootSmIs({.routingVrfInfoConfigDir = routing,
                                   .routingHardwareStatus = make<Routing::Hardware::Status>(),
                                   .kernelProtoConfig = make<Routing::KernelProtoConfig>(),
                                   .allVrfStatusGlobal = global,
                                   .allVrfStatusLocal = local,
                                   .ipConfig = ipConfig,
                                   .systemIntfIpStatus = ipStatus,
                                   .localIntfIpStatus = make<Ip::Input::Status>("local"),
                                   .systemL3IntfStatus = l3Status,
                                   .localL3IntfStatus = make<L3::Intf::Input::StatusDir>("local"),
                                   .allIntfStatusDir = intfStatus,
                                   .routing6InfoConfig = make<Routing6::InfoConfig>(),
                                   .routing6VrfInfoConfigDir = routing6,
                                   .updateIpIntfStatusVrfReq = vrfReq,
                                   .warpState = make<WarpState>("w"),
                                   .entityMgr = mgr,
                                   .timerWheel = wheel,
                                   .vrfIpIntfConfigDir = views,
                                   .vrfIp6IntfConfigDir = views6,
                                   .urpfOnAllIntfStat = make<Urpf::UrpfOnAllIntfStat>(),
                                   .urpfOnAllIntfStat6 = make<Urpf::UrpfOnAllIntfStat>(),
                                   .intfStatusManagerRoot = managers},
                                  false);
   }
   void TearDown() override {
      sm = nullptr;
      placer = nullptr;
      mirror = nullptr;
      KernelFixture::TearDown();
   }
   void settle() {
      for (int i = 0; i < 30; ++i) {
         if (mirror) mirror->processEvents();
         Mox::activityManager().advanceBy(0.011);
      }
   }
};

TEST_F(VrfIpv4Test, AnInterfaceOfAVrfIsProgrammedInsideTheVrfsNamespace) {
   // The VRF: namespace, mirror, readiness, routing configuration.
   auto ns = createNamespace();
   mirror = std::make_unique<Konet::KernelMirror>(ns);
   ASSERT_EQ(mirror->start(), 0);
   mgr->entityIs(Larder::formatPath("kni/ns/%s/status", ns.name()), mirror->status());
   global->vrfIs("blue");
   auto status = local->vrfIs("blue");
   status->netNsNameIs(ns);
   status->stateIs(Ip::VrfState::active);
   routing->vrfConfigIs("blue")->routingIs(true);
   routing6->vrfConfigIs("blue");
   auto blue = sm->vrfRoot("blue");
   ASSERT_TRUE(blue && blue->initialized());
   ASSERT_TRUE(blue->ipIntfSm());
   EXPECT_EQ(blue->ipIntfSm()->nsName(), ns);
   EXPECT_EQ(blue->ipIntfSm()->netlinkSocket(), blue->netlinkSocket());

   // Its interface: a device moved into the namespace, configured in the VRF.
   auto veth = createVeth();
   int nsSock = blue->netlinkSocket();
   ASSERT_EQ(Konet::moveLinkToNamedNetNs(sock(), veth.ifindex, ns), 0);
   int ifindex = 0;
   ASSERT_EQ(Konet::linkIndex(nsSock, veth.name, &ifindex), 0);
   ASSERT_EQ(Konet::setLinkUp(sock(), veth.peerIfindex, true), 0);
   ASSERT_EQ(Konet::setLinkUp(nsSock, ifindex, true), 0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return link(ifindex, nsSock).flags & IFF_RUNNING; }));

   auto s = intfStatus->intfStatusIs(IntfId("Ethernet1"));
   s->deviceNameIs(veth.name);
   s->netNsNameIs(ns);
   s->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelRouted);
   auto l3 = l3Config->intfConfigIs(IntfId("Ethernet1"));
   l3->vrfIs("blue");
   auto config = ipConfig->ipIntfConfigIs(IntfId("Ethernet1"));
   config->l3ConfigIs(l3);
   config->addrWithMaskIs(*Konet::IpAddrWithMask::parse("10.5.0.1/24"));
   settle();

   auto inNs = addrs(ifindex, AF_INET, nsSock);
   ASSERT_EQ(inNs.size(), 1u);
   EXPECT_EQ(inNs[0].addr.toString(), "10.5.0.1");
   EXPECT_TRUE(addrs(0, AF_INET).empty());  // nothing in the agent's own namespace
   auto published = ipStatus->ipIntfStatus(IntfId("Ethernet1"));
   ASSERT_TRUE(published);
   EXPECT_EQ(published->vrf(), L3::VrfName("blue"));
   EXPECT_EQ(published->addrWithMask().toString(), "10.5.0.1/24");
   EXPECT_EQ(l3Status->intfStatus(IntfId("Ethernet1"))->vrf(), L3::VrfName("blue"));
   EXPECT_EQ(vrfReq->request(IntfId("Ethernet1")), L3::VrfName("blue"));

   // The VRF's routing entries are made again, routing off, while its root lives: the
   // interface's forwarding follows the new entry, and not the old one.
   std::string const forwarding = "/proc/sys/net/ipv4/conf/" + veth.name + "/forwarding";
   auto readForwarding = [&] {
      Konet::ScopedNetNs inNs(ns);
      std::string value;
      EXPECT_EQ(Konet::readProcSys(forwarding, &value), 0);
      return value;
   };
   EXPECT_EQ(readForwarding(), "1");
   auto oldRouting = routing->vrfConfig("blue");
   routing->vrfConfigDel("blue");
   routing6->vrfConfigDel("blue");
   routing->vrfConfigIs("blue");
   routing6->vrfConfigIs("blue");
   settle();
   EXPECT_EQ(readForwarding(), "0");
   routing->vrfConfig("blue")->routingIs(true);
   settle();
   EXPECT_EQ(readForwarding(), "1");
   oldRouting->routingIs(false);
   settle();
   EXPECT_EQ(readForwarding(), "1");

   // The VRF goes: its machine and the interface's status go with it.
   local->vrfDel("blue");
   EXPECT_FALSE(sm->vrfRoot("blue"));
   EXPECT_FALSE(blue->ipIntfSm());
   EXPECT_FALSE(ipStatus->ipIntfStatus(IntfId("Ethernet1")));
   // ... and so does its request for the L3 status, which then goes (L3IntfStatusVrfSm).
   EXPECT_FALSE(vrfReq->requestHas(IntfId("Ethernet1")));
}

}  // namespace
