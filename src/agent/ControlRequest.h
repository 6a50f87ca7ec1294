// Requests on the control socket: one JSON object on one line, read like every document
// from outside (agent/JsonRead.h), so that no request, however malformed, can stop the
// agent; a bad one is answered with its error and its place.
//
//    {"show": "interfaces"}    also "vrfs", "backlog", "config", "routing-agents", "nexthops"
//    {"show": "nexthops", "vrf": "red"}
//    {"switchover": true}      sets the switchover flag (false clears it)
//    {"nexthops": {"client": "bgp", "vrf": "red", "set": ["10.0.0.1", "2001:db8::1"]}}
//    {"subscribe": "bgp"}      the connection stays open: one JSON line per change
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/JsonRead.h"
#include "konet/IpAddr.h"

namespace VeldAgent {

// The longest request line the agent reads.
inline constexpr size_t kMaxRequestBytes = 4096;

enum class ShowWhat { interfaces, vrfs, backlog, config, routingAgents, nexthops };

// A show (the default), the switchover flag set (switchover present), a client's nexthops
// of a VRF set (nexthops present), or a subscription to a client's resolution changes
// (subscribe).
struct ControlRequest {
   ControlRequest() = default;
   explicit ControlRequest(ShowWhat what) : show(what) {}
   ShowWhat show = ShowWhat::interfaces;
   // Set: the request sets the switchover flag to this value (and shows nothing).
   std::optional<bool> switchover;
   std::string vrf;     // show nexthops of one VRF; the VRF of a nexthops request
   std::string client;  // of a nexthops request or a subscription
   bool subscribe = false;
   std::optional<std::vector<Konet::IpGenAddr>> nexthops;
   friend bool operator==(ControlRequest const&, ControlRequest const&) = default;
};

inline ControlRequest showRequest(ShowWhat what) {
   ControlRequest r;
   r.show = what;
   return r;
}
inline ControlRequest switchoverRequest(bool on) {
   ControlRequest r;
   r.switchover = on;
   return r;
}

struct ParsedRequest {
   std::optional<ControlRequest> request;  // set exactly when errors is empty
   std::vector<DocError> errors;
};

ParsedRequest parseControlRequest(std::string_view line);

// The request line that parseControlRequest reads back as `request` (without the newline).
std::string controlRequestText(ControlRequest const& request);

// "interfaces", ...; and back (nullopt for an unknown name).
char const* showWhatName(ShowWhat what);
std::optional<ShowWhat> showWhatFromName(std::string_view name);

}  // namespace VeldAgent
