#include "veld/nexthop/NexthopResolverSm.h"

#include "mox/Error.h"
#include "mox/Trace.h"

namespace Routing {

namespace {
Mox::TraceHandle th("VeldNexthopResolver");
}

class NexthopResolverSm::MoxNexthopVrfConfig
    : public Mox::Reactor<NexthopResolverSm, NexthopVrfConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onNexthop(Konet::IpGenAddr const& addr) override { owner()->handleNexthopConfig(addr); }
};

class NexthopResolverSm::MoxContainerStatus
    : public Mox::Reactor<NexthopResolverSm, Veld::TrieBuilderContainerStatus::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onTrie4() override { owner()->handleTrie(Konet::AddressFamily::ipv4); }
   void onTrie6() override { owner()->handleTrie(Konet::AddressFamily::ipv6); }
};

class NexthopResolverSm::MoxTrie : public Mox::Reactor<NexthopResolverSm, TrieGen::NotifieeConst> {
public:
   MoxTrie(NexthopResolverSm* sm, Konet::AddressFamily af) : Reactor(sm, sm), af_(af) {}
   void onChangedRoute(GenPrefix const& p) override {
      if (af_ == Konet::AddressFamily::ipv4) {
         owner()->handle4ChangedRoute(p);
      } else {
         owner()->handle6ChangedRoute(p);
      }
   }

private:
   Konet::AddressFamily const af_;
};

class NexthopResolverSm::MoxRouting4
    : public Mox::Reactor<NexthopResolverSm, InfoConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onRouting() override { owner()->handleRouting4(); }
};

class NexthopResolverSm::MoxRouting6
    : public Mox::Reactor<NexthopResolverSm, Routing6::InfoConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onRouting() override { owner()->handleRouting6(); }
};

class NexthopResolverSm::MoxReviewNexthopTask
    : public Mox::Reactor<NexthopResolverSm, Bolt::Task::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onRun() override { owner()->handleNexthopReview(); }
};

// Puts each nexthop it visits up for review.
class NexthopResolverSm::NexthopTrieCallback : public NexthopTrieWalker {
public:
   explicit NexthopTrieCallback(NexthopResolverSm* sm) : sm_(sm) {}
   void handlePrefix(Konet::IpGenAddr const& addr) override {
      MOX_TRACE(th, 7, " add nexthop to review: " << addr);
      sm_->reviewNexthopIs(addr);
      countInc();
   }
   void countInc() { ++count_; }
   size_t count() const { return count_; }

private:
   NexthopResolverSm* sm_;
   size_t count_ = 0;
};

// Deletes the status of each nexthop it visits, at once.
class NexthopResolverSm::RemoveStatusCallback : public NexthopTrieWalker {
public:
   explicit RemoveStatusCallback(NexthopResolverSm* sm) : sm_(sm) {}
   void handlePrefix(Konet::IpGenAddr const& addr) override {
      MOX_TRACE(th, 7, " remove hop from status " << addr);
      sm_->inputs().nexthopVrfStatus->nexthopDel(addr);
      countInc();
   }
   void countInc() { ++count_; }
   size_t count() const { return count_; }

private:
   NexthopResolverSm* sm_;
   size_t count_ = 0;
};

NexthopResolverSm::NexthopResolverSm(L3::VrfName vrfName, Mox::Name name, Inputs inputs)
    : vrfName_(std::move(vrfName)), name_(std::move(name)), inputs_(std::move(inputs)) {
   MOX_TRACE_FN(th, " vrf " << vrfName_ << " name " << name_);
   MOX_ASSERT(inputs_.nexthopVrfStatus);
   MOX_ASSERT(inputs_.scheduler);
   moxNexthopVrfConfig_ = Mox::make<MoxNexthopVrfConfig>(this);
   moxNexthopVrfConfig_->notifierIs(inputs_.nexthopVrfConfig);
   moxContainerStatus_ = Mox::make<MoxContainerStatus>(this);
   moxContainerStatus_->notifierIs(inputs_.containerStatus);
   moxTrie4_ = Mox::make<MoxTrie>(this, Konet::AddressFamily::ipv4);
   moxTrie6_ = Mox::make<MoxTrie>(this, Konet::AddressFamily::ipv6);
   moxRouting4_ = Mox::make<MoxRouting4>(this);
   moxRouting4_->notifierIs(inputs_.routingInfoConfig);
   moxRouting6_ = Mox::make<MoxRouting6>(this);
   moxRouting6_->notifierIs(inputs_.routing6InfoConfig);
   handleInitialized();
}

NexthopResolverSm::~NexthopResolverSm() {
   moxDoZombieReactors(true);
   if (reviewNexthopTask_) reviewNexthopTask_->unscheduleTask();
   // The marks this client holds go with it.
   for (auto const& [addr, prefix] : matched_) {
      if (auto const& t = addr.isV4() ? trie4_ : trie6_) t->routeDel(prefix);
   }
}

Mox::Ptr<NexthopResolverSm> nexthopResolverSmFactory(L3::VrfName vrfName, Mox::Name name,
                                                     NexthopResolverSm::Inputs inputs) {
   return Mox::make<NexthopResolverSm>(std::move(vrfName), std::move(name), std::move(inputs));
}

