// The VRFs as the platform would keep them: each non-default VRF gets a named network
// namespace and a kernel mirror of it, and the VRF's global and local status.
//
// Per VRF:
//
//    creating --namespace made (or found), "lo" up, mirror started--> active
//    active --removed from the configuration--> deleting --devices out (or 5 s)--> gone
//
// creating:  nothing published; the work is retried every second until it succeeds.
// active:    global status (a VRF id) and local status (its namespace, state active).
// deleting:  local state deleting, so that the interfaces' namespaces fall back to the
//            default one; once no interface device is left in the namespace (or after
//            5 s) the remaining devices are moved to the agent's own namespace, both
//            statuses go, the mirror stops and the namespace is deleted.
// A VRF configured again while deleting is active again. The default VRF is the agent's own
// namespace: always active, nothing to create.
#pragma once

#include <map>
#include <string>

#include "agent/Config.h"
#include "agent/DeferredWork.h"
#include "agent/Entities.h"
#include "agent/KernelMirrors.h"
#include "linux/Fd.h"

namespace VeldAgent {

class VrfNamespaces {
public:
   enum class State { creating, active, deleting };

   // `prefix` forms the namespace names the configuration leaves to the agent ("ns-red").
   VrfNamespaces(Entities& entities, KernelMirrors& mirrors, std::string prefix);

   void vrfIs(L3::VrfName const& vrf, VrfSettings const& settings);
   void vrfDel(L3::VrfName const& vrf);

   // Runs the pending work now (start-up, before the machines exist).
   void runPending() { doWork(); }

   Konet::NamespaceName nsOf(L3::VrfName const& vrf, VrfSettings const& settings) const;
   State const* state(L3::VrfName const& vrf) const;
   Konet::NamespaceName ns(L3::VrfName const& vrf) const;
   // The namespaces the agent made or adopted, for those the configuration no longer names.
   std::vector<Konet::NamespaceName> namespaces() const;
   bool settled() const;

   static char const* stateName(State s);

private:
   struct Vrf {
      Konet::NamespaceName ns;
      State state = State::creating;
      uint32_t id = 0;
      double deleteBy = 0.0;
   };
   void doWork();
   bool doCreate(L3::VrfName const& name, Vrf& vrf);
   bool doDelete(L3::VrfName const& name, Vrf& vrf);
   void publish(L3::VrfName const& name, Vrf const& vrf);

   Entities& e_;
   KernelMirrors& mirrors_;
   std::string prefix_;
   std::map<L3::VrfName, Vrf> vrfs_;
   uint32_t nextId_ = 1;
   Konet::Fd home_;  // the agent's own namespace
   Mox::Ptr<DeferredWork> work_;
};

}  // namespace VeldAgent
