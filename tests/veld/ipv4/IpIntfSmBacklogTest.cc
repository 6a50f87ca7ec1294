// The backlog in virtual time: bounded runs, resumption at the bookmark, retries and the
// abandonment of a write that keeps failing.
#include <gtest/gtest.h>

#include "IpIntfSmFixture.h"
#include "tests/veld/TraceCapture.h"

namespace VeldTest {
namespace {

class IpIntfSmBacklogTest : public IpIntfSmFixture {
protected:
   // Runs the backlog by hand, recording how long each run took.
   std::vector<double> drain(int maxRuns = 1000) {
      std::vector<double> runs;
      for (int i = 0; i < maxRuns && sm->ipIntfKernelUpdateCodefListSize(); ++i) {
         double start = time.now();
         sm->processIpIntfKernelUpdateCodefList();
         runs.push_back(time.now() - start);
      }
      return runs;
   }
};

TEST_F(IpIntfSmBacklogTest, ABurstIsDrainedInBoundedRunsResumingAtTheBookmark) {
   std::vector<Intf> intfs;
   for (int i = 0; i < 24; ++i) {
      auto name = "Ethernet" + std::to_string(i + 1);
      intfs.push_back(addIntf(name.c_str()));
      intfs.back().config->addrWithMaskIs(
          IpAddrWithMask(Konet::IpAddr(0x0a000001u + (uint32_t(i) << 8)), 24));
      place(intfs.back());
   }
   mirror->processEvents();
   makeSm();
   ASSERT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 24u);
   io.elapsePerOp = 0.002;  // every kernel operation takes 2 ms of virtual time

   // The first run stops once 0.1 s has passed and leaves a bookmark.
   double start = time.now();
   sm->processIpIntfKernelUpdateCodefList();
   double firstRun = time.now() - start;
   ASSERT_TRUE(sm->ipIntfKernelUpdateCodefBookmark());
   IntfId bookmark = *sm->ipIntfKernelUpdateCodefBookmark();
   EXPECT_NE(sm->ipIntfKernelUpdateCodef(bookmark), nullptr);
   size_t writesBefore = io.writes.size();
   sm->processIpIntfKernelUpdateCodefList();
   // The next run begins with the bookmarked interface's device.
   auto const& dev = intfs[std::stoi(bookmark.name().substr(8)) - 1].veth.name;
   EXPECT_NE(std::get<0>(io.writes[writesBefore]).find("/" + dev + "/"), std::string::npos);

   auto runs = drain();
   runs.push_back(firstRun);
   double longestEntry = 0.0;
   for (double r : runs)
      longestEntry = std::max(longestEntry, r);
   // No run is longer than the slice plus the one entry it had started.
   double perEntry = 0.002 * 20;  // at most 20 kernel operations for one interface here
   for (double r : runs)
      EXPECT_LE(r, 0.1 + perEntry);
   EXPECT_GE(sm->ipIntfKernelUpdateCodefListProcessed(), 3u);
   for (auto const& i : intfs) {
      EXPECT_EQ(kernelAddrs(i.veth.ifindex).size(), 1u) << i.id;
   }
   EXPECT_FALSE(sm->ipIntfKernelUpdateCodefBookmark());
}

TEST_F(IpIntfSmBacklogTest, AWriteThatKeepsFailingIsAbandonedAfter33Tries) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrWithMaskIs(v4("10.1.0.1/24"));
   e1.config->gratuitousArpAcceptedIs(true);
   place(e1);
   io.failPath = e1.veth.name + "/arp_accept";
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { logs.push_back(r.text); });
   mirror->processEvents();
   makeSm();
   double firstFailure = 0.0;
   int runs = 0;
   while (sm->ipIntfKernelUpdateCodef(e1.id) && runs < 100) {
      Mox::activityManager().advanceBy(0.01);
      if (runs++ == 0) firstFailure = time.now();
      if (auto const* e = sm->ipIntfKernelUpdateCodef(e1.id); e && e->procUpdatePending) {
         EXPECT_EQ(e->lastError, EIO);
         // Addresses wait for the settings while they are being retried.
         EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
      }
   }
   Mox::logSinkIs(previous);
   EXPECT_EQ(io.writesTo("/arp_accept").size(), 33u);
   EXPECT_EQ(sm->ipIntfKernelUpdateCodefListErrs(), 33u);
   std::string abandoned;
   for (auto const& l : logs) {
      if (l.starts_with("Abandoned write, error = ")) abandoned = l;
   }
   ASSERT_FALSE(abandoned.empty());
   EXPECT_NE(abandoned.find("= 5 for Ethernet1 after "), std::string::npos) << abandoned;
   double seconds = std::stod(abandoned.substr(abandoned.find("after ") + 6));
   EXPECT_NEAR(seconds, time.now() - firstFailure, 0.011);
   EXPECT_NEAR(seconds, 32 * 0.01, 0.02);
   // Given up on the write, the rest went on: the address is in.
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).size(), 1u);
   // A later change tries the write again.
   io.failPath.clear();
   e1.config->gratuitousArpAcceptedIs(false);
   e1.config->gratuitousArpAcceptedIs(true);
   settle();
   EXPECT_EQ(proc(e1.veth.name, "arp_accept"), "1");
}

