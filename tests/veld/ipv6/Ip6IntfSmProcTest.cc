// The per-device IPv6 settings against the real /proc: the values written, writes skipped
// when nothing changed, and the backlog's retries of a write that keeps failing.
#include <gtest/gtest.h>

#include "Ip6IntfSmFixture.h"
#include "tests/veld/TraceCapture.h"

namespace VeldTest {
namespace {

class Ip6IntfSmProcTest : public Ip6IntfSmFixture {};

TEST_F(Ip6IntfSmProcTest, TheSettingsHoldTheConfiguredValuesAndAreWrittenOnce) {
   auto e1 = addIntf("Ethernet1");
   auto e2 = addIntf("Ethernet2");
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadStrict);
   e1.config->enhancedDadIs(Ip::TristateBool::isFalse);
   e1.config->nsRetransmitIntervalIs(400);
   e1.config->addrSourceIs(Ip6::AddrSource::slaac);
   e1.config->acceptRaDefRtrIs(true);
   e2.config->acceptDadIs(Ip6::AcceptDadMode::dadDisabled);
   ip6Config->enhancedDadIs(true);  // e2 leaves it to the default
   routing->routingIs(true);
   place(e1);
   place(e2);
   mirror->processEvents();
   makeSm();
   settle();

   auto const& d1 = e1.veth.name;
   EXPECT_EQ(proc(d1, "forwarding"), "1");
   EXPECT_EQ(proc(d1, "retrans_time_ms", "neigh"), "400");
   EXPECT_EQ(proc(d1, "accept_dad"), "2");
   EXPECT_EQ(proc(d1, "enhanced_dad"), "0");
   EXPECT_EQ(proc(d1, "accept_redirects"), "0");
   EXPECT_EQ(proc(d1, "accept_ra"), "2");
   EXPECT_EQ(proc(d1, "accept_ra_pinfo"), "1");
   EXPECT_EQ(proc(d1, "autoconf"), "1");
   EXPECT_EQ(proc(d1, "accept_ra_defrtr"), "1");
   auto const& d2 = e2.veth.name;
   EXPECT_EQ(proc(d2, "accept_dad"), "0");
   EXPECT_EQ(proc(d2, "enhanced_dad"), "1");
   EXPECT_EQ(proc(d2, "accept_ra"), "0");
   EXPECT_EQ(proc(d2, "accept_ra_pinfo"), "0");
   EXPECT_EQ(proc(d2, "autoconf"), "0");
   EXPECT_EQ(proc(d2, "accept_ra_defrtr"), "0");
   // The neighbour-solicitation source files are not in every kernel: where they are
   // missing the write counts as done.
   std::string nsSource;
   if (Konet::readProcSys("/proc/sys/net/ipv6/conf/" + d1 + "/use_custom_ns_source", &nsSource) ==
       0) {
      EXPECT_EQ(nsSource, "0");
   }

   auto const* k1 = sm->intfIp6KernelState(e1.id);
   ASSERT_NE(k1, nullptr);
   EXPECT_EQ(k1->numForwardingUpdates(), 1u);
   EXPECT_EQ(k1->numAcceptDadUpdates(), 1u);
   EXPECT_EQ(k1->numNsRetransIntervalUpdates(), 1u);
   // The kernel's own default was the wanted value: read, not written.
   EXPECT_EQ(k1->numAutoconfUpdates(), 0u);

   // The same configuration again writes nothing.
   int writes = io.writes;
   sm->doScheduleKernelProcUpdate(e1.id);
   sm->doScheduleKernelAddrUpdate(e2.id);
   settle();
   EXPECT_EQ(io.writes, writes);
   EXPECT_EQ(k1->numAcceptDadUpdates(), 1u);

   // A change writes that setting only; routing off turns forwarding off everywhere.
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadEnabled);
   settle();
   EXPECT_EQ(io.writes, writes + 1);
   EXPECT_EQ(proc(d1, "accept_dad"), "1");
   EXPECT_EQ(k1->numAcceptDadUpdates(), 2u);
   routing->routingIs(false);
   settle();
   EXPECT_EQ(proc(d1, "forwarding"), "0");
   EXPECT_EQ(proc(d2, "forwarding"), "0");
   ip6Config->enhancedDadIs(false);
   settle();
   EXPECT_EQ(proc(d2, "enhanced_dad"), "0");
   EXPECT_EQ(proc(d1, "enhanced_dad"), "0");
   EXPECT_EQ(k1->numEnhancedDadUpdates(), 1u);
}

