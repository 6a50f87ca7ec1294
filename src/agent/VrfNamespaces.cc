#include "agent/VrfNamespaces.h"

#include <cstring>

#include "linux/NetNs.h"
#include "linux/NetlinkLink.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentVrf");
constexpr double kRetryDelay = 1.0;
constexpr double kDeviceWait = 5.0;
constexpr double kDevicePoll = 0.05;
}  // namespace

char const* VrfNamespaces::stateName(State s) {
   switch (s) {
      case State::creating:
         return "creating";
      case State::active:
         return "active";
      case State::deleting:
         return "deleting";
   }
   return "?";
}

VrfNamespaces::VrfNamespaces(Entities& entities, KernelMirrors& mirrors, std::string prefix)
    : e_(entities), mirrors_(mirrors), prefix_(std::move(prefix)), home_(Konet::getns()) {
   work_ = Mox::make<DeferredWork>(e_.scheduler, "VrfNamespaces", [this] { doWork(); });
   auto const def = L3::VrfName::defaultVrf();
   e_.vrfStatusGlobal->vrfIs(def)->vrfIdIs(0);
   auto local = e_.vrfStatusLocal->vrfIs(def);
   local->netNsNameIs(Konet::NamespaceName::defaultNamespace());
   local->stateIs(Ip::VrfState::active);
}

Konet::NamespaceName VrfNamespaces::nsOf(L3::VrfName const& vrf,
                                         VrfSettings const& settings) const {
   if (vrf.isDefault()) return Konet::NamespaceName::defaultNamespace();
   if (!settings.netNs.empty()) return Konet::NamespaceName(settings.netNs);
   return Konet::NamespaceName(prefix_ + vrf.name());
}

VrfNamespaces::State const* VrfNamespaces::state(L3::VrfName const& vrf) const {
   if (vrf.isDefault()) {
      static State const active = State::active;
      return &active;
   }
   auto it = vrfs_.find(vrf);
   return it == vrfs_.end() ? nullptr : &it->second.state;
}

Konet::NamespaceName VrfNamespaces::ns(L3::VrfName const& vrf) const {
   auto it = vrfs_.find(vrf);
   return it == vrfs_.end() ? Konet::NamespaceName::defaultNamespace() : it->second.ns;
}

std::vector<Konet::NamespaceName> VrfNamespaces::namespaces() const {
   std::vector<Konet::NamespaceName> out;
   for (auto const& [name, vrf] : vrfs_)
      out.push_back(vrf.ns);
   return out;
}

bool VrfNamespaces::settled() const {
   for (auto const& [name, vrf] : vrfs_) {
      if (vrf.state != State::active) return false;
   }
   return true;
}

void VrfNamespaces::vrfIs(L3::VrfName const& name, VrfSettings const& settings) {
   if (name.isDefault()) return;
   MOX_TRACE_FN(th, name);
   auto ns = nsOf(name, settings);
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) {
      Vrf vrf;
      vrf.ns = ns;
      vrf.id = nextId_++;
      vrfs_.emplace(name, vrf);
      work_->scheduleTask();
      return;
   }
   if (it->second.ns != ns) {
      Mox::logMessage(Mox::LogSeverity::warning, "VELD-VRF",
                      "VRF " + name.name() + " stays in namespace " + it->second.ns.name() +
                          ": a VRF changes its namespace only when it is removed and added again");
   }
   if (it->second.state == State::deleting) {
      it->second.state = State::active;
      publish(name, it->second);
   }
}

void VrfNamespaces::vrfDel(L3::VrfName const& name) {
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) return;
   MOX_TRACE_FN(th, name);
   if (it->second.state == State::creating) {
      vrfs_.erase(it);  // nothing published yet; a namespace made meanwhile stays for reuse
      return;
   }
   it->second.state = State::deleting;
   it->second.deleteBy = Mox::System::currentTime() + kDeviceWait;
   if (auto local = e_.vrfStatusLocal->vrf(name)) local->stateIs(Ip::VrfState::deleting);
   work_->scheduleTask();
}

