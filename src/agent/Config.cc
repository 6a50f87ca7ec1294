#include "agent/Config.h"

#include <nlohmann/json.hpp>

namespace VeldAgent {

using Json = nlohmann::json;

namespace {

template <class Set>
Json addrList(Set const& set) {
   Json out = Json::array();
   for (auto const& a : set)
      out.push_back(a.toString());
   return out;
}

Json ipv4Json(Ipv4Settings const& s) {
   Ipv4Settings const d;
   Json out = Json::object();
   if (s.address) out["address"] = s.address->toString();
   if (!s.secondaries.empty()) out["secondaries"] = addrList(s.secondaries);
   if (s.virtualAddress) out["virtualAddress"] = s.virtualAddress->toString();
   if (!s.virtualSecondaries.empty()) out["virtualSecondaries"] = addrList(s.virtualSecondaries);
   if (s.proxyArp != d.proxyArp) out["proxyArp"] = s.proxyArp;
   if (s.localProxyArp != d.localProxyArp) out["localProxyArp"] = s.localProxyArp;
   if (s.gratuitousArpAccept != d.gratuitousArpAccept) {
      out["gratuitousArpAccept"] = s.gratuitousArpAccept;
   }
   if (s.forwarding != d.forwarding) out["forwarding"] = s.forwarding;
   if (s.urpf != d.urpf) {
      out["urpf"] = {{"mode", std::string(Mox::stringValue(s.urpf.mode))},
                     {"allowDefaultRoute", s.urpf.allowDefaultRoute}};
   }
   if (s.noArp != Ip::TristateBool::isUnset) out["noArp"] = s.noArp == Ip::TristateBool::isTrue;
   if (s.mssIngress || s.mssEgress) {
      Json mss = Json::object();
      if (s.mssIngress) mss["ingress"] = s.mssIngress;
      if (s.mssEgress) mss["egress"] = s.mssEgress;
      out["mss"] = mss;
   }
   if (s.directedBroadcast != d.directedBroadcast) out["directedBroadcast"] = s.directedBroadcast;
   if (s.attachedRoutes != d.attachedRoutes) out["attachedRoutes"] = s.attachedRoutes;
   if (s.dhcp) out["dhcp"] = true;
   if (s.unnumbered) out["unnumbered"] = s.unnumbered->name();
   return out;
}

Json ipv6Json(Ipv6Settings const& s) {
   Json out = {{"enable", s.enable}, {"addresses", addrList(s.addresses)}};
   if (s.linkLocal) out["linkLocal"] = s.linkLocal->toString();
   if (s.acceptDad != Ip6::AcceptDadMode::dadDefault) {
      static char const* const names[] = {"default", "disabled", "enabled", "strict"};
      out["acceptDad"] = names[static_cast<int>(s.acceptDad)];
   }
   if (s.enhancedDad != Ip::TristateBool::isUnset) {
      out["enhancedDad"] = s.enhancedDad == Ip::TristateBool::isTrue;
   }
   if (s.nsInterval) out["nsInterval"] = s.nsInterval;
   if (s.nsSource) out["nsSource"] = s.nsSource->toString();
   if (s.acceptRaDefaultRouter) out["acceptRaDefaultRouter"] = true;
   if (s.slaac) out["slaac"] = true;
   return out;
}

}  // namespace

namespace {

Json configurationDoc(Configuration const& config) {
   Json doc = Json::object();
   doc["routing"] = {{"tcpReset", config.routing.tcpReset},
                     {"udpUnreachable", config.routing.udpUnreachable},
                     {"sendRedirects", config.routing.sendRedirects}};
   if (config.routing.ipv6EnhancedDad) doc["routing"]["ipv6EnhancedDad"] = true;
   Json vrfs = Json::object();
   for (auto const& [name, v] : config.vrfs) {
      Json j = {{"ipv4Routing", v.ipv4Routing}, {"ipv6Routing", v.ipv6Routing}};
      if (!v.netNs.empty()) j["namespace"] = v.netNs;
      if (!v.routingAgents.empty()) j["routingAgents"] = v.routingAgents;
      for (auto const& a : v.nexthops)
         j["nexthops"].push_back(a.toString());
      vrfs[name.name()] = std::move(j);
   }
   doc["vrfs"] = std::move(vrfs);
   Json intfs = Json::object();
   for (auto const& [id, s] : config.interfaces) {
      Json j = {{"device", s.device}, {"routed", s.routed}, {"vrf", s.vrf.name()}};
      j["ipv4"] = ipv4Json(s.ipv4);
      if (s.ipv6 != Ipv6Settings()) {
         j["ipv6"] = ipv6Json(s.ipv6);
      }
      intfs[id.name()] = std::move(j);
   }
   doc["interfaces"] = std::move(intfs);
   return doc;
}

}  // namespace

std::string configurationToJson(Configuration const& config) {
   return configurationDoc(config).dump(2) + "\n";
}

}  // namespace VeldAgent
