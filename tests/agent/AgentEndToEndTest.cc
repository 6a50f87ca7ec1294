// The veld program end to end, in the test's private network namespace: what reaches the
// kernel, reloads (good, partial and bad), what `veld show` reports, and restarts.
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <set>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/NetlinkParse.h"
#include "linux/ProcSys.h"
#include "tests/agent/AddrMonitor.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"
#include "tests/linux/NftRuleset.h"

namespace {

using VeldTest::VeldProcess;

using VeldTest::AddrMonitor;

class AgentEndToEnd : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      for (auto* v : {&et1, &et2}) {
         *v = createVeth();
         ASSERT_EQ(Konet::setLinkUp(sock(), v->peerIfindex, true), 0);
         ASSERT_EQ(Konet::setLinkUp(sock(), v->ifindex, true), 0);
      }
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      if (HasFailure()) std::printf("veld's log:\n%s\n", veld.log().c_str());
      KernelFixture::TearDown();
   }

   std::string config(std::string const& secondary1 = "10.1.1.1/24",
                      std::string const& address2 = "10.2.0.1/24",
                      std::string const& more2 = "") const {
      return R"({"interfaces": {
         "Ethernet1": {"device": ")" +
             et1.name + R"(", "ipv4": {"address": "10.1.0.1/24",
             "secondaries": [")" +
             secondary1 + R"(", "10.1.2.1/24"], "proxyArp": true,
             "gratuitousArpAccept": true}},
         "Ethernet2": {"device": ")" +
             et2.name + R"(", "ipv4": {"address": ")" + address2 +
             R"(", "secondaries": ["10.2.1.1/24"])" + more2 + R"(}}}})";
   }
   std::set<std::string> kernel(Veth const& v) {
      std::set<std::string> out;
      for (auto const& a : addrs(v.ifindex, AF_INET))
         out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      return out;
   }
   std::string proc(Veth const& v, char const* file) {
      std::string value;
      Konet::readProcSys("/proc/sys/net/ipv4/conf/" + v.name + "/" + file, &value);
      return value;
   }
   void startConverged(std::string const& text) {
      veld.writeConfig(text);
      veld.start();
      ASSERT_TRUE(veld.waitConverged()) << "not converged:\n"
                                        << veld.show("backlog").dump() << "\n"
                                        << veld.show("interfaces").dump();
   }

   Veth et1, et2;
   VeldProcess veld;
};

using Set = std::set<std::string>;

TEST_F(AgentEndToEnd, ConfigurationReachesTheKernelAndShowReportsIt) {
   startConverged(config());
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24", "10.1.2.1/24"}));
   EXPECT_EQ(kernel(et2), (Set{"10.2.0.1/24", "10.2.1.1/24"}));
   EXPECT_EQ(proc(et1, "proxy_arp"), "1");
   EXPECT_EQ(proc(et1, "arp_accept"), "1");
   EXPECT_EQ(proc(et2, "proxy_arp"), "0");
   EXPECT_EQ(proc(et2, "forwarding"), "1");

   auto shown = veld.show("interfaces");
   ASSERT_TRUE(shown.is_object());
   for (auto const& i : shown.at("interfaces")) {
      auto const& v = i.at("interface") == "Ethernet1" ? et1 : et2;
      auto k = i.at("kernel").get<std::vector<std::string>>();
      EXPECT_EQ(Set(k.begin(), k.end()), kernel(v)) << i.dump();
      EXPECT_EQ(i.at("namespace"), "default");
      EXPECT_TRUE(i.at("operUp").get<bool>());
   }
   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("Ethernet1"), std::string::npos);
   EXPECT_NE(table.find("in sync"), std::string::npos) << table;
   EXPECT_EQ(veld.show("vrfs").at("vrfs").at(0).at("state"), "active");

   veld.signal(SIGTERM);
   EXPECT_EQ(veld.wait(), 0);
   // Stopping leaves the kernel as it is.
   EXPECT_EQ(kernel(et1).size(), 3u);
}

