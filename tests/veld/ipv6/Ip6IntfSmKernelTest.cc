// The IPv6 machine programming the real kernel: link-local and global addresses, whose
// addresses are whose, link and IPv6 flaps, DAD failures and autoconfigured addresses.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "Ip6IntfSmFixture.h"

namespace VeldTest {
namespace {

constexpr uint32_t kDadFailed = Veld::Ip6IntfSm::kIfaDadFailed;

class Ip6IntfSmKernelTest : public Ip6IntfSmFixture {};

// Counts the kernel's IPv6 address additions and deletions on one device, as any netlink
// listener sees them.
class AddrListener {
public:
   explicit AddrListener(int ifindex) : ifindex_(ifindex) {
      fd_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
      sockaddr_nl sa{};
      sa.nl_family = AF_NETLINK;
      sa.nl_groups = RTMGRP_IPV6_IFADDR;
      EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
   }
   ~AddrListener() { ::close(fd_); }
   // The events since the last call: (additions, deletions).
   std::pair<int, int> drain() {
      int added = 0, deleted = 0;
      alignas(nlmsghdr) char buf[16384];
      for (ssize_t n; (n = ::recv(fd_, buf, sizeof buf, 0)) > 0;) {
         for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, size_t(n));
              h = NLMSG_NEXT(h, n)) {
            auto* ifa = static_cast<ifaddrmsg*>(NLMSG_DATA(h));
            if (int(ifa->ifa_index) != ifindex_) continue;
            added += h->nlmsg_type == RTM_NEWADDR;
            deleted += h->nlmsg_type == RTM_DELADDR;
         }
      }
      return {added, deleted};
   }

private:
   int fd_ = -1;
   int ifindex_;
};

TEST_F(Ip6IntfSmKernelTest, LinkLocalIsTheModifiedEui64AndGlobalsFollowTheConfiguration) {
   auto e1 = addIntf("Ethernet1");
   auto e2 = addIntf("Ethernet2", /*mac48=*/true);  // ff:ff in bytes 3-4 of the EUI-64
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::2/64"));
   e2.config->addrIs(v6("2001:db8:2::1/64"));
   place(e1);
   place(e2);
   // IPv6 is off on e2 until the machine switches it on.
   ASSERT_EQ(Konet::writeProcSys("/proc/sys/net/ipv6/conf/" + e2.veth.name + "/disable_ipv6", "1"),
             0);
   // An address somebody else put on the device before the agent came.
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e1.veth.ifindex, v6("2001:db8:9::9/64"), 0x02), 0);
   mirror->processEvents();
   makeSm();
   settle();

   auto ll1 = linkLocalOf(e1.mac), ll2 = linkLocalOf(e2.mac);
   EXPECT_EQ(Veld::ip6LinkLocal(e2.status, e2.config).toString(), ll2);
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex),
             (Set{ll1, "2001:db8:1::1/64", "2001:db8:1::2/64", "2001:db8:9::9/64"}));
   EXPECT_EQ(kernelAddrs(e2.veth.ifindex), (Set{ll2, "2001:db8:2::1/64"}));
   EXPECT_EQ(statusAddrs(e1.id), kernelAddrs(e1.veth.ifindex));
   EXPECT_EQ(systemL3->intfStatus(e1.id)->vrf(), L3::VrfName("default"));
   // IPv6 goes on before the first address does.
   EXPECT_LT(io.first("write /proc/sys/net/ipv6/conf/" + e2.veth.name + "/disable_ipv6=0"),
             io.first("add 2001:db8:2::"));
   auto veld = groups->application(Mcast::veldApplication());
   ASSERT_TRUE(veld);
   EXPECT_TRUE(veld->multicastAddr({e1.id, Konet::Ip6Addr::allNodes()}));
   EXPECT_TRUE(
       veld->multicastAddr({e1.id, v6("2001:db8:1::1/64").addr().solicitedNodeMulticast()}));

   // Removing an address removes exactly it; the foreign one stays.
   e1.config->addrDel(v6("2001:db8:1::2/64"));
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex), (Set{ll1, "2001:db8:1::1/64", "2001:db8:9::9/64"}));
   EXPECT_EQ(statusAddrs(e1.id), kernelAddrs(e1.veth.ifindex));

   // An address added behind the agent's back after it started stays as well.
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e2.veth.ifindex, v6("2001:db8:8::8/64"), 0x02), 0);
   settle();
   EXPECT_EQ(kernelAddrs(e2.veth.ifindex), (Set{ll2, "2001:db8:2::1/64", "2001:db8:8::8/64"}));

   // The configuration goes with work pending: the agent's addresses and the status go.
   e2.config->addrIs(v6("2001:db8:2::2/64"));
   view->ipIntfConfigDel(e2.id);
   settle();
   EXPECT_EQ(kernelAddrs(e2.veth.ifindex), (Set{"2001:db8:8::8/64"}));
   EXPECT_EQ(systemStatus->ip6IntfStatus(e2.id), nullptr);
   // ... and comes back under the same name.
   place(e2);
   settle();
   EXPECT_EQ(kernelAddrs(e2.veth.ifindex),
             (Set{ll2, "2001:db8:2::1/64", "2001:db8:2::2/64", "2001:db8:8::8/64"}));
}

