// The IPv4 machine programming the real kernel: addresses, IFF_NOARP, /proc settings,
// flushes, and status.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <fstream>
#include <sstream>

#include "IpIntfSmFixture.h"
#include "tests/linux/NftRuleset.h"

namespace VeldTest {
namespace {

using Set = std::set<std::string>;

class IpIntfSmKernelTest : public IpIntfSmFixture {
protected:
   void TearDown() override {
      IpIntfSmFixture::TearDown();
      // The clamps' table belongs to the namespace, which the tests share.
      std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free);
      nft_ctx_buffer_error(ctx.get());
      nft_run_cmd_from_buffer(ctx.get(), "delete table inet veld");
   }
   // The kernel's addresses of a device that it flags as secondaries of their subnet.
   Set kernelSecondaries(int ifindex) {
      Set out;
      for (auto const& a : addrs(ifindex, AF_INET)) {
         if (a.flags & KernelNetInfo::kIfaSecondary) {
            out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
         }
      }
      return out;
   }
   // The namespace's IPv4 routes through `dev` (main table), as "a.b.c.d/len".
   Set routesVia(std::string const& dev) {
      Set out;
      std::ifstream in("/proc/net/route");
      std::string line;
      std::getline(in, line);  // the header
      while (std::getline(in, line)) {
         std::istringstream f(line);
         std::string iface;
         uint32_t dest = 0, gateway = 0, mask = 0, skip = 0;
         // Iface Destination Gateway Flags RefCnt Use Metric Mask ...
         f >> iface >> std::hex >> dest >> gateway >> skip >> std::dec >> skip >> skip >> skip >>
             std::hex >> mask;
         if (iface != dev) continue;
         in_addr a{dest};
         out.insert(std::string(inet_ntoa(a)) + "/" + std::to_string(__builtin_popcount(mask)));
      }
      return out;
   }
   // The kernel's addresses of a device that carry IFA_F_NOPREFIXROUTE.
   Set kernelNoPrefixRoute(int ifindex) {
      Set out;
      for (auto const& a : addrs(ifindex, AF_INET)) {
         if (a.flags & IFA_F_NOPREFIXROUTE) {
            out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
         }
      }
      return out;
   }
};

TEST_F(IpIntfSmKernelTest, PrimarySecondaryAndVirtualAddressesReachKernelAndStatus) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->secondaryWithMaskIs(v4("10.1.0.2/24"));
   e1.config->secondaryWithMaskIs(v4("10.9.0.1/24"));
   e1.config->virtualAddrWithMaskIs(v4("10.1.0.254/24"));
   place(e1);
   makeSm();
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex),
             (Set{"10.1.0.1/24", "10.1.0.2/24", "10.9.0.1/24", "10.1.0.254/24"}));
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).front(), "10.1.0.1/24");  // the primary came first
   auto s = ipStatus(e1.id);
   ASSERT_TRUE(s);
   EXPECT_EQ(s->addrWithMask(), v4("10.1.0.1/24"));
   EXPECT_EQ(s->virtualAddrWithMask(), v4("10.1.0.254/24"));
   EXPECT_TRUE(s->activeSecondaryWithMask(v4("10.1.0.2/24")));
   EXPECT_TRUE(s->activeSecondaryWithMask(v4("10.9.0.1/24")));
   EXPECT_EQ(s->vrf(), L3::VrfName("default"));
   ASSERT_TRUE(systemL3->intfStatus(e1.id));
   EXPECT_EQ(systemL3->intfStatus(e1.id)->vrf(), L3::VrfName("default"));
   EXPECT_TRUE(warp->backlogEmpty("ipIntfSm-default"));

   // Removing one secondary removes exactly that address.
   int opsBefore = io.addrOps;
   e1.config->secondaryWithMaskDel(v4("10.1.0.2/24"));
   EXPECT_FALSE(s->activeSecondaryWithMask(v4("10.1.0.2/24")));  // at once, by the handler
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24", "10.9.0.1/24", "10.1.0.254/24"}));
   EXPECT_EQ(io.addrOps - opsBefore, 1);
   EXPECT_TRUE(s->activeSecondaryWithMask(v4("10.9.0.1/24")));
}