TEST_F(AgentEndToEnd, MssDirectedBroadcastAndAttachedRoutesReachTheKernelAndShow) {
   startConverged(config("10.1.1.1/24", "10.2.0.1/24",
                         R"(, "mss": {"ingress": 1400, "egress": 1300},
                            "directedBroadcast": true, "attachedRoutes": false)"));
   EXPECT_EQ(proc(et2, "bc_forwarding"), "1");
   EXPECT_EQ(proc(et1, "bc_forwarding"), "0");
   for (auto const& a : addrs(et2.ifindex, AF_INET)) {
      EXPECT_TRUE(a.flags & IFA_F_NOPREFIXROUTE) << a.addr.toString();
   }
   for (auto const& a : addrs(et1.ifindex, AF_INET)) {
      EXPECT_FALSE(a.flags & IFA_F_NOPREFIXROUTE) << a.addr.toString();
   }
   auto rules = KonetTest::nftRules("inet", "veld", "mss");
   // The clamps' table outlives the agent, as the rest of the kernel's state does.
   std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free);
   nft_run_cmd_from_buffer(ctx.get(), "delete table inet veld");
   EXPECT_EQ(rules, (Set{"iifname \"" + et2.name +
                             "\" tcp flags syn tcp option maxseg size > 1400 tcp option maxseg "
                             "size set 1400",
                         "oifname \"" + et2.name +
                             "\" tcp flags syn tcp option maxseg size > 1300 tcp option maxseg "
                             "size set 1300"}));

   auto shown = veld.show("interfaces").at("interfaces").at(1);
   ASSERT_EQ(shown.at("interface"), "Ethernet2");
   for (auto const* part : {"configured", "status"}) {
      auto const& s = shown.at(part);
      EXPECT_EQ(s.at("mssIngress"), 1400) << part;
      EXPECT_EQ(s.at("mssEgress"), 1300) << part;
      EXPECT_EQ(s.at("directedBroadcast"), true) << part;
      EXPECT_EQ(s.at("attachedRoutes"), false) << part;
   }
   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("mss in 1400, mss out 1300, directed broadcast, no attached routes"),
             std::string::npos)
       << table;
}
TEST_F(AgentEndToEnd, ReloadChangesExactlyWhatChanged) {
   startConverged(config());
   AddrMonitor monitor;
   veld.writeConfig(config("10.1.9.1/24"));  // one secondary replaced; the watch reloads
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et1).count("10.1.9.1/24"); }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(monitor.events(), (std::vector<std::string>{"-10.1.1.1/24", "+10.1.9.1/24"}));
   EXPECT_EQ(kernel(et2), (Set{"10.2.0.1/24", "10.2.1.1/24"}));

   // The same file again (SIGHUP): nothing to do.
   veld.signal(SIGHUP);
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(monitor.events().size(), 2u);
}

TEST_F(AgentEndToEnd, BadReloadIsRefusedAndTheLastGoodConfigurationStays) {
   startConverged(config());
   AddrMonitor monitor;
   veld.writeConfig(config("10.1.9.1/24", "10.2.0.1/33"));
   ASSERT_TRUE(KonetTest::waitFor(
       [&] { return veld.log().find("configuration refused") != std::string::npos; }));
   EXPECT_NE(veld.log().find("/interfaces/Ethernet2/ipv4/address"), std::string::npos);
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_TRUE(monitor.events().empty());
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24", "10.1.2.1/24"}));
   auto shown = veld.show("interfaces").at("interfaces").at(1);
   EXPECT_EQ(shown.at("configured").at("address"), "10.2.0.1/24");

   // The next good file is taken.
   veld.writeConfig(config("10.1.9.1/24"));
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et1).count("10.1.9.1/24"); }));
}