TEST_F(Ip6IntfSmKernelTest, LinkFlapsAndIpv6FlapsBringEveryAddressBack) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->llAddrWithMaskIs(v6("fe80::1:1/64"));
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   auto kernelLl = linkLocalOf(e1.mac);  // the kernel's own, not the agent's
   Set all{"fe80::1:1/64", kernelLl, "2001:db8:1::1/64"};
   ASSERT_EQ(kernelAddrs(e1.veth.ifindex), all);

   // Down and up behind the agent's back: the kernel drops the addresses, the agent re-adds.
   sh("ip link set dev " + e1.veth.name + " down");
   ASSERT_TRUE(settleUntil([&] { return kernelAddrs(e1.veth.ifindex).empty(); }));
   sh("ip link set dev " + e1.veth.name + " up");
   ASSERT_TRUE(settleUntil([&] { return kernelAddrs(e1.veth.ifindex) == all; }))
       << kernelAddrs(e1.veth.ifindex).size();
   EXPECT_EQ(statusAddrs(e1.id), all);

   // Disabled by configuration: disable_ipv6 goes to 1 and the addresses with it; enabled
   // again, they are back.
   e1.config->enableIs(false);
   settle();
   EXPECT_EQ(proc(e1.veth.name, "disable_ipv6"), "1");
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
   EXPECT_EQ(systemStatus->ip6IntfStatus(e1.id), nullptr);
   e1.config->enableIs(true);
   ASSERT_TRUE(settleUntil([&] { return kernelAddrs(e1.veth.ifindex) == all; }));
   EXPECT_EQ(proc(e1.veth.name, "disable_ipv6"), "0");

   // An enable override keeps IPv6 on without the configuration, and adds nothing.
   e1.config->enableIs(false);
   enable->enableIs(e1.id, true);
   settle();
   EXPECT_EQ(proc(e1.veth.name, "disable_ipv6"), "0");
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64"), 0u);
   enable->enableIs(e1.id, false);
   settle();
   EXPECT_EQ(proc(e1.veth.name, "disable_ipv6"), "1");
}

TEST_F(Ip6IntfSmKernelTest, AnInterfaceWithoutEui64WaitsForItOnTheEnableTimer) {
   auto e1 = addIntf("Ethernet1");
   // No link-local address of the kernel's own either.
   sh("sysctl -qw net.ipv6.conf." + e1.veth.name + ".addr_gen_mode=1");
   sh("ip -6 addr flush dev " + e1.veth.name);
   e1.status->eui64Is(Interface::Eui64{0, 0, 0, 0xff, 0xff, 0, 0, 0});
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());
   EXPECT_TRUE(sm->ip6EnableTimerArmed(e1.id));
   // Every second the interface is looked at again, while it has no EUI-64.
   auto visits = sm->ip6IntfKernelUpdateCodefListItemsProcessed();
   Mox::activityManager().advanceBy(1.0);
   settle();
   EXPECT_GT(sm->ip6IntfKernelUpdateCodefListItemsProcessed(), visits);
   EXPECT_TRUE(sm->ip6EnableTimerArmed(e1.id));
   EXPECT_TRUE(kernelAddrs(e1.veth.ifindex).empty());

   e1.status->eui64Is(eui64Of(e1.mac));
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex), (Set{linkLocalOf(e1.mac)}));
   EXPECT_FALSE(sm->ip6EnableTimerArmed(e1.id));
}

