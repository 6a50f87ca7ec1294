// The routing daemons' launch handshake through the run directory's files, with the real
// veld and a stand-in daemon (a shell script) in the test's private namespaces: each state
// on the way, restarts of the agent in each state, and daemons told to leave when their VRF
// or their configuration goes.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "linux/NetNs.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"

namespace {

using VeldTest::VeldProcess;

// A routing daemon as the handshake sees it: once started it reports that it runs in the
// VRF; it leaves when its qualification file goes, or when stopped (SIGTERM), removing its
// report either way.
constexpr char kStandIn[] = R"(#!/bin/sh
run=$1 daemon=$2 vrf=$3
status=$run/status/$daemon/$vrf
trap 'rm -f "$status"; exit 0' TERM
echo $$ > "$run/status/$daemon/.$vrf.new" && mv "$run/status/$daemon/.$vrf.new" "$status"
while [ -e "$run/qual/$daemon/$vrf" ]; do sleep 0.05; done
rm -f "$status"
)";

class RoutingAgentsEndToEnd : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      std::ofstream(veld.dir() + "/standin.sh") << kStandIn;
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      for (auto& [key, pid] : standIns_) {
         ::kill(pid, SIGKILL);
         ::waitpid(pid, nullptr, 0);
      }
      ::unlink(nsPath().c_str());  // a blocker left by the test
      Konet::deleteNamedNamespace(ns);
      if (HasFailure()) std::printf("veld's log:\n%s\n", veld.log().c_str());
      KernelFixture::TearDown();
   }

   std::string config(std::string const& redAgents = R"("Bgp", "Ospf")",
                      bool withRed = true) const {
      std::string red =
          R"(, "red": {"namespace": ")" + ns.name() + R"(", "routingAgents": [)" + redAgents + "]}";
      return R"({"vrfs": {"default": {"routingAgents": ["StaticRoute"]})" +
             (withRed ? red : std::string()) + "}}";
   }
   std::string nsPath() const { return "/run/netns/" + ns.name(); }
   // A plain file where the VRF's namespace goes: the agent cannot make the VRF ready.
   void blockVrf() const {
      ::mkdir("/run/netns", 0755);
      std::ofstream(nsPath()) << "";
   }

   // The state `veld show routing-agents` gives the pair, "" when it lists none.
   std::string state(std::string const& vrf, std::string const& agent) const {
      auto shown = veld.show("routing-agents");
      if (!shown.is_object()) return "";
      for (auto const& a : shown.at("routingAgents")) {
         if (a.at("vrf") == vrf && a.at("agent") == agent) return a.at("state");
      }
      return "";
   }
   bool reaches(std::string const& vrf, std::string const& agent, std::string const& s) const {
      return KonetTest::waitFor([&] { return state(vrf, agent) == s; });
   }
   std::string qualPath(std::string const& agent, std::string const& vrf) const {
      return veld.runDir() + "/qual/" + agent + "/" + vrf;
   }
   bool qualified(std::string const& agent, std::string const& vrf) const {
      return ::access(qualPath(agent, vrf).c_str(), F_OK) == 0;
   }
   ino_t qualInode(std::string const& agent, std::string const& vrf) const {
      struct stat st;
      return ::stat(qualPath(agent, vrf).c_str(), &st) == 0 ? st.st_ino : 0;
   }
   std::string qualText(std::string const& agent, std::string const& vrf) const {
      std::stringstream s;
      s << std::ifstream(qualPath(agent, vrf)).rdbuf();
      return s.str();
   }

   void startDaemon(std::string const& agent, std::string const& vrf) {
      pid_t pid = ::fork();
      if (pid == 0) {
         ::execl("/bin/sh", "sh", (veld.dir() + "/standin.sh").c_str(), veld.runDir().c_str(),
                 agent.c_str(), vrf.c_str(), nullptr);
         ::_exit(127);
      }
      standIns_[agent + "/" + vrf] = pid;
   }
   void stopDaemon(std::string const& agent, std::string const& vrf) {
      ::kill(standIns_.at(agent + "/" + vrf), SIGTERM);
      EXPECT_TRUE(daemonLeft(agent, vrf));
   }
   // The stand-in has ended (reaped), within the usual deadline.
   bool daemonLeft(std::string const& agent, std::string const& vrf) {
      auto it = standIns_.find(agent + "/" + vrf);
      if (it == standIns_.end()) return true;
      pid_t pid = it->second;
      bool gone = KonetTest::waitFor([&] { return ::waitpid(pid, nullptr, WNOHANG) == pid; });
      if (gone) standIns_.erase(it);
      return gone;
   }
   bool daemonAlive(std::string const& agent, std::string const& vrf) const {
      auto it = standIns_.find(agent + "/" + vrf);
      return it != standIns_.end() && ::waitpid(it->second, nullptr, WNOHANG) == 0;
   }
   void restart() {
      veld.kill9();
      veld.start();
   }

   VeldProcess veld;
   Konet::NamespaceName ns{"veldtest-" + uniqueName("rib")};

private:
   std::map<std::string, pid_t> standIns_;
};