TEST_F(IpIntfSmKernelTest, TheConfiguredPrimaryStaysTheKernelsPrimaryOfItsSubnet) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->secondaryWithMaskIs(v4("10.1.0.2/24"));
   e1.config->secondaryWithMaskIs(v4("10.9.0.1/24"));
   place(e1);
   makeSm();
   settle();
   ASSERT_EQ(kernelSecondaries(e1.veth.ifindex), (Set{"10.1.0.2/24"}));

   // A new primary in the subnet of a secondary: deleting the old one first would promote
   // the secondary and leave the new primary a secondary.
   e1.config->addrWithMaskIs(v4("10.1.0.3/24"));
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.3/24", "10.1.0.2/24", "10.9.0.1/24"}));
   EXPECT_EQ(kernelSecondaries(e1.veth.ifindex), (Set{"10.1.0.2/24"}));
   EXPECT_EQ(ipStatus(e1.id)->addrWithMask(), v4("10.1.0.3/24"));
   EXPECT_TRUE(ipStatus(e1.id)->activeSecondaryWithMask(v4("10.1.0.2/24")));

   // The primary deleted behind the agent's back: the kernel promotes the secondary, the
   // agent puts the primary back in front.
   ASSERT_EQ(Konet::ipAddrDel(sock(), e1.veth.ifindex, v4("10.1.0.3/24")), 0);
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.3/24", "10.1.0.2/24", "10.9.0.1/24"}));
   EXPECT_EQ(kernelSecondaries(e1.veth.ifindex), (Set{"10.1.0.2/24"}));
   EXPECT_EQ(proc(e1.veth.name, "promote_secondaries"), "1");
}

TEST_F(IpIntfSmKernelTest, DriftOnARoutedInterfaceIsRepairedPromptlyAndUnroutedOnesAreLeftAlone) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->secondaryWithMaskIs(v4("10.2.0.1/24"));
   place(e1);
   auto e2 = addIntf("Ethernet2", false);
   place(e2);
   makeSm();
   settle();
   ASSERT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24", "10.2.0.1/24"}));
   int opsBefore = io.addrOps;
   uint64_t runsBefore = sm->ipIntfKernelUpdateCodefListProcessed();

   // A configured address deleted and a foreign one added behind the agent's back: the next
   // backlog run, 0.01 s after the kernel's events, repairs both.
   ASSERT_EQ(Konet::ipAddrDel(sock(), e1.veth.ifindex, v4("10.2.0.1/24")), 0);
   ASSERT_EQ(Konet::ipAddrAdd(sock(), e1.veth.ifindex, v4("192.0.2.7/24")), 0);
   mirror->processEvents();
   EXPECT_LE(sm->backlogTimerTime(), time.now() + sm->backlogRetryDelay());
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24", "10.2.0.1/24"}));
   EXPECT_EQ(io.addrOps - opsBefore, 2);  // one add, one delete: the repair's own events
   EXPECT_EQ(sm->driftRepairs(), 1u);     // scheduled nothing more
   EXPECT_LE(sm->ipIntfKernelUpdateCodefListProcessed() - runsBefore, 2u);
   EXPECT_TRUE(ipStatus(e1.id)->activeSecondaryWithMask(v4("10.2.0.1/24")));

   // An unrouted interface is never touched.
   ASSERT_EQ(Konet::ipAddrAdd(sock(), e2.veth.ifindex, v4("192.0.2.9/24")), 0);
   settle();
   EXPECT_EQ(kernelAddrSet(e2.veth.ifindex), (Set{"192.0.2.9/24"}));
   EXPECT_EQ(sm->driftRepairs(), 1u);
}

