// Addresses from DHCP and borrowed by unnumbered interfaces, end to end: the veld program
// with its real DHCP client, a real DHCP server on the other end of the veth pair (in a
// namespace of its own), and what the kernel holds.
#include <fcntl.h>
#include <linux/if_addr.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "linux/NetNs.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "tests/agent/AddrMonitor.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"

namespace {

using Set = std::set<std::string>;
using VeldTest::AddrMonitor;
using VeldTest::VeldProcess;
using namespace std::chrono_literals;

bool have(char const* program) {
   return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

// dnsmasq serving DHCP only, on one device of a namespace, leases of two minutes (its
// shortest).
class DhcpServer {
public:
   DhcpServer(std::string dir, Konet::NamespaceName ns, std::string device)
       : dir_(std::move(dir)), ns_(std::move(ns)), device_(std::move(device)) {}
   ~DhcpServer() { stop(); }

   void start(std::string const& first, std::string const& last) {
      stop();
      pid_ = ::fork();
      if (pid_ != 0) return;
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (Konet::setnsByName(ns_) != 0) ::_exit(126);
      int log = ::open((dir_ + "/dnsmasq.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      ::dup2(log, 1);
      ::dup2(log, 2);
      std::string range = "--dhcp-range=" + first + "," + last + ",255.255.255.0,2m";
      std::string iface = "--interface=" + device_;
      std::string leases = "--dhcp-leasefile=" + dir_ + "/dnsmasq.leases";
      ::execlp("dnsmasq", "dnsmasq", "--no-daemon", "--port=0", "--conf-file=/dev/null",
               "--no-hosts", "--no-resolv", "--bind-interfaces", "--dhcp-authoritative",
               "--user=root", "--pid-file", "--log-dhcp", iface.c_str(), range.c_str(),
               leases.c_str(), nullptr);
      ::_exit(127);
   }
   void stop() {
      if (pid_ <= 0) return;
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
   }
   // The server forgets its leases (started again with another range, it refuses them).
   void forget() { ::unlink((dir_ + "/dnsmasq.leases").c_str()); }

private:
   std::string dir_;
   Konet::NamespaceName ns_;
   std::string device_;
   pid_t pid_ = -1;
};

class AddressSourceEndToEnd : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      for (auto* v : {&et1, &et2, &et3, &et4}) {
         *v = createVeth();
         ASSERT_EQ(Konet::setLinkUp(sock(), v->peerIfindex, true), 0);
         ASSERT_EQ(Konet::setLinkUp(sock(), v->ifindex, true), 0);
      }
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      if (HasFailure()) {
         std::printf("veld's log:\n%s\n", veld.log().c_str());
         std::ifstream in(veld.dir() + "/dnsmasq.log");
         std::stringstream s;
         s << in.rdbuf();
         std::printf("dnsmasq's log:\n%s\n", s.str().c_str());
      }
      KernelFixture::TearDown();
   }

   Set kernel(Veth const& v) {
      Set out;
      for (auto const& a : addrs(v.ifindex, AF_INET))
         out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      return out;
   }
   uint32_t flagsOf(Veth const& v, std::string const& addr) {
      for (auto const& a : addrs(v.ifindex, AF_INET)) {
         if (a.addr.toString() + "/" + std::to_string(a.prefixLen) == addr) return a.flags;
      }
      return 0;
   }
   nlohmann::json shownIntf(char const* name) {
      auto shown = veld.show("interfaces");
      if (!shown.is_object()) return nullptr;
      for (auto const& i : shown.at("interfaces")) {
         if (i.at("interface") == name) return i;
      }
      return nullptr;
   }
   void startConverged(std::string const& text) {
      veld.writeConfig(text);
      veld.start();
      ASSERT_TRUE(veld.waitConverged()) << "not converged:\n"
                                        << veld.show("backlog").dump() << "\n"
                                        << veld.show("interfaces").dump();
   }
   // Reloads and waits until the agent has taken the file and converged.
   void reloadConverged(std::string const& text) {
      auto reloads = [&] {
         auto c = veld.show("config");
         return c.is_object() ? c.value("reloads", 0) : -1;
      };
      int before = reloads();
      veld.writeConfig(text);
      ASSERT_TRUE(KonetTest::waitFor([&] { return reloads() > before; }, 10s));
      ASSERT_FALSE(veld.show("config").at("lastReloadRefused").get<bool>());
      ASSERT_TRUE(veld.waitConverged()) << veld.show("interfaces").dump();
   }

   Veth et1, et2, et3, et4;
   VeldProcess veld;
};

// ---- DHCP

class DhcpEndToEnd : public AddressSourceEndToEnd {
protected:
   void SetUp() override {
      AddressSourceEndToEnd::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      if (!have("udhcpc") || !have("dnsmasq")) {
         // The test command installs both; a machine without them cannot run this.
         FAIL() << "udhcpc and dnsmasq are needed (scripts/install-deps installs them)";
      }
      serverNs = createNamespace();
      ASSERT_EQ(Konet::moveLinkToNamedNetNs(sock(), et1.peerIfindex, serverNs), 0);
      Konet::ScopedNetNs in(serverNs);
      ASSERT_TRUE(in.ok());
      int ns = 0;
      Konet::Fd s = Konet::createNetlinkSocket(serverNs, 0, 0, false, 1 << 16, &ns);
      ASSERT_TRUE(s);
      int peer = 0;
      ASSERT_EQ(Konet::linkIndex(s.get(), et1.peer, &peer), 0);
      ASSERT_EQ(Konet::setLinkUp(s.get(), peer, true), 0);
      ASSERT_EQ(Konet::ipAddrAdd(s.get(), peer, *Konet::IpAddrWithMask::parse("192.0.2.1/24")), 0);
      server = std::make_unique<DhcpServer>(veld.dir(), serverNs, et1.peer);
   }
   void TearDown() override {
      server.reset();
      AddressSourceEndToEnd::TearDown();
   }

   std::string dhcpConfig(bool dhcp = true) const {
      std::string ipv4 = dhcp ? R"("dhcp": true)" : R"("address": "10.1.0.1/24")";
      return R"({"interfaces": {"Ethernet1": {"device": ")" + et1.name + R"(", "ipv4": {)" + ipv4 +
             "}}}}";
   }
   nlohmann::json source() {
      auto i = shownIntf("Ethernet1");
      return i.is_null() ? i : i.at("addressSource");
   }
   int clientPid() { return source().value("clientPid", 0); }
   // Lines the current client's hook reported.
   std::string events() {
      std::ifstream in(veld.runDir() + "/dhcp/Ethernet1.events");
      std::stringstream s;
      s << in.rdbuf();
      return s.str();
   }
   bool leased(std::string const& addr) {
      return KonetTest::waitFor(
          [&] {
             auto i = shownIntf("Ethernet1");
             return kernel(et1) == Set{addr} && !i.is_null() && !i.at("status").is_null() &&
                    i.at("status").at("address") == addr;
          },
          30s);
   }

   Konet::NamespaceName serverNs;
   std::unique_ptr<DhcpServer> server;
};

TEST_F(DhcpEndToEnd, PendingHoldsNoAddressAndALeaseReachesKernelAndStatus) {
   startConverged(dhcpConfig());
   ASSERT_TRUE(KonetTest::waitFor([&] { return clientPid() != 0; }, 10s));
   // No server yet: the lease is pending and the interface holds no address.
   EXPECT_TRUE(source().value("pending", false));
   EXPECT_EQ(kernel(et1), Set{});
   std::string table;
   ASSERT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("dhcp, pending"), std::string::npos) << table;

   server->start("192.0.2.10", "192.0.2.10");
   ASSERT_TRUE(leased("192.0.2.10/24")) << veld.show("interfaces").dump();
   auto src = source();
   EXPECT_EQ(src.at("source"), "dhcp");
   EXPECT_FALSE(src.at("pending").get<bool>());
   EXPECT_GT(src.at("leaseSecondsLeft").get<int>(), 0);
   EXPECT_LE(src.at("leaseSecondsLeft").get<int>(), 120);
   ASSERT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("dhcp, "), std::string::npos) << table;
   EXPECT_NE(table.find(" s left"), std::string::npos) << table;
   // The client programs nothing itself: the address is the agent's, with its prefix route.
   EXPECT_EQ(flagsOf(et1, "192.0.2.10/24") & IFA_F_NOPREFIXROUTE, 0u);
}

