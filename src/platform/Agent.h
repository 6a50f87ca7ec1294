// Inputs that the agent hands to machines which only hold them here: the VRF configuration
// machine's, the fast-upgrade machine's and the loopback machines'.
#pragma once

#include "mox/Entity.h"
#include "mox/Name.h"

namespace Agent {
class StartupModeStatus : public Mox::Entity {};
}  // namespace Agent

namespace VrfTypes {
class MultiAgentVrfProtoConfig : public Mox::Entity {};
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
