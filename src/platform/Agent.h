// Inputs that the agent hands to machines which only hold them here: the VRF configuration
// machine's, the fast-upgrade machine's and the loopback machines'.
#pragma once

#include <set>

#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"

namespace Agent {
class StartupModeStatus : public Mox::Entity {};
}  // namespace Agent

namespace VrfTypes {

// The routing daemons ("agents": "Ospf", "Bgp", ...) configured to run in each VRF, by VRF.
class MultiAgentVrfProtoConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<MultiAgentVrfProtoConfig> {
   public:
      virtual void onAgents(L3::VrfName const&) {}
   };
   using Agents = std::set<Mox::String>;

   // Empty for a VRF that names no agent.
   Agents agents(L3::VrfName const& vrf) const { return Mox::valueOr(agents_, vrf); }
   bool agent(L3::VrfName const& vrf, Mox::String const& agent) const {
      auto const* set = agents_.find(vrf);
      return set && set->count(agent);
   }
   // An empty set removes the VRF.
   void agentsIs(L3::VrfName const& vrf, Agents const& agents) {
      if (agents.empty()) return agentsDel(vrf);
      setMember(agents_, vrf, agents, &NotifieeConst::onAgents);
   }
   void agentsDel(L3::VrfName const& vrf) { delMember(agents_, vrf, &NotifieeConst::onAgents); }
   Mox::HashMap<L3::VrfName, Agents> const& agentsIterator() const { return agents_; }

private:
   Mox::HashMap<L3::VrfName, Agents> agents_;
};

// One routing daemon's launch record in one VRF, an entry of a qualification or status
// directory. In a status directory, the daemon's report that it runs (with the time it set
// up its VRF-dependent resources); in a qualification directory, the request to run, on
// which the IP agent notes when the daemon came up (loadPluginsTime).
class VrfProtocolLaunchStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VrfProtocolLaunchStatus> {
   public:
      virtual void onInitAgentConditionalMountsTime() {}
      virtual void onLoadPluginsTime() {}
   };
   explicit VrfProtocolLaunchStatus(Mox::Name name) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

   double initAgentConditionalMountsTime() const { return initAgentConditionalMountsTime_; }
   void initAgentConditionalMountsTimeIs(double t) {
      setAttr(initAgentConditionalMountsTime_, t, &NotifieeConst::onInitAgentConditionalMountsTime);
   }
   double loadPluginsTime() const { return loadPluginsTime_; }
   void loadPluginsTimeIs(double t) {
      setAttr(loadPluginsTime_, t, &NotifieeConst::onLoadPluginsTime);
   }

private:
   Mox::Name const name_;
   double initAgentConditionalMountsTime_ = 0.0;
   double loadPluginsTime_ = 0.0;
};

}  // namespace VrfTypes

namespace Vrf::VrfIdMap {
class Status : public Mox::Entity {};
class NameToIdMapWrapper : public Mox::Entity {};
}  // namespace Vrf::VrfIdMap

namespace Konet {
class NamespaceStatusLocalDir : public Mox::Entity {};
}  // namespace Konet

// The agent's boot stages and their configuration.
class StagesHelper : public Mox::PtrInterface {};
class AgentConfig : public Mox::Entity {};

namespace KernelNetNsInfo {

// The kernel's network namespaces as the platform sees them.
class Root : public Mox::Entity {
public:
   explicit Root(Mox::Name name) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

private:
   Mox::Name name_;
};

}  // namespace KernelNetNsInfo