TEST_F(RoutingAgentsEndToEnd, HandshakeRunsThroughTheFiles) {
   blockVrf();
   veld.writeConfig(config());
   veld.start();
   ASSERT_TRUE(reaches("default", "StaticRoute", "initiated"));
   EXPECT_EQ(qualText("StaticRoute", "default"), "NETNS=\n");
   EXPECT_EQ(state("red", "Bgp"), "invalid");
   EXPECT_FALSE(qualified("Bgp", "red"));
   // A restart while the VRF cannot be made changes nothing.
   restart();
   ASSERT_TRUE(reaches("red", "Bgp", "invalid"));
   EXPECT_FALSE(qualified("Bgp", "red"));

   ASSERT_EQ(::unlink(nsPath().c_str()), 0);  // the VRF can be made now
   ASSERT_TRUE(reaches("red", "Bgp", "initiated"));
   EXPECT_EQ(qualText("Bgp", "red"), "NETNS=" + ns.name() + "\n");
   // A qualification file deleted behind the agent's back is put back.
   ASSERT_EQ(::unlink(qualPath("Bgp", "red").c_str()), 0);
   EXPECT_TRUE(KonetTest::waitFor([&] { return qualified("Bgp", "red"); }));

   startDaemon("Bgp", "red");
   ASSERT_TRUE(reaches("red", "Bgp", "started"));
   auto shown = veld.show("routing-agents").at("routingAgents");
   EXPECT_EQ(shown.at(0).at("vrf"), "default");  // the default VRF first
   for (auto const& a : shown) {
      if (a.at("vrf") != "red" || a.at("agent") != "Bgp") continue;
      EXPECT_EQ(a.at("qualified"), true);
      EXPECT_EQ(a.at("running"), true);
      EXPECT_GT(a.at("loadPluginsTime").get<double>(), 0.0);
   }
   std::string table;
   ASSERT_EQ(VeldProcess::command({"show", "routing-agents", "--run-dir", veld.runDir()}, &table),
             0);
   EXPECT_NE(table.find("red"), std::string::npos) << table;
   EXPECT_NE(table.find("started"), std::string::npos) << table;
   EXPECT_NE(table.find("Switchover: none"), std::string::npos) << table;

   stopDaemon("Bgp", "red");  // its status file goes
   ASSERT_TRUE(reaches("red", "Bgp", "stopped"));
   EXPECT_FALSE(qualified("Bgp", "red"));
   EXPECT_EQ(state("red", "Ospf"), "initiated");

   std::string out;
   ASSERT_EQ(VeldProcess::command({"switchover", "--run-dir", veld.runDir()}, &out), 0) << out;
   EXPECT_EQ(veld.show("routing-agents").at("switchover"), true);
   EXPECT_EQ(nlohmann::json::parse(veld.request(R"({"switchover": false})")).at("switchover"),
             false);
   EXPECT_EQ(veld.show("routing-agents").at("switchover"), false);
}

TEST_F(RoutingAgentsEndToEnd, DaemonsLeaveWithTheirConfigurationAndTheirVrf) {
   veld.writeConfig(config());
   veld.start();
   ASSERT_TRUE(reaches("red", "Bgp", "initiated"));
   ASSERT_TRUE(reaches("red", "Ospf", "initiated"));
   startDaemon("Bgp", "red");
   startDaemon("Ospf", "red");
   ASSERT_TRUE(reaches("red", "Bgp", "started"));
   ASSERT_TRUE(reaches("red", "Ospf", "started"));

   veld.writeConfig(config(R"("Bgp")"));
   EXPECT_TRUE(daemonLeft("Ospf", "red"));
   EXPECT_FALSE(qualified("Ospf", "red"));
   EXPECT_TRUE(KonetTest::waitFor([&] { return state("red", "Ospf").empty(); }));
   EXPECT_EQ(state("red", "Bgp"), "started");
   EXPECT_TRUE(daemonAlive("Bgp", "red"));

   veld.writeConfig(config("", false));
   EXPECT_TRUE(daemonLeft("Bgp", "red"));
   EXPECT_FALSE(qualified("Bgp", "red"));
   EXPECT_TRUE(KonetTest::waitFor([&] { return state("red", "Bgp").empty(); }));
   EXPECT_EQ(state("default", "StaticRoute"), "initiated");
}

TEST_F(RoutingAgentsEndToEnd, RestartTakesUpEachStateFromTheFiles) {
   veld.writeConfig(config(R"("Bgp", "Ospf", "Isis")"));
   veld.start();
   ASSERT_TRUE(reaches("red", "Isis", "initiated"));
   startDaemon("Bgp", "red");
   startDaemon("Isis", "red");
   ASSERT_TRUE(reaches("red", "Bgp", "started"));
   ASSERT_TRUE(reaches("red", "Isis", "started"));
   stopDaemon("Isis", "red");
   ASSERT_TRUE(reaches("red", "Isis", "stopped"));
   ASSERT_EQ(state("red", "Ospf"), "initiated");
   ino_t bgp = qualInode("Bgp", "red"), ospf = qualInode("Ospf", "red");

   veld.kill9();
   startDaemon("Ospf", "red");  // comes up while no agent runs
   veld.start();
   ASSERT_TRUE(reaches("red", "Ospf", "started"));
   EXPECT_EQ(state("red", "Bgp"), "started");
   // A stopped daemon is asked again by the new agent, in its ready VRF.
   EXPECT_TRUE(reaches("red", "Isis", "initiated"));
   // The running daemons' files were never replaced, and they run on.
   EXPECT_EQ(qualInode("Bgp", "red"), bgp);
   EXPECT_EQ(qualInode("Ospf", "red"), ospf);
   EXPECT_TRUE(daemonAlive("Bgp", "red"));
   EXPECT_TRUE(daemonAlive("Ospf", "red"));

   // A configuration changed while the agent was down: the daemon it drops is told to leave.
   veld.kill9();
   veld.writeConfig(config(R"("Ospf", "Isis")"));
   veld.start();
   EXPECT_TRUE(daemonLeft("Bgp", "red"));
   EXPECT_FALSE(qualified("Bgp", "red"));
   EXPECT_EQ(state("red", "Ospf"), "started");
   EXPECT_EQ(qualInode("Ospf", "red"), ospf);
}

}  // namespace
