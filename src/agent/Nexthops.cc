#include "agent/Nexthops.h"

#include <sys/epoll.h>

#include "agent/JsonRead.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentNexthop");
}

// Pushes each change of a client's nexthop status in a VRF to the client's subscribers.
class Nexthops::MoxStatus : public Routing::NexthopVrfStatus::NotifieeConst {
public:
   MoxStatus(Nexthops* owner, L3::VrfName vrf, std::string client)
       : owner_(owner), vrf_(std::move(vrf)), client_(std::move(client)) {}
   void onNexthop(Konet::IpGenAddr const& addr) override {
      if (owner_) owner_->pushChange(vrf_, client_, addr);
   }
   Nexthops* owner_;

private:
   L3::VrfName const vrf_;
   std::string const client_;
};

Nexthops::Nexthops(Entities& e, EventLoop& loop, KernelMirrors& mirrors, VrfNamespaces& vrfs)
    : e_(e), loop_(loop), mirrors_(mirrors), vrfNs_(vrfs) {
   mirrors_.observerAdd([this](Konet::NamespaceName const& ns, Konet::KernelMirror* m) {
      mirrorChanged(ns, m);
      sync();
   });
}

Nexthops::~Nexthops() {
   for (auto& [name, vrf] : vrfs_) {
      for (auto& [client, r] : vrf.resolvers) {
         r.watch->owner_ = nullptr;
         r.watch->notifierIs(nullptr);
      }
   }
   vrfs_.clear();
   for (auto& [ns, m] : routeMirrors_)
      loop_.remove(m->fd());
}

// A namespace no longer mirrored takes its route mirror with it; the VRFs of the namespace go
// first, as their machines read its tables.
void Nexthops::mirrorChanged(Konet::NamespaceName const& ns, Konet::KernelMirror* mirror) {
   auto it = mirror ? routeMirrors_.end() : routeMirrors_.find(ns);
   if (it == routeMirrors_.end()) return;
   for (auto v = vrfs_.begin(); v != vrfs_.end();) {
      v = v->second.ns == ns ? vrfs_.erase(v) : std::next(v);
   }
   loop_.remove(it->second->fd());
   routeMirrors_.erase(it);
}

// A namespace's routes are mirrored from the first VRF there that has nexthops to resolve:
// an agent without nexthops neither dumps nor follows its routing tables.
Konet::RouteMirror* Nexthops::routeMirrorStarted(Konet::NamespaceName const& ns) {
   if (auto* m = routeMirror(ns)) return m;
   if (!mirrors_.mirror(ns)) return nullptr;
   auto m = std::make_unique<Konet::RouteMirror>(ns);
   if (int err = m->start()) {
      Mox::logFailure("VELD-ROUTES", "route mirror of namespace " + ns.name(), err,
                      Mox::LogSeverity::warning);
      return nullptr;
   }
   auto* raw = m.get();
   loop_.add(raw->fd(), EPOLLIN, [raw](uint32_t) {
      if (int rc = raw->processEvents()) {
         Mox::logFailure("VELD-ROUTES", "route mirror of namespace " + raw->ns().name(), rc,
                         Mox::LogSeverity::warning);
      }
   });
   return routeMirrors_.emplace(ns, std::move(m)).first->second.get();
}

Konet::RouteMirror* Nexthops::routeMirror(Konet::NamespaceName const& ns) const {
   auto it = routeMirrors_.find(ns);
   return it == routeMirrors_.end() ? nullptr : it->second.get();
}

Mox::Ptr<Routing::NexthopConfig> Nexthops::client(std::string const& name) {
   auto c = clients_->entry<Routing::NexthopConfig>(Mox::Name(name));
   if (!c) {
      c = Mox::make<Routing::NexthopConfig>(Mox::Name(name));
      clients_->entryIs(Mox::Name(name), c);
   }
   return c;
}

void Nexthops::configIs(Configuration const& config) {
   configured_.clear();
   auto c = client(kConfigClient);
   for (auto const& [name, settings] : config.vrfs) {
      configured_.insert(name);
      std::vector<Konet::IpGenAddr> list(settings.nexthops.begin(), settings.nexthops.end());
      clientNexthopsIs(kConfigClient, name, list);
   }
   for (auto const& name : c->vrfIterator().keys()) {
      if (!config.vrfs.count(name)) c->vrfDel(name);
   }
   sync();
}

void Nexthops::clientNexthopsIs(std::string const& name, L3::VrfName const& vrf,
                                std::vector<Konet::IpGenAddr> const& nexthops) {
   MOX_TRACE_FN(th, name << " vrf " << vrf << " nexthops " << nexthops.size());
   auto c = client(name);
   if (nexthops.empty()) {
      c->vrfDel(vrf);
   } else {
      auto v = c->vrfIs(vrf);
      std::set<Konet::IpGenAddr> wanted(nexthops.begin(), nexthops.end());
      for (auto const& a : v->nexthopIterator().keys()) {
         if (!wanted.count(a)) v->nexthopDel(a);
      }
      for (auto const& a : wanted)
         v->nexthopIs({a});
   }
   syncVrf(vrf);
}

void Nexthops::sync() {
   std::set<L3::VrfName> names(configured_);
   for (auto const& [name, v] : vrfs_)
      names.insert(name);
   for (auto const& name : names)
      syncVrf(name);
}

