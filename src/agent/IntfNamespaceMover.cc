#include "agent/IntfNamespaceMover.h"

#include <algorithm>
#include <cstring>

#include "linux/NetNs.h"
#include "linux/NetlinkLink.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentMove");
constexpr double kRetryDelay = 1.0;
}  // namespace

class IntfNamespaceMover::MoxNamespaceConfigDir
    : public Interface::AllIntfNamespaceConfigDir::NotifieeConst {
public:
   explicit MoxNamespaceConfigDir(IntfNamespaceMover* o) : owner_(o) {}
   void onIntfNamespaceConfig(Konet::IntfId const& id) override {
      owner_->handleNamespaceConfig(id);
   }

private:
   IntfNamespaceMover* owner_;
};

class IntfNamespaceMover::MoxNamespaceConfig
    : public Interface::IntfNamespaceConfig::NotifieeConst {
public:
   MoxNamespaceConfig(IntfNamespaceMover* o, Konet::IntfId id) : owner_(o), id_(std::move(id)) {}
   void onNetNsName() override { owner_->schedule(id_); }

private:
   IntfNamespaceMover* owner_;
   Konet::IntfId id_;
};

class IntfNamespaceMover::MoxIntfStatusDir : public Interface::AllIntfStatusDir::NotifieeConst {
public:
   explicit MoxIntfStatusDir(IntfNamespaceMover* o) : owner_(o) {}
   void onIntfStatus(Konet::IntfId const& id) override { owner_->handleIntfStatus(id); }

private:
   IntfNamespaceMover* owner_;
};

class IntfNamespaceMover::MoxIntfStatus : public Interface::IntfStatus::NotifieeConst {
public:
   MoxIntfStatus(IntfNamespaceMover* o, Konet::IntfId id) : owner_(o), id_(std::move(id)) {}
   void onForwardingModel() override { owner_->schedule(id_); }
   void onDeviceName() override { owner_->handleDeviceState(id_); }
   void onNetNsName() override { owner_->handleDeviceState(id_); }
   void onOperUp() override { owner_->handleDeviceState(id_); }

private:
   IntfNamespaceMover* owner_;
   Konet::IntfId id_;
};

IntfNamespaceMover::IntfNamespaceMover(Entities& entities, KernelMirrors& mirrors)
    : e_(entities), mirrors_(mirrors), home_(Konet::getns()) {
   work_ = Mox::make<DeferredWork>(e_.scheduler, "IntfNamespaceMover", [this] { doMoves(); });
   settleBound_ =
       Mox::make<DeferredWork>(e_.scheduler, "IntfSettleBound", [this] { doSettleBound(); });
   nsConfigDir_ = Mox::make<MoxNamespaceConfigDir>(this);
   nsConfigDir_->notifierIs(e_.intfNamespaceConfig);
   statusDir_ = Mox::make<MoxIntfStatusDir>(this);
   statusDir_->notifierIs(e_.allIntfStatus);
   for (auto const& id : e_.intfNamespaceConfig->intfNamespaceConfigIterator().keys())
      handleNamespaceConfig(id);
   for (auto const& id : e_.allIntfStatus->intfStatusIterator().keys())
      handleIntfStatus(id);
}

IntfNamespaceMover::~IntfNamespaceMover() {
   for (auto* r : std::initializer_list<Mox::NotifieeBase*>{nsConfigDir_.ptr(), statusDir_.ptr()})
      r->moxDoZombieReactors(true);
   for (auto& [id, r] : nsConfig_)
      r->moxDoZombieReactors(true);
   for (auto& [id, r] : status_)
      r->moxDoZombieReactors(true);
}

void IntfNamespaceMover::handleNamespaceConfig(Konet::IntfId const& id) {
   if (auto c = e_.intfNamespaceConfig->intfNamespaceConfig(id)) {
      auto& r = nsConfig_[id];
      if (!r || r->notifierRaw() != c.ptr()) {
         r = Mox::make<MoxNamespaceConfig>(this, id);
         r->notifierIs(c);
      }
   } else {
      nsConfig_.erase(id);
   }
   schedule(id);
}