TEST_F(Ip6IntfSmKernelTest, ARestartKeepsWhatTheAgentAddedAndDeletesOnlyThat) {
   auto e1 = addIntf("Ethernet1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::2/64"));
   place(e1);
   mirror->processEvents();
   makeSm();
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e1.veth.ifindex, v6("2001:db8:9::9/64"), 0x02), 0);
   settle();
   ASSERT_EQ(kernelAddrs(e1.veth.ifindex).size(), 4u);

   // The same configuration: nothing added, nothing deleted.
   io.ops.clear();
   io.adds = io.dels = 0;
   AddrListener listener(e1.veth.ifindex);
   restart();
   settle();
   EXPECT_EQ(io.adds, 0);
   EXPECT_EQ(io.dels, 0);
   EXPECT_EQ(listener.drain(), std::make_pair(0, 0));
   EXPECT_EQ(statusAddrs(e1.id), kernelAddrs(e1.veth.ifindex));

   // Changed while the agent was away: its own address goes, the foreign one stays.
   sm = nullptr;
   e1.config->addrDel(v6("2001:db8:1::2/64"));
   restart();
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex),
             (Set{linkLocalOf(e1.mac), "2001:db8:1::1/64", "2001:db8:9::9/64"}));
   EXPECT_EQ(io.dels, 1);
}

TEST_F(Ip6IntfSmKernelTest, AGlobalAddressThatFailsDadLeavesTheKernelAndIsLoggedOnce) {
   auto e1 = addIntf("Ethernet1");
   // The peer answers for the address.
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e1.veth.peerIfindex, v6("2001:db8:1::1/64"), 0x02), 0);
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadEnabled);
   e1.config->nsRetransmitIntervalIs(100);
   sh("sysctl -qw net.ipv6.conf." + e1.veth.name + ".dad_transmits=1");
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::2/64"));
   place(e1);
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) {
      if (std::string(r.id) == "IP6ROUTING_DAD_FAILED") logs.push_back(r.text);
   });
   mirror->processEvents();
   makeSm();
   ASSERT_TRUE(settleUntil([&] {
      auto s = systemStatus->ip6IntfStatus(e1.id);
      return s && s->dadFailedAddrHas(v6("2001:db8:1::1/64"));
   }));
   // More updates change nothing: the address stays out, the event is not repeated.
   for (int i = 0; i < 3; ++i) {
      sm->doScheduleKernelAddrUpdate(e1.id);
      settle();
   }
   Mox::logSinkIs(previous);
   auto held = kernelAddrs(e1.veth.ifindex);
   EXPECT_EQ(held.count("2001:db8:1::1/64"), 0u);
   EXPECT_EQ(held.count("2001:db8:1::2/64"), 1u);
   EXPECT_EQ(statusAddrs(e1.id).count("2001:db8:1::1/64"), 0u);
   ASSERT_EQ(logs.size(), 1u);
   EXPECT_EQ(logs[0], "IPv6 DAD failed on interface Ethernet1 for address 2001:db8:1::1");

   // The duplicate goes and the configuration is given again: the address is tried anew.
   ASSERT_EQ(Konet::ip6AddrDel(sock(), e1.veth.peerIfindex, v6("2001:db8:1::1/64")), 0);
   e1.config->addrDel(v6("2001:db8:1::1/64"));
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   ASSERT_TRUE(settleUntil([&] {
      return kernelAddrs(e1.veth.ifindex).count("2001:db8:1::1/64") &&
             kernelAddrs(e1.veth.ifindex, 0x40).empty();  // no longer tentative
   }));
   EXPECT_FALSE(systemStatus->ip6IntfStatus(e1.id)->dadFailedAddrHas(v6("2001:db8:1::1/64")));
}

