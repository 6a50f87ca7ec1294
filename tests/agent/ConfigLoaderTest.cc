// The configuration loader: what it accepts, and each class of refusal with its place.
#include <gtest/gtest.h>

#include "agent/Config.h"
#include "agent/ConfigDiff.h"

namespace {

using namespace VeldAgent;

// The errors of a document, as "pointer: message" lines.
std::vector<DocError> errorsOf(std::string const& text) {
   auto r = parseConfiguration(text);
   EXPECT_EQ(r.config.has_value(), r.errors.empty());
   return r.errors;
}

// True when one error sits at `pointer` and its message contains `text`.
::testing::AssertionResult refusedAt(std::string const& doc, std::string const& pointer,
                                     std::string const& text) {
   auto errors = errorsOf(doc);
   std::string all;
   for (auto const& e : errors) {
      if (e.pointer == pointer && e.message.find(text) != std::string::npos) {
         return ::testing::AssertionSuccess();
      }
      all += "\n  " + e.toString();
   }
   return ::testing::AssertionFailure() << "no error at " << pointer << " containing \"" << text
                                        << "\"; got:" << (all.empty() ? " none" : all);
}

std::string intf(std::string const& ipv4, std::string const& extra = "") {
   return R"({"interfaces": {"Ethernet1": {"device": "et1")" + extra + R"(, "ipv4": )" + ipv4 +
          "}}}";
}

TEST(ConfigLoader, ReadsAFullConfiguration) {
   auto r = parseConfiguration(R"({
      "routing": {"tcpReset": false, "udpUnreachable": true, "sendRedirects": true},
      "vrfs": {"red": {"ipv4Routing": true, "ipv6Routing": true, "namespace": "ns-red",
                       "routingAgents": ["Bgp", "Ospf3"]}},
      "interfaces": {
         "Ethernet3/1": {"device": "et31", "vrf": "red", "routed": true,
            "ipv4": {"address": "10.0.0.1/24", "secondaries": ["10.0.1.1/24"],
                     "virtualAddress": "10.0.2.1/24", "virtualSecondaries": ["10.0.3.1/24"],
                     "proxyArp": true, "localProxyArp": true, "gratuitousArpAccept": true,
                     "forwarding": false, "urpf": {"mode": "strict", "allowDefaultRoute": true},
                     "noArp": true, "mss": {"ingress": 1400, "egress": 1300},
                     "directedBroadcast": true, "attachedRoutes": false},
            "ipv6": {"enable": true, "addresses": ["2001:db8::1/64"]}},
         "Ethernet2": {"device": "et2", "routed": false, "ipv4": {"dhcp": true}}}})");
   ASSERT_TRUE(r.config) << r.errors.front().toString();
   auto const& c = *r.config;
   EXPECT_FALSE(c.routing.tcpReset);
   EXPECT_TRUE(c.routing.sendRedirects);
   ASSERT_EQ(c.vrfs.size(), 2u);  // the default VRF is always there
   EXPECT_EQ(c.vrfs.at(L3::VrfName("red")).netNs, "ns-red");
   EXPECT_EQ(c.vrfs.at(L3::VrfName("red")).routingAgents, (std::set<std::string>{"Bgp", "Ospf3"}));
   auto const& e = c.interfaces.at(Konet::IntfId("Ethernet3/1"));
   EXPECT_EQ(e.vrf, L3::VrfName("red"));
   EXPECT_EQ(e.ipv4.address->toString(), "10.0.0.1/24");
   EXPECT_EQ(e.ipv4.secondaries.size(), 1u);
   EXPECT_EQ(e.ipv4.urpf.mode, Urpf::UrpfMode::strict);
   EXPECT_TRUE(e.ipv4.urpf.allowDefaultRoute);
   EXPECT_EQ(e.ipv4.noArp, Ip::TristateBool::isTrue);
   EXPECT_EQ(e.ipv4.mssEgress, 1300);
   EXPECT_FALSE(e.ipv4.attachedRoutes);
   EXPECT_EQ(e.ipv6.addresses.size(), 1u);
   EXPECT_TRUE(c.interfaces.at(Konet::IntfId("Ethernet2")).ipv4.dhcp);
   // What the loader writes back reads the same.
   auto again = parseConfiguration(configurationToJson(c));
   ASSERT_TRUE(again.config);
   EXPECT_EQ(*again.config, c);
}