Mox::Ptr<TrieGen> NexthopResolverSm::fibTrie(Konet::AddressFamily af) const {
   if (af == Konet::AddressFamily::ipv4) return trie4_;
   if (af == Konet::AddressFamily::ipv6) return trie6_;
   Cinder::debugAndThrowAssertException("invalid address family", __FILE__, __LINE__,
                                        __PRETTY_FUNCTION__);
}

bool NexthopResolverSm::routingEnabled(Konet::AddressFamily af) const {
   if (af == Konet::AddressFamily::ipv4)
      return inputs_.routingInfoConfig && inputs_.routingInfoConfig->routing();
   return inputs_.routing6InfoConfig && inputs_.routing6InfoConfig->routing();
}

bool NexthopResolverSm::isIgnoredRoute(GenPrefix const& prefix) const {
   if (prefix.len == 0) return false;
   if (prefix == GenPrefix::host(prefix.network) && inputs_.nexthopVrfConfig &&
       inputs_.nexthopVrfConfig->nexthop(prefix.network) != NexthopConfigEntry{}) {
      return false;
   }
   auto trie = fibTrie(prefix.af());
   if (!trie) return true;
   return trie->routeMarks(prefix) == 0 && !trie->hasRoute(prefix);
}

void NexthopResolverSm::reviewNexthopIs(Konet::IpGenAddr const& addr) {
   if (reviewNexthop_.insert(addr)) reviewQueue_.push_back(addr);
}

void NexthopResolverSm::scheduleReview() {
   if (reviewNexthopTask_ && !reviewNexthop_.empty()) reviewNexthopTask_->scheduleTask();
}

void NexthopResolverSm::handleInitialized() {
   MOX_TRACE_FN(th, " vrf " << vrfName_ << " name " << name_);
   if (initialized()) return;
   auto taskName = "NexthopReview-" + vrfName_.name() + "-" + std::string(name_.charPtr());
   reviewGroup_ = Mox::make<Bolt::TaskGroup>(Mox::Name(taskName), kReviewTaskPriority);
   reviewNexthopTask_ = Mox::make<Bolt::Task>(inputs_.scheduler, Mox::Name(taskName), reviewGroup_);
   moxReviewNexthopTask_ = Mox::make<MoxReviewNexthopTask>(this);
   moxReviewNexthopTask_->notifierIs(reviewNexthopTask_);
   if (auto const& config = inputs_.nexthopVrfConfig) {
      for (auto const& addr : config->nexthopIterator().keys()) {
         nexthopTrieOf(addr.af()).nexthopIs(addr);
         reviewNexthopIs(addr);
      }
   }
   initializedSet(true);
   handleTrie(Konet::AddressFamily::ipv4);
   handleTrie(Konet::AddressFamily::ipv6);
   scheduleReview();
}

void NexthopResolverSm::handleNexthopConfig(Konet::IpGenAddr const& addr) {
   MOX_TRACE_FN(th, addr);
   if (!addr.isV4() && !addr.isV6()) return;
   auto& trie = nexthopTrieOf(addr.af());
   if (inputs_.nexthopVrfConfig &&
       inputs_.nexthopVrfConfig->nexthop(addr) != NexthopConfigEntry{}) {
      trie.nexthopIs(addr);
   } else {
      trie.nexthopDel(addr);
   }
   reviewNexthopIs(addr);
   scheduleReview();
}

void NexthopResolverSm::handleTrie(Konet::AddressFamily af) {
   MOX_TRACE_FN(th, af);
   if (!initialized()) return;
   auto const& status = inputs_.containerStatus;
   Mox::Ptr<TrieGen> now;
   if (status) now = af == Konet::AddressFamily::ipv4 ? status->trie4() : status->trie6();
   auto& mine = af == Konet::AddressFamily::ipv4 ? trie4_ : trie6_;
   if (now == mine) return;
   // The marks were in the old trie; the new one starts clean.
   for (auto const& addr : matched_.keys()) {
      if (addr.af() != af) continue;
      if (mine) mine->routeDel(*matched_.find(addr));
      matched_.erase(addr);
   }
   mine = now;
   (af == Konet::AddressFamily::ipv4 ? moxTrie4_ : moxTrie6_)->notifierIs(now);
   if (!now) {
      // No trie, no resolution: the family's status goes now.
      RemoveStatusCallback cb(this);
      nexthopTrieOf(af).walkAll(cb);
      MOX_TRACE(th, 5, " trie removed, affected " << cb.count() << " entries");
      return;
   }
   // Every nexthop is reviewed against the new trie; when all of them wait for review
   // already (the first pass), walking would add nothing.
   if (reviewNexthop_.size() < nexthopTrie4_.size() + nexthopTrie6_.size()) {
      NexthopTrieCallback cb(this);
      nexthopTrieOf(af).walkAll(cb);
      MOX_TRACE(th, 5, " trie created, affected " << cb.count() << " entries");
   }
   scheduleReview();
}

