#include "veld/nexthop/TrieBuilderContainer.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldTrieBuilder");
}

Mox::Ptr<TrieBuilderContainerConfig> trieBuilderContainerConfigFactory(bool standbyMode) {
   return Mox::make<TrieBuilderContainerConfig>(standbyMode);
}

Mox::Ptr<TrieBuilderContainerStatus> trieBuilderContainerStatusFactory() {
   return Mox::make<TrieBuilderContainerStatus>();
}

class TrieBuilderContainer::MoxContainerConfig
    : public Mox::Reactor<TrieBuilderContainer, TrieBuilderContainerConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onStandbyMode() override { owner()->handleInput(); }
};

class TrieBuilderContainer::MoxNexthopConfigDir
    : public Mox::Reactor<TrieBuilderContainer, Mox::Dir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onEntry(Mox::Name const& name) override { owner()->handleNexthopConfigDir(name); }
};

class TrieBuilderContainer::MoxNexthopConfig
    : public Mox::Reactor<TrieBuilderContainer, Routing::NexthopConfig::NotifieeConst> {
public:
   MoxNexthopConfig(TrieBuilderContainer* sm, Mox::Name name)
       : Reactor(sm, sm), name_(std::move(name)) {}
   void onVrf(L3::VrfName const& vrf) override {
      if (vrf == owner()->vrfName()) owner()->handleNexthopResolverClient(name_);
   }

private:
   Mox::Name const name_;
};

TrieBuilderContainer::TrieBuilderContainer(L3::VrfName vrfName, Inputs inputs)
    : vrfName_(std::move(vrfName)), inputs_(std::move(inputs)) {
   MOX_TRACE_FN(th, " vrf " << vrfName_);
   moxContainerConfig_ = Mox::make<MoxContainerConfig>(this);
   moxContainerConfig_->notifierIs(inputs_.containerConfig);
   moxNexthopConfigDir_ = Mox::make<MoxNexthopConfigDir>(this);
   moxNexthopConfigDir_->notifierIs(inputs_.nexthopConfigDir);
   handleInitialized();
}

TrieBuilderContainer::~TrieBuilderContainer() { moxDoZombieReactors(true); }

Mox::Ptr<TrieBuilderContainer> trieBuilderContainerFactory(L3::VrfName vrfName,
                                                           TrieBuilderContainer::Inputs inputs) {
   return Mox::make<TrieBuilderContainer>(std::move(vrfName), std::move(inputs));
}

void TrieBuilderContainer::nexthopConfigPtrIs(
    Mox::Ptr<Routing::NexthopConfig const> const& config) {
   Mox::requireNonNull(config, "_nexthopConfig", "Veld::TrieBuilderContainer::nexthopConfig");
   auto* r = nexthopConfig_.find(config->name());
   if (!r) {
      auto fresh = Mox::make<MoxNexthopConfig>(this, config->name());
      r = nexthopConfig_.emplace(config->name(), fresh).first;
   }
   (*r)->notifierIs(config);
   handleNexthopResolverClient(config->name());
}

void TrieBuilderContainer::nexthopConfigPtrDel(Mox::Name const& name) {
   nexthopConfig_.erase(name);
   handleNexthopResolverClient(name);
}

void TrieBuilderContainer::nexthopConfigPtrDelAll() {
   for (auto const& name : nexthopConfig_.keys())
      nexthopConfigPtrDel(name);
}

void TrieBuilderContainer::vrfClientIs(Mox::Name const& name) {
   if (vrfClient_.insert(name)) handleInput();
}

void TrieBuilderContainer::vrfClientDel(Mox::Name const& name) {
   if (vrfClient_.erase(name)) handleInput();
}

void TrieBuilderContainer::vrfClientDelAll() {
   for (auto const& name : vrfClient_.keys())
      vrfClientDel(name);
}

void TrieBuilderContainer::handleInitialized() {
   MOX_TRACE_FN(th, " vrf " << vrfName_);
   if (initialized()) return;
   initializedSet(true);
   if (auto const& dir = inputs_.nexthopConfigDir) {
      for (auto const& name : dir->entryIteratorConst().keys())
         handleNexthopConfigDir(name);
   }
   handleInput();
}

void TrieBuilderContainer::handleInput() {
   bool const standby = inputs_.containerConfig && inputs_.containerConfig->standbyMode();
   MOX_TRACE_FN(th, "handleInput"
                        << " standbyMode: " << standby << ", vrfClients: " << vrfClient_.size());
   if (!initialized()) return;
   auto const& status = inputs_.containerStatus;
   if (standby || vrfClient_.empty()) {
      if (!trie4Builder_ && !trie6Builder_ && !status->trie4() && !status->trie6()) return;
      MOX_TRACE(th, 5, " trie builders disabled");
      status->enabledIs(false);
      trie4Builder_ = nullptr;
      status->trie4Del();
      trie6Builder_ = nullptr;
      status->trie6Del();
      return;
   }
   if (trie4Builder_ && trie6Builder_) return;
   MOX_TRACE(th, 5, " trie builders enabled");
   auto t4 = status->trie4Is(Mox::Name("fib4-" + std::string(vrfName_.name())),
                             Konet::AddressFamily::ipv4);
   auto t6 = status->trie6Is(Mox::Name("fib6-" + std::string(vrfName_.name())),
                             Konet::AddressFamily::ipv6);
   trie4Builder_ =
       Mox::make<Routing::TrieGenBuilder>(inputs_.routeStatus4, inputs_.routeStatus6, t4);
   trie6Builder_ =
       Mox::make<Routing::TrieGenBuilder>(inputs_.routeStatus4, inputs_.routeStatus6, t6);
   status->enabledIs(true);
}

void TrieBuilderContainer::handleNexthopConfigDir(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   auto const& dir = inputs_.nexthopConfigDir;
   auto config = dir ? dir->entry<Routing::NexthopConfig const>(name) : nullptr;
   if (config) {
      MOX_TRACE(th, 7, " add nexthop config ptr for client " << name);
      nexthopConfigPtrIs(config);
   } else {
      MOX_TRACE(th, 7, " remove nexthop config ptr for client " << name);
      nexthopConfigPtrDel(name);
   }
}

void TrieBuilderContainer::handleNexthopResolverClient(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   if (!initialized()) return;
   auto const* r = nexthopConfig_.find(name);
   auto config = r ? (*r)->notifier() : nullptr;
   if (config && config->vrf(vrfName_)) {
      MOX_TRACE(th, 7, " add vrfClient " << name);
      vrfClientIs(name);
   } else {
      MOX_TRACE(th, 7, " remove vrfClient " << name);
      vrfClientDel(name);
   }
}

}  // namespace Veld