TEST(ConfigLoader, RefusesBrokenDocuments) {
   EXPECT_TRUE(refusedAt("{\"interfaces\": {", "", "not valid JSON at line 1"));
   EXPECT_TRUE(refusedAt("[]", "", "must be an object"));
   EXPECT_TRUE(refusedAt(std::string(100, '[') + std::string(100, ']'), "", "nests deeper"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {}, "vrfs": {}})", "/vrfs", "given twice"));
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"Ethernet3/1": {"device": "a", "device": "b"}}})",
                         "/interfaces/Ethernet3~11/device", "given twice"));
   // Numbers beyond a double and bytes that are not UTF-8: refused, not thrown.
   EXPECT_TRUE(refusedAt(R"({"interfaces": 1e999})", "/interfaces", "is too large"));
   EXPECT_TRUE(refusedAt(intf(R"({"mss": {"ingress": 1e400}})"),
                         "/interfaces/Ethernet1/ipv4/mss/ingress", "is too large"));
   EXPECT_TRUE(refusedAt(intf("{}", ", \"vrf\": \"r\xc3\""), "", "ill-formed UTF-8"));
   EXPECT_TRUE(refusedAt("", "", "the document is empty"));
}

TEST(ConfigLoader, RefusesUnknownKeysAndWrongTypes) {
   EXPECT_TRUE(refusedAt(R"({"interface": {}})", "/interface", "unknown setting"));
   EXPECT_TRUE(refusedAt(intf(R"({"adress": "10.0.0.1/24"})"), "/interfaces/Ethernet1/ipv4/adress",
                         "unknown setting \"adress\""));
   EXPECT_TRUE(refusedAt(intf(R"({"proxyArp": "yes"})"), "/interfaces/Ethernet1/ipv4/proxyArp",
                         "must be true or false"));
   EXPECT_TRUE(refusedAt(intf(R"({"secondaries": "10.0.0.2/24"})"),
                         "/interfaces/Ethernet1/ipv4/secondaries", "must be an array"));
   EXPECT_TRUE(refusedAt(intf(R"({"mss": {"ingress": 10}})"),
                         "/interfaces/Ethernet1/ipv4/mss/ingress", "from 64 to 65495"));
   EXPECT_TRUE(refusedAt(intf(R"({"urpf": "sometimes"})"), "/interfaces/Ethernet1/ipv4/urpf",
                         "not a uRPF mode"));
}

TEST(ConfigLoader, RefusesBadAddresses) {
   auto at = "/interfaces/Ethernet1/ipv4/address";
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.1/33"})"), at, "prefix length"));
   EXPECT_TRUE(refusedAt(intf(R"({"address": "1.2.3"})"), at, "not an IPv4 address"));
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.1"})"), at, "no prefix length"));
   EXPECT_TRUE(refusedAt(intf(R"({"address": "224.0.0.1/24"})"), at, "not a unicast"));
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.0/24"})"), at, "network or broadcast"));
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.1/24", "secondaries": ["x"]})"),
                         "/interfaces/Ethernet1/ipv4/secondaries/0", "not an IPv4 address"));
   EXPECT_TRUE(parseConfiguration(intf(R"({"address": "10.0.0.0/31"})")).config);
}

TEST(ConfigLoader, RefusesUnsafeNames) {
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"Ethernet1": {"device": "../../etc"}}})",
                         "/interfaces/Ethernet1/device", "not a usable device name"));
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"Ethernet1": {"device": "averyveryverylongname"}}})",
                         "/interfaces/Ethernet1/device", "not a usable device name"));
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"Ethernet1": {}}})", "/interfaces/Ethernet1/device",
                         "missing"));
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"1bad": {"device": "x"}}})", "/interfaces/1bad",
                         "not an interface name"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"namespace": "a/b"}}})", "/vrfs/red/namespace",
                         "not a usable namespace name"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"re d": {}}})", "/vrfs/re d", "only letters"));
}