TEST_F(IpIntfSmKernelTest, RepairsThatKeepBeingUndoneBackOffWithoutABusyLoop) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   place(e1);
   makeSm();
   settle();
   // Something deletes the address again as soon as it is back, twelve times.
   double last = 0.0;
   for (int n = 0; n < 12; ++n) {
      ASSERT_EQ(Konet::ipAddrDel(sock(), e1.veth.ifindex, v4("10.1.0.1/24")), 0);
      mirror->processEvents();
      double delay = sm->driftRepairDelay(e1.id);
      EXPECT_GE(delay, last);  // never shorter while the fight goes on
      EXPECT_LE(delay, Veld::IpIntfSm::driftRepairDelayMax);
      last = delay;
      uint64_t runs = sm->ipIntfKernelUpdateCodefListProcessed();
      // The waiting repair costs one run, not one every 0.01 s.
      Mox::activityManager().advanceBy(delay + 0.02);
      EXPECT_LE(sm->ipIntfKernelUpdateCodefListProcessed() - runs, 2u);
      ASSERT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24"})) << "round " << n;
   }
   EXPECT_EQ(last, Veld::IpIntfSm::driftRepairDelayMax);
   EXPECT_EQ(sm->driftRepairs(), 12u);

   // A quiet spell ends the back-off: the next drift is repaired at once.
   Mox::activityManager().advanceBy(3 * Veld::IpIntfSm::driftRepairDelayMax);
   ASSERT_EQ(Konet::ipAddrDel(sock(), e1.veth.ifindex, v4("10.1.0.1/24")), 0);
   mirror->processEvents();
   EXPECT_EQ(sm->driftRepairDelay(e1.id), 0.0);
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24"}));
}

TEST_F(IpIntfSmKernelTest, AddressesInTheKernelAtStartAreTakenAsOursAndReconciled) {
   // A restarted agent starts from the kernel's truth: what is configured stays untouched,
   // what is not is removed.
   auto e1 = addIntf("Ethernet1");
   ASSERT_EQ(Konet::ipAddrAdd(sock(), e1.veth.ifindex, v4("10.1.0.1/24")), 0);
   ASSERT_EQ(Konet::ipAddrAdd(sock(), e1.veth.ifindex, v4("10.7.0.1/24")), 0);
   mirror->processEvents();
   addrMapSm =
       Veld::AddrMappingSmIs(mirror->status(), addrMap = make<Veld::AddrMap>(mirror->status()));
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   place(e1);
   makeSm();
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), Set{"10.1.0.1/24"});
   EXPECT_EQ(io.addrOps, 1);  // one delete, no re-add of the configured address
}

TEST_F(IpIntfSmKernelTest, WithoutAttachedRoutesTheAddressesComeWithoutTheirSubnetRoutes) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->secondaryWithMaskIs(v4("10.1.0.2/24"));
   e1.config->secondaryWithMaskIs(v4("10.9.0.1/24"));
   e1.config->attachedRoutesIs(false);
   place(e1);
   auto e2 = addIntf("Ethernet2");
   e2.config->addrWithMaskIs(v4("10.2.0.1/24"));
   place(e2);
   makeSm();
   settle();
   Set all{"10.1.0.1/24", "10.1.0.2/24", "10.9.0.1/24"};
   auto const& dev = e1.veth.name;
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), all);
   EXPECT_EQ(kernelNoPrefixRoute(e1.veth.ifindex), all);
   EXPECT_EQ(routesVia(dev), Set{});
   EXPECT_EQ(routesVia(e2.veth.name), Set{"10.2.0.0/24"});
   EXPECT_FALSE(ipStatus(e1.id)->attachedRoutes());

   // Each change of the setting puts the addresses back with it, the primary still first
   // and the secondaries secondaries, and touches no other interface.
   for (bool attached : {true, false}) {
      SCOPED_TRACE(attached);
      int opsBefore = io.addrOps;
      auto repairs = sm->driftRepairs();
      e1.config->attachedRoutesIs(attached);
      settle();
      EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), all);
      EXPECT_EQ(kernelAddrs(e1.veth.ifindex).front(), "10.1.0.1/24");
      EXPECT_EQ(kernelSecondaries(e1.veth.ifindex), Set{"10.1.0.2/24"});
      EXPECT_EQ(kernelNoPrefixRoute(e1.veth.ifindex), attached ? Set{} : all);
      EXPECT_EQ(routesVia(dev), attached ? (Set{"10.1.0.0/24", "10.9.0.0/24"}) : Set{});
      EXPECT_EQ(proc(dev, "promote_secondaries"), "1");
      EXPECT_EQ(ipStatus(e1.id)->attachedRoutes(), attached);
      EXPECT_EQ(io.addrOps - opsBefore, 3);    // the three adds; the flush is one request apart
      EXPECT_EQ(sm->driftRepairs(), repairs);  // the agent's own flush is no drift
      EXPECT_EQ(routesVia(e2.veth.name), Set{"10.2.0.0/24"});
   }

   // A secondary added later follows the interface's setting.
   e1.config->secondaryWithMaskIs(v4("10.8.0.1/24"));
   settle();
   EXPECT_TRUE(kernelNoPrefixRoute(e1.veth.ifindex).contains("10.8.0.1/24"));
   EXPECT_EQ(routesVia(dev), Set{});
}