TEST_F(DhcpEndToEnd, ServerRefusingTheLeaseTakesTheAddressAway) {
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   AddrMonitor monitor;
   // The server forgets the lease and serves another range: the renewal is refused.
   server->forget();
   server->start("192.0.2.100", "192.0.2.100");
   ::kill(clientPid(), SIGUSR1);  // renew now
   ASSERT_TRUE(leased("192.0.2.100/24")) << events();
   auto seen = monitor.events();
   ASSERT_GE(seen.size(), 2u);
   EXPECT_EQ(seen.front(), "-192.0.2.10/24");  // taken away before the new one came
   EXPECT_NE(events().find("nak"), std::string::npos) << events();
}

TEST_F(DhcpEndToEnd, SwitchingBetweenDhcpAndConfiguredLive) {
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   int client = clientPid();

   reloadConverged(dhcpConfig(false));
   EXPECT_EQ(kernel(et1), Set{"10.1.0.1/24"});
   EXPECT_EQ(source().at("source"), "configured");
   EXPECT_NE(::kill(client, 0), 0) << "the client still runs";
   // The lease was given back: the server no longer holds it.
   EXPECT_TRUE(KonetTest::waitFor(
       [&] {
          std::ifstream in(veld.dir() + "/dnsmasq.leases");
          std::stringstream s;
          s << in.rdbuf();
          return s.str().find("192.0.2.10") == std::string::npos;
       },
       5s));

   reloadConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   EXPECT_EQ(source().at("source"), "dhcp");
}