void VrfNamespaces::publish(L3::VrfName const& name, Vrf const& vrf) {
   e_.vrfStatusGlobal->vrfIs(name)->vrfIdIs(vrf.id);
   auto local = e_.vrfStatusLocal->vrfIs(name);
   local->netNsNameIs(vrf.ns);
   local->stateIs(Ip::VrfState::active);
}

void VrfNamespaces::doWork() {
   MOX_TRACE_FN0(th);
   double retry = Mox::kInfinity;
   for (auto const& name : [&] {
           std::vector<L3::VrfName> v;
           for (auto const& [n, vrf] : vrfs_)
              v.push_back(n);
           return v;
        }()) {
      auto it = vrfs_.find(name);
      if (it == vrfs_.end()) continue;
      auto& vrf = it->second;
      if (vrf.state == State::creating && !doCreate(name, vrf)) {
         retry = std::min(retry, kRetryDelay);
      } else if (vrf.state == State::deleting && !doDelete(name, vrf)) {
         retry = std::min(retry, kDevicePoll);
      }
   }
   if (retry != Mox::kInfinity) work_->scheduleTaskDelay(retry);
}

// A namespace that exists already is the VRF's from an earlier run: it is adopted with the
// devices and addresses in it, so that a restart changes nothing in the kernel.
bool VrfNamespaces::doCreate(L3::VrfName const& name, Vrf& vrf) {
   MOX_TRACE_FN(th, name << " ns " << vrf.ns);
   int rc = Konet::createNamedNamespace(vrf.ns);
   if (rc != 0 && rc != EEXIST) {
      Mox::logFailure("VELD-VRF",
                      "cannot create namespace " + vrf.ns.name() + " for VRF " + name.name(), rc);
      return false;
   }
   if (int err = mirrors_.mirrorIs(vrf.ns)) {
      Mox::logFailure("VELD-VRF", "cannot mirror namespace " + vrf.ns.name(), err);
      return false;
   }
   int sock = mirrors_.requestSocket(vrf.ns);
   int lo = 0;
   if (Konet::linkIndex(sock, "lo", &lo) == 0) Konet::setLinkUp(sock, lo, true);
   vrf.state = State::active;
   publish(name, vrf);
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-VRF",
                   "VRF " + name.name() + " is active in namespace " + vrf.ns.name() +
                       (rc == EEXIST ? " (existing)" : ""));
   return true;
}

bool VrfNamespaces::doDelete(L3::VrfName const& name, Vrf& vrf) {
   MOX_TRACE_FN(th, name << " ns " << vrf.ns);
   bool devicesLeft = false;
   for (auto const& [id, status] : e_.allIntfStatus->intfStatusIterator()) {
      if (!status->deviceName().empty() && status->netNsName() == vrf.ns) devicesLeft = true;
   }
   if (devicesLeft && Mox::System::currentTime() < vrf.deleteBy) return false;
   // What is still in the namespace goes home rather than with the namespace.
   int sock = mirrors_.requestSocket(vrf.ns);
   std::vector<Konet::LinkInfo> links;
   if (sock >= 0 && Konet::dumpLinks(sock, &links) == 0) {
      for (auto const& l : links) {
         if (l.name == "lo") continue;
         if (int rc = Konet::moveLinkToNetNs(sock, l.ifindex, home_.get())) {
            Mox::logFailure("VELD-VRF",
                            "cannot move device " + l.name + " out of namespace " + vrf.ns.name(),
                            rc, Mox::LogSeverity::warning);
         }
      }
   }
   e_.vrfStatusLocal->vrfDel(name);
   e_.vrfStatusGlobal->vrfDel(name);
   mirrors_.mirrorDel(vrf.ns);
   if (int rc = Konet::deleteNamedNamespace(vrf.ns)) {
      Mox::logFailure("VELD-VRF", "cannot delete namespace " + vrf.ns.name(), rc,
                      Mox::LogSeverity::warning);
   }
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-VRF",
                   "VRF " + name.name() + " and its namespace " + vrf.ns.name() + " are gone");
   vrfs_.erase(name);
   return true;
}

}  // namespace VeldAgent