TEST_F(IpIntfSmKernelTest, MssClampsFollowTheConfigurationAndTheRoutedSet) {
   auto e1 = addIntf("Ethernet1");
   e1.config->maxMssIngressIs(1400);
   e1.config->maxMssEgressIs(1300);
   place(e1);
   auto e2 = addIntf("Ethernet2");
   place(e2);
   auto const& d1 = e1.veth.name;
   auto const& d2 = e2.veth.name;
   auto clamp = [](char const* match, std::string const& dev, int mss) {
      auto n = std::to_string(mss);
      return std::string(match) + " \"" + dev + "\" tcp flags syn tcp option maxseg size > " + n +
             " tcp option maxseg size set " + n;
   };
   auto rules = [] { return KonetTest::nftRules("inet", "veld", "mss"); };
   // A clamp an earlier run left on a device that wants none goes.
   ASSERT_EQ(Konet::mssClampSet(d2, {0, 1000}), 0);
   makeSm();
   settle();
   EXPECT_EQ(rules(), (Set{clamp("iifname", d1, 1400), clamp("oifname", d1, 1300)}));
   EXPECT_EQ(ipStatus(e1.id)->maxMssIngress(), 1400);

   e1.config->maxMssEgressIs(0);
   e2.config->maxMssIngressIs(1200);
   settle();
   EXPECT_EQ(rules(), (Set{clamp("iifname", d1, 1400), clamp("iifname", d2, 1200)}));
   EXPECT_EQ(ipStatus(e1.id)->maxMssEgress(), 0);

   // An interface that stops being routed is not clamped any more.
   e2.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelBridged);
   settle();
   EXPECT_EQ(rules(), (Set{clamp("iifname", d1, 1400)}));
   view->ipIntfConfigDel(e1.id);
   settle();
   EXPECT_EQ(rules(), Set{});
}

TEST_F(IpIntfSmKernelTest, NoArpFollowsTheConfiguration) {
   auto e1 = addIntf("Ethernet1");
   place(e1);
   makeSm();
   settle();
   EXPECT_FALSE(link(e1.veth.ifindex).flags & IFF_NOARP);
   e1.config->noArpIs(Ip::TristateBool::isTrue);
   settle();
   EXPECT_TRUE(link(e1.veth.ifindex).flags & IFF_NOARP);
   EXPECT_EQ(ipStatus(e1.id)->noArp(), Ip::TristateBool::isTrue);
   e1.config->noArpIs(Ip::TristateBool::isFalse);
   settle();
   EXPECT_FALSE(link(e1.veth.ifindex).flags & IFF_NOARP);
}