// A VRF resolves while it is configured, its namespace is mirrored and a client has nexthops
// there; each such client has a resolver.
void Nexthops::syncVrf(L3::VrfName const& name) {
   Konet::NamespaceName ns;
   bool ready = configured_.count(name) != 0;
   if (ready && !name.isDefault()) {
      auto const* state = vrfNs_.state(name);
      ready = state && *state == VrfNamespaces::State::active;
      if (ready) ns = vrfNs_.ns(name);
   } else if (ready) {
      ns = Konet::NamespaceName::defaultNamespace();
   }
   bool wanted = false;
   for (auto const& [clientName, entry] : clients_->entryIteratorConst()) {
      auto c = Mox::ptrDynamicCast<Routing::NexthopConfig>(entry);
      wanted = wanted || (c && c->vrf(name));
   }
   auto* mirror = ready && wanted ? routeMirrorStarted(ns) : nullptr;
   auto it = vrfs_.find(name);
   if (!mirror || (it != vrfs_.end() && !(it->second.ns == ns))) {
      if (it != vrfs_.end()) vrfs_.erase(it);
      if (!mirror) return;
      it = vrfs_.end();
   }
   if (it == vrfs_.end()) {
      Vrf v;
      v.ns = ns;
      v.config = Veld::trieBuilderContainerConfigFactory(false);
      v.status = Veld::trieBuilderContainerStatusFactory();
      v.container = Veld::trieBuilderContainerFactory(
          name, {v.config, v.status, mirror->routes4(), mirror->routes6(), clients_});
      it = vrfs_.emplace(name, std::move(v)).first;
   }
   auto& vrf = it->second;
   for (auto const& [clientName, entry] : clients_->entryIteratorConst()) {
      auto c = Mox::ptrDynamicCast<Routing::NexthopConfig>(entry);
      auto vrfConfig = c ? c->vrf(name) : nullptr;
      std::string key = clientName.charPtr();
      auto r = vrf.resolvers.find(key);
      if (!vrfConfig) {
         if (r != vrf.resolvers.end()) {
            r->second.watch->owner_ = nullptr;
            vrf.resolvers.erase(r);
         }
         continue;
      }
      if (r != vrf.resolvers.end() && r->second.sm->inputs().nexthopVrfConfig == vrfConfig)
         continue;
      Resolver res;
      res.status = Mox::make<Routing::NexthopVrfStatus>(name);
      res.watch = Mox::make<MoxStatus>(this, name, key);
      res.watch->notifierIs(res.status);
      res.sm = Routing::nexthopResolverSmFactory(
          name, clientName,
          {vrfConfig, vrf.status, e_.routingVrfConfig->vrfConfig(name),
           e_.routing6VrfConfig->vrfConfig(name), res.status, e_.scheduler});
      vrf.resolvers[key] = std::move(res);
   }
}

std::string Nexthops::deviceName(Konet::NamespaceName const& ns, int ifindex) const {
   auto* m = mirrors_.mirror(ns);
   if (!m || ifindex <= 0) return "";
   return m->status()
       ->interface(KernelNetInfo::InterfaceKey{static_cast<uint32_t>(ifindex)})
       .deviceName;
}

nlohmann::json Nexthops::entryJson(L3::VrfName const& vrfName, std::string const& clientName,
                                   Konet::IpGenAddr const& addr) const {
   nlohmann::json j{{"vrf", vrfName.name()}, {"client", clientName}, {"nexthop", addr.toString()}};
   auto it = vrfs_.find(vrfName);
   Routing::NexthopStatusEntry const* e = nullptr;
   Resolver const* r = nullptr;
   if (it != vrfs_.end()) {
      auto rit = it->second.resolvers.find(clientName);
      if (rit != it->second.resolvers.end()) r = &rit->second;
      if (r) e = r->status->nexthop(addr);
   }
   j["resolved"] = e != nullptr;
   if (e) {
      j["prefix"] = e->prefix.toString();
      auto vias = nlohmann::json::array();
      for (auto const& v : e->vias) {
         nlohmann::json via;
         via["gateway"] =
             v.gateway.af() == Konet::AddressFamily::unknown ? "" : v.gateway.toString();
         via["device"] = deviceName(it->second.ns, v.ifindex);
         vias.push_back(via);
      }
      j["vias"] = vias;
      return j;
   }
   std::string why = "no route";
   if (!r) {
      why = "VRF not ready";
   } else if (!r->sm->routingEnabled(addr.af())) {
      why = "routing disabled";
   } else if (!r->sm->fibTrie(addr.af())) {
      why = "no routes built";
   }
   j["reason"] = why;
   return j;
}

nlohmann::json Nexthops::show(std::string const& vrf) const {
   auto list = nlohmann::json::array();
   for (auto const& [clientName, entry] : clients_->entryIteratorConst()) {
      auto c = Mox::ptrDynamicCast<Routing::NexthopConfig>(entry);
      if (!c) continue;
      std::map<L3::VrfName, Mox::Ptr<Routing::NexthopVrfConfig>> byVrf;
      for (auto const& [name, v] : c->vrfIterator())
         byVrf[name] = v;
      for (auto const& [name, v] : byVrf) {
         if (!vrf.empty() && name.name() != vrf) continue;
         std::set<Konet::IpGenAddr> addrs;
         for (auto const& [a, unused] : v->nexthopIterator())
            addrs.insert(a);
         for (auto const& a : addrs)
            list.push_back(entryJson(name, clientName.charPtr(), a));
      }
   }
   return nlohmann::json{{"nexthops", list}};
}

void Nexthops::pushChange(L3::VrfName const& vrf, std::string const& clientName,
                          Konet::IpGenAddr const& addr) {
   if (!push_) return;
   std::string line;
   for (auto const& [stream, c] : std::map<int, std::string>(subscribers_)) {
      if (c != clientName) continue;
      if (line.empty()) line = dumpJson(entryJson(vrf, clientName, addr)) + "\n";
      push_(stream, line);
   }
}

}  // namespace VeldAgent