// The kernel reports a device's settings with its link but tells of no /proc write: the
// report stands in for reading the files only while it is fresh.
TEST_F(Ip6IntfSmProcTest, TheLinksReportSavesReadsWhileFreshAndTheFilesDecideAfter) {
   auto e1 = addIntf("Ethernet1");
   auto e2 = addIntf("Ethernet2");
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadDefault);  // the kernel's own "1"
   e2.config->acceptDadIs(Ip6::AcceptDadMode::dadDefault);
   // e3 has IPv6 off, as its device already has.
   auto e3 = addIntf("Ethernet3");
   e3.config->enableIs(false);
   auto const& d3 = e3.veth.name;
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv6/conf/" + d3 + "/disable_ipv6", "1"), 0);
   place(e1);
   place(e3);
   ASSERT_EQ(mirror->resync(), 0);
   makeSm();
   settle();
   auto conf = [](std::string const& dev) { return "read /proc/sys/net/ipv6/conf/" + dev + "/"; };
   auto const& d1 = e1.veth.name;
   // Fresh: only disable_ipv6 before IPv6 goes on, which the kernel also changes by itself,
   // and the files the report lacks are read.
   EXPECT_EQ(io.count(conf(d1)),
             io.count(conf(d1) + "disable_ipv6") + io.count(conf(d1) + "use_custom_ns_source"));
   EXPECT_EQ(proc(d1, "accept_dad"), "1");
   EXPECT_EQ(proc(d1, "accept_ra"), "0");
   // IPv6 off, as reported: neither read nor written.
   EXPECT_EQ(io.count(conf(d3) + "disable_ipv6"), 0u);
   EXPECT_EQ(io.count("write /proc/sys/net/ipv6/conf/" + d3 + "/disable_ipv6"), 0u);
   // Once the machine has written the file, the report no longer stands for it.
   e3.config->enableIs(true);
   settle();
   EXPECT_EQ(proc(d3, "disable_ipv6"), "0");
   e3.config->enableIs(false);
   settle();
   EXPECT_EQ(proc(d3, "disable_ipv6"), "1");
   EXPECT_EQ(io.count(conf(d3) + "disable_ipv6"), 2u);

   // Later, e2's device has accept_dad changed behind the agent's back, which its old link
   // report does not show: the file is read and put right.
   Mox::activityManager().advanceBy(KernelNetInfo::kConfFreshFor + 1);
   auto const& d2 = e2.veth.name;
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv6/conf/" + d2 + "/accept_dad", "0"), 0);
   place(e2);
   settle();
   EXPECT_EQ(io.count(conf(d2) + "accept_dad"), 1u);
   EXPECT_EQ(proc(d2, "accept_dad"), "1");
   EXPECT_EQ(proc(d2, "accept_ra"), "0");
}