TEST(ConfigLoader, RefusesUnknownAndRepeatedRoutingAgents) {
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"routingAgents": ["Bgp", "Rip"]}}})",
                         "/vrfs/red/routingAgents/1",
                         "unknown routing agent \"Rip\" (known: Ospf, Ospf3, Isis, IpRib, Bgp, "
                         "ConnectedRoute, StaticRoute, RouteInput)"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"default": {"routingAgents": ["Bgp", "Isis", "Bgp"]}}})",
                         "/vrfs/default/routingAgents/2", "routing agent \"Bgp\" is named twice"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"routingAgents": "Bgp"}}})",
                         "/vrfs/red/routingAgents", "must be an array, not a string"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"routingAgents": [1]}}})",
                         "/vrfs/red/routingAgents/0", "must be a string, not a number"));
}

TEST(ConfigLoader, ReadsNexthopsAndRefusesBadOnesAtTheirPlace) {
   auto r = parseConfiguration(R"({"vrfs": {"red": {"nexthops": ["10.0.0.1", "2001:db8::1"]}}})");
   ASSERT_TRUE(r.config) << r.errors.front().toString();
   EXPECT_EQ(r.config->vrfs.at(L3::VrfName("red")).nexthops.size(), 2u);
   auto again = parseConfiguration(configurationToJson(*r.config));
   ASSERT_TRUE(again.config);
   EXPECT_EQ(*again.config, *r.config);
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"nexthops": ["10.0.0.1", "10.0.0.1"]}}})",
                         "/vrfs/red/nexthops/1", "listed twice"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"nexthops": ["10.0.0.0/8"]}}})",
                         "/vrfs/red/nexthops/0", "not an IPv4 or IPv6 address"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"red": {"nexthops": "10.0.0.1"}}})", "/vrfs/red/nexthops",
                         "must be an array"));
}

TEST(ConfigLoader, RefusesConflictsBetweenPlaces) {
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.1/24"})", R"(, "vrf": "red")"),
                         "/interfaces/Ethernet1/vrf", "not configured under /vrfs"));
   EXPECT_TRUE(refusedAt(R"({"interfaces": {"Ethernet1": {"device": "et1"},
                                            "Ethernet2": {"device": "et1"}}})",
                         "/interfaces/Ethernet2/device", "already carries interface Ethernet1"));
   EXPECT_TRUE(refusedAt(R"({"vrfs": {"a": {"namespace": "n"}, "b": {"namespace": "n"}}})",
                         "/vrfs/b/namespace", "already the namespace of VRF a"));
   auto twoIntfs = [](char const* a, char const* b, char const* vrfB = "default") {
      return std::string(R"({"vrfs": {"red": {}}, "interfaces": {
         "Ethernet1": {"device": "et1", "ipv4": {"address": ")") +
             a + R"("}}, "Ethernet2": {"device": "et2", "vrf": ")" + vrfB +
             R"(", "ipv4": {"address": ")" + b + R"("}}}})";
   };
   EXPECT_TRUE(refusedAt(twoIntfs("10.0.0.1/24", "10.0.0.1/24"),
                         "/interfaces/Ethernet2/ipv4/address",
                         "already configured at /interfaces/Ethernet1/ipv4/address"));
   EXPECT_TRUE(refusedAt(twoIntfs("10.0.0.1/16", "10.0.5.1/24"),
                         "/interfaces/Ethernet2/ipv4/address", "overlaps subnet 10.0.0.0/16"));
   // Another VRF is another address space.
   EXPECT_TRUE(parseConfiguration(twoIntfs("10.0.0.1/24", "10.0.0.1/24", "red")).config);
   EXPECT_TRUE(refusedAt(intf(R"({"address": "10.0.0.1/24", "dhcp": true})"),
                         "/interfaces/Ethernet1/ipv4/dhcp", "exclude each other"));
   EXPECT_TRUE(refusedAt(intf(R"({"secondaries": ["10.0.0.2/24"]})"),
                         "/interfaces/Ethernet1/ipv4/secondaries", "need a primary"));
}

