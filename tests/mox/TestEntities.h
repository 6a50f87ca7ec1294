// Small entities and a machine that exercise the framework the way the library's machines do.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"

namespace MoxTest {

class SubPort : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<SubPort> {
   public:
      virtual void onVlanId() {}
   };
   explicit SubPort(int key) : key_(key) {}
   int key() const { return key_; }
   int vlanId() const { return vlanId_; }
   void vlanIdIs(int v) { setAttr(vlanId_, v, &NotifieeConst::onVlanId); }

private:
   int const key_;
   int vlanId_ = 0;
};

class Port : public Mox::Entity {
public:
   static constexpr Mox::AttrId kSub = 4;
   class NotifieeConst : public Mox::EntityNotifiee<Port> {
   public:
      virtual void onSpeed() {}
      virtual void onDescription() {}
      virtual void onCounter(std::string const&) {}
      virtual void onVlan(int) {}
      virtual void onSub(int) {}
   };

   uint32_t speed() const { return speed_; }
   void speedIs(uint32_t v) { setAttr(speed_, v, &NotifieeConst::onSpeed); }
   std::string const& description() const { return description_; }
   void descriptionIs(std::string const& v) {
      setAttr(description_, v, &NotifieeConst::onDescription);
   }

   int counter(std::string const& k) const {
      auto const* v = counter_.find(k);
      return v ? *v : 0;
   }
   void counterIs(std::string const& k, int v) {
      setMember(counter_, k, v, &NotifieeConst::onCounter);
   }
   void counterDel(std::string const& k) { delMember(counter_, k, &NotifieeConst::onCounter); }
   Mox::HashMap<std::string, int> const& counterIterator() const { return counter_; }

   bool vlan(int v) const { return vlan_.contains(v); }
   void vlanIs(int v) { insertMember(vlan_, v, &NotifieeConst::onVlan); }
   void vlanDel(int v) { delMember(vlan_, v, &NotifieeConst::onVlan); }

   Mox::Ptr<SubPort> sub(int k) const {
      auto const* v = sub_.find(k);
      return v ? *v : nullptr;
   }
   Mox::Ptr<SubPort> subIs(int k) {
      if (auto* v = sub_.find(k)) return *v;
      auto s = Mox::make<SubPort>(k);
      adopt(s.ptr(), kSub);
      sub_.emplace(k, s);
      notify(&NotifieeConst::onSub, k);
      return s;
   }
   std::vector<int> subKeys() const { return sub_.keys(); }
   void subDel(int k) { delMember(sub_, k, &NotifieeConst::onSub); }
   void subDelAll() { delAllMembers(sub_, &NotifieeConst::onSub); }

private:
   uint32_t speed_ = 0;
   std::string description_;
   Mox::HashMap<std::string, int> counter_;
   Mox::HashSet<int> vlan_;
   Mox::HashMap<int, Mox::Ptr<SubPort>> sub_;
};

// A plain reactor recording what it sees, with a hook to act during delivery.
class Recorder : public Port::NotifieeConst {
public:
   explicit Recorder(std::string name) : name_(std::move(name)) {}
   void onSpeed() override { record("speed"); }
   void onDescription() override { record("description"); }
   void onCounter(std::string const& k) override { record("counter:" + k); }
   void onVlan(int v) override { record("vlan:" + std::to_string(v)); }
   void onSub(int k) override { record("sub:" + std::to_string(k)); }

   std::string name_;
   std::vector<std::string>* log = nullptr;
   std::vector<std::string> seen;
   std::function<void()> action;

private:
   void record(std::string const& what) {
      seen.push_back(what);
      if (log) log->push_back(name_ + " " + what);
      if (action) {
         auto a = action;  // the action may destroy this reactor
         a();
      }
   }
};

// A machine on a Port: one nested reactor for the port, one per sub-port.
class PortSm : public Mox::StateMachine {
public:
   class MoxPort : public Mox::Reactor<PortSm, Port::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onSpeed() override { owner()->handleSpeed(); }
      void onSub(int k) override { owner()->handleSub(k); }
   };
   class MoxSubPort : public Mox::Reactor<PortSm, SubPort::NotifieeConst> {
   public:
      MoxSubPort(PortSm* sm, int key) : Reactor(sm), key_(key) {}
      void onVlanId() override { owner()->handleVlanId(key_); }

   private:
      int key_;
   };

   PortSm(Mox::Ptr<Port const> port, bool standbyMode)
       : port_(std::move(port)), standbyMode_(standbyMode) {
      moxPort_ = Mox::make<MoxPort>(this);
      moxPort_->notifierIs(port_);
      handleInitialized();
   }

   Mox::Ptr<Port const> const& port() const { return port_; }
   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool v) { standbyMode_ = v; }

   void handleInitialized() {
      if (initialized()) return;
      handleSpeed();
      for (int k : port_->subKeys())
         handleSub(k);
      initializedSet(true);
   }
   void handleSpeed() { events.push_back("speed=" + std::to_string(port_->speed())); }
   void handleSub(int k) {
      if (auto s = port_->sub(k)) {
         auto r = Mox::make<MoxSubPort>(this, k);
         r->notifierIs(s);
         subReactor_[k] = r;
      } else {
         subReactor_.erase(k);
      }
      events.push_back("sub:" + std::to_string(k));
   }
   void handleVlanId(int k) {
      events.push_back("vlan:" + std::to_string(k) + "=" + std::to_string(port_->sub(k)->vlanId()));
      if (auto f = onVlan) f(k);  // a copy: the callback may delete this machine
   }
   size_t subReactors() const { return subReactor_.size(); }

   std::vector<std::string> events;
   std::function<void(int)> onVlan;

private:
   Mox::Ptr<Port const> port_;
   bool standbyMode_;
   Mox::Ptr<MoxPort> moxPort_;
   std::map<int, Mox::Ptr<MoxSubPort>> subReactor_;
};

// An owner with the create-or-update rule for its machine.
class Owner : public Mox::StateMachine {
public:
   Mox::Ptr<PortSm> portSmIs(Mox::Ptr<Port const> const& port, bool standbyMode) {
      if (portSm_) {
         Mox::checkCtorParam("_port", portSm_->port(), port);
         portSm_->standbyModeIs(standbyMode);
         return portSm_;
      }
      portSm_ = Mox::make<PortSm>(port, standbyMode);
      portSm_->hasNotificationActiveIs(true);
      return portSm_;
   }
   void portSmDel() {
      if (portSm_) portSm_->moxDoZombieReactors(true);
      portSm_ = nullptr;
   }
   Mox::Ptr<PortSm> const& portSm() const { return portSm_; }

private:
   Mox::Ptr<PortSm> portSm_;
};

}  // namespace MoxTest