TEST_F(IpIntfSmBacklogTest, ANamespaceThatCannotBeEnteredIsGivenUpAfter33Tries) {
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { logs.push_back(r.text); });
   auto missing = managerRoot->intfStatusManagerIs("veldtest-missing-ns");
   sm = newSm(view, addrMap, missing, -1);
   sm->doScheduleKernelProcUpdate(IntfId("Ethernet1"));
   EXPECT_FALSE(warp->backlogEmpty(sm->warpKey()));
   for (int i = 0; i < 40; ++i)
      Mox::activityManager().advanceBy(0.011);
   Mox::logSinkIs(previous);
   EXPECT_EQ(sm->ipIntfKernelUpdateCodefListSize(), 0u);
   EXPECT_EQ(sm->backlogTimerTime(), Mox::kInfinity);
   EXPECT_TRUE(warp->backlogEmpty(sm->warpKey()));
   size_t setns = 0, abandoned = 0;
   for (auto const& l : logs) {
      setns += l.find("Failed to setns to NS: veldtest-missing-ns") != std::string::npos;
      abandoned += l.starts_with("Abandoned setns, error = ") && l.find("Ethernet1") != l.npos;
   }
   EXPECT_EQ(setns, 2u);  // the namespace-wide settings and the interface, once each
   EXPECT_EQ(abandoned, 1u);
}

TEST_F(IpIntfSmBacklogTest, FailedNamespaceSettingsAreRetriedByTheBacklog) {
   // A setting the kernel holds already is not written; this one must be.
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv4/conf/all/send_redirects", "1"), 0);
   io.failPath = "conf/all/send_redirects";
   ipConfig->sendRedirectsIs(false);
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) { logs.push_back(r.text); });
   makeSm();
   for (int i = 0; i < 40; ++i)
      Mox::activityManager().advanceBy(0.011);
   Mox::logSinkIs(previous);
   EXPECT_EQ(io.writesTo("all/send_redirects").size(), 33u);
   EXPECT_EQ(sm->backlogTimerTime(), Mox::kInfinity);
   bool abandoned = false;
   for (auto const& l : logs)
      abandoned |= l.starts_with("Abandoned write, error = 5 for all after ");
   EXPECT_TRUE(abandoned);

   // The next change tries again, and a write that now works is kept.
   io.failPath.clear();
   ipConfig->sendRedirectsIs(true);
   ipConfig->sendRedirectsIs(false);
   settle();
   EXPECT_EQ(io.writesTo("all/send_redirects").back(), std::make_pair(std::string("0"), 0));
   EXPECT_EQ(proc("all", "send_redirects"), "0");
}

TEST_F(IpIntfSmBacklogTest, WarpStateSeesAnIdleMachineAndForgetsOneThatGoes) {
   // Without L3 interfaces there is nothing to wait for.
   {
      VeldTest::TraceCapture traces{"Veld"};
      makeSm();
      EXPECT_TRUE(
          traces.contains("No L3 interfaces in vrf default, Vrf default. Skipping WARP check."));
      EXPECT_TRUE(warp->backlogEmpty(sm->warpKey()));
   }
   // A machine that goes with work pending leaves no key behind.
   auto key = sm->warpKey();
   auto e1 = addIntf("Ethernet1");
   place(e1);
   EXPECT_FALSE(warp->backlogEmpty(key));
   sm = nullptr;
   EXPECT_EQ(warp->backlogEmptyIterator().find(key), nullptr);
}

}  // namespace
}  // namespace VeldTest