// Whatever the file holds, a reload that cannot use it leaves the agent running on the
// configuration in force, the kernel untouched, and the error with its place in the log and
// in `veld show config`.
TEST_F(AgentEndToEnd, EveryKindOfBadFileIsRefusedAndTheAgentRunsOn) {
   veld.withoutFileOverride = true;
   startConverged(config());
   AddrMonitor monitor;
   auto good = config("10.1.9.1/24");
   auto replaceWith = [&](auto&& make) {
      std::string path = veld.configPath();
      std::system(("rm -rf '" + path + "'").c_str());
      make(path);
   };
   auto writeMode = [&](std::string const& text, mode_t mode) {
      return [&, text, mode](std::string const& path) {
         std::string tmp = veld.dir() + "/.new";
         std::ofstream(tmp, std::ios::trunc) << text;
         ::chmod(tmp.c_str(), mode);
         std::rename(tmp.c_str(), path.c_str());
      };
   };
   struct Case {
      char const* kind;
      std::function<void(std::string const&)> make;
      std::string expected;  // in the error, with its place
   };
   std::vector<Case> cases = {
       {"an overflowing number", writeMode(R"({"interfaces": 1e999})", 0644),
        R"(/interfaces: the number "1e999" is too large (at line 1, column 16))"},
       {"invalid UTF-8", writeMode("{\"vrfs\": {\"r\xc3\": {}}}", 0644),
        "(document): not valid JSON at line 1, column 14: syntax error while parsing object key - "
        "invalid string: ill-formed UTF-8 byte"},
       {"a truncated document", writeMode(good.substr(0, good.size() / 2), 0644),
        "(document): not valid JSON at line "},
       {"a directory", [](std::string const& path) { ::mkdir(path.c_str(), 0755); },
        "(document): cannot read " + veld.configPath() + ": it is a directory"},
       {"an unreadable file", writeMode(good, 0),
        "(document): cannot read " + veld.configPath() + ": Permission denied"},
       {"an empty file", writeMode("", 0644), "(document): the document is empty"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.kind);
      replaceWith(c.make);
      ASSERT_TRUE(KonetTest::waitFor([&] {
         return veld.log().find(veld.configPath() + ": " + c.expected) != std::string::npos;
      })) << "the log lacks: "
          << c.expected;
      auto shown = veld.show("config");
      ASSERT_TRUE(shown.is_object());
      EXPECT_TRUE(shown.at("lastReloadRefused").get<bool>());
      ASSERT_EQ(shown.at("refusedErrors").size(), 1u);
      EXPECT_EQ(shown.at("refusedErrors").at(0).get<std::string>().find(c.expected), 0u);
      EXPECT_TRUE(veld.alive());
      ASSERT_TRUE(veld.waitConverged());
   }
   EXPECT_TRUE(monitor.events().empty()) << "a refused file touched the kernel";
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24", "10.1.2.1/24"}));

   // Requests on the control socket that are not requests are answered, never fatal.
   for (std::string line :
        std::vector<std::string>{"show interfaces", "{\"show\": 1e999}", "\xff\xfe", "",
                                 std::string(5000, '{'), "{\"show\": \"vrfs\"} trailing"}) {
      auto answer = nlohmann::json::parse(veld.request(line), nullptr, false);
      EXPECT_TRUE(answer.is_object() && answer.contains("error")) << line;
   }
   EXPECT_TRUE(veld.alive());

   // A good file is taken again, and the refusal is over.
   replaceWith(writeMode(good, 0644));
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et1).count("10.1.9.1/24"); }));
   EXPECT_FALSE(veld.show("config").at("lastReloadRefused").get<bool>());
}

// The record of the configuration applied before a stop, when it is damaged, does not stop
// the next start: the agent says so once and starts from what the kernel holds.
TEST_F(AgentEndToEnd, ADamagedRecordOfTheAppliedConfigurationDoesNotStopTheStart) {
   startConverged(config());
   veld.signal(SIGTERM);
   ASSERT_EQ(veld.wait(), 0);
   std::string applied = veld.runDir() + "/applied.json";
   std::string text;
   {
      std::ifstream in(applied);
      text.assign(std::istreambuf_iterator<char>(in), {});
   }
   ASSERT_FALSE(text.empty());
   std::ofstream(applied, std::ios::trunc) << text.substr(0, text.size() / 2);
   AddrMonitor monitor;
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_TRUE(monitor.events().empty()) << "the start changed addresses the kernel had right";
   auto log = veld.log();
   EXPECT_NE(log.find(applied + " is unusable ((document): not valid JSON at line "),
             std::string::npos)
       << log;
   // It is written anew.
   std::ifstream in(applied);
   EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), text);
}

