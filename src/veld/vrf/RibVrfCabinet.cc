#include "veld/vrf/RibVrfCabinet.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldRibVrfCabinet");

using State = RibVrfState::Enum;

class RibVrfCabinet::MoxMultiAgentVrfProtoConfig
    : public Mox::Reactor<RibVrfCabinet, VrfTypes::MultiAgentVrfProtoConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onAgents(L3::VrfName const& vrf) override { owner()->handleVrf(vrf); }
};

class RibVrfCabinet::MoxAllVrfStatusLocal
    : public Mox::Reactor<RibVrfCabinet, Ip::AllVrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf(L3::VrfName const& vrf) override { owner()->handleVrf(vrf); }
   void onVrf() override {
      for (auto const& vrf : notifierRaw()->vrfIterator().keys())
         owner()->handleVrf(vrf);
   }
};

class RibVrfCabinet::MoxVrfStatusLocal
    : public Mox::Reactor<RibVrfCabinet, Ip::VrfStatusLocal::NotifieeConst> {
public:
   MoxVrfStatusLocal(RibVrfCabinet* cabinet, Mox::Ptr<Ip::VrfStatusLocal const> const& status)
       : Reactor(cabinet), vrf_(status->name()) {
      notifierIs(status);
   }
   void onState() override { owner()->handleVrf(vrf_); }

private:
   L3::VrfName const vrf_;
};

RibVrfCabinet::RibVrfCabinet(Inputs inputs) : in_(std::move(inputs)) {
   MOX_TRACE_FN0(th);
   MOX_ASSERT(in_.multiAgentVrfProtoConfig);
   MOX_ASSERT(in_.allVrfStatusLocal);
   MOX_ASSERT(in_.qualDir);
   for (auto name : kAgentNames)
      in_.qualDir->dirIs(name);
   moxMultiAgentVrfProtoConfig_ = Mox::make<MoxMultiAgentVrfProtoConfig>(this);
   moxMultiAgentVrfProtoConfig_->notifierIs(in_.multiAgentVrfProtoConfig);
   moxAllVrfStatusLocal_ = Mox::make<MoxAllVrfStatusLocal>(this);
   moxAllVrfStatusLocal_->notifierIs(in_.allVrfStatusLocal);
   handleInitialized();
}

RibVrfCabinet::~RibVrfCabinet() {
   moxDoZombieReactors(true);
   smListDelAll();
}

Mox::Ptr<RibVrfStateSm> RibVrfCabinet::sm(L3::VrfName const& vrf, Mox::String const& agent) const {
   auto list = smList(vrf);
   return list ? list->sm(agent) : nullptr;
}

void RibVrfCabinet::smListDel(L3::VrfName const& vrf) {
   MOX_TRACE_FN(th, vrf);
   if (auto list = smList(vrf)) {
      for (auto const& agent : list->smIterator().keys())
         ribVrfStateSmDel(vrf, agent);
   }
   smList_.erase(vrf);
   stateList_.erase(vrf);
}

void RibVrfCabinet::smListDelAll() {
   MOX_TRACE_FN0(th);
   for (auto const& vrf : smList_.keys())
      smListDel(vrf);
}

Mox::Ptr<Mox::Dir> RibVrfCabinet::getQualPathDir(L3::VrfName const& vrfName,
                                                 Mox::String const& agentName) const {
   if (!isAgentName(agentName)) {
      MOX_TRACE(th, 1,
                ": "
                    << "unknown agentName " << agentName << " vrf " << vrfName);
      MOX_ASSERT(!"Invalid agent name");
   }
   return in_.qualDir->entry<Mox::Dir>(Mox::Name(agentName.view()));
}

Mox::Ptr<Mox::Dir const> RibVrfCabinet::getStatusPathDir(L3::VrfName const&,
                                                         Mox::String const& agentName) const {
   if (!in_.statusDir) return nullptr;
   return in_.statusDir->entry<Mox::Dir>(Mox::Name(agentName.view()));
}

void RibVrfCabinet::stopAllAgentsForAllVrfs() {
   MOX_TRACE_FN0(th);
   for (auto const& [vrf, list] : smList_) {
      for (auto const& [agent, sm] : list->smIterator())
         doStop(*sm);
   }
}

void RibVrfCabinet::doStop(RibVrfStateSm const& sm) {
   MOX_TRACE_FN(th, "for vrf " << sm.vrfName() << " agent " << sm.agentName());
   sm.inputs().state->stateIs(State::stopped);
}