TEST_F(Ip6IntfSmProcTest, AWriteThatKeepsFailingIsAbandonedAfter33Tries) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   io.failPath = e1.veth.name + "/accept_ra_defrtr";
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { logs.push_back(r.text); });
   mirror->processEvents();
   TraceCapture traces{"VeldIp6"};
   makeSm();
   double firstFailure = 0.0;
   for (int runs = 0; sm->ip6IntfKernelUpdateCodef(e1.id) && runs < 100; ++runs) {
      Mox::activityManager().advanceBy(0.01);
      mirror->processEvents();
      if (runs == 0) firstFailure = time.now();
   }
   Mox::logSinkIs(previous);
   EXPECT_EQ(io.count("write /proc/sys/net/ipv6/conf/" + e1.veth.name + "/accept_ra_defrtr"), 33u);
   EXPECT_EQ(sm->ip6IntfKernelUpdateCodefListErrs(), 33u);
   EXPECT_TRUE(traces.contains("Failed (err: 5) to write /proc/sys/net/ipv6/conf/" + e1.veth.name +
                               "/accept_ra_defrtr"));
   std::string abandoned;
   for (auto const& l : logs) {
      if (l.starts_with("Abandoned write, error = ")) abandoned = l;
   }
   ASSERT_FALSE(abandoned.empty());
   EXPECT_NE(abandoned.find("= 5 for Ethernet1 after "), std::string::npos) << abandoned;
   double seconds = std::stod(abandoned.substr(abandoned.find("after ") + 6));
   EXPECT_NEAR(seconds, time.now() - firstFailure, 0.011);
   // The other settings and the addresses went on meanwhile.
   settle();
   EXPECT_EQ(proc(e1.veth.name, "accept_dad"), "0");
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64"), 1u);
   EXPECT_EQ(sm->warpKey(), "ip6IntfSm-default");

   // A failing enhanced_dad write is reported with the setting's own spelling.
   io.failPath = e1.veth.name + "/enhanced_dad";
   e1.config->enhancedDadIs(Ip::TristateBool::isTrue);
   settleVirtual(3);
   EXPECT_TRUE(traces.contains("Failed (err: 5) to write /proc/sys/net/ipv6/conf/" + e1.veth.name +
                               "/enhanced-dad"));
   // ... and once it works, the value is in.
   io.failPath.clear();
   settle();
   EXPECT_EQ(proc(e1.veth.name, "enhanced_dad"), "1");
   EXPECT_TRUE(warp->backlogEmpty(sm->warpKey()));
}

// The kernel can switch IPv6 off by itself; the value last written does not hide that.
TEST_F(Ip6IntfSmProcTest, Ipv6SwitchedOffBehindTheAgentsBackIsSwitchedOnAgain) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   ASSERT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64"), 1u);
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv6/conf/" + e1.veth.name + "/disable_ipv6", "1"),
             0);
   EXPECT_TRUE(settleUntil([&] {
      return proc(e1.veth.name, "disable_ipv6") == "0" &&
             kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64") == 1;
   }));
   // A device with its addresses in place is not read again on every update.
   size_t writes = io.count("write /proc/sys/net/ipv6/conf/" + e1.veth.name + "/disable_ipv6");
   e1.config->addrIs(v6("2001:db8:1::2/64"));
   settle();
   EXPECT_EQ(io.count("write /proc/sys/net/ipv6/conf/" + e1.veth.name + "/disable_ipv6"), writes);
}

// Under accept-DAD strict the kernel switches IPv6 off itself when the link-local address
// fails DAD; that is the configured outcome, and the agent does not start DAD over again.
TEST_F(Ip6IntfSmProcTest, Ipv6TheKernelSwitchesOffUnderStrictDadStaysOff) {
   auto e1 = addIntf("Ethernet1");
   auto ll = linkLocalOf(e1.mac);
   sh("ip link set dev " + e1.veth.name + " down");
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e1.veth.peerIfindex, v6(ll.c_str()), 0x02), 0);
   sh("sysctl -qw net.ipv6.neigh." + e1.veth.name + ".retrans_time_ms=100");
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadStrict);
   e1.config->nsRetransmitIntervalIs(100);
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   makeSm();
   settle();
   sh("ip link set dev " + e1.veth.name + " up");
   std::string const enabled = "write /proc/sys/net/ipv6/conf/" + e1.veth.name + "/disable_ipv6=0";
   ASSERT_TRUE(settleUntil([&] { return proc(e1.veth.name, "disable_ipv6") == "1"; }));
   size_t writes = io.count(enabled);
   for (int i = 0; i < 3; ++i) {
      sm->doScheduleKernelAddrUpdate(e1.id);
      settle();
   }
   EXPECT_EQ(io.count(enabled), writes);
   EXPECT_EQ(proc(e1.veth.name, "disable_ipv6"), "1");
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64"), 0u);
}

TEST_F(Ip6IntfSmProcTest, StandbyProgramsTheKernelButWritesNoStatus) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   mirror->processEvents();
   makeSm(/*standby=*/true);
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64"), 1u);
   EXPECT_EQ(systemStatus->ip6IntfStatus(e1.id), nullptr);
   sm->standbyModeIs(false);
   settle();
   EXPECT_EQ(statusAddrs(e1.id), kernelAddrs(e1.veth.ifindex));
}

}  // namespace
}  // namespace VeldTest