TEST_F(AgentEndToEnd, RestartIsHitlessAndConvergesOnChangesMadeWhileDown) {
   startConverged(config());
   veld.kill9();
   {
      AddrMonitor monitor;
      veld.start();
      ASSERT_TRUE(veld.waitConverged());
      EXPECT_TRUE(monitor.events().empty()) << "a restart touched addresses";
      EXPECT_EQ(veld.show("backlog").at("procWrites"), 0) << "a restart wrote to /proc";
      veld.kill9();
   }
   AddrMonitor monitor;
   veld.writeConfig(config("10.1.9.1/24", "10.2.0.2/24"));
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.9.1/24", "10.1.2.1/24"}));
   EXPECT_EQ(kernel(et2), (Set{"10.2.0.2/24", "10.2.1.1/24"}));
   auto events = monitor.events();
   std::sort(events.begin(), events.end());
   // Exactly the difference: 10.2.1.1/24 is a subnet of its own and stays.
   EXPECT_EQ(events, (std::vector<std::string>{"+10.1.9.1/24", "+10.2.0.2/24", "-10.1.1.1/24",
                                               "-10.2.0.1/24"}));

   // An interface removed while the agent is down loses its addresses at the next start.
   veld.kill9();
   veld.writeConfig(R"({"interfaces": {"Ethernet1": {"device": ")" + et1.name +
                    R"(", "ipv4": {"address": "10.1.0.1/24"}}}})");
   veld.start();
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et2).empty(); }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(kernel(et1), Set{"10.1.0.1/24"});
}

TEST_F(AgentEndToEnd, AMissingDeviceIsWaitedForAndARemovedInterfaceLeavesNoAddress) {
   auto late = uniqueName("late");
   auto text = config();
   text.insert(text.rfind("}}"), R"(, "Ethernet7": {"device": ")" + late +
                                     R"(", "ipv4": {"address": "10.7.0.1/24"}})");
   veld.writeConfig(text);
   veld.start();
   // Reported by the device's name, which is what the kernel lacks.
   ASSERT_TRUE(KonetTest::waitFor([&] {
      auto b = veld.show("backlog");
      return b.is_object() && b.at("missingDevices") == nlohmann::json{late};
   })) << veld.show("backlog").dump();
   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "backlog", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("Missing devices: " + late + "\n"), std::string::npos) << table;
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et2).size() == 2; }));
   // The device appears: the interface takes its address.
   ASSERT_EQ(Konet::createVethPair(sock(), late, late + "p"), 0);
   int a = 0, b = 0;
   Konet::linkIndex(sock(), late, &a);
   Konet::linkIndex(sock(), late + "p", &b);
   Konet::setLinkUp(sock(), b, true);
   Konet::setLinkUp(sock(), a, true);
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(addrs(a, AF_INET).size(), 1u);
   Konet::deleteLink(sock(), a);

   // Ethernet1 leaves the configuration: its addresses leave the kernel.
   veld.writeConfig(R"({"interfaces": {"Ethernet2": {"device": ")" + et2.name +
                    R"(", "ipv4": {"address": "10.2.0.1/24", "secondaries": ["10.2.1.1/24"]}}}})");
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernel(et1).empty(); }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(veld.show("interfaces").at("interfaces").size(), 1u);
   EXPECT_EQ(kernel(et2).size(), 2u);
}

// A routed interface's device is up, in the default VRF as in any other: the agent brings it
// up where it finds it down, at the start and when it is taken down later. A bridge port's
// device keeps the state it has.
TEST_F(AgentEndToEnd, ARoutedInterfacesDeviceIsBroughtUpAndABridgePortsIsLeftAlone) {
   ASSERT_EQ(Konet::setLinkUp(sock(), et1.ifindex, false), 0);
   ASSERT_EQ(Konet::setLinkUp(sock(), et2.ifindex, false), 0);
   startConverged(R"({"interfaces": {
      "Ethernet1": {"device": ")" +
                  et1.name +
                  R"(", "ipv4": {"address": "10.1.0.1/24", "secondaries": ["10.1.1.1/24"]}},
      "Ethernet2": {"device": ")" +
                  et2.name + R"(", "routed": false}}})");
   EXPECT_TRUE(link(et1.ifindex).flags & IFF_UP);
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24"}));
   EXPECT_FALSE(link(et2.ifindex).flags & IFF_UP);
   EXPECT_EQ(veld.show("backlog").at("devicesBroughtUp"), 1);

   ASSERT_EQ(Konet::setLinkUp(sock(), et1.ifindex, false), 0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return link(et1.ifindex).flags & IFF_UP; }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24"}));
   EXPECT_FALSE(link(et2.ifindex).flags & IFF_UP);
}