std::string intf6(std::string const& ipv6) {
   return R"({"interfaces": {"Ethernet1": {"device": "et1", "ipv6": )" + ipv6 + "}}}";
}

TEST(ConfigLoader, ReadsAndChecksIpv6) {
   auto r = parseConfiguration(intf6(R"({"enable": true, "addresses": ["2001:db8::1/64"],
      "linkLocal": "fe80::1/64", "acceptDad": "strict", "enhancedDad": false, "nsInterval": 400,
      "nsSource": "2001:db8::1", "acceptRaDefaultRouter": true, "slaac": true})"));
   ASSERT_TRUE(r.config) << r.errors.front().toString();
   auto const& v6 = r.config->interfaces.begin()->second.ipv6;
   EXPECT_EQ(v6.linkLocal->toString(), "fe80::1/64");
   EXPECT_EQ(v6.acceptDad, Ip6::AcceptDadMode::dadStrict);
   EXPECT_EQ(v6.enhancedDad, Ip::TristateBool::isFalse);
   EXPECT_EQ(v6.nsInterval, 400u);
   EXPECT_TRUE(v6.acceptRaDefaultRouter && v6.slaac);
   // What the record of an applied configuration holds reads back the same.
   auto again = parseConfiguration(configurationToJson(*r.config));
   ASSERT_TRUE(again.config);
   EXPECT_EQ(*again.config, *r.config);

   auto at = "/interfaces/Ethernet1/ipv6/addresses/0";
   EXPECT_TRUE(refusedAt(intf6(R"({"addresses": ["ff02::1/64"]})"), at, "multicast"));
   EXPECT_TRUE(refusedAt(intf6(R"({"addresses": ["::/64"]})"), at, "unspecified"));
   EXPECT_TRUE(refusedAt(intf6(R"({"addresses": ["::1/128"]})"), at, "loopback"));
   EXPECT_TRUE(refusedAt(intf6(R"({"addresses": ["fe80::1/64"]})"), at, "link-local"));
   EXPECT_TRUE(refusedAt(intf6(R"({"addresses": ["2001:db8::1/64", "2001:db8::1/64"]})"),
                         "/interfaces/Ethernet1/ipv6/addresses/1", "listed twice"));
   EXPECT_TRUE(refusedAt(intf6(R"({"linkLocal": "2001:db8::1/64"})"),
                         "/interfaces/Ethernet1/ipv6/linkLocal", "not a link-local"));
   EXPECT_TRUE(refusedAt(intf6(R"({"acceptDad": "maybe"})"), "/interfaces/Ethernet1/ipv6/acceptDad",
                         "not one of"));
   EXPECT_TRUE(refusedAt(intf6(R"({"nsInterval": 0})"), "/interfaces/Ethernet1/ipv6/nsInterval",
                         "milliseconds"));
   EXPECT_TRUE(refusedAt(intf6(R"({"nsSource": "ff02::1"})"), "/interfaces/Ethernet1/ipv6/nsSource",
                         "not a unicast"));

   auto two = [](char const* a, char const* b, char const* vrfB = "default") {
      return std::string(R"({"vrfs": {"red": {}}, "interfaces": {
         "Ethernet1": {"device": "et1", "ipv6": {"addresses": [")") +
             a + R"("]}}, "Ethernet2": {"device": "et2", "vrf": ")" + vrfB +
             R"(", "ipv6": {"addresses": [")" + b + R"("]}}}})";
   };
   EXPECT_TRUE(refusedAt(two("2001:db8::1/64", "2001:db8::1/64"),
                         "/interfaces/Ethernet2/ipv6/addresses/0",
                         "already configured at /interfaces/Ethernet1/ipv6/addresses/0"));
   EXPECT_TRUE(refusedAt(two("2001:db8::1/48", "2001:db8:0:5::1/64"),
                         "/interfaces/Ethernet2/ipv6/addresses/0",
                         "overlaps prefix 2001:db8::/48"));
   EXPECT_TRUE(parseConfiguration(two("2001:db8::1/64", "2001:db8::1/64", "red")).config);
}

