// Builds a VRF's FIB tries only while someone needs them.
//
// Watches the container configuration (standbyMode), the directory of nexthop-resolver
// client configurations and each client's VRF collection. Writes the container status:
// trie4, trie6 and enabled, and owns the two builders that keep the tries filled from the
// VRF's route tables.
//
// States: disabled (no tries, no builders) and enabled (both of each). It is enabled while
// not in standby and at least one client has nexthop configuration in this VRF (vrfClient
// not empty); handleInput() alone moves it. Each enabling builds the tries from scratch;
// disabling turns `enabled` false before the tries go.
#pragma once

#include "konet/VrfName.h"
#include "mox/Dir.h"
#include "mox/HashMap.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Fib.h"
#include "platform/Nexthop.h"
#include "platform/TrieGen.h"
#include "veld/nexthop/TrieBuilderContainerStatus.h"

namespace Veld {

class TrieBuilderContainer : public Mox::StateMachine {
public:
#define VELD_TRIE_BUILDER_CONTAINER_INPUTS(X)                     \
   X(Mox::Ptr<TrieBuilderContainerConfig const>, containerConfig) \
   X(Mox::Ptr<TrieBuilderContainerStatus>, containerStatus)       \
   X(Mox::Ptr<Routing::FibRouteTable const>, routeStatus4)        \
   X(Mox::Ptr<Routing::FibRouteTable const>, routeStatus6)        \
   X(Mox::Ptr<Mox::Dir const>, nexthopConfigDir)
   struct Inputs {
      MOX_INPUTS(VELD_TRIE_BUILDER_CONTAINER_INPUTS)
   };

   TrieBuilderContainer(L3::VrfName vrfName, Inputs inputs);
   ~TrieBuilderContainer() override;

   L3::VrfName const& vrfName() const { return vrfName_; }
   Inputs const& inputs() const { return inputs_; }

   // Client configurations followed, by client name.
   void nexthopConfigPtrIs(Mox::Ptr<Routing::NexthopConfig const> const& config);
   void nexthopConfigPtrDel(Mox::Name const& name);
   void nexthopConfigPtrDelAll();
   size_t nexthopConfigPtrs() const { return nexthopConfig_.size(); }

   Mox::HashSet<Mox::Name> const& vrfClient() const { return vrfClient_; }
   void vrfClientIs(Mox::Name const& name);
   void vrfClientDel(Mox::Name const& name);
   void vrfClientDelAll();

   Mox::Ptr<Routing::TrieGenBuilder> const& trie4Builder() const { return trie4Builder_; }
   Mox::Ptr<Routing::TrieGenBuilder> const& trie6Builder() const { return trie6Builder_; }

   void handleInitialized();
   void handleInput();
   void handleNexthopConfigDir(Mox::Name const& name);
   void handleNexthopResolverClient(Mox::Name const& name);

private:
   class MoxContainerConfig;
   class MoxNexthopConfigDir;
   class MoxNexthopConfig;

   L3::VrfName const vrfName_;
   Inputs const inputs_;
   Mox::Ptr<MoxContainerConfig> moxContainerConfig_;
   Mox::Ptr<MoxNexthopConfigDir> moxNexthopConfigDir_;
   Mox::HashMap<Mox::Name, Mox::Ptr<MoxNexthopConfig>> nexthopConfig_;
   Mox::HashSet<Mox::Name> vrfClient_;
   Mox::Ptr<Routing::TrieGenBuilder> trie4Builder_;
   Mox::Ptr<Routing::TrieGenBuilder> trie6Builder_;
};

Mox::Ptr<TrieBuilderContainer> trieBuilderContainerFactory(L3::VrfName vrfName,
                                                           TrieBuilderContainer::Inputs inputs);

}  // namespace Veld
