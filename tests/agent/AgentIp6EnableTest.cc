// Programs asking a running veld for IPv6 on interfaces through its control socket: the
// merge of their requests, withdrawals, bad requests, and a restart.
#include <fstream>

#include "agent/Agent.h"
#include "linux/NetlinkLink.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"

namespace {

using Json = nlohmann::json;
using VeldTest::VeldProcess;

class AgentIp6Enable : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      et1 = createVeth();
      ASSERT_EQ(Konet::setLinkUp(sock(), et1.peerIfindex, true), 0);
      veld.writeConfig(R"({"interfaces": {"Ethernet1": {"device": ")" + et1.name +
                       R"(", "ipv4": {"address": "10.1.0.1/24"}}}})");
      veld.start();
      ASSERT_TRUE(veld.waitConverged()) << veld.show("backlog").dump();
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      if (HasFailure()) std::printf("veld's log:\n%s\n", veld.log().c_str());
      KernelFixture::TearDown();
   }
   Json ask(std::string const& line) const {
      return Json::parse(veld.request(line), nullptr, false);
   }
   static std::string enable(std::string const& program, std::string const& intfs) {
      return R"({"ip6-enable": {"name": ")" + program + R"(", "interfaces": [)" + intfs + "]}}";
   }
   Json enabled() const { return veld.show("ip6-enable").at("enabled"); }
   bool requested(char const* intf) const {
      auto const shown = veld.show("interfaces");
      for (auto const& i : shown.at("interfaces")) {
         if (i.at("interface") == intf) return i.at("ipv6EnableRequested").get<bool>();
      }
      return false;
   }

   Veth et1;
   VeldProcess veld;
};

}  // namespace

TEST_F(AgentIp6Enable, TwoProgramsOneWithdrawsTheInterfaceStaysEnabled) {
   auto answer = ask(enable("dhcp6", R"("Ethernet1", "Ethernet2")"));
   EXPECT_EQ(answer.at("enabled"), (Json{"Ethernet1", "Ethernet2"})) << answer.dump();
   ask(enable("relay", R"("Ethernet1")"));
   EXPECT_TRUE(requested("Ethernet1"));

   answer = ask(R"({"ip6-enable-withdraw": "dhcp6"})");
   EXPECT_EQ(answer.at("enabled"), Json{"Ethernet1"}) << answer.dump();
   EXPECT_EQ(answer.at("requests"),
             (Json{{{"program", "relay"}, {"interfaces", Json{"Ethernet1"}}}}));

   // A program's new request replaces its earlier one.
   ask(enable("relay", R"("Ethernet3")"));
   EXPECT_EQ(enabled(), Json{"Ethernet3"});
   EXPECT_FALSE(requested("Ethernet1"));

   // Withdrawn and asked again under the same name.
   ask(R"({"ip6-enable-withdraw": "relay"})");
   EXPECT_EQ(enabled(), Json::array());
   ask(enable("relay", R"("Ethernet1")"));
   EXPECT_EQ(enabled(), Json{"Ethernet1"});

   std::string table;
   EXPECT_EQ(VeldProcess::command({"show", "ip6-enable", "--run-dir", veld.runDir()}, &table), 0);
   EXPECT_NE(table.find("relay    Ethernet1"), std::string::npos) << table;
}

TEST_F(AgentIp6Enable, BadRequestsAreAnsweredWithTheirPlaceAndChangeNothing) {
   ask(enable("dhcp6", R"("Ethernet1")"));
   EXPECT_EQ(ask(enable("dhcp6", R"("Ethernet1", "Ethernet1")")),
             (Json{{"error", R"(/ip6-enable/interfaces/1: "Ethernet1" is given twice)"}}));
   EXPECT_EQ(ask(R"({"ip6-enable-withdraw": "nobody"})"),
             (Json{{"error", R"(/ip6-enable-withdraw: no request of "nobody" to withdraw)"}}));
   EXPECT_EQ(
       ask(R"({"ip6-enable": {"name": "x y", "interfaces": []}})").at("error"),
       R"(/ip6-enable/name: "x y" is not a program's name (1 to 64 letters, digits and "_-."))");
   EXPECT_EQ(enabled(), Json{"Ethernet1"});
   EXPECT_TRUE(veld.alive());
}

// The requests outlive the agent: a restart takes them up from the run directory, and a
// damaged record is reported and the agent starts without it.
TEST_F(AgentIp6Enable, RequestsOutliveARestartAndADamagedRecordIsReported) {
   ask(enable("dhcp6", R"("Ethernet1")"));
   ask(enable("relay", R"("Ethernet2")"));
   ask(R"({"ip6-enable-withdraw": "relay"})");
   veld.signal(SIGTERM);
   EXPECT_EQ(veld.wait(), 0);

   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   auto shown = veld.show("ip6-enable");
   EXPECT_EQ(shown.at("requests"), (Json{{{"program", "dhcp6"}, {"interfaces", {"Ethernet1"}}}}));
   EXPECT_EQ(shown.at("enabled"), Json{"Ethernet1"});
   veld.signal(SIGTERM);
   EXPECT_EQ(veld.wait(), 0);

   std::ofstream(VeldAgent::Agent::ip6EnableRequestsPath(veld.runDir()), std::ios::trunc)
       << R"([{"ip6-enable": {"name": "dhcp6", "interfaces": ["Ethernet1"]}}, {"show": "vrfs"}, )";
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   EXPECT_EQ(veld.show("ip6-enable").at("requests"), Json::array());
   EXPECT_NE(veld.log().find("ip6-enable.json is unusable"), std::string::npos) << veld.log();
}