TEST_F(IpIntfSmKernelTest, ProcFilesHoldTheTabledValuesAndAreWrittenOnlyOnChange) {
   auto e1 = addIntf("Ethernet1");
   e1.config->proxyArpEnabledIs(true);
   e1.config->gratuitousArpAcceptedIs(true);
   e1.config->urpfIs(Urpf::UrpfConfig{Urpf::UrpfMode::strict, false});
   ipConfig->sendRedirectsIs(true);
   place(e1);
   makeSm();
   settle();
   auto const& dev = e1.veth.name;
   EXPECT_EQ(proc(dev, "forwarding"), "1");
   EXPECT_EQ(proc(dev, "rp_filter"), "1");
   EXPECT_EQ(proc(dev, "proxy_arp"), "1");
   EXPECT_EQ(proc(dev, "arp_ignore"), "1");
   EXPECT_EQ(proc(dev, "proxy_arp_pvlan"), "0");
   EXPECT_EQ(proc(dev, "accept_redirects"), "0");
   EXPECT_EQ(proc(dev, "send_redirects"), "1");
   EXPECT_EQ(proc(dev, "arp_accept"), "1");
   EXPECT_EQ(proc(dev, "promote_secondaries"), "1");
   EXPECT_EQ(proc(dev, "arp_announce"), "2");
   EXPECT_EQ(proc("all", "send_redirects"), "1");
   EXPECT_EQ(urpfStat->intfUrpf(e1.id), Urpf::UrpfMode::strict);
   EXPECT_TRUE(systemStatus->urpfConfiguredOnAnyIntf());

   auto const* state = sm->intfIpKernelState(e1.id);
   ASSERT_TRUE(state);
   EXPECT_EQ(state->numProxyArpUpdates(), 1u);
   EXPECT_EQ(state->numRpFilterUpdates(), 1u);
   // A value the fresh device already had ("0") needed no write.
   EXPECT_EQ(state->numLocalProxyArpUpdates(), 0u);
   EXPECT_TRUE(io.writesTo(dev + "/proxy_arp_pvlan").empty());
   EXPECT_EQ(io.writesTo("/route/flush").size(), 1u);

   // An unrelated change reschedules the settings: nothing unchanged is written again.
   size_t writes = io.writes.size();
   e1.config->localProxyArpEnabledIs(true);
   settle();
   EXPECT_EQ(proc(dev, "proxy_arp_pvlan"), "1");
   EXPECT_EQ(state->numLocalProxyArpUpdates(), 1u);
   EXPECT_EQ(state->numProxyArpUpdates(), 1u);
   EXPECT_EQ(io.writes.size(), writes + 1);

   // The hardware takes over reverse-path checks: the kernel's goes off.
   hardware->urpfSupportedIs(true);
   settle();
   EXPECT_EQ(proc(dev, "rp_filter"), "0");
   routingInfo->routingIs(false);
   settle();
   EXPECT_EQ(proc(dev, "forwarding"), "0");
   EXPECT_FALSE(ipStatus(e1.id)->dpRoutingEnabled());
}

// The kernel tells of no /proc write: a device's link report stands in for reading its files
// only while fresh. An old one is not trusted over the files.
TEST_F(IpIntfSmKernelTest, AnOldLinkReportLeavesTheDecisionToTheFiles) {
   auto e1 = addIntf("Ethernet1");
   place(e1);
   mirror->processEvents();
   auto const& dev = e1.veth.name;
   // Long after the device's report, somebody sets arp_filter, which the agent wants off;
   // the report still shows the kernel's "0".
   Mox::activityManager().advanceBy(KernelNetInfo::kConfFreshFor + 1);
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv4/conf/" + dev + "/arp_filter", "1"), 0);
   makeSm();
   settle();
   EXPECT_EQ(proc(dev, "arp_filter"), "0");
   EXPECT_EQ(io.writesTo(dev + "/arp_filter").size(), 1u);
   // A value the file holds already is not written, also when it is read.
   EXPECT_TRUE(io.writesTo(dev + "/proxy_arp_pvlan").empty());
}