TEST_F(Ip6IntfSmKernelTest, ALinkLocalThatFailsDadStaysAndNoGlobalIsAdded) {
   auto e1 = addIntf("Ethernet1");
   auto ll = linkLocalOf(e1.mac);
   // Down, so that the kernel's own DAD runs again once the peer holds the address.
   sh("ip link set dev " + e1.veth.name + " down");
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), e1.veth.peerIfindex, v6(ll.c_str()), 0x02), 0);
   sh("sysctl -qw net.ipv6.conf." + e1.veth.name + ".accept_dad=1");
   sh("sysctl -qw net.ipv6.neigh." + e1.veth.name + ".retrans_time_ms=100");
   sh("ip link set dev " + e1.veth.name + " up");
   e1.config->acceptDadIs(Ip6::AcceptDadMode::dadEnabled);
   e1.config->nsRetransmitIntervalIs(100);
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   std::vector<std::string> logs;
   auto previous = Mox::logSinkIs([&](Mox::LogRecord const& r) {
      if (std::string(r.id) == "IP6ROUTING_DAD_FAILED") logs.push_back(r.text);
   });
   makeSm();
   ASSERT_TRUE(settleUntil([&] { return kernelAddrs(e1.veth.ifindex, kDadFailed).count(ll); }));
   for (int i = 0; i < 3; ++i) {
      sm->doScheduleKernelAddrUpdate(e1.id);
      settle();
   }
   Mox::logSinkIs(previous);
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex), (Set{ll}));
   EXPECT_TRUE(systemStatus->ip6IntfStatus(e1.id)->dadFailedAddrHas(v6(ll.c_str())));
   EXPECT_EQ(logs.size(), 1u);
}

// Router advertisements from radvd on the peer end give the interface an autoconfigured
// address, which the agent recognises and leaves alone, also across a restart.
TEST_F(Ip6IntfSmKernelTest, AnAutoconfiguredAddressIsRecognisedAndLeftAlone) {
   if (access("/usr/sbin/radvd", X_OK) != 0) {
      if (KonetTest::kernelRequired()) FAIL() << "radvd is not installed";
      GTEST_SKIP() << "radvd is not installed";
   }
   auto e1 = addIntf("Ethernet1");
   e1.config->addrSourceIs(Ip6::AddrSource::slaac);
   e1.config->addrIs(v6("2001:db8:1::1/64"));
   place(e1);
   mirror->processEvents();
   makeSm();
   settle();
   ASSERT_EQ(proc(e1.veth.name, "autoconf"), "1");
   ASSERT_EQ(proc(e1.veth.name, "accept_ra"), "2");

   auto dir = "/tmp/veld-radvd-" + e1.veth.peer;
   sh("mkdir -p " + dir);
   {
      std::ofstream conf(dir + "/radvd.conf");
      conf << "interface " << e1.veth.peer << " {\n AdvSendAdvert on;\n MinRtrAdvInterval 3;\n"
           << " MaxRtrAdvInterval 4;\n prefix 2001:db8:5::/64 { AdvAutonomous on; };\n};\n";
   }
   sh("sysctl -qw net.ipv6.conf.all.forwarding=1");
   pid_t radvd = fork();
   if (radvd == 0) {
      execl("/usr/sbin/radvd", "radvd", "-n", "-C", (dir + "/radvd.conf").c_str(), "-p",
            (dir + "/radvd.pid").c_str(), "-m", "stderr", "-d", "0", (char*)nullptr);
      _exit(127);
   }
   Konet::Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8, 0, 5, 0, 0};
   auto eui = Veld::toModifiedEui64(e1.status->eui64());
   std::copy(eui.begin(), eui.end(), b.begin() + 8);
   auto slaac = Konet::Ip6Addr(b).toString() + "/64";
   bool seen = settleUntil([&] { return kernelAddrs(e1.veth.ifindex).count(slaac) > 0; },
                           std::chrono::seconds(15));
   kill(radvd, SIGTERM);
   waitpid(radvd, nullptr, 0);
   sh("rm -rf " + dir);
   sh("sysctl -qw net.ipv6.conf.all.forwarding=0");
   ASSERT_TRUE(seen) << "no autoconfigured address";

   auto const& g = addrMap->genAddr(KernelNetInfo::InterfaceKey{uint32_t(e1.veth.ifindex)});
   ASSERT_TRUE(g);
   EXPECT_TRUE(sm->isSlaacAddress(v6(slaac.c_str()), g->addr6Flags(v6(slaac.c_str())), e1.id));
   EXPECT_FALSE(sm->isSlaacAddress(v6("2001:db8:1::1/64"), 0x80, e1.id));
   sm->doScheduleKernelAddrUpdate(e1.id);
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count(slaac), 1u);
   EXPECT_EQ(statusAddrs(e1.id).count(slaac), 1u);
   restart();
   settle();
   EXPECT_EQ(kernelAddrs(e1.veth.ifindex).count(slaac), 1u);
   EXPECT_FALSE(own->addr(e1.id, v6(slaac.c_str())));
}

}  // namespace
}  // namespace VeldTest