TEST_F(AgentEndToEnd, CheckNamesEachPlace) {
   veld.writeConfig(config("10.1.1.1/33", "1.2.3"));
   std::string out;
   EXPECT_EQ(VeldProcess::command({"check", veld.configPath()}, &out), 1);
   EXPECT_NE(out.find("/interfaces/Ethernet1/ipv4/secondaries/0"), std::string::npos) << out;
   EXPECT_NE(out.find("/interfaces/Ethernet2/ipv4/address"), std::string::npos) << out;
   veld.writeConfig(config());
   EXPECT_EQ(VeldProcess::command({"check", veld.configPath()}, &out), 0) << out;
}

// A VRF: its namespace made by the agent, an interface's device moved into it and back,
// the namespace deleted with the VRF, and a restart that touches nothing in either.
class AgentVrfEndToEnd : public AgentEndToEnd {
protected:
   void TearDown() override {
      if (veld.running()) veld.kill9();  // first, so that its log ends where the test did
      Konet::deleteNamedNamespace(ns);
      AgentEndToEnd::TearDown();
   }
   std::string vrfConfig(bool inRed) const {
      return R"({"vrfs": {"red": {"namespace": ")" + ns.name() + R"("}}, "interfaces": {
         "Ethernet1": {"device": ")" +
             et1.name + R"(", "vrf": ")" + (inRed ? "red" : "default") +
             R"(", "ipv4": {"address": "10.1.0.1/24", "secondaries": ["10.1.1.1/24"]}},
         "Ethernet2": {"device": ")" +
             et2.name + R"(", "ipv4": {"address": "10.2.0.1/24"}}}})";
   }
   // The device's IPv4 (or IPv6) addresses in `ns`; empty when it is not there.
   Set kernelIn(Konet::NamespaceName const& where, std::string const& dev, int family = AF_INET) {
      int err = 0;
      auto s = Konet::createNetlinkSocket(where, 0, 2, true, 0, &err);
      int ifindex = 0;
      if (!s || Konet::linkIndex(s.get(), dev, &ifindex) != 0) return {};
      Set out;
      for (auto const& a : addrs(ifindex, family, s.get())) {
         if (family == AF_INET6 && a.addr.v6().isLinkLocal()) continue;
         out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      }
      return out;
   }
   // No address of the device is still in duplicate address detection (its end is an
   // address event of the kernel's own).
   bool dadDone(Konet::NamespaceName const& where, std::string const& dev) {
      int err = 0;
      auto s = Konet::createNetlinkSocket(where, 0, 2, true, 0, &err);
      int ifindex = 0;
      if (!s || Konet::linkIndex(s.get(), dev, &ifindex) != 0) return false;
      for (auto const& a : addrs(ifindex, AF_INET6, s.get())) {
         if (a.flags & IFA_F_TENTATIVE) return false;
      }
      return true;
   }
   bool nsExists() const { return ::access(("/run/netns/" + ns.name()).c_str(), F_OK) == 0; }

   Konet::NamespaceName ns{"veldtest-" + uniqueName("red")};
};

