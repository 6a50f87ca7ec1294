// The show tables: what an operator reads in each column.
#include <gtest/gtest.h>

#include "agent/ShowTables.h"

namespace {

using namespace VeldAgent;
using Json = nlohmann::json;

Json intf(char const* name, bool routed, Json status, Json kernel, bool found = true) {
   return Json{{"interface", name},      {"vrf", "default"},     {"device", "et1"},
               {"namespace", "default"}, {"operUp", true},       {"mtu", 1500},
               {"routed", routed},       {"deviceFound", found}, {"status", status},
               {"kernel", kernel}};
}

Json status(char const* primary, std::vector<std::string> secondaries) {
   return Json{{"address", primary},
               {"secondaries", secondaries},
               {"virtualAddress", ""},
               {"virtualSecondaries", Json::array()}};
}

TEST(ShowTables, TheKernelColumnComparesTheKernelWithThePublishedStatus) {
   auto text = renderInterfaces(
       Json{{"interfaces",
             {intf("Ethernet1", true, status("10.0.0.1/24", {"10.0.1.1/24"}),
                   {"10.0.1.1/24", "10.0.0.1/24"}),
              intf("Ethernet2", true, status("10.0.2.1/24", {}), {"10.0.2.1/24", "10.9.9.9/24"}),
              intf("Ethernet3", false, nullptr, Json::array()),
              intf("Ethernet4", true, nullptr, Json::array(), false)}}});
   auto line = [&](char const* name) {
      auto at = text.find(name);
      return text.substr(at, text.find('\n', at) - at);
   };
   EXPECT_NE(line("Ethernet1").find("in sync"), std::string::npos) << text;
   EXPECT_NE(line("Ethernet1").find("10.0.1.1/24"), std::string::npos);
   EXPECT_NE(line("Ethernet2").find("holds 10.0.2.1/24,10.9.9.9/24"), std::string::npos) << text;
   EXPECT_NE(line("Ethernet3").find("(unrouted)"), std::string::npos);
   EXPECT_NE(line("Ethernet4").find("no device"), std::string::npos);
   // Columns line up under their headers.
   EXPECT_EQ(text.find("Kernel") - text.find("Interface"),
             line("Ethernet1").find("in sync") - line("Ethernet1").find("Ethernet1"));
}

TEST(ShowTables, TheSettingsColumnNamesWhatDiffersFromTheDefaults) {
   auto e1 = intf("Ethernet1", true, status("10.0.0.1/24", {}), {"10.0.0.1/24"});
   e1["configured"] = Json{{"mssIngress", 1400},
                           {"mssEgress", 0},
                           {"directedBroadcast", true},
                           {"attachedRoutes", false}};
   auto e2 = intf("Ethernet2", true, status("10.0.2.1/24", {}), {"10.0.2.1/24"});
   e2["configured"] = Json{{"mssIngress", 0},
                           {"mssEgress", 1300},
                           {"directedBroadcast", false},
                           {"attachedRoutes", true}};
   auto e3 = intf("Ethernet3", true, status("10.0.3.1/24", {}), {"10.0.3.1/24"});
   e3["configured"] = Json{
       {"mssIngress", 0}, {"mssEgress", 0}, {"directedBroadcast", false}, {"attachedRoutes", true}};
   auto text = renderInterfaces(Json{{"interfaces", {e1, e2, e3}}});
   auto line = [&](char const* name) {
      auto at = text.find(name);
      return text.substr(at, text.find('\n', at) - at);
   };
   EXPECT_TRUE(line("Ethernet1").ends_with("mss in 1400, directed broadcast, no attached routes"))
       << text;
   EXPECT_TRUE(line("Ethernet2").ends_with("in sync  mss out 1300")) << text;
   EXPECT_TRUE(line("Ethernet3").ends_with("in sync  -")) << text;
}

TEST(ShowTables, BacklogSaysWhatTheAgentWaitsFor) {
   auto text = renderBacklog(Json{{"backlog",
                                   {{{"vrf", "red"},
                                     {"machine", "ipIntfSm"},
                                     {"pending", 3},
                                     {"runs", 7},
                                     {"itemsProcessed", 12},
                                     {"errors", 1},
                                     {"empty", false}}}},
                                  {"converged", false},
                                  {"deviceMoves", 2},
                                  {"missingDevices", {"et9", "et10"}}});
   EXPECT_NE(text.find("red"), std::string::npos);
   EXPECT_NE(text.find("Converged: no"), std::string::npos);
   // The kernel's names of what is missing, as the operator looks for them.
   EXPECT_NE(text.find("Missing devices: et9, et10"), std::string::npos) << text;
}

}  // namespace

