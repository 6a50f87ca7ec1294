#include "platform/NetNsIntfStatusManagerRoot.h"

namespace Interface {

class NetNsIntfStatusManagerRoot::MoxAllIntfStatusDir
    : public Mox::Reactor<NetNsIntfStatusManagerRoot, AllIntfStatusDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIntfStatus(Konet::IntfId const& id) override { owner()->handleIntf(id); }
};

class NetNsIntfStatusManagerRoot::MoxAllIntfStatusLocalDir
    : public Mox::Reactor<NetNsIntfStatusManagerRoot, AllIntfStatusLocalDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIntfStatus(Konet::IntfId const& id) override { owner()->handleIntf(id); }
};

class NetNsIntfStatusManagerRoot::MoxIntfStatus
    : public Mox::Reactor<NetNsIntfStatusManagerRoot, IntfStatus::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onDeviceName() override { owner()->handleIntf(notifierRaw()->intfId()); }
   void onNetNsName() override { owner()->handleIntf(notifierRaw()->intfId()); }
};

NetNsIntfStatusManagerRoot::NetNsIntfStatusManagerRoot(
    Mox::Ptr<AllIntfStatusDir const> allIntfStatusDir,
    Mox::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir, bool includeLocal)
    : allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      includeLocal_(includeLocal) {
   if (allIntfStatusDir_) {
      moxAllIntfStatusDir_ = Mox::make<MoxAllIntfStatusDir>(this);
      moxAllIntfStatusDir_->notifierIs(allIntfStatusDir_);
   }
   if (allIntfStatusLocalDir_ && includeLocal_) {
      moxAllIntfStatusLocalDir_ = Mox::make<MoxAllIntfStatusLocalDir>(this);
      moxAllIntfStatusLocalDir_->notifierIs(allIntfStatusLocalDir_);
   }
   handleInitialized();
}

NetNsIntfStatusManagerRoot::~NetNsIntfStatusManagerRoot() { moxDoZombieReactors(true); }

void NetNsIntfStatusManagerRoot::handleInitialized() {
   if (initialized()) return;
   if (allIntfStatusDir_) {
      for (auto const& id : allIntfStatusDir_->intfStatusIterator().keys())
         handleIntf(id);
   }
   if (allIntfStatusLocalDir_ && includeLocal_) {
      for (auto const& id : allIntfStatusLocalDir_->intfStatusIterator().keys())
         handleIntf(id);
   }
   initializedSet(true);
}

Konet::NamespaceName NetNsIntfStatusManagerRoot::normalized(Konet::NamespaceName const& ns) {
   return ns.isDefault() ? Konet::NamespaceName::defaultNamespace() : ns;
}

Mox::Ptr<IntfStatus const> NetNsIntfStatusManagerRoot::statusOf(Konet::IntfId const& id) const {
   if (allIntfStatusDir_) {
      if (auto s = allIntfStatusDir_->intfStatus(id)) return s;
   }
   if (allIntfStatusLocalDir_ && includeLocal_) return allIntfStatusLocalDir_->intfStatus(id);
   return nullptr;
}

void NetNsIntfStatusManagerRoot::handleIntf(Konet::IntfId const& id) {
   auto status = statusOf(id);
   if (status) {
      auto* r = moxIntfStatus_.find(id);
      if (!r || (*r)->notifierRaw() != status.ptr()) {
         auto reactor = Mox::make<MoxIntfStatus>(this);
         reactor->notifierIs(status);
         moxIntfStatus_.assign(id, reactor);
      }
   } else {
      moxIntfStatus_.erase(id);
   }
   Placement const* old = placement_.find(id);
   if (!status || status->deviceName().empty()) {
      if (old) unplace(id, *old);
      return;
   }
   Placement now{normalized(status->netNsName()), status->deviceName()};
   if (old && *old == now) return;
   if (old) unplace(id, *old);
   place(id, now, status);
}

void NetNsIntfStatusManagerRoot::place(Konet::IntfId const& id, Placement const& p,
                                       Mox::Ptr<IntfStatus const> const& s) {
   placement_.assign(id, p);
   if (auto* mgr = intfStatusManager_.find(p.ns)) {
      (*mgr)->deviceIntfStatusDir()->intfStatusIs(s);
      (*mgr)->deviceIntfIs(p.deviceName, id);
   }
}

void NetNsIntfStatusManagerRoot::unplace(Konet::IntfId const& id, Placement const& p) {
   Placement gone = p;  // `p` lives in placement_
   placement_.erase(id);
   if (auto* mgr = intfStatusManager_.find(gone.ns)) {
      (*mgr)->deviceIntfStatusDir()->intfStatusDel(id);
      if ((*mgr)->deviceIntf(gone.deviceName) == id) (*mgr)->deviceIntfDel(gone.deviceName);
   }
}

Mox::Ptr<KniIntfStatusManager> NetNsIntfStatusManagerRoot::intfStatusManagerIs(
    Konet::NamespaceName const& nsIn, Mox::Ptr<DeviceIntfStatusDir> dir) {
   auto ns = normalized(nsIn);
   if (auto* mgr = intfStatusManager_.find(ns)) return *mgr;
   if (!dir) dir = Mox::make<DeviceIntfStatusDir>(ns);
   auto mgr = Mox::make<KniIntfStatusManager>(ns, dir);
   intfStatusManager_.emplace(ns, mgr);
   for (auto const& [id, p] : placement_) {
      if (p.ns != ns) continue;
      if (auto s = statusOf(id)) {
         dir->intfStatusIs(s);
         mgr->deviceIntfIs(p.deviceName, id);
      }
   }
   return mgr;
}

Mox::Ptr<KniIntfStatusManager> NetNsIntfStatusManagerRoot::intfStatusManager(
    Konet::NamespaceName const& ns) const {
   return Mox::valueOr(intfStatusManager_, normalized(ns));
}

void NetNsIntfStatusManagerRoot::intfStatusManagerDel(Konet::NamespaceName const& ns) {
   intfStatusManager_.erase(normalized(ns));
}

}  // namespace Interface