TEST_F(IpIntfSmKernelTest, DirectedBroadcastIsTheDevicesBcForwardingWrittenOnlyOnChange) {
   auto e1 = addIntf("Ethernet1");
   e1.config->directedBroadcastEnabledIs(true);
   place(e1);
   auto e2 = addIntf("Ethernet2");
   place(e2);
   makeSm();
   settle();
   EXPECT_EQ(proc(e1.veth.name, "bc_forwarding"), "1");
   EXPECT_EQ(proc(e2.veth.name, "bc_forwarding"), "0");
   EXPECT_EQ(proc("all", "bc_forwarding"), "1");  // else no device's value counts
   EXPECT_TRUE(ipStatus(e1.id)->directedBroadcastEnabled());

   e1.config->directedBroadcastEnabledIs(false);
   e2.config->directedBroadcastEnabledIs(true);
   settle();
   EXPECT_EQ(proc(e1.veth.name, "bc_forwarding"), "0");
   EXPECT_EQ(proc(e2.veth.name, "bc_forwarding"), "1");
   EXPECT_FALSE(ipStatus(e1.id)->directedBroadcastEnabled());
   EXPECT_EQ(sm->intfIpKernelState(e1.id)->numDirectedBroadcastUpdates(), 2u);

   // Rescheduled by another setting, the unchanged value is not written again.
   size_t writes = io.writesTo(e2.veth.name + "/bc_forwarding").size();
   e2.config->proxyArpEnabledIs(true);
   settle();
   EXPECT_EQ(proc(e2.veth.name, "proxy_arp"), "1");
   EXPECT_EQ(io.writesTo(e2.veth.name + "/bc_forwarding").size(), writes);
}

TEST_F(IpIntfSmKernelTest, ADeviceMadeAgainUnderItsNameGetsEverySettingAgain) {
   auto e1 = addIntf("Ethernet1");
   place(e1);
   makeSm();
   settle();
   auto const& dev = e1.veth.name;
   auto settingsWritten = [&] {
      EXPECT_EQ(proc(dev, "promote_secondaries"), "1");
      EXPECT_EQ(proc(dev, "arp_ignore"), "1");
      EXPECT_EQ(proc(dev, "arp_announce"), "2");
      EXPECT_EQ(proc(dev, "forwarding"), "1");
   };
   settingsWritten();
   EXPECT_GT(sm->procWritesSkipped(), 0u);  // what the new device held needed no write

   // Unconfigured, the device deleted and made again, then configured again: the new
   // device has the kernel's defaults, whatever was written to the old one.
   view->ipIntfConfigDel(e1.id);
   allIntfStatus->intfStatusDel(e1.id);
   settle();
   ASSERT_EQ(Konet::deleteLink(sock(), e1.veth.ifindex), 0);
   settle();
   ASSERT_EQ(Konet::createVethPair(sock(), e1.veth.name, e1.veth.peer), 0);
   ASSERT_EQ(Konet::linkIndex(sock(), e1.veth.name, &e1.veth.ifindex), 0);
   ASSERT_EQ(Konet::linkIndex(sock(), e1.veth.peer, &e1.veth.peerIfindex), 0);
   ASSERT_EQ(Konet::setLinkUp(sock(), e1.veth.peerIfindex, true), 0);
   ASSERT_EQ(Konet::setLinkUp(sock(), e1.veth.ifindex, true), 0);
   settle();
   ASSERT_EQ(proc(dev, "arp_ignore"), "0");
   e1.status = allIntfStatus->intfStatusIs(e1.id);
   e1.status->deviceNameIs(dev);
   e1.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelRouted);
   settle();
   place(e1);
   settle();
   settingsWritten();
}

// The stock kernel lacks use_icmp_src_ipaddr: it is not written at all. A kernel that says
// it has it gets 0 for a management interface, and ENOENT from the device counts as done.
TEST_F(IpIntfSmKernelTest, ManagementInterfacesGetUseIcmpSrcIpAddrZeroAndEnoentIsSuccess) {
   auto m1 = addIntf("Management1");
   ipConfig->icmpSrcIpAddrIs(*Konet::IpAddr::parse("192.0.2.1"));
   place(m1);
   makeSm();
   settle();
   EXPECT_TRUE(io.writesTo(m1.veth.name + "/use_icmp_src_ipaddr").empty());
   EXPECT_EQ(sm->ipIntfKernelUpdateCodef(m1.id), nullptr);

   sm = nullptr;
   io.pretendPresent = "use_icmp_src_ipaddr";
   makeSm();
   settle();
   auto w = io.writesTo(m1.veth.name + "/use_icmp_src_ipaddr");
   ASSERT_FALSE(w.empty());
   EXPECT_EQ(w.front().first, "0");
   EXPECT_EQ(w.front().second, ENOENT);                     // the stock kernel lacks the file
   EXPECT_EQ(sm->ipIntfKernelUpdateCodef(m1.id), nullptr);  // done, nothing retried
   EXPECT_EQ(sm->ipIntfKernelUpdateCodefListErrs(), 0u);
}

