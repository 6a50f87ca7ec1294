// The cabinet: machines made and removed with the configuration, daemons told to leave when
// their VRF stops being ready, a restart taking up what the directories hold.
#include "veld/vrf/RibVrfCabinet.h"

#include <gtest/gtest.h>

#include "tests/veld/vrf/RibVrfFixture.h"

namespace VeldTest {
namespace {

using RibVrfCabinetTest = RibVrfFixture;

TEST_F(RibVrfCabinetTest, HandshakeFollowsTheVrfAndTheDaemon) {
   makeCabinet();
   configure("red", {"Bgp", "Ospf"});
   EXPECT_EQ(stateOf("red", "Bgp"), State::invalid);  // no local status yet
   vrfStateIs("red", Ip::VrfState::initializing);
   EXPECT_EQ(stateOf("red", "Bgp"), State::invalid);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_EQ(stateOf("red", "Bgp"), State::initiated);
   EXPECT_EQ(stateOf("red", "Ospf"), State::initiated);
   EXPECT_TRUE(hasQual("Bgp", "red"));
   daemonRuns("Bgp", "red");
   EXPECT_EQ(stateOf("red", "Bgp"), State::started);
   EXPECT_EQ(stateOf("red", "Ospf"), State::initiated);
   daemonLeaves("Bgp", "red");
   EXPECT_EQ(stateOf("red", "Bgp"), State::stopped);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   EXPECT_TRUE(hasQual("Ospf", "red"));
   EXPECT_EQ(cabinet->stateList(L3::VrfName("red"))->state("Bgp")->state(), State::stopped);
}

TEST_F(RibVrfCabinetTest, VrfLeavingReadyStopsItsDaemonsAndComingBackStartsThemAgain) {
   vrfStateIs("red", Ip::VrfState::active);
   makeCabinet();
   configure("red", {"Bgp", "Isis"});
   daemonRuns("Bgp", "red");
   ASSERT_EQ(stateOf("red", "Bgp"), State::started);
   auto first = cabinet->sm(L3::VrfName("red"), "Bgp");
   vrfStateIs("red", Ip::VrfState::deleting);
   EXPECT_EQ(stateOf("red", "Bgp"), State::stopped);
   EXPECT_EQ(stateOf("red", "Isis"), State::stopped);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   EXPECT_FALSE(hasQual("Isis", "red"));
   // Ready again: new machines under the same keys, from the directories as they stand.
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_NE(cabinet->sm(L3::VrfName("red"), "Bgp"), first);
   EXPECT_EQ(stateOf("red", "Bgp"), State::started);  // its status entry is still there
   EXPECT_EQ(stateOf("red", "Isis"), State::initiated);
   EXPECT_TRUE(hasQual("Bgp", "red"));
   // The local status entry going is the same as leaving ready.
   vsls->vrfDel(L3::VrfName("red"));
   EXPECT_EQ(stateOf("red", "Isis"), State::stopped);
   EXPECT_FALSE(hasQual("Isis", "red"));
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_EQ(stateOf("red", "Isis"), State::initiated);
}

TEST_F(RibVrfCabinetTest, DaemonLeavingTheConfigurationIsStoppedAndForgotten) {
   vrfStateIs("red", Ip::VrfState::active);
   vrfStateIs("default", Ip::VrfState::active);
   makeCabinet();
   configure("red", {"Bgp", "StaticRoute"});
   configure("default", {"Bgp"});
   daemonRuns("Bgp", "red");
   configure("red", {"StaticRoute"});
   EXPECT_EQ(cabinet->sm(L3::VrfName("red"), "Bgp"), nullptr);
   EXPECT_EQ(cabinet->stateList(L3::VrfName("red"))->state("Bgp"), nullptr);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   EXPECT_TRUE(hasQual("Bgp", "default"));
   EXPECT_TRUE(hasQual("StaticRoute", "red"));
   // Configured again (its old status entry still there): a new machine takes it up.
   configure("red", {"StaticRoute", "Bgp"});
   EXPECT_EQ(stateOf("red", "Bgp"), State::started);
   // The VRF leaving the configuration takes all of its daemons.
   config->agentsDel(L3::VrfName("red"));
   EXPECT_EQ(cabinet->smList(L3::VrfName("red")), nullptr);
   EXPECT_EQ(qual("Bgp")->entries() + qual("StaticRoute")->entries(), 1u);  // default's
}

TEST_F(RibVrfCabinetTest, RestartTakesUpTheDirectoriesWithoutDisturbingRunningDaemons) {
   vrfStateIs("red", Ip::VrfState::active);
   vrfStateIs("blue", Ip::VrfState::active);
   configure("red", {"Bgp", "Ospf", "IpRib"});
   qualIs("Bgp", "red");  // running
   daemonRuns("Bgp", "red");
   qualIs("Ospf", "red");  // asked, not reported yet
   qualIs("Isis", "red");  // no longer configured
   qualIs("Bgp", "blue");  // VRF no longer configured for it
   daemonRuns("Bgp", "blue");
   auto deletions = Mox::make<DeletionRecorder>();
   deletions->notifierIs(qual("Bgp"));
   makeCabinet();
   EXPECT_EQ(stateOf("red", "Bgp"), State::started);
   EXPECT_EQ(stateOf("red", "Ospf"), State::initiated);
   EXPECT_EQ(stateOf("red", "IpRib"), State::initiated);
   EXPECT_TRUE(hasQual("IpRib", "red"));
   EXPECT_FALSE(hasQual("Isis", "red"));
   EXPECT_EQ(deletions->deleted, std::vector<std::string>{"blue"});
   // An agent stopping leaves the daemons as they are; the next one takes them up again.
   cabinet = nullptr;
   EXPECT_TRUE(hasQual("Bgp", "red"));
   EXPECT_TRUE(hasQual("Ospf", "red"));
   daemonRuns("Ospf", "red");  // came up while no agent ran
   makeCabinet();
   EXPECT_EQ(stateOf("red", "Ospf"), State::started);
   EXPECT_EQ(deletions->deleted, std::vector<std::string>{"blue"});
}

TEST_F(RibVrfCabinetTest, RestartIntoAnUnreadyVrfStopsItsDaemons) {
   vrfStateIs("red", Ip::VrfState::initializing);
   configure("red", {"Bgp", "Ospf"});
   qualIs("Bgp", "red");
   daemonRuns("Bgp", "red");
   qualIs("Ospf", "red");
   makeCabinet();
   EXPECT_EQ(stateOf("red", "Bgp"), State::stopped);
   EXPECT_EQ(stateOf("red", "Ospf"), State::stopped);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   EXPECT_FALSE(hasQual("Ospf", "red"));
}

TEST_F(RibVrfCabinetTest, StopAllTellsEveryDaemonToLeaveUntilItsVrfIsReadyAgain) {
   vrfStateIs("red", Ip::VrfState::active);
   vrfStateIs("blue", Ip::VrfState::active);
   makeCabinet();
   configure("red", {"Bgp", "ConnectedRoute"});
   configure("blue", {"RouteInput", "Ospf3"});
   daemonRuns("Bgp", "red");
   cabinet->stopAllAgentsForAllVrfs();
   for (auto agent : Veld::RibVrfCabinet::kAgentNames)
      EXPECT_EQ(qual(std::string(agent).c_str())->entries(), 0u) << agent;
   EXPECT_EQ(stateOf("red", "Bgp"), State::stopped);
   EXPECT_EQ(stateOf("blue", "Ospf3"), State::stopped);
   configure("blue", {"RouteInput", "Ospf3", "Isis"});  // a change elsewhere restarts nothing
   EXPECT_EQ(stateOf("blue", "Ospf3"), State::stopped);
   EXPECT_EQ(stateOf("blue", "Isis"), State::initiated);
   vrfStateIs("red", Ip::VrfState::initializing);
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_EQ(stateOf("red", "ConnectedRoute"), State::initiated);
   EXPECT_EQ(stateOf("blue", "Ospf3"), State::stopped);
}

}  // namespace
}  // namespace VeldTest