// The IPv6 column, from the published status as the agent answers it: global addresses,
// link-local and DAD-failed ones apart; an interface with a request and no status yet says
// so; the column is left out where no interface has IPv6.
TEST(ShowTables, TheIpv6ColumnShowsThePublishedAddressesLinkLocalAndDadFailed) {
   auto s = Mox::make<Ip6::IntfStatus>(Konet::IntfId("Ethernet1"));
   s->vrfIs("red");
   for (auto const* a : {"2001:db8:1::1/64", "2001:db8::1/64", "fe80::1/64"})
      s->addrIs(*Konet::Ip6AddrWithMask::parse(a));
   s->dadFailedAddrIs(*Konet::Ip6AddrWithMask::parse("2001:db8:2::1/64"));
   auto json = ip6StatusJson(*s);
   EXPECT_EQ(json, (Json{{"vrf", "red"},
                         {"addresses", {"2001:db8:1::1/64", "2001:db8::1/64"}},
                         {"linkLocal", {"fe80::1/64"}},
                         {"dadFailed", {"2001:db8:2::1/64"}}}));

   auto e1 = intf("Ethernet1", true, status("10.0.0.1/24", {}), {"10.0.0.1/24"});
   e1["ipv6"] = json;
   auto e2 = intf("Ethernet2", true, status("10.0.2.1/24", {}), {"10.0.2.1/24"});
   e2["ipv6"] = nullptr;
   e2["ipv6EnableRequested"] = true;
   auto e3 = intf("Ethernet3", true, status("10.0.3.1/24", {}), {"10.0.3.1/24"});
   e3["ipv6"] = nullptr;
   e3["ipv6EnableRequested"] = false;
   auto text = renderInterfaces(Json{{"interfaces", {e1, e2, e3}}});
   auto line = [&](char const* name) {
      auto at = text.find(name);
      return text.substr(at, text.find('\n', at) - at);
   };
   EXPECT_NE(line("Ethernet1")
                 .find("2001:db8:1::1/64 2001:db8::1/64 link-local fe80::1/64 DAD "
                       "failed 2001:db8:2::1/64"),
             std::string::npos)
       << text;
   EXPECT_NE(line("Ethernet2").find("(requested)"), std::string::npos) << text;
   EXPECT_EQ(text.find("IPv6") - text.find("Interface"),
             line("Ethernet2").find("(requested)") - line("Ethernet2").find("Ethernet2"));

   auto without = renderInterfaces(Json{{"interfaces", {e3}}});
   EXPECT_EQ(without.find("IPv6"), std::string::npos) << without;
}

TEST(ShowTables, Ipv6EnableListsEachProgramsRequestAndTheMerge) {
   auto text =
       renderIp6Enable(Json{{"requests",
                             {{{"program", "dhcp6"}, {"interfaces", {"Ethernet1", "Ethernet2"}}},
                              {{"program", "idle"}, {"interfaces", Json::array()}}}},
                            {"enabled", {"Ethernet1", "Ethernet2"}}});
   EXPECT_NE(text.find("dhcp6    Ethernet1 Ethernet2"), std::string::npos) << text;
   EXPECT_NE(text.find("idle     -"), std::string::npos) << text;
   EXPECT_NE(text.find("IPv6 enabled on: Ethernet1 Ethernet2"), std::string::npos) << text;
   EXPECT_EQ(renderAnswer(ShowWhat::ip6Enable, Json{{"requests", 1}}), "");
}

TEST(ShowTables, MulticastListsEachGroupOfEachInterfaceWithItsApplications) {
   auto text = renderMulticast(Json{
       {"groups",
        {{{"interface", "Ethernet1"}, {"group", "ff02::1"}, {"applications", {"mld", "veld"}}},
         {{"interface", "Ethernet10"}, {"group", "224.0.0.251"}, {"applications", {"mdns"}}}}}});
   EXPECT_NE(text.find("Interface   Group        Applications"), std::string::npos) << text;
   EXPECT_NE(text.find("Ethernet1   ff02::1      mld, veld"), std::string::npos) << text;
   EXPECT_NE(text.find("Ethernet10  224.0.0.251  mdns"), std::string::npos) << text;
   EXPECT_EQ(renderAnswer(ShowWhat::multicast, Json{{"groups", 1}}), "");
}
