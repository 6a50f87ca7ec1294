// Resolves one client's nexthops in one VRF against the VRF's FIB tries.
//
// Watches the client's nexthop configuration of the VRF (nexthop), the trie builder
// container status (trie4, trie6), each trie's changed routes, and IPv4/IPv6 routing of the
// VRF. Writes the client's nexthop status of the VRF: one entry per nexthop that a route
// covers, with the covering prefix and that route's ways out; and interest marks in the
// tries on the prefixes its nexthops resolve through.
//
// Each nexthop is resolved (status entry present), unresolved (no covering route) or
// unresolved because its family does not route or has no trie. Work is never done in a
// handler: handlers add addresses to the review set and schedule the review task
// ("NexthopReview-<vrf>-<name>", priority 2), which resolves them a bounded number at a
// time and schedules itself again when it yields.
//
// Which changed prefixes are ignored (isIgnoredRoute): a prefix that no nexthop resolves
// through (no interest mark) and that the trie no longer holds was withdrawn without
// touching any nexthop, since a nexthop under it resolved through a longer route. Any other
// change is walked, and so are /0 and the host prefix of a configured nexthop.
#pragma once

#include <deque>

#include "konet/VrfName.h"
#include "mox/Bolt.h"
#include "mox/HashMap.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Nexthop.h"
#include "platform/Routing.h"
#include "platform/TrieGen.h"
#include "veld/nexthop/TrieBuilderContainerStatus.h"

namespace Routing {

class NexthopResolverSm : public Mox::StateMachine {
public:
#define VELD_NEXTHOP_RESOLVER_SM_INPUTS(X)                              \
   X(Mox::Ptr<NexthopVrfConfig const>, nexthopVrfConfig)                \
   X(Mox::Ptr<Veld::TrieBuilderContainerStatus const>, containerStatus) \
   X(Mox::Ptr<InfoConfig const>, routingInfoConfig)                     \
   X(Mox::Ptr<Routing6::InfoConfig const>, routing6InfoConfig)          \
   X(Mox::Ptr<NexthopVrfStatus>, nexthopVrfStatus)                      \
   X(Mox::Ptr<Bolt::TaskScheduler>, scheduler)
   struct Inputs {
      MOX_INPUTS(VELD_NEXTHOP_RESOLVER_SM_INPUTS)
   };
   static constexpr int kReviewTaskPriority = 2;

   NexthopResolverSm(L3::VrfName vrfName, Mox::Name name, Inputs inputs);
   ~NexthopResolverSm() override;

   L3::VrfName const& vrfName() const { return vrfName_; }
   Mox::Name const& name() const { return name_; }
   Inputs const& inputs() const { return inputs_; }

   // The trie of a family (null while the container has none).
   Mox::Ptr<TrieGen> fibTrie(Konet::AddressFamily af) const;
   bool routingEnabled(Konet::AddressFamily af) const;
   bool isIgnoredRoute(GenPrefix const& prefix) const;

   void reviewNexthopIs(Konet::IpGenAddr const& addr);
   size_t reviewNexthops() const { return reviewNexthop_.size(); }
   Mox::Ptr<Bolt::Task> const& reviewNexthopTask() const { return reviewNexthopTask_; }
   // The prefix a nexthop holds its interest mark on, if any.
   GenPrefix const* matchedPrefix(Konet::IpGenAddr const& addr) const {
      return matched_.find(addr);
   }
   NexthopTrie const& nexthopTrie(Konet::AddressFamily af) const {
      return af == Konet::AddressFamily::ipv4 ? nexthopTrie4_ : nexthopTrie6_;
   }

   void handleInitialized();
   void handleNexthopConfig(Konet::IpGenAddr const& addr);
   void handleNexthopReview();
   void handle4ChangedRoute(GenPrefix const& prefix);
   void handle6ChangedRoute(GenPrefix const& prefix);
   void handleRouting4();
   void handleRouting6();
   void handleTrie(Konet::AddressFamily af);
   void processNexthop(Konet::IpGenAddr const& addr);

private:
   class MoxNexthopVrfConfig;
   class MoxContainerStatus;
   class MoxTrie;
   class MoxRouting4;
   class MoxRouting6;
   class MoxReviewNexthopTask;
   class NexthopTrieCallback;
   class RemoveStatusCallback;

   void handleChangedRoute(GenPrefix const& prefix);
   void handleRouting(Konet::AddressFamily af);
   void updateNexthopStatus(Konet::IpGenAddr const& addr, std::optional<GenPrefix> const& match,
                            TrieGen const* trie);
   void markIs(Konet::IpGenAddr const& addr, std::optional<GenPrefix> const& match, TrieGen* trie);
   void scheduleReview();
   NexthopTrie& nexthopTrieOf(Konet::AddressFamily af) {
      return af == Konet::AddressFamily::ipv4 ? nexthopTrie4_ : nexthopTrie6_;
   }

   L3::VrfName const vrfName_;
   Mox::Name const name_;
   Inputs const inputs_;
   Mox::Ptr<MoxNexthopVrfConfig> moxNexthopVrfConfig_;
   Mox::Ptr<MoxContainerStatus> moxContainerStatus_;
   Mox::Ptr<MoxTrie> moxTrie4_;
   Mox::Ptr<MoxTrie> moxTrie6_;
   Mox::Ptr<MoxRouting4> moxRouting4_;
   Mox::Ptr<MoxRouting6> moxRouting6_;
   Mox::Ptr<Bolt::TaskGroup> reviewGroup_;
   Mox::Ptr<Bolt::Task> reviewNexthopTask_;
   Mox::Ptr<MoxReviewNexthopTask> moxReviewNexthopTask_;
   // The tries this machine resolved against (marks live in them).
   Mox::Ptr<TrieGen> trie4_;
   Mox::Ptr<TrieGen> trie6_;
   NexthopTrie nexthopTrie4_;
   NexthopTrie nexthopTrie6_;
   // The review set, in the order of arrival.
   Mox::HashSet<Konet::IpGenAddr> reviewNexthop_;
   std::deque<Konet::IpGenAddr> reviewQueue_;
   Mox::HashMap<Konet::IpGenAddr, GenPrefix> matched_;
};

Mox::Ptr<NexthopResolverSm> nexthopResolverSmFactory(L3::VrfName vrfName, Mox::Name name,
                                                     NexthopResolverSm::Inputs inputs);

}  // namespace Routing