TEST_F(DhcpEndToEnd, KilledClientIsStartedAgainWithoutFlap) {
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   AddrMonitor monitor;
   int first = clientPid();
   ASSERT_GT(first, 0);
   ::kill(first, SIGKILL);
   ASSERT_TRUE(KonetTest::waitFor(
       [&] {
          int now = clientPid();
          return now != 0 && now != first && events().find("bound") != std::string::npos;
       },
       30s))
       << events();
   EXPECT_EQ(kernel(et1), Set{"192.0.2.10/24"});
   EXPECT_TRUE(monitor.events().empty()) << monitor.events().front();
   EXPECT_NE(veld.log().find("DHCP client of Ethernet1 killed by signal 9"), std::string::npos);
}

TEST_F(DhcpEndToEnd, RestartOfTheAgentKeepsTheLeasedAddress) {
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   veld.kill9();
   AddrMonitor monitor;
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   ASSERT_TRUE(KonetTest::waitFor(
       [&] { return clientPid() != 0 && events().find("bound") != std::string::npos; }, 30s))
       << events();
   EXPECT_EQ(kernel(et1), Set{"192.0.2.10/24"});
   EXPECT_TRUE(monitor.events().empty()) << monitor.events().front();
}

TEST_F(DhcpEndToEnd, RemovedInterfaceStopsItsClientAndComesBackUnderTheSameName) {
   startConverged(dhcpConfig());
   ASSERT_TRUE(KonetTest::waitFor([&] { return clientPid() != 0; }, 10s));
   int pending = clientPid();  // still asking: no server yet
   reloadConverged(R"({"interfaces": {}})");
   EXPECT_NE(::kill(pending, 0), 0) << "the client of a removed interface still runs";

   server->start("192.0.2.10", "192.0.2.10");
   reloadConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   EXPECT_NE(clientPid(), pending);
}

// The client runs in the namespace of the interface's VRF, and moves with the interface.
TEST_F(DhcpEndToEnd, ClientRunsInTheVrfsNamespaceAndMovesWithTheInterface) {
   Konet::NamespaceName red("veldtest-" + uniqueName("red"));
   auto config = [&](char const* vrf) {
      return R"({"vrfs": {"red": {"namespace": ")" + red.name() +
             R"("}}, "interfaces": {"Ethernet1": {"device": ")" + et1.name + R"(", "vrf": ")" +
             vrf + R"(", "ipv4": {"dhcp": true}}}})";
   };
   auto kernelIn = [&](Konet::NamespaceName const& where) {
      int err = 0;
      auto s = Konet::createNetlinkSocket(where, 0, 2, true, 0, &err);
      int ifindex = 0;
      Set out;
      if (!s || Konet::linkIndex(s.get(), et1.name, &ifindex) != 0) return out;
      for (auto const& a : addrs(ifindex, AF_INET, s.get()))
         out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      return out;
   };
   auto nsInode = [](std::string const& path) {
      struct stat st {};
      return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
   };
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(config("red"));
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernelIn(red) == Set{"192.0.2.10/24"}; }, 30s))
       << veld.show("interfaces").dump();
   EXPECT_EQ(nsInode("/proc/" + std::to_string(clientPid()) + "/ns/net"),
             nsInode("/run/netns/" + red.name()));

   reloadConverged(config("default"));
   ASSERT_TRUE(leased("192.0.2.10/24"));
   EXPECT_EQ(nsInode("/proc/" + std::to_string(clientPid()) + "/ns/net"),
             nsInode("/proc/self/ns/net"));
   veld.kill9();
   Konet::deleteNamedNamespace(red);
}

TEST_F(DhcpEndToEnd, LeaseExpiresWhenTheServerIsGone) {
   server->start("192.0.2.10", "192.0.2.10");
   startConverged(dhcpConfig());
   ASSERT_TRUE(leased("192.0.2.10/24"));
   server->stop();
   // Two minutes, the server's shortest lease, and no renewal.
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et1).empty(); }, 150s));
   EXPECT_TRUE(KonetTest::waitFor([&] { return source().value("pending", false); }, 5s));
   EXPECT_TRUE(veld.waitConverged());
}

// ---- unnumbered