TEST_F(IpIntfSmKernelTest, ADeviceThatGoesDownIsFlushedWithoutPromotingSecondaries) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->secondaryWithMaskIs(v4("10.1.0.2/24"));
   e1.config->secondaryWithMaskIs(v4("10.1.0.3/24"));
   place(e1);
   makeSm();
   settle();
   ASSERT_EQ(kernelAddrSet(e1.veth.ifindex).size(), 3u);
   int err = 0;
   auto monitor =
       Konet::createNetlinkSocket("default", RTMGRP_IPV4_IFADDR, 0, false, 1 << 20, &err);
   ASSERT_TRUE(monitor);

   ASSERT_EQ(Konet::setLinkUp(sock(), e1.veth.peerIfindex, false), 0);  // carrier goes
   ASSERT_TRUE(KonetTest::waitFor([&] { return !(link(e1.veth.ifindex).flags & IFF_RUNNING); }));
   settle();
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
   // The kernel announces a promoted secondary as a new address: none came, only the three
   // deletions.
   int added = 0, deleted = 0;
   alignas(nlmsghdr) char buf[1 << 16];
   for (ssize_t n; (n = recv(monitor.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
      int len = static_cast<int>(n);
      for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, len); h = NLMSG_NEXT(h, len)) {
         Konet::AddrInfo a;
         if (!Konet::parseAddrMsg(h, &a) || a.ifindex != e1.veth.ifindex) continue;
         added += h->nlmsg_type == RTM_NEWADDR;
         deleted += h->nlmsg_type == RTM_DELADDR;
      }
   }
   EXPECT_EQ(added, 0);
   EXPECT_EQ(deleted, 3);
   EXPECT_EQ(proc(e1.veth.name, "promote_secondaries"), "1");
   EXPECT_EQ(ipStatus(e1.id)->addrWithMask(), IpAddrWithMask());
   EXPECT_TRUE(ipStatus(e1.id)->activeSecondaryWithMaskIterator().empty());

   ASSERT_EQ(Konet::setLinkUp(sock(), e1.veth.peerIfindex, true), 0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return link(e1.veth.ifindex).flags & IFF_RUNNING; }));
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), (Set{"10.1.0.1/24", "10.1.0.2/24", "10.1.0.3/24"}));
   EXPECT_EQ(ipStatus(e1.id)->addrWithMask(), v4("10.1.0.1/24"));
}

TEST_F(IpIntfSmKernelTest, AnInterfaceThatStopsBeingRoutedLosesStatusAndAddresses) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   place(e1);
   makeSm();
   settle();
   ASSERT_TRUE(ipStatus(e1.id));
   e1.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelBridged);
   settle();
   EXPECT_FALSE(ipStatus(e1.id));
   EXPECT_FALSE(updateVrfReq->requestHas(e1.id));  // the L3 status may go
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
   e1.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelRouted);
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), Set{"10.1.0.1/24"});
   view->ipIntfConfigDel(e1.id);  // the configuration leaves the VRF
   settle();
   EXPECT_FALSE(ipStatus(e1.id));
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
}