TEST(ConfigLoader, RefusesBorrowingMoreThanOneLevel) {
   // Ethernet1 lends, Ethernet2 borrows from it and lends to Ethernet3.
   auto chain = [](char const* borrow1) {
      return std::string(R"({"interfaces": {
         "Ethernet1": {"device": "et1", "ipv4": )") +
             borrow1 + R"(},
         "Ethernet2": {"device": "et2", "ipv4": {"unnumbered": "Ethernet1"}},
         "Ethernet3": {"device": "et3", "ipv4": {"unnumbered": "Ethernet2"}}}})";
   };
   auto doc = chain(R"({"address": "10.0.0.1/24"})");
   EXPECT_TRUE(
       refusedAt(doc, "/interfaces/Ethernet3/ipv4/unnumbered",
                 "interface \"Ethernet2\" is unnumbered itself and has no address to lend"));
   EXPECT_TRUE(
       refusedAt(doc, "/interfaces/Ethernet2/ipv4/unnumbered",
                 "an interface that lends its address (to \"Ethernet3\") cannot borrow one"));
   EXPECT_EQ(errorsOf(doc).size(), 2u);
   EXPECT_TRUE(refusedAt(intf(R"({"unnumbered": "Ethernet1"})"),
                         "/interfaces/Ethernet1/ipv4/unnumbered",
                         "an interface cannot borrow its own address"));
   // Two borrowers of one lender, which takes its address from DHCP: fine.
   EXPECT_TRUE(parseConfiguration(R"({"interfaces": {
      "Ethernet1": {"device": "et1", "ipv4": {"dhcp": true}},
      "Ethernet2": {"device": "et2", "ipv4": {"unnumbered": "Ethernet1"}},
      "Ethernet3": {"device": "et3", "ipv4": {"unnumbered": "Ethernet1"}}}})")
                   .config);
}

TEST(ConfigDiff, NamesEachChangedPlace) {
   auto base = *parseConfiguration(R"({"vrfs": {"red": {}, "blue": {}}, "interfaces": {
      "Ethernet1": {"device": "et1", "ipv4": {"address": "10.0.0.1/24"}},
      "Ethernet2": {"device": "et2", "ipv4": {"address": "10.0.1.1/24"}},
      "Ethernet3": {"device": "et3"}}})")
                    .config;
   EXPECT_TRUE(diffConfigurations(base, base).empty());
   auto next = base;
   next.interfaces.at(Konet::IntfId("Ethernet1"))
       .ipv4.secondaries.insert(*Konet::IpAddrWithMask::parse("10.0.0.2/24"));
   next.interfaces.erase(Konet::IntfId("Ethernet3"));
   next.interfaces[Konet::IntfId("Ethernet4")].device = "et4";
   next.vrfs.erase(L3::VrfName("blue"));
   next.vrfs.at(L3::VrfName("red")).ipv6Routing = true;
   next.routing.sendRedirects = true;
   auto d = diffConfigurations(base, next);
   EXPECT_TRUE(d.routingChanged);
   EXPECT_EQ(d.intfsChanged, std::vector{Konet::IntfId("Ethernet1")});
   EXPECT_EQ(d.intfsRemoved, std::vector{Konet::IntfId("Ethernet3")});
   EXPECT_EQ(d.intfsAdded, std::vector{Konet::IntfId("Ethernet4")});
   EXPECT_EQ(d.vrfsRemoved, std::vector{L3::VrfName("blue")});
   EXPECT_EQ(d.vrfsChanged, std::vector{L3::VrfName("red")});
   EXPECT_TRUE(d.vrfsAdded.empty());
   EXPECT_EQ(d.summary(),
             "routing settings changed, 1 VRF removed, 1 VRF changed, 1 interface added, 1 "
             "interface removed, 1 interface changed");
}

}  // namespace