void IntfNamespaceMover::handleIntfStatus(Konet::IntfId const& id) {
   if (auto s = e_.allIntfStatus->intfStatus(id)) {
      auto& r = status_[id];
      if (!r || r->notifierRaw() != s.ptr()) {
         r = Mox::make<MoxIntfStatus>(this, id);
         r->notifierIs(s);
      }
   } else {
      status_.erase(id);
      settling_.erase(id);
   }
   schedule(id);
}

void IntfNamespaceMover::handleDeviceState(Konet::IntfId const& id) {
   settleOnCarrier(id);
   schedule(id);  // moved, appeared, or found down
}

void IntfNamespaceMover::schedule(Konet::IntfId const& id) {
   pending_.insert(id);
   work_->scheduleTask();
}

Konet::NamespaceName IntfNamespaceMover::desiredNs(Konet::IntfId const& id) const {
   auto c = e_.intfNamespaceConfig->intfNamespaceConfig(id);
   return c && !c->netNsName().isDefault() ? c->netNsName()
                                           : Konet::NamespaceName::defaultNamespace();
}

// A pass over the pending interfaces, in runs of the task's quantum: each move or bring-up
// is a few netlink requests, and a start may have a thousand of them.
void IntfNamespaceMover::doMoves() {
   MOX_TRACE_FN(th, " pending " << pending_.size());
   while (!pending_.empty()) {
      if (work_->taskShouldYield()) {
         work_->scheduleTask();
         return;
      }
      auto id = *pending_.begin();
      pending_.erase(pending_.begin());
      int rc = doMove(id);
      work_->taskWorkCountInc();
      if (rc && rc != EAGAIN) failed_.insert(id);
   }
   if (!failed_.empty()) {
      pending_.merge(failed_);
      failed_.clear();
      work_->scheduleTaskDelay(kRetryDelay);
   }
}

int IntfNamespaceMover::doMove(Konet::IntfId const& id) {
   auto status = e_.allIntfStatus->intfStatus(id);
   if (!status || status->deviceName().empty()) return EAGAIN;  // no device to move (yet)
   auto const& dev = status->deviceName();
   auto from = status->netNsName().isDefault() ? Konet::NamespaceName::defaultNamespace()
                                               : status->netNsName();
   auto to = desiredNs(id);
   if (from == to) return doBringUp(id, *status, to);
   int fromSock = mirrors_.requestSocket(from);
   int toSock = mirrors_.requestSocket(to);
   if (fromSock < 0 || toSock < 0) return EAGAIN;  // a namespace not served (yet)
   MOX_TRACE_FN(th, id << " device " << dev << " from " << from << " to " << to);
   int ifindex = 0;
   int rc = Konet::linkIndex(fromSock, dev, &ifindex);
   if (rc == ENODEV) return EAGAIN;  // gone already; the mirrors will tell where
   if (rc == 0) {
      rc = to.isDefault() ? Konet::moveLinkToNetNs(fromSock, ifindex, home_.get())
                          : Konet::moveLinkToNamedNetNs(fromSock, ifindex, to);
   }
   if (rc == 0) rc = Konet::linkIndex(toSock, dev, &ifindex);
   if (rc == 0) rc = Konet::setLinkUp(toSock, ifindex, true);
   if (rc) {
      Mox::logFailure("VELD-INTF-MOVE",
                      "cannot move device " + dev + " of interface " + id.name() + " from " +
                          from.name() + " to namespace " + to.name(),
                      rc);
      return rc;
   }
   ++moves_;
   settlingIs(id, dev, to);
   Mox::logMessage(
       Mox::LogSeverity::info, "VELD-INTF-MOVE",
       "interface " + id.name() + ": device " + dev + " moved to namespace " + to.name());
   return 0;
}

