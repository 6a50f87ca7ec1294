#include "veld/ipv6/Ip6EnableSm.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldIp6Enable");
}  // namespace

void Ip6EnableSm::MoxIp6EnableDir::onEntry(Mox::Name const& name) {
   owner()->handleIp6EnableDir(Mox::String(name.string()));
}

Ip6EnableSm::Ip6EnableSm(Mox::Ptr<Mox::Dir const> ip6EnableDir,
                         Mox::Ptr<Ip6::Ip6Enable> ip6EnableOverride)
    : ip6EnableDir_(std::move(ip6EnableDir)), ip6EnableOverride_(std::move(ip6EnableOverride)) {
   MOX_TRACE_FN0(th);
   MOX_ASSERT(ip6EnableOverride_);
   moxIp6EnableDir_ = Mox::make<MoxIp6EnableDir>(this);
   moxIp6EnableDir_->notifierIs(ip6EnableDir_);
   handleInitialized();
}

Ip6EnableSm::~Ip6EnableSm() {
   appIp6EnableSmDelAll();
   moxDoZombieReactors(true);
}

void Ip6EnableSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   handleIp6EnableDir();
   initializedSet(true);
}

void Ip6EnableSm::handleIp6EnableDir() {
   MOX_TRACE_FN0(th);
   if (!ip6EnableDir_) return;
   for (auto const& name : ip6EnableDir_->entryIteratorConst().keys())
      handleIp6EnableDir(Mox::String(name.string()));
}

void Ip6EnableSm::handleIp6EnableDir(Mox::String const& name) {
   MOX_TRACE_FN(th, " for " << name);
   auto entry =
       ip6EnableDir_ ? ip6EnableDir_->entry<Ip6::Ip6Enable>(Mox::Name(name.view())) : nullptr;
   if (entry) {
      MOX_TRACE(th, 7, "check and create ip6EnableSm");
      auto existing = appIp6EnableSm(name);
      if (existing && existing->ip6Enable() == entry) {
         MOX_TRACE(th, 7, "ip6EnableSm already exists");
         return;
      }
      // An entry replaced under the same name is another application's entity: its
      // machine starts afresh.
      if (existing) appIp6EnableSmDel(name);
      MOX_TRACE(th, 7, "create Ip6EnableSm");
      appIp6EnableSmIs(name, entry);
      return;
   }
   MOX_TRACE(th, 7, "Delete Ip6EnableSm");
   appIp6EnableSmDel(name);
}

Mox::Ptr<AppIp6EnableSm> Ip6EnableSm::appIp6EnableSmIs(
    Mox::String const& name, Mox::Ptr<Ip6::Ip6Enable const> const& ip6Enable) {
   MOX_TRACE_FN(th, name);
   if (auto existing = appIp6EnableSm(name)) {
      Mox::checkCtorParam("_ip6Enable", existing->ip6Enable(), ip6Enable);
      return existing;
   }
   auto sm = Mox::make<AppIp6EnableSm>(name, ip6Enable, this);
   appIp6EnableSm_.assign(name, sm);
   return sm;
}

void Ip6EnableSm::appIp6EnableSmDel(Mox::String const& name) {
   MOX_TRACE_FN(th, name);
   auto sm = appIp6EnableSm(name);
   if (!sm) return;
   appIp6EnableSm_.erase(name);
   sm->moxDoZombieReactors(true);
}

void Ip6EnableSm::appIp6EnableSmDelAll() {
   MOX_TRACE_FN0(th);
   for (auto const& name : appIp6EnableSm_.keys())
      appIp6EnableSmDel(name);
}

bool Ip6EnableSm::isAnyIp6Enabled(Konet::IntfId const& intf) const {
   if (!ip6EnableDir_) return false;
   for (auto const& [name, entity] : ip6EnableDir_->entryIteratorConst()) {
      auto app = Mox::ptrDynamicCast<Ip6::Ip6Enable const>(entity);
      if (app && app->enable(intf)) return true;
   }
   return false;
}

Mox::Ptr<Ip6EnableSm> Ip6EnableSmIs(Mox::Ptr<Mox::Dir const> const& ip6EnableDir,
                                    Mox::Ptr<Ip6::Ip6Enable> const& ip6EnableOverride) {
   auto sm = Mox::make<Ip6EnableSm>(ip6EnableDir, ip6EnableOverride);
   sm->hasNotificationActiveIs(true);
   return sm;
}

}  // namespace Veld