void RibVrfCabinet::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
   deleteUnconfiguredQualEntries();
   for (auto const& vrf : in_.multiAgentVrfProtoConfig->agentsIterator().keys())
      handleVrf(vrf);
}

void RibVrfCabinet::deleteUnconfiguredQualEntries() {
   MOX_TRACE_FN0(th);
   for (auto agent : kAgentNames) {
      auto dir = in_.qualDir->entry<Mox::Dir>(agent);
      for (auto const& name : dir->entryIteratorConst().keys()) {
         if (name.size() <= L3::VrfName::maxLength &&
             in_.multiAgentVrfProtoConfig->agent(L3::VrfName(name.string()), agent)) {
            continue;
         }
         MOX_TRACE(th, 5,
                   "deleting the qualification of unconfigured " << agent << " vrf " << name);
         dir->entryDel(name);
      }
   }
}

// Brings the VRF's machines in line with the daemons configured in it and its readiness.
void RibVrfCabinet::handleVrf(L3::VrfName const& vrf) {
   MOX_TRACE_FN(th, vrf);
   auto const agents = in_.multiAgentVrfProtoConfig->agents(vrf);
   auto const vsl = agents.empty() ? nullptr : in_.allVrfStatusLocal->vrf(vrf);
   watchVrfStatusLocal(vrf, vsl);
   bool const ready = vsl && vsl->state() == Ip::VrfState::active;
   bool const becameReady = ready && ready_.insert(vrf);
   if (!ready) ready_.erase(vrf);

   if (auto list = smList(vrf)) {
      for (auto const& agent : list->smIterator().keys()) {
         if (agents.count(agent)) continue;
         doStop(*list->sm(agent));
         ribVrfStateSmDel(vrf, agent);
      }
   }
   for (auto const& agent : agents) {
      auto sm = this->sm(vrf, agent);
      if (sm && becameReady && sm->state() == State::stopped) {
         ribVrfStateSmDel(vrf, agent);
         sm = nullptr;
      }
      if (!sm) {
         sm = ribVrfStateSmIs(vrf, agent, vsl);
      } else {
         sm->vslIs(vsl);
      }
      if (!ready && (sm->state() == State::initiated || sm->state() == State::started)) {
         doStop(*sm);
      }
   }
   if (agents.empty()) {
      smList_.erase(vrf);
      stateList_.erase(vrf);
   }
}

void RibVrfCabinet::watchVrfStatusLocal(L3::VrfName const& vrf,
                                        Mox::Ptr<Ip::VrfStatusLocal const> const& status) {
   auto reactor = Mox::valueOr(vrfStatusLocal_, vrf);
   if (reactor && reactor->notifier() == status) return;
   if (reactor) {
      vrfStatusLocal_.erase(vrf);
      reactor->moxDoZombieReactors(true);
   }
   if (status) vrfStatusLocal_.emplace(vrf, Mox::make<MoxVrfStatusLocal>(this, status));
}

Mox::Ptr<RibVrfStateSm> RibVrfCabinet::ribVrfStateSmIs(
    L3::VrfName const& vrf, Mox::String const& agent,
    Mox::Ptr<Ip::VrfStatusLocal const> const& vsl) {
   MOX_TRACE_FN(th, "for vrf " << vrf << " agent " << agent);
   if (auto existing = sm(vrf, agent)) return existing;
   auto states = stateList(vrf);
   if (!states) {
      states = Mox::make<RibVrfStateList>(vrf);
      stateList_.emplace(vrf, states);
   }
   auto sms = smList(vrf);
   if (!sms) {
      sms = Mox::make<RibVrfStateSmList>(vrf);
      smList_.emplace(vrf, sms);
   }
   auto sm = Mox::make<RibVrfStateSm>(
       RibVrfStateSm::Inputs{.vrfName = vrf,
                             .agentName = agent,
                             .dirEntryName = Mox::Name(vrf.name()),
                             .state = states->stateIs(agent),
                             .statusDir = getStatusPathDir(vrf, agent),
                             .multiAgentVrfProtoConfig = in_.multiAgentVrfProtoConfig,
                             .ribVrfCabinet = this},
       vsl);
   sms->smIs(agent, sm);
   return sm;
}

void RibVrfCabinet::ribVrfStateSmDel(L3::VrfName const& vrf, Mox::String const& agent) {
   MOX_TRACE_FN(th, "for vrf " << vrf << " agent " << agent);
   if (auto sms = smList(vrf)) {
      if (auto sm = sms->sm(agent)) sm->moxDoZombieReactors(true);
      sms->smDel(agent);
   }
   if (auto states = stateList(vrf)) states->stateDel(agent);
}

}  // namespace Veld