std::string unnumberedConfig(std::vector<std::string> const& devs, std::string const& lender1,
                             std::string const& borrow3, std::string const& borrow4) {
   std::string ipv4_1 = lender1.empty() ? "{}" : R"({"address": ")" + lender1 + R"("})";
   return R"({"interfaces": {
      "Ethernet1": {"device": ")" +
          devs[0] + R"(", "ipv4": )" + ipv4_1 + R"(},
      "Ethernet2": {"device": ")" +
          devs[1] + R"(", "ipv4": {"address": "10.2.0.1/24"}},
      "Ethernet3": {"device": ")" +
          devs[2] + R"(", "ipv4": {"unnumbered": ")" + borrow3 + R"("}},
      "Ethernet4": {"device": ")" +
          devs[3] + R"(", "ipv4": {"unnumbered": ")" + borrow4 + R"("}}}})";
}

TEST_F(AddressSourceEndToEnd, BorrowersFollowTheirLender) {
   std::vector<std::string> devs{et1.name, et2.name, et3.name, et4.name};
   startConverged(unnumberedConfig(devs, "10.1.0.1/24", "Ethernet1", "Ethernet1"));
   // Two borrowers of one lender: its address, without its subnet's route.
   EXPECT_EQ(kernel(et3), Set{"10.1.0.1/24"});
   EXPECT_EQ(kernel(et4), Set{"10.1.0.1/24"});
   EXPECT_NE(flagsOf(et3, "10.1.0.1/24") & IFA_F_NOPREFIXROUTE, 0u);
   EXPECT_EQ(flagsOf(et1, "10.1.0.1/24") & IFA_F_NOPREFIXROUTE, 0u);
   auto i3 = shownIntf("Ethernet3");
   EXPECT_EQ(i3.at("addressSource").at("source"), "unnumbered");
   EXPECT_EQ(i3.at("addressSource").at("lender"), "Ethernet1");
   EXPECT_EQ(i3.at("status").at("address"), "10.1.0.1/24");
   std::string table;
   ASSERT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("borrowed from Ethernet1"), std::string::npos) << table;

   // The kernel loses a borrowed address behind the agent's back: it is put back.
   ASSERT_EQ(Konet::ipAddrDel(sock(), et4.ifindex, *Konet::IpAddrWithMask::parse("10.1.0.1/24")),
             0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et4) == Set{"10.1.0.1/24"}; }));

   // The lender's address changes: both follow.
   reloadConverged(unnumberedConfig(devs, "10.1.5.1/24", "Ethernet1", "Ethernet1"));
   EXPECT_EQ(kernel(et3), Set{"10.1.5.1/24"});
   EXPECT_EQ(kernel(et4), Set{"10.1.5.1/24"});

   // The lender loses its address: the borrowers hold none; it gets one back.
   reloadConverged(unnumberedConfig(devs, "", "Ethernet1", "Ethernet1"));
   EXPECT_EQ(kernel(et1), Set{});
   EXPECT_EQ(kernel(et3), Set{});
   EXPECT_EQ(kernel(et4), Set{});
   reloadConverged(unnumberedConfig(devs, "10.1.6.1/24", "Ethernet1", "Ethernet1"));
   EXPECT_EQ(kernel(et3), Set{"10.1.6.1/24"});

   // A borrower moves to another lender.
   reloadConverged(unnumberedConfig(devs, "10.1.6.1/24", "Ethernet1", "Ethernet2"));
   EXPECT_EQ(kernel(et3), Set{"10.1.6.1/24"});
   EXPECT_EQ(kernel(et4), Set{"10.2.0.1/24"});
   EXPECT_EQ(shownIntf("Ethernet4").at("addressSource").at("lender"), "Ethernet2");
}

// The borrowers come before their lender in every order the agent keeps (by name): their
// addresses must not wait for the lender's turn.
TEST_F(AddressSourceEndToEnd, RestartKeepsBorrowedAddresses) {
   startConverged(R"({"interfaces": {
      "Ethernet1": {"device": ")" +
                  et1.name + R"(", "ipv4": {"unnumbered": "Ethernet4"}},
      "Ethernet2": {"device": ")" +
                  et2.name + R"(", "ipv4": {"unnumbered": "Ethernet4"}},
      "Ethernet3": {"device": ")" +
                  et3.name + R"(", "ipv4": {"unnumbered": "Ethernet4"}},
      "Ethernet4": {"device": ")" +
                  et4.name + R"(", "ipv4": {"address": "10.4.0.1/24"}}}})");
   EXPECT_EQ(kernel(et1), Set{"10.4.0.1/24"});
   veld.kill9();
   AddrMonitor monitor;
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   for (auto const* v : {&et1, &et2, &et3, &et4})
      EXPECT_EQ(kernel(*v), Set{"10.4.0.1/24"});
   EXPECT_TRUE(monitor.events().empty()) << monitor.events().front();
}

}  // namespace
