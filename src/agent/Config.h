// The agent's configuration: one JSON document, checked in full before any of it is used.
//
// A Configuration is plain values. It reaches the library only through ConfigWriter, which
// writes the library's input entities; nothing else reads the file. Loading refuses the
// whole document on the first class of problem it finds in each place and reports every
// place, each with its JSON pointer (RFC 6901: "/interfaces/Ethernet3~11/ipv4/address").
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/JsonRead.h"
#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "konet/VrfName.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/Urpf.h"

namespace VeldAgent {

struct RoutingSettings {
   bool tcpReset = true;          // the kernel answers closed TCP ports with a reset
   bool udpUnreachable = true;    // ... and closed UDP ports with ICMP port unreachable
   bool sendRedirects = false;    // ICMP redirects, everywhere
   bool ipv6EnhancedDad = false;  // where an interface does not say
   friend bool operator==(RoutingSettings const&, RoutingSettings const&) = default;
};

struct VrfSettings {
   bool ipv4Routing = true;
   bool ipv6Routing = false;
   // The VRF's network namespace; empty: the agent's default name for the VRF.
   std::string netNs;
   // The routing daemons to run in the VRF ("Bgp", "Ospf", ...).
   std::set<std::string> routingAgents;
   // Addresses whose resolution through the VRF's routes the agent tracks (client "config").
   std::set<Konet::IpGenAddr> nexthops;
   friend bool operator==(VrfSettings const&, VrfSettings const&) = default;
};

struct Ipv4Settings {
   std::optional<Konet::IpAddrWithMask> address;
   std::set<Konet::IpAddrWithMask> secondaries;
   std::optional<Konet::IpAddrWithMask> virtualAddress;
   std::set<Konet::IpAddrWithMask> virtualSecondaries;
   bool proxyArp = false;
   bool localProxyArp = false;
   bool gratuitousArpAccept = false;
   bool forwarding = true;
   Urpf::UrpfConfig urpf;
   Ip::TristateBool noArp = Ip::TristateBool::isUnset;
   uint16_t mssIngress = 0;  // 0: no clamp
   uint16_t mssEgress = 0;
   bool directedBroadcast = false;
   bool attachedRoutes = true;
   // The primary address from DHCP, or borrowed from another interface (the lender).
   bool dhcp = false;
   std::optional<Konet::IntfId> unnumbered;
   friend bool operator==(Ipv4Settings const&, Ipv4Settings const&) = default;
};

struct Ipv6Settings {
   bool enable = false;
   std::set<Konet::Ip6AddrWithMask> addresses;       // global ones
   std::optional<Konet::Ip6AddrWithMask> linkLocal;  // none: from the EUI-64
   Ip6::AcceptDadMode acceptDad = Ip6::AcceptDadMode::dadDefault;
   Ip::TristateBool enhancedDad = Ip::TristateBool::isUnset;
   uint32_t nsInterval = 0;  // milliseconds; 0: the kernel's
   std::optional<Konet::Ip6Addr> nsSource;
   bool acceptRaDefaultRouter = false;
   bool slaac = false;  // addresses from router advertisements too
   friend bool operator==(Ipv6Settings const&, Ipv6Settings const&) = default;
};

struct InterfaceSettings {
   std::string device;  // the kernel device that carries the interface
   bool routed = true;
   L3::VrfName vrf;
   Ipv4Settings ipv4;
   Ipv6Settings ipv6;
   friend bool operator==(InterfaceSettings const&, InterfaceSettings const&) = default;
};

struct Configuration {
   RoutingSettings routing;
   std::map<L3::VrfName, VrfSettings> vrfs;  // always holds the default VRF
   std::map<Konet::IntfId, InterfaceSettings> interfaces;
   friend bool operator==(Configuration const&, Configuration const&) = default;
};

struct LoadResult {
   std::optional<Configuration> config;  // set exactly when errors is empty
   std::vector<DocError> errors;
};

// The largest configuration file accepted.
inline constexpr size_t kMaxConfigBytes = 64u << 20;

LoadResult parseConfiguration(std::string_view text);
// The start of the error that reports a fault of the checks themselves (never expected).
inline constexpr char kCheckFault[] = "cannot check the document: ";
LoadResult loadConfigurationFile(std::string const& path);

// The document of a configuration, in the form parseConfiguration reads (defaults left out
// only where they are the defaults).
std::string configurationToJson(Configuration const& config);

}  // namespace VeldAgent
