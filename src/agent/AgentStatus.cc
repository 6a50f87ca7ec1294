// What the agent shows: the published status next to the configuration and the kernel,
// and whether they agree.
#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "agent/Agent.h"
#include "agent/ShowTables.h"
#include "linux/ProcSys.h"

namespace VeldAgent {

using Json = nlohmann::json;

namespace {

// The configured addresses, with the primary from its source (`primary`, 0.0.0.0/0: none).
std::set<Konet::IpAddrWithMask> configuredV4(InterfaceSettings const& s,
                                             Konet::IpAddrWithMask primary) {
   std::set<Konet::IpAddrWithMask> out(s.ipv4.secondaries);
   if (primary.len()) out.insert(primary);
   if (s.ipv4.virtualAddress) out.insert(*s.ipv4.virtualAddress);
   out.insert(s.ipv4.virtualSecondaries.begin(), s.ipv4.virtualSecondaries.end());
   return out;
}

template <class C>
Json addrs(C const& c) {
   Json out = Json::array();
   for (auto const& a : c)
      out.push_back(a.toString());
   return out;
}

std::string eui64Text(Interface::Eui64 const& e) {
   char buf[32];
   std::snprintf(buf, sizeof buf, "%02x%02x:%02x%02x:%02x%02x:%02x%02x", e[0], e[1], e[2], e[3],
                 e[4], e[5], e[6], e[7]);
   return buf;
}

}  // namespace

std::vector<std::pair<L3::VrfName, Mox::Ptr<Veld::IpIntfSm>>> Agent::ipIntfSms() const {
   std::vector<std::pair<L3::VrfName, Mox::Ptr<Veld::IpIntfSm>>> out;
   if (root_ && root_->ipIntfSm()) out.emplace_back(L3::VrfName::defaultVrf(), root_->ipIntfSm());
   if (!vrfRootSm_) return out;
   for (auto const& [name, v] : config().vrfs) {
      auto vrfRoot = vrfRootSm_->vrfRoot(name);
      if (vrfRoot && vrfRoot->ipIntfSm()) out.emplace_back(name, vrfRoot->ipIntfSm());
   }
   return out;
}

// The kernel's IPv4 addresses of each namespace, by device.
static std::map<Konet::NamespaceName, std::map<std::string, std::set<Konet::IpAddrWithMask>>>
kernelAddrs(KernelMirrors const& mirrors) {
   std::map<Konet::NamespaceName, std::map<std::string, std::set<Konet::IpAddrWithMask>>> out;
   for (auto const& ns : mirrors.namespaces()) {
      auto* m = mirrors.mirror(ns);
      auto& byDev = out[ns];
      for (auto const& [index, list] : kernelIpv4ByIfindex(*m)) {
         auto rec = m->status()->interface(KernelNetInfo::InterfaceKey{index});
         byDev[rec.deviceName].insert(list.begin(), list.end());
      }
   }
   return out;
}

// The IPv4 addresses each namespace's kernel holds as secondaries of their subnet, by device:
// the source address selection never picks them where a primary is there.
static std::map<Konet::NamespaceName, std::map<std::string, std::set<Konet::IpAddrWithMask>>>
kernelSecondaries(KernelMirrors const& mirrors) {
   std::map<Konet::NamespaceName, std::map<std::string, std::set<Konet::IpAddrWithMask>>> out;
   for (auto const& ns : mirrors.namespaces()) {
      auto const& status = mirrors.mirror(ns)->status();
      auto table = status->ipState();
      for (auto it = table.begin(); it != table.end(); ++it) {
         auto const& k = it.key();
         if (!k.addr.isV4() || !it.value().assigned) continue;
         if (!(it.value().flags & KernelNetInfo::kIfaSecondary)) continue;
         auto dev = status->interface(k.intfKey).deviceName;
         out[ns][dev].emplace(k.addr.v4(), static_cast<uint8_t>(k.prefixLen));
      }
   }
   return out;
}

// The kernel's IPv4 addresses of one namespace by ifindex, each with whether the kernel holds
// it as a secondary of its subnet: the source address selection never picks those where a
// primary is there.
struct KernelV4 {
   Konet::IpAddrWithMask addr;
   bool secondary = false;
};
using KernelV4ByIfindex = std::unordered_map<uint32_t, std::vector<KernelV4>>;

static KernelV4ByIfindex kernelV4ByIfindex(Konet::KernelMirror const& mirror) {
   KernelV4ByIfindex out;
   auto table = mirror.status()->ipState();
   for (auto it = table.begin(); it != table.end(); ++it) {
      auto const& k = it.key();
      if (!k.addr.isV4() || !it.value().assigned) continue;
      out[k.intfKey.ifIndex].push_back(
          KernelV4{Konet::IpAddrWithMask(k.addr.v4(), static_cast<uint8_t>(k.prefixLen)),
                   (it.value().flags & KernelNetInfo::kIfaSecondary) != 0});
   }
   return out;
}

bool Agent::converged() const {
   if (!writer_ || !vrfs_->settled() || !mover_->settled() || !intfs_->settled()) return false;
   for (auto const& [vrf, sm] : ipIntfSms()) {
      if (sm->ipIntfKernelUpdateCodefListSize()) return false;
   }
   if (root_ && root_->ip6IntfSm() && root_->ip6IntfSm()->ip6IntfKernelUpdateCodefListSize()) {
      return false;
   }
   for (auto const& [name, v] : config().vrfs) {
      auto vrfRoot = vrfRootSm_ ? vrfRootSm_->vrfRoot(name) : nullptr;
      if (vrfRoot && vrfRoot->ip6IntfSm() &&
          vrfRoot->ip6IntfSm()->ip6IntfKernelUpdateCodefListSize())
         return false;
   }
   // Built once per namespace that a configured interface is in.
   std::map<Konet::NamespaceName, KernelV4ByIfindex> kernel;
   for (auto const& [id, s] : config().interfaces) {
      auto status = e_.allIntfStatus->intfStatus(id);
      if (!status || status->deviceName().empty()) return false;
      auto ns = vrfs_->ns(s.vrf);
      if (!(status->netNsName() == ns) || !(mover_->desiredNs(id) == ns)) return false;
      auto const* mirror = mirrors_.mirror(ns);
      auto rec = mirror ? mirror->status()->interfaceByName(s.device) : KernelNetInfo::Interface();
      if (s.routed && !(rec.flags & KernelNetInfo::kIffUp)) return false;
      auto selected = e_.ipConfig->ipIntfConfig(id);
      auto primary = selected ? selected->addrWithMask() : Konet::IpAddrWithMask();
      auto want = configuredV4(s, primary);
      std::set<Konet::IpAddrWithMask> held;
      bool primaryIsSecondary = false;
      if (mirror) {
         auto known = kernel.find(ns);
         if (known == kernel.end()) known = kernel.emplace(ns, kernelV4ByIfindex(*mirror)).first;
         auto const found = known->second.find(rec.key.ifIndex);
         if (found != known->second.end()) {
            for (auto const& a : found->second) {
               held.insert(a.addr);
               if (a.secondary && a.addr == primary) primaryIsSecondary = true;
            }
         }
      }
      auto ip = e_.ipStatus->intf(id);
      // Where no address belongs (a bridge port, a device without carrier), the kernel and
      // the published status hold none of the configured ones.
      if (!s.routed || !status->operUp()) {
         if (ip && (ip->addrWithMask().len() || ip->activeSecondaryWithMaskIterator().size())) {
            return false;
         }
         for (auto const& a : want) {
            if (held.count(a)) return false;
         }
         continue;
      }
      if (held != want || !ip) return false;
      if (ip->addrWithMask() != primary) return false;
      // The configured primary is the kernel's primary of its subnet, not one of its
      // secondaries.
      if (primary.len() && primaryIsSecondary) return false;
      if (ip->activeSecondaryWithMaskIterator().size() != s.ipv4.secondaries.size()) return false;
      for (auto const& a : s.ipv4.secondaries) {
         if (!ip->activeSecondaryWithMask(a)) return false;
      }
   }
   return true;
}

Json Agent::addressSource(Konet::IntfId const& id, InterfaceSettings const& s) const {
   Json j;
   if (s.ipv4.unnumbered) {
      j["source"] = "unnumbered";
      j["lender"] = s.ipv4.unnumbered->name();
   } else if (s.ipv4.dhcp) {
      j["source"] = "dhcp";
      auto lease = dhcp_ ? dhcp_->show(id) : Json();
      j["pending"] = lease.is_null() || lease.value("pending", true);
      if (!lease.is_null() && lease.contains("leaseSecondsLeft")) {
         j["leaseSecondsLeft"] = lease.at("leaseSecondsLeft");
      }
      if (!lease.is_null()) j["clientPid"] = lease.at("pid");
   } else {
      j["source"] = "configured";
   }
   return j;
}

Json Agent::showInterfaces() const {
   auto kernel = kernelAddrs(mirrors_);
   auto secondaries = kernelSecondaries(mirrors_);
   Json list = Json::array();
   for (auto const& [id, s] : config().interfaces) {
      Json j;
      j["interface"] = id.name();
      j["device"] = s.device;
      j["vrf"] = s.vrf.name();
      j["routed"] = s.routed;
      auto status = e_.allIntfStatus->intfStatus(id);
      bool present = status && !status->deviceName().empty();
      j["deviceFound"] = present;
      j["namespace"] = status ? status->netNsName().name() : "";
      j["operUp"] = status && status->operUp();
      j["mtu"] = status ? status->mtu() : 0;
      j["eui64"] = status ? eui64Text(status->eui64()) : "";
      Json conf;
      conf["address"] = s.ipv4.address ? s.ipv4.address->toString() : "";
      conf["secondaries"] = addrs(s.ipv4.secondaries);
      conf["virtualAddress"] = s.ipv4.virtualAddress ? s.ipv4.virtualAddress->toString() : "";
      conf["virtualSecondaries"] = addrs(s.ipv4.virtualSecondaries);
      conf["mssIngress"] = s.ipv4.mssIngress;
      conf["mssEgress"] = s.ipv4.mssEgress;
      conf["directedBroadcast"] = s.ipv4.directedBroadcast;
      conf["attachedRoutes"] = s.ipv4.attachedRoutes;
      j["configured"] = conf;
      j["addressSource"] = addressSource(id, s);
      if (auto ip = e_.ipStatus->intf(id)) {
         Json st;
         st["address"] = ip->addrWithMask().len() ? ip->addrWithMask().toString() : "";
         std::set<Konet::IpAddrWithMask> sec, vsec;
         for (auto const& a : ip->activeSecondaryWithMaskIterator())
            sec.insert(a);
         for (auto const& a : ip->activeVirtualSecondaryWithMaskIterator())
            vsec.insert(a);
         st["secondaries"] = addrs(sec);
         st["virtualAddress"] =
             ip->virtualAddrWithMask().len() ? ip->virtualAddrWithMask().toString() : "";
         st["virtualSecondaries"] = addrs(vsec);
         st["vrf"] = ip->vrf().name();
         st["dpRoutingEnabled"] = ip->dpRoutingEnabled();
         st["mssIngress"] = ip->maxMssIngress();
         st["mssEgress"] = ip->maxMssEgress();
         st["directedBroadcast"] = ip->directedBroadcastEnabled();
         st["attachedRoutes"] = ip->attachedRoutes();
         j["status"] = st;
      } else {
         j["status"] = nullptr;
      }
      Json k = Json::array(), ks = Json::array();
      if (present) {
         k = addrs(kernel[status->netNsName()][status->deviceName()]);
         ks = addrs(secondaries[status->netNsName()][status->deviceName()]);
      }
      j["kernel"] = k;
      j["kernelSecondaries"] = ks;
      auto ip6 = e_.ip6Status->intf(id);
      j["ipv6"] = ip6 ? ip6StatusJson(*ip6) : Json(nullptr);
      j["ipv6EnableRequested"] = e_.ip6Enable->enable(id);
      auto l3 = e_.l3Status->intfStatus(id);
      j["l3Vrf"] = l3 ? Json(l3->vrf().name()) : Json(nullptr);
      list.push_back(j);
   }
   return Json{{"interfaces", list}};
}

Json Agent::showVrfs() const {
   Json list = Json::array();
   std::vector<std::pair<L3::VrfName, VrfSettings>> vrfs(config().vrfs.begin(),
                                                         config().vrfs.end());
   std::stable_partition(vrfs.begin(), vrfs.end(),
                         [](auto const& v) { return v.first.isDefault(); });
   for (auto const& [name, v] : vrfs) {
      Json j;
      j["vrf"] = name.name();
      j["namespace"] = vrfs_->nsOf(name, v).name();
      auto const* state = vrfs_->state(name);
      j["state"] = state ? VrfNamespaces::stateName(*state) : "creating";
      auto global = e_.vrfStatusGlobal->vrf(name);
      j["vrfId"] = global ? global->vrfId() : 0;
      j["ipv4Routing"] = v.ipv4Routing;
      j["ipv6Routing"] = v.ipv6Routing;
      size_t n = 0;
      for (auto const& [id, s] : config().interfaces)
         n += s.vrf == name;
      j["interfaces"] = n;
      j["root"] = name.isDefault() || (vrfRootSm_ && vrfRootSm_->vrfRoot(name));
      list.push_back(j);
   }
   return Json{{"vrfs", list}};
}

// Each (VRF, daemon) the configuration names, the default VRF first.
Json Agent::showRoutingAgents() const {
   Json list = Json::array();
   std::vector<L3::VrfName> vrfs;
   for (auto const& [name, v] : config().vrfs)
      vrfs.push_back(name);
   std::stable_partition(vrfs.begin(), vrfs.end(), [](auto const& v) { return v.isDefault(); });
   for (auto const& vrf : vrfs) {
      for (auto const& agent : config().vrfs.at(vrf).routingAgents) {
         auto sm = ribVrfCabinet_ ? ribVrfCabinet_->sm(vrf, agent) : nullptr;
         auto qual = sm ? sm->qualPathStatus() : nullptr;
         auto status = e_.ribStatusDir->entry<Mox::Dir>(agent);
         Json j;
         j["vrf"] = vrf.name();
         j["agent"] = agent;
         j["state"] = Mox::stringValue(sm ? sm->state() : Veld::RibVrfState::Enum::invalid);
         auto qualDir = e_.ribQualDir->entry<Mox::Dir>(agent);
         j["qualified"] = bool(qualDir && qualDir->entry(vrf.name()));
         j["running"] = bool(status && status->entry(vrf.name()));
         j["loadPluginsTime"] = qual ? qual->loadPluginsTime() : 0.0;
         list.push_back(j);
      }
   }
   return Json{{"switchover", e_.ssoConfig->switchover()}, {"routingAgents", list}};
}

Json Agent::showBacklog() const {
   Json list = Json::array();
   auto warp = root_ ? root_->warpState() : nullptr;
   for (auto const& [vrf, sm] : ipIntfSms()) {
      Json j;
      j["vrf"] = vrf.name();
      j["machine"] = "ipIntfSm";
      j["pending"] = sm->ipIntfKernelUpdateCodefListSize();
      j["runs"] = sm->ipIntfKernelUpdateCodefListProcessed();
      j["itemsProcessed"] = sm->ipIntfKernelUpdateCodefListItemsProcessed();
      j["errors"] = sm->ipIntfKernelUpdateCodefListErrs();
      j["procWritesSkipped"] = sm->procWritesSkipped();
      j["driftRepairs"] = sm->driftRepairs();
      j["empty"] =
          warp ? warp->backlogEmpty(sm->warpKey()) : sm->ipIntfKernelUpdateCodefListSize() == 0;
      list.push_back(j);
   }
   Json missing = Json::array();
   for (auto const& dev : intfs_->missingDevices())
      missing.push_back(dev);
   Json mirrors = Json::array();
   for (auto const& ns : mirrors_.namespaces()) {
      auto* m = mirrors_.mirror(ns);
      mirrors.push_back({{"namespace", ns.name()},
                         {"messages", m->messages()},
                         {"overflows", m->overflows()},
                         {"resyncs", m->resyncs()}});
   }
   return Json{{"backlog", list},
               {"kernelMirrors", mirrors},
               {"missingDevices", missing},
               {"deviceMoves", mover_ ? mover_->moves() : 0},
               {"procWrites", Konet::procSysWrites()},
               {"devicesBroughtUp", mover_ ? mover_->bringUps() : 0},
               {"converged", converged()}};
}

Json Agent::showConfig() const {
   Json refused = Json::array();
   for (auto const& e : refusedErrors_)
      refused.push_back(e.toString());
   auto const& c = config();
   return Json{{"file", options_.configPath},
               {"vrfs", c.vrfs.size()},
               {"interfaces", c.interfaces.size()},
               {"reloads", reloads_},
               {"lastReloadRefused", !refusedErrors_.empty()},
               {"refusedErrors", refused}};
}

nlohmann::json Agent::showNexthops(std::string const& vrf) const {
   return nexthops_ ? nexthops_->show(vrf) : Json{{"nexthops", Json::array()}};
}

Json Agent::showIp6Enable() const {
   Json requests = Json::array();
   std::vector<std::string> programs;
   for (auto const& [name, entry] : e_.ip6EnableDir->entryIteratorConst())
      programs.push_back(name.string());
   std::sort(programs.begin(), programs.end());
   for (auto const& program : programs) {
      auto request = e_.ip6EnableDir->entry<Ip6::Ip6Enable>(program);
      if (!request) continue;
      auto intfs = request->enableIterator().keys();
      std::sort(intfs.begin(), intfs.end());
      Json names = Json::array();
      for (auto const& i : intfs)
         names.push_back(i.name());
      requests.push_back({{"program", program}, {"interfaces", names}});
   }
   auto enabled = e_.ip6Enable->enableIterator().keys();
   std::sort(enabled.begin(), enabled.end());
   Json merged = Json::array();
   for (auto const& i : enabled)
      merged.push_back(i.name());
   return Json{{"requests", requests}, {"enabled", merged}};
}

Json Agent::show(ControlRequest const& r) const {
   switch (r.show) {
      case ShowWhat::interfaces:
         return showInterfaces();
      case ShowWhat::vrfs:
         return showVrfs();
      case ShowWhat::backlog:
         return showBacklog();
      case ShowWhat::config:
         return showConfig();
      case ShowWhat::routingAgents:
         return showRoutingAgents();
      case ShowWhat::nexthops:
         return showNexthops(r.vrf);
      case ShowWhat::ip6Enable:
         return showIp6Enable();
      case ShowWhat::multicast:
         return showMulticast();
   }
   return Json{};
}

std::string Agent::handleRequest(std::string const& line) {
   auto parsed = parseControlRequest(line);
   if (!parsed.request)
      return dumpJson(Json{{"error", parsed.errors.front().toString()}}, 1) + "\n";
   auto const& r = *parsed.request;
   auto refused = [](std::string place, std::string message) {
      return Json{{"error", DocError{std::move(place), std::move(message)}.toString()}};
   };
   Json out;
   switch (r.kind) {
      case RequestKind::show:
         out = show(r);
         break;
      case RequestKind::switchover:
         // The flag is the agent's to set; the machines that read it follow.
         e_.ssoConfig->switchoverIs(r.switchover);
         out = Json{{"switchover", e_.ssoConfig->switchover()}};
         break;
      case RequestKind::subscribe:
         out = refused("/subscribe", "a subscription needs the agent's control socket");
         break;
      case RequestKind::nexthops:
         if (r.program == Nexthops::kConfigClient) {
            out = refused("/nexthops/client", "\"config\" is the configuration's own client");
         } else {
            nexthops_->clientNexthopsIs(r.program, L3::VrfName(r.vrf), r.nexthops);
            out = Json{{"client", r.program}, {"vrf", r.vrf}, {"nexthops", r.nexthops.size()}};
         }
         break;
      case RequestKind::ip6Enable:
         ip6EnableRequestIs(r.program, r.interfaces);
         out = showIp6Enable();
         break;
      case RequestKind::ip6EnableWithdraw:
         out = ip6EnableRequestDel(r.program)
                   ? showIp6Enable()
                   : refused("/ip6-enable-withdraw",
                             "no request of " + quotedForMessage(r.program) + " to withdraw");
         break;
      case RequestKind::multicast:
         multicastRequestIs(r.program, r.interfaces.at(0), r.groups);
         out = showMulticast();
         break;
      case RequestKind::multicastWithdraw:
         out =
             multicastRequestDel(r.program)
                 ? showMulticast()
                 : refused("/multicast-withdraw", "no multicast groups of " +
                                                      quotedForMessage(r.program) + " to withdraw");
         break;
   }
   return dumpJson(out, 1) + "\n";
}

}  // namespace VeldAgent