TEST_F(AgentVrfEndToEnd, DeviceFollowsItsVrfAndTheNamespaceGoesWithIt) {
   startConverged(vrfConfig(true));
   EXPECT_TRUE(nsExists());
   EXPECT_EQ(kernelIn(ns, et1.name), (Set{"10.1.0.1/24", "10.1.1.1/24"}));
   EXPECT_EQ(kernelIn(Konet::NamespaceName(), et2.name), Set{"10.2.0.1/24"});
   auto shown = veld.show("interfaces").at("interfaces").at(0);
   EXPECT_EQ(shown.at("namespace"), ns.name());
   EXPECT_EQ(shown.at("status").at("vrf"), "red");

   // Back to the default VRF, and the VRF removed.
   auto text = vrfConfig(false);
   text.replace(text.find(R"("red": {"namespace": ")" + ns.name() + R"("})"),
                std::string(R"("red": {"namespace": ")" + ns.name() + R"("})").size(), "");
   veld.writeConfig(text);
   ASSERT_TRUE(KonetTest::waitFor([&] { return !nsExists(); }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(kernel(et1), (Set{"10.1.0.1/24", "10.1.1.1/24"}));
   EXPECT_EQ(veld.show("vrfs").at("vrfs").size(), 1u);
}

// A device moved into a VRF's namespace counts as settled when the kernel reports its carrier
// there, not after a fixed wait; one without carrier counts as settled after a second, and
// takes its address when the carrier comes.
TEST_F(AgentVrfEndToEnd, AMovedDeviceSettlesOnItsCarrierEvent) {
   auto et3 = createVeth();  // neither end up: no carrier until the test brings its peer up
   startConverged(R"({"vrfs": {"red": {"namespace": ")" + ns.name() + R"("}}, "interfaces": {
      "Ethernet1": {"device": ")" +
                  et1.name +
                  R"(", "vrf": "red", "ipv4": {"address": "10.1.0.1/24"}},
      "Ethernet3": {"device": ")" +
                  et3.name + R"(", "vrf": "red", "ipv4": {"address": "10.3.0.1/24"}}}})");
   auto log = veld.log();
   EXPECT_NE(log.find("interface Ethernet1: device " + et1.name + " has its carrier in namespace " +
                      ns.name()),
             std::string::npos)
       << log;
   EXPECT_NE(log.find("interface Ethernet3: device " + et3.name +
                      " has no carrier 1 s after it was brought up in namespace " + ns.name()),
             std::string::npos)
       << log;
   EXPECT_EQ(log.find("interface Ethernet1: device " + et1.name + " has no carrier"),
             std::string::npos);
   EXPECT_EQ(kernelIn(ns, et1.name), Set{"10.1.0.1/24"});
   EXPECT_EQ(kernelIn(ns, et3.name), Set{});

   ASSERT_EQ(Konet::setLinkUp(sock(), et3.peerIfindex, true), 0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return kernelIn(ns, et3.name) == Set{"10.3.0.1/24"}; }));
   ASSERT_TRUE(veld.waitConverged());
}

// The device is already in the VRF's namespace, as a previous run left it: a move makes
// the kernel report the device's carrier again up to a second later, which the machines
// answer by taking the addresses away and back.
TEST_F(AgentVrfEndToEnd, RestartWithAVrfIsHitless) {
   ASSERT_EQ(Konet::createNamedNamespace(ns), 0);
   ASSERT_EQ(Konet::moveLinkToNamedNetNs(sock(), et1.ifindex, ns), 0);
   int err = 0;
   auto inNs = Konet::createNetlinkSocket(ns, 0, 2, true, 0, &err);
   int ifindex = 0;
   ASSERT_EQ(Konet::linkIndex(inNs.get(), et1.name, &ifindex), 0);
   ASSERT_EQ(Konet::setLinkUp(inNs.get(), ifindex, true), 0);
   ASSERT_TRUE(KonetTest::waitFor([&] { return link(ifindex, inNs.get()).flags & IFF_RUNNING; }));
   startConverged(vrfConfig(true));
   EXPECT_EQ(veld.show("backlog").at("deviceMoves"), 0);
   veld.kill9();
   AddrMonitor inDefault, inRed(ns);
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(inDefault.events(), std::vector<std::string>{});
   EXPECT_EQ(inRed.events(), std::vector<std::string>{});
   EXPECT_EQ(veld.show("backlog").at("procWrites"), 0) << "a restart wrote to /proc";
   EXPECT_EQ(kernelIn(ns, et1.name), (Set{"10.1.0.1/24", "10.1.1.1/24"}));
}