// A routed interface's device is up in its namespace, as a moved device is: the addresses
// go on a device once it is up. Unrouted devices (bridge ports) keep the state they have.
int IntfNamespaceMover::doBringUp(Konet::IntfId const& id, Interface::IntfStatus const& status,
                                  Konet::NamespaceName const& ns) {
   if (status.forwardingModel() != Interface::IntfForwardingModel::intfForwardingModelRouted) {
      return EAGAIN;
   }
   auto const* mirror = mirrors_.mirror(ns);
   int sock = mirrors_.requestSocket(ns);
   if (!mirror || sock < 0) return EAGAIN;
   auto const& dev = status.deviceName();
   auto rec = mirror->status()->interfaceByName(dev);
   if (rec == KernelNetInfo::Interface() || (rec.flags & KernelNetInfo::kIffUp)) return EAGAIN;
   MOX_TRACE_FN(th, id << " device " << dev << " in " << ns);
   int ifindex = 0;
   int rc = Konet::linkIndex(sock, dev, &ifindex);
   if (rc == ENODEV) return EAGAIN;  // gone meanwhile; the mirrors will tell
   if (rc == 0) rc = Konet::setLinkUp(sock, ifindex, true);
   if (rc) {
      Mox::logFailure("VELD-INTF-UP",
                      "cannot bring up device " + dev + " of interface " + id.name() +
                          " in namespace " + ns.name(),
                      rc);
      return rc;
   }
   ++bringUps_;
   settlingIs(id, dev, ns);
   Mox::logMessage(
       Mox::LogSeverity::info, "VELD-INTF-UP",
       "interface " + id.name() + ": device " + dev + " brought up in namespace " + ns.name());
   return 0;
}

void IntfNamespaceMover::settlingIs(Konet::IntfId const& id, std::string const& dev,
                                    Konet::NamespaceName const& ns) {
   // Every device settles within the same bound: the timer armed for the oldest one stays
   // armed, and doSettleBound() arms it for the next.
   if (settling_.empty()) settleBound_->scheduleTaskDelay(kSettleTime);
   settling_[id] = Settling{dev, ns, Mox::System::currentTime()};
   settleOnCarrier(id);
}

void IntfNamespaceMover::settleOnCarrier(Konet::IntfId const& id) {
   auto it = settling_.find(id);
   if (it == settling_.end()) return;
   auto status = e_.allIntfStatus->intfStatus(id);
   auto const& s = it->second;
   if (!status || !status->operUp() || status->deviceName() != s.device ||
       !(status->netNsName() == s.ns)) {
      return;
   }
   auto ms = static_cast<long>((Mox::System::currentTime() - s.since) * 1000.0);
   Mox::logMessage(Mox::LogSeverity::info, "VELD-INTF-UP",
                   "interface " + id.name() + ": device " + s.device +
                       " has its carrier in namespace " + s.ns.name() + ", " + std::to_string(ms) +
                       " ms after it was brought up");
   settling_.erase(it);
}

void IntfNamespaceMover::doSettleBound() {
   double now = Mox::System::currentTime();
   double next = Mox::kInfinity;
   for (auto it = settling_.begin(); it != settling_.end();) {
      auto const& [id, s] = *it;
      if (now < s.since + kSettleTime) {
         next = std::min(next, s.since + kSettleTime);
         ++it;
         continue;
      }
      Mox::logMessage(Mox::LogSeverity::info, "VELD-INTF-UP",
                      "interface " + id.name() + ": device " + s.device + " has no carrier " +
                          std::to_string(static_cast<int>(kSettleTime)) +
                          " s after it was brought up in namespace " + s.ns.name() +
                          "; it takes its addresses when the carrier comes");
      it = settling_.erase(it);
   }
   if (next != Mox::kInfinity) settleBound_->scheduleTaskDelay(next - now);
}

}  // namespace VeldAgent