// Ethernet1 moves from the default VRF to VRF red, whose machine runs in a namespace of its
// own. The two machines share the status directories and learn of the move in either
// order; whichever runs last, the status ends as red publishes it.
TEST_F(IpIntfSmKernelTest, AnInterfaceMovingToAnotherVrfEndsWithTheStatusItsNewVrfPublishes) {
   for (bool redFirst : {true, false}) {
      SCOPED_TRACE(redFirst ? "red learns first" : "default lets go first");
      auto e1 = addIntf(redFirst ? "Ethernet1" : "Ethernet2");
      e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
      place(e1);
      if (!sm) makeSm();
      settle();
      ASSERT_TRUE(ipStatus(e1.id));

      auto redNs = createNamespace();
      Konet::KernelMirror redMirror(redNs);
      ASSERT_EQ(redMirror.start(), 0);
      int err = 0;
      auto redSock = Konet::createNetlinkSocket(redNs, 0, 2, true, 0, &err);
      ASSERT_TRUE(redSock);
      auto redManager = managerRoot->intfStatusManagerIs(redNs);
      auto redAddrMap = make<Veld::AddrMap>(redMirror.status());
      auto redAddrMapSm = Veld::AddrMappingSmIs(redMirror.status(), redAddrMap);
      auto redView = make<Veld::VrfIpIntfConfig>(L3::VrfName("red"));
      auto red = newSm(redView, redAddrMap, redManager, redSock.get());

      ASSERT_EQ(Konet::moveLinkToNamedNetNs(sock(), e1.veth.ifindex, redNs), 0);
      int ifindex = 0;
      ASSERT_EQ(Konet::linkIndex(redSock.get(), e1.veth.name, &ifindex), 0);
      ASSERT_EQ(Konet::setLinkUp(redSock.get(), ifindex, true), 0);
      ASSERT_TRUE(
          KonetTest::waitFor([&] { return link(ifindex, redSock.get()).flags & IFF_RUNNING; }));
      l3Config->intfConfigIs(e1.id)->vrfIs("red");
      e1.status->netNsNameIs(redNs);
      if (redFirst) {
         redView->ipIntfConfigIs(e1.config);
         view->ipIntfConfigDel(e1.id);
      } else {
         view->ipIntfConfigDel(e1.id);
         redView->ipIntfConfigIs(e1.config);
      }
      for (int n = 0; n < 40; ++n) {
         redMirror.processEvents();
         mirror->processEvents();
         Mox::activityManager().advanceBy(0.011);
      }
      EXPECT_EQ(red->ipIntfKernelUpdateCodefListSize(), 0u);
      EXPECT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 0u);
      std::set<std::string> held;
      for (auto const& a : addrs(ifindex, AF_INET, redSock.get()))
         held.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      EXPECT_EQ(held, Set{"10.1.0.1/24"});
      auto s = ipStatus(e1.id);
      ASSERT_TRUE(s);
      EXPECT_EQ(s->vrf(), L3::VrfName("red"));
      EXPECT_EQ(s->addrWithMask(), v4("10.1.0.1/24"));
      // The L3 status follows once the IPv6 side agrees (L3IntfStatusVrfSm).
      ASSERT_TRUE(systemL3->intfStatus(e1.id));
      EXPECT_EQ(updateVrfReq->request(e1.id), L3::VrfName("red"));
      redView->ipIntfConfigDel(e1.id);
   }
}

TEST_F(IpIntfSmKernelTest, StandbyProgramsTheKernelButWritesNoStatus) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->attachedRoutesIs(false);
   place(e1);
   makeSm(true);
   settle();
   EXPECT_EQ(kernelAddrSet(e1.veth.ifindex), Set{"10.1.0.1/24"});
   EXPECT_FALSE(ipStatus(e1.id));
   EXPECT_FALSE(systemL3->intfStatus(e1.id));
   EXPECT_EQ(proc(e1.veth.name, "forwarding"), "1");

   sm->standbyModeIs(false);  // becoming active publishes what the kernel holds
   settle();
   ASSERT_TRUE(ipStatus(e1.id));
   EXPECT_EQ(ipStatus(e1.id)->addrWithMask(), v4("10.1.0.1/24"));
   EXPECT_FALSE(ipStatus(e1.id)->attachedRoutes());
}

}  // namespace
}  // namespace VeldTest