void NexthopResolverSm::handleNexthopReview() {
   MOX_TRACE_FN0(th);
   if (!initialized()) return;
   auto& task = *reviewNexthopTask_;
   uint32_t count = 0;
   while (!reviewNexthop_.empty()) {
      auto addr = reviewQueue_.front();
      reviewQueue_.pop_front();
      reviewNexthop_.erase(addr);
      processNexthop(addr);
      task.taskWorkCountInc();
      ++count;
      if (!reviewNexthop_.empty() && task.taskShouldYield()) {
         MOX_TRACE(th, 7, " yield after processing " << count);
         task.scheduleTask();
         return;
      }
   }
   MOX_TRACE(th, 7, " finished processing " << count);
}

void NexthopResolverSm::markIs(Konet::IpGenAddr const& addr, std::optional<GenPrefix> const& match,
                               TrieGen* trie) {
   auto const* old = matched_.find(addr);
   if (old && match && *old == *match) return;
   if (old) {
      if (trie) trie->routeDel(*old);
      matched_.erase(addr);
   }
   if (match && trie) {
      trie->routeIs(*match, 1);
      matched_.emplace(addr, *match);
   }
}

void NexthopResolverSm::processNexthop(Konet::IpGenAddr const& addr) {
   MOX_TRACE_FN(th, "processNexthop " << addr);
   auto trie = fibTrie(addr.af());
   auto const entry =
       inputs_.nexthopVrfConfig ? inputs_.nexthopVrfConfig->nexthop(addr) : NexthopConfigEntry{};
   if (entry == NexthopConfigEntry{}) {
      MOX_TRACE(th, 7, " remove nexthopVrfStatusEntry for addr " << addr);
      inputs_.nexthopVrfStatus->nexthopDel(addr);
      markIs(addr, std::nullopt, trie.ptr());
      return;
   }
   MOX_TRACE(th, 7, " add nexthopVrfStatusEntry for addr " << addr);
   std::optional<GenPrefix> match;
   if (trie) match = trie->longestMatch(addr);
   markIs(addr, match, trie.ptr());
   updateNexthopStatus(addr, match, trie.ptr());
}

void NexthopResolverSm::updateNexthopStatus(Konet::IpGenAddr const& addr,
                                            std::optional<GenPrefix> const& match,
                                            TrieGen const* trie) {
   auto const& status = inputs_.nexthopVrfStatus;
   if (!routingEnabled(addr.af())) {
      MOX_TRACE(th, 7, " remove status for addr " << addr << " (routing is disabled)");
      status->nexthopDel(addr);
      return;
   }
   if (!match || !trie) {
      MOX_TRACE(th, 7,
                " remove status for addr " << addr << " (no route for prefix "
                                           << GenPrefix::host(addr) << ")");
      status->nexthopDel(addr);
      return;
   }
   NexthopStatusEntry e{addr, *match, {}};
   if (auto const* route = trie->route(*match)) e.vias = route->vias;
   MOX_TRACE(th, 7, " add / replace status " << e);
   status->nexthopIs(e);
}

void NexthopResolverSm::handle4ChangedRoute(GenPrefix const& prefix) {
   MOX_TRACE_FN(th, prefix);
   handleChangedRoute(prefix);
}

void NexthopResolverSm::handle6ChangedRoute(GenPrefix const& prefix) {
   MOX_TRACE_FN(th, prefix);
   handleChangedRoute(prefix);
}

void NexthopResolverSm::handleChangedRoute(GenPrefix const& prefix) {
   if (!initialized()) return;
   if (isIgnoredRoute(prefix)) {
      MOX_TRACE(th, 7, " prefix " << prefix << " (ignored)");
      return;
   }
   NexthopTrieCallback cb(this);
   nexthopTrieOf(prefix.af()).walk(prefix, cb);
   if (cb.count() == 0) {
      MOX_TRACE(th, 7, " prefix " << prefix << " ignored (no match)");
      return;
   }
   MOX_TRACE(th, 7, " prefix " << prefix << " affected " << cb.count() << " entries");
   scheduleReview();
}

void NexthopResolverSm::handleRouting4() {
   MOX_TRACE_FN(th, " IPv4 routing: " << routingEnabled(Konet::AddressFamily::ipv4));
   handleRouting(Konet::AddressFamily::ipv4);
}

void NexthopResolverSm::handleRouting6() {
   MOX_TRACE_FN(th, " IPv6 routing: " << routingEnabled(Konet::AddressFamily::ipv6));
   handleRouting(Konet::AddressFamily::ipv6);
}

void NexthopResolverSm::handleRouting(Konet::AddressFamily af) {
   if (!initialized()) return;
   if (routingEnabled(af)) {
      NexthopTrieCallback cb(this);
      nexthopTrieOf(af).walkAll(cb);
      MOX_TRACE(th, 5, " routing enabled, affected " << cb.count() << " entries");
      scheduleReview();
   } else {
      RemoveStatusCallback cb(this);
      nexthopTrieOf(af).walkAll(cb);
      MOX_TRACE(th, 5, " routing disabled, affected " << cb.count() << " entries");
   }
}

}  // namespace Routing