// IPv6 configuration reaches the kernel in the default VRF and in a VRF's namespace; a
// restart on the same configuration touches no address, and one on a changed configuration
// deletes exactly the address that went.
TEST_F(AgentVrfEndToEnd, Ipv6ReachesBothVrfsAndRestartsAreHitless) {
   auto text = [&](char const* more2) {
      return R"({"vrfs": {"red": {"namespace": ")" + ns.name() +
             R"(", "ipv6Routing": true}}, "interfaces": {
         "Ethernet1": {"device": ")" +
             et1.name + R"(", "vrf": "red", "ipv6": {"enable": true,
             "addresses": ["2001:db8:1::1/64"], "acceptDad": "disabled"}},
         "Ethernet2": {"device": ")" +
             et2.name + R"(", "ipv6": {"enable": true, "acceptDad": "disabled",
             "addresses": ["2001:db8:2::1/64")" +
             more2 + R"(]}}}})";
   };
   startConverged(text(R"(, "2001:db8:2::2/64")"));
   ASSERT_TRUE(KonetTest::waitFor([&] {
      return kernelIn(ns, et1.name, AF_INET6) == Set{"2001:db8:1::1/64"} &&
             kernelIn(Konet::NamespaceName(), et2.name, AF_INET6) ==
                 Set{"2001:db8:2::1/64", "2001:db8:2::2/64"};
   }));
   std::string value;
   Konet::readProcSys("/proc/sys/net/ipv6/conf/" + et2.name + "/accept_dad", &value);
   EXPECT_EQ(value, "0");
   Konet::readProcSys("/proc/sys/net/ipv6/conf/" + et2.name + "/forwarding", &value);
   EXPECT_EQ(value, "0");  // the default VRF does not route IPv6 here
   // The monitors below see every device of their namespace: the veths' peers too.
   ASSERT_TRUE(KonetTest::waitFor([&] {
      Konet::NamespaceName host;
      return dadDone(ns, et1.name) && dadDone(host, et2.name) && dadDone(host, et1.peer) &&
             dadDone(host, et2.peer);
   }));

   veld.kill9();
   {
      AddrMonitor inDefault(Konet::NamespaceName(), RTMGRP_IPV6_IFADDR);
      AddrMonitor inRed(ns, RTMGRP_IPV6_IFADDR);
      veld.start();
      ASSERT_TRUE(veld.waitConverged());
      EXPECT_EQ(inDefault.events(), std::vector<std::string>{});
      EXPECT_EQ(inRed.events(), std::vector<std::string>{});
      veld.kill9();
   }
   AddrMonitor inDefault(Konet::NamespaceName(), RTMGRP_IPV6_IFADDR);
   veld.writeConfig(text(""));
   veld.start();
   ASSERT_TRUE(KonetTest::waitFor([&] {
      return kernelIn(Konet::NamespaceName(), et2.name, AF_INET6) == Set{"2001:db8:2::1/64"};
   }));
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(inDefault.events(), std::vector<std::string>{"-2001:db8:2::2/64"});
}

// The peer end of the veth already holds an address configured on the device: DAD fails,
// and the agent reports it as the kernel has it, with one log line.
TEST_F(AgentVrfEndToEnd, ADuplicateIpv6AddressIsReportedAsTheKernelHasIt) {
   auto dup = *Konet::Ip6AddrWithMask::parse("2001:db8:1::1/64");
   ASSERT_EQ(Konet::ip6AddrAdd(sock(), et1.peerIfindex, dup, IFA_F_NODAD), 0);
   veld.writeConfig(R"({"interfaces": {"Ethernet1": {"device": ")" + et1.name +
                    R"(", "ipv6": {"enable": true, "nsInterval": 100,
                    "addresses": ["2001:db8:1::1/64", "2001:db8:1::2/64"]}}}})");
   veld.start();
   nlohmann::json ip6;
   EXPECT_TRUE(KonetTest::waitFor(
       [&] {
          auto shown = veld.show("interfaces");
          if (!shown.is_object() || !shown.contains("interfaces")) return false;
          ip6 = shown.at("interfaces").at(0).at("ipv6");
          return !ip6.is_null() && ip6.at("dadFailed").size() == 1 &&
                 ip6.at("addresses").size() == 1;
       },
       std::chrono::seconds(10)))
       << ip6.dump();
   EXPECT_EQ(ip6.at("dadFailed"), nlohmann::json({"2001:db8:1::1/64"}));
   EXPECT_EQ(ip6.at("addresses"), nlohmann::json({"2001:db8:1::2/64"}));
   // The kernel agrees: the duplicate left the device, the other address is there.
   EXPECT_EQ(kernelIn(Konet::NamespaceName(), et1.name, AF_INET6), Set{"2001:db8:1::2/64"});
   ASSERT_TRUE(veld.waitConverged());
   std::string line = "IPv6 DAD failed on interface Ethernet1 for address 2001:db8:1::1";
   auto log = veld.log();
   auto first = log.find(line);
   ASSERT_NE(first, std::string::npos) << log;
   EXPECT_NE(log.rfind("IP6ROUTING_DAD_FAILED", first), std::string::npos);
   EXPECT_EQ(log.find(line, first + 1), std::string::npos) << "logged more than once";
}

}  // namespace
