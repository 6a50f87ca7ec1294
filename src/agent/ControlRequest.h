// Requests on the control socket: one JSON object on one line, read like every document
// from outside (agent/JsonRead.h), so that no request, however malformed, can stop the
// agent; a bad one is answered with its error and its place.
//
//    {"show": "interfaces"}    also "vrfs", "backlog", "config", "routing-agents", "nexthops",
//                              "ip6-enable"
//    {"show": "nexthops", "vrf": "red"}
//    {"switchover": true}      sets the switchover flag (false clears it)
//    {"nexthops": {"client": "bgp", "vrf": "red", "set": ["10.0.0.1", "2001:db8::1"]}}
//    {"subscribe": "bgp"}      the connection stays open: one JSON line per change
//    {"ip6-enable": {"name": "dhcp6-relay", "interfaces": ["Ethernet1", "Ethernet2"]}}
//                              a program asks for IPv6 on these interfaces, replacing its
//                              earlier request ([] asks for none)
//    {"ip6-enable-withdraw": "dhcp6-relay"}
//                              the program's request is taken back
//    {"multicast": {"name": "mld-snoop", "interface": "Ethernet1", "groups": ["ff02::fb"]}}
//                              a program's multicast groups on one interface (IPv4 or IPv6),
//                              replacing its earlier groups there ([] leaves them all)
//    {"multicast-withdraw": "mld-snoop"}
//                              the program leaves every group on every interface
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/JsonRead.h"
#include "konet/IntfId.h"
#include "konet/IpAddr.h"

namespace VeldAgent {

// The longest request line the agent reads.
inline constexpr size_t kMaxRequestBytes = 4096;

// A program's name in its requests: 1 to 64 letters, digits and "_-.".
inline constexpr size_t kMaxProgramNameBytes = 64;

enum class ShowWhat {
   interfaces,
   vrfs,
   backlog,
   config,
   routingAgents,
   nexthops,
   ip6Enable,
   multicast
};
enum class RequestKind {
   show,
   switchover,
   nexthops,
   subscribe,
   ip6Enable,
   ip6EnableWithdraw,
   multicast,
   multicastWithdraw
};

struct ControlRequest {
   ControlRequest(ShowWhat what = ShowWhat::interfaces) : show(what) {}
   static ControlRequest switchoverTo(bool on) {
      ControlRequest r;
      r.kind = RequestKind::switchover;
      r.switchover = on;
      return r;
   }
   static ControlRequest ip6Enable(std::string program, std::vector<Konet::IntfId> interfaces) {
      ControlRequest r;
      r.kind = RequestKind::ip6Enable;
      r.program = std::move(program);
      r.interfaces = std::move(interfaces);
      return r;
   }
   static ControlRequest ip6EnableWithdraw(std::string program) {
      ControlRequest r;
      r.kind = RequestKind::ip6EnableWithdraw;
      r.program = std::move(program);
      return r;
   }

   static ControlRequest multicast(std::string program, Konet::IntfId intf,
                                   std::vector<Konet::IpGenAddr> groups) {
      ControlRequest r;
      r.kind = RequestKind::multicast;
      r.program = std::move(program);
      r.interfaces = {std::move(intf)};
      r.groups = std::move(groups);
      return r;
   }
   static ControlRequest multicastWithdraw(std::string program) {
      ControlRequest r;
      r.kind = RequestKind::multicastWithdraw;
      r.program = std::move(program);
      return r;
   }

   RequestKind kind = RequestKind::show;
   ShowWhat show = ShowWhat::interfaces;    // of a show request
   std::string vrf;                         // show nexthops of one VRF; of a nexthops request
   std::string program;                     // the client of nexthops, of a subscription,
                                            // of an IPv6 enable request or its withdrawal
   bool switchover = false;                 // of a switchover request
   std::vector<Konet::IpGenAddr> nexthops;  // of a nexthops request, each once
   std::vector<Konet::IntfId> interfaces;   // of an IPv6 enable request, each once; the
                                            // one interface of a multicast request
   std::vector<Konet::IpGenAddr> groups;    // of a multicast request, each once
   friend bool operator==(ControlRequest const&, ControlRequest const&) = default;
};

struct ParsedRequest {
   std::optional<ControlRequest> request;  // set exactly when errors is empty
   std::vector<DocError> errors;
};

ParsedRequest parseControlRequest(std::string_view line);

// The request line that parseControlRequest reads back as `request` (without the newline).
std::string controlRequestText(ControlRequest const& request);

// The request names: "show", "switchover", ...
char const* requestKindName(RequestKind kind);

// "interfaces", ...; and back (nullopt for an unknown name).
char const* showWhatName(ShowWhat what);
std::optional<ShowWhat> showWhatFromName(std::string_view name);

}  // namespace VeldAgent
