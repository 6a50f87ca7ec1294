// L3 interface configuration and status: which VRF each interface belongs to, as configured
// and as published, and the status update requests of the L3 interface status.
#pragma once

#include <string>

#include "konet/IntfId.h"
#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"

namespace L3 {

namespace Intf {

class Config : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Config> {
   public:
      virtual void onVrf() {}
   };
   explicit Config(Konet::IntfId id) : intfId_(std::move(id)) {}
   Konet::IntfId const& intfId() const { return intfId_; }
   // The interface's VRF; the empty name while it is not set.
   VrfName const& vrf() const { return vrf_; }
   void vrfIs(VrfName const& v) { setAttr(vrf_, v, &NotifieeConst::onVrf); }

private:
   Konet::IntfId const intfId_;
   VrfName vrf_{""};
};

class ConfigDir : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntfConfig = 1;
   class NotifieeConst : public Mox::EntityNotifiee<ConfigDir> {
   public:
      virtual void onIntfConfig(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<Config>>;
   Mox::Ptr<Config> intfConfig(Konet::IntfId const& id) const { return Mox::valueOr(config_, id); }
   Mox::Ptr<Config> intfConfigIs(Konet::IntfId const& id) {
      return instantiateMember<Config>(config_, id, kIntfConfig, &NotifieeConst::onIntfConfig);
   }
   void intfConfigDel(Konet::IntfId const& id) {
      delMember(config_, id, &NotifieeConst::onIntfConfig);
   }
   Members const& intfConfigIterator() const { return config_; }

private:
   Members config_;
};

// The L3 status of one interface: the VRF it is in.
class Status : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onVrf() {}
   };
   explicit Status(Konet::IntfId id) : intfId_(std::move(id)) {}
   Konet::IntfId const& intfId() const { return intfId_; }
   VrfName const& vrf() const { return vrf_; }
   void vrfIs(VrfName const& v) { setAttr(vrf_, v, &NotifieeConst::onVrf); }

private:
   Konet::IntfId const intfId_;
   VrfName vrf_;
};

// A directory of L3 interface statuses. Kind 0 is a producer's input, kind 1 the merged one.
template <int Kind>
class StatusDirOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntfStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<StatusDirOf> {
   public:
      virtual void onIntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<Status>>;

   explicit StatusDirOf(Mox::Name name = Mox::Name()) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

   Mox::Ptr<Status> intfStatus(Konet::IntfId const& id) const { return Mox::valueOr(status_, id); }
   Mox::Ptr<Status> intfStatusIs(Konet::IntfId const& id) {
      return this->template instantiateMember<Status>(status_, id, kIntfStatus,
                                                      &NotifieeConst::onIntfStatus);
   }
   void intfStatusDel(Konet::IntfId const& id) {
      this->delMember(status_, id, &NotifieeConst::onIntfStatus);
   }
   void intfStatusDelAll() { this->delAllMembers(status_, &NotifieeConst::onIntfStatus); }
   Members const& intfStatusIterator() const { return status_; }
   size_t intfStatusSize() const { return status_.size(); }

private:
   Mox::Name name_;
   Members status_;
};

namespace Input {
using StatusDir = StatusDirOf<0>;
}
using StatusDir = StatusDirOf<1>;

// The named L3 status inputs of every producer.
class InputStatusDir : public Mox::Entity {
public:
   static constexpr Mox::AttrId kInputStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<InputStatusDir> {
   public:
      virtual void onInputStatus(Mox::Name const&) {}
   };
   using Members = Mox::HashMap<Mox::Name, Mox::Ptr<Input::StatusDir>>;
   Mox::Ptr<Input::StatusDir> inputStatus(Mox::Name const& n) const {
      return Mox::valueOr(input_, n);
   }
   Mox::Ptr<Input::StatusDir> inputStatusIs(Mox::Name const& n) {
      return instantiateMember<Input::StatusDir>(input_, n, kInputStatus,
                                                 &NotifieeConst::onInputStatus);
   }
   void inputStatusDel(Mox::Name const& n) { delMember(input_, n, &NotifieeConst::onInputStatus); }
   Members const& inputStatusIterator() const { return input_; }

private:
   Members input_;
};

}  // namespace Intf

// Requests about the L3 status of interfaces, one per interface. A family's machine posts
// the VRF it puts an interface in (UpdateIpIntfStatusVrfRequests, one collection per family);
// a refresh request asks a family's machine to recompute the interface's status
// (UpdateIpIntfStatusRequests: a number that grows with each request).
template <class Value>
class UpdateRequestsOf : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<UpdateRequestsOf> {
   public:
      virtual void onRequest(Konet::IntfId const&) {}
   };
   using Requests = Mox::HashMap<Konet::IntfId, Value>;
   Value request(Konet::IntfId const& id) const { return Mox::valueOr(request_, id); }
   bool requestHas(Konet::IntfId const& id) const { return request_.contains(id); }
   void requestIs(Konet::IntfId const& id, Value const& v) {
      this->setMember(request_, id, v, &NotifieeConst::onRequest);
   }
   void requestDel(Konet::IntfId const& id) {
      this->delMember(request_, id, &NotifieeConst::onRequest);
   }
   Requests const& requestIterator() const { return request_; }

private:
   Requests request_;
};
using UpdateIpIntfStatusVrfRequests = UpdateRequestsOf<VrfName>;
using UpdateIpIntfStatusRequests = UpdateRequestsOf<uint32_t>;

// The global L3 configuration (held by the VRF machines only).
class Config : public Mox::Entity {};

}  // namespace L3
