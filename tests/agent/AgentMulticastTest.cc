// A running veld: programs' multicast groups through the control socket, and an interface
// whose device moves to a VRF's namespace and back, its L3 status following.
#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkLink.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"

namespace {

using Json = nlohmann::json;
using VeldTest::VeldProcess;

class AgentMulticast : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      for (auto* v : {&et1, &et2}) {
         *v = createVeth();
         ASSERT_EQ(Konet::setLinkUp(sock(), v->peerIfindex, true), 0);
      }
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      Konet::deleteNamedNamespace(ns);
      if (HasFailure()) std::printf("veld's log:\n%s\n", veld.log().c_str());
      KernelFixture::TearDown();
   }
   std::string config(char const* vrf1) const {
      return R"({"vrfs": {"red": {"namespace": ")" + ns.name() +
             R"(", "ipv6Routing": true}}, "interfaces": {
         "Ethernet1": {"device": ")" +
             et1.name + R"(", "vrf": ")" + vrf1 + R"(", "ipv4": {"address": "10.1.0.1/24"},
             "ipv6": {"enable": true, "addresses": ["2001:db8:1::1/64"], "acceptDad": "disabled"}},
         "Ethernet2": {"device": ")" +
             et2.name + R"(", "ipv4": {"address": "10.2.0.1/24"},
             "ipv6": {"enable": true, "addresses": ["2001:db8:2::1/64"], "acceptDad": "disabled"}}}})";
   }
   void startConverged(std::string const& text) {
      veld.writeConfig(text);
      veld.start();
      ASSERT_TRUE(veld.waitConverged()) << veld.show("backlog").dump();
   }
   Json ask(std::string const& line) const {
      return Json::parse(veld.request(line), nullptr, false);
   }
   static std::string declare(char const* program, char const* intf, char const* groups) {
      return std::string(R"({"multicast": {"name": ")") + program + R"(", "interface": ")" + intf +
             R"(", "groups": [)" + groups + "]}}";
   }
   // The applications of a group on an interface as `show multicast` answers.
   static Json appsOf(Json const& shown, char const* intf, char const* group) {
      for (auto const& g : shown.at("groups")) {
         if (g.at("interface") == intf && g.at("group") == group) return g.at("applications");
      }
      return Json::array();
   }
   // The interface as `show interfaces` answers (an empty object while there is no answer).
   Json interfaceShown(char const* intf) const {
      auto shown = veld.show("interfaces");
      if (shown.is_object() && shown.contains("interfaces")) {
         for (auto const& i : shown.at("interfaces")) {
            if (i.at("interface") == intf) return i;
         }
      }
      return Json::object();
   }
   // Whether the device is in `where` (the agent's own namespace when empty).
   bool deviceIn(Konet::NamespaceName const& where, std::string const& dev) {
      int err = 0;
      auto s = Konet::createNetlinkSocket(where, 0, 2, true, 0, &err);
      int ifindex = 0;
      return s && Konet::linkIndex(s.get(), dev, &ifindex) == 0;
   }

   Veth et1, et2;
   VeldProcess veld;
   Konet::NamespaceName ns{"veldtest-" + uniqueName("red")};
};

}  // namespace

TEST_F(AgentMulticast, ProgramsShareGroupsAndAWithdrawalTakesAProgramsGroupsEverywhere) {
   startConverged(config("default"));
   auto shown = ask(declare("mld-snoop", "Ethernet1", R"("ff02::1", "ff02::fb", "224.0.0.251")"));
   EXPECT_EQ(appsOf(shown, "Ethernet1", "ff02::1"), (Json{"mld-snoop", "veld"})) << shown.dump();
   EXPECT_EQ(appsOf(shown, "Ethernet1", "ff02::fb"), Json{"mld-snoop"});
   EXPECT_EQ(appsOf(shown, "Ethernet1", "224.0.0.251"), Json{"mld-snoop"});
   ask(declare("mld-snoop", "Ethernet2", R"("ff02::fb")"));
   ask(declare("mdns", "Ethernet1", R"("ff02::fb")"));
   EXPECT_EQ(appsOf(veld.show("multicast"), "Ethernet1", "ff02::fb"), (Json{"mdns", "mld-snoop"}));

   // A new declaration replaces the program's groups on that interface only.
   ask(declare("mld-snoop", "Ethernet1", R"("ff02::fb")"));
   shown = veld.show("multicast");
   EXPECT_EQ(appsOf(shown, "Ethernet1", "ff02::1"), Json{"veld"});
   EXPECT_EQ(appsOf(shown, "Ethernet1", "224.0.0.251"), Json::array());
   EXPECT_EQ(appsOf(shown, "Ethernet2", "ff02::fb"), Json{"mld-snoop"});

   shown = ask(R"({"multicast-withdraw": "mld-snoop"})");
   EXPECT_EQ(appsOf(shown, "Ethernet1", "ff02::fb"), Json{"mdns"});
   EXPECT_EQ(appsOf(shown, "Ethernet2", "ff02::fb"), Json::array());
   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "multicast", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("Ethernet1  ff02::fb           mdns"), std::string::npos) << table;

   EXPECT_EQ(
       ask(R"({"multicast-withdraw": "mld-snoop"})"),
       (Json{{"error", R"(/multicast-withdraw: no multicast groups of "mld-snoop" to withdraw)"}}));
   EXPECT_EQ(
       ask(declare("mdns", "Ethernet1", R"("ff02::fb", "2001:db8::1")")),
       (Json{{"error",
              R"(/multicast/groups/1: "2001:db8::1" is not an IPv4 or IPv6 multicast address)"}}));
   EXPECT_EQ(ask(declare("veld", "Ethernet1", "")),
             (Json{{"error", R"(/multicast/name: "veld" is the agent's own application)"}}));
   EXPECT_EQ(appsOf(veld.show("multicast"), "Ethernet1", "ff02::fb"), Json{"mdns"});
}

// The device really moves to red's namespace and back; the L3 status's VRF follows once
// both families have moved.
TEST_F(AgentMulticast, TheL3StatusFollowsAnInterfaceToAnotherVrfAndBack) {
   startConverged(config("default"));
   EXPECT_EQ(interfaceShown("Ethernet1").at("l3Vrf"), "default");
   for (char const* vrf : {"red", "default"}) {
      SCOPED_TRACE(vrf);
      veld.writeConfig(config(vrf));
      auto where = std::string(vrf) == "red" ? ns : Konet::NamespaceName();
      ASSERT_TRUE(KonetTest::waitFor(
          [&] {
             auto i = interfaceShown("Ethernet1");
             return i.value("l3Vrf", Json()) == vrf && !i.at("ipv6").is_null() &&
                    i.at("ipv6").at("vrf") == vrf && !i.at("status").is_null() &&
                    i.at("status").at("vrf") == vrf;
          },
          std::chrono::seconds(20)))
          << interfaceShown("Ethernet1").dump();
      EXPECT_TRUE(deviceIn(where, et1.name));
      ASSERT_TRUE(veld.waitConverged());
      EXPECT_EQ(interfaceShown("Ethernet1").at("l3Vrf"), vrf);
      EXPECT_EQ(interfaceShown("Ethernet2").at("l3Vrf"), "default");
   }
   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "interfaces", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("L3 VRF"), std::string::npos) << table;
}
