// The platform's interface entities: interface status (forwarding model, kernel device,
// namespace), the per-namespace device directories, and interface namespace configuration.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "konet/IntfId.h"
#include "konet/NamespaceName.h"
#include "mox/Entity.h"
#include "mox/Enum.h"
#include "mox/HashMap.h"

namespace Interface {

enum class IntfForwardingModel : uint8_t {
   intfForwardingModelUnknown = 0,
   intfForwardingModelBridged = 1,
   intfForwardingModelDiscarded = 2,
   intfForwardingModelLayer1Patch = 3,
   intfForwardingModelRecirculation = 4,
   intfForwardingModelRouted = 5,
};
constexpr auto moxEnumNames(IntfForwardingModel) {
   using M = IntfForwardingModel;
   return Mox::EnumNames<M, 6>{
       {{M::intfForwardingModelUnknown, "intfForwardingModelUnknown"},
        {M::intfForwardingModelBridged, "intfForwardingModelBridged"},
        {M::intfForwardingModelDiscarded, "intfForwardingModelDiscarded"},
        {M::intfForwardingModelLayer1Patch, "intfForwardingModelLayer1Patch"},
        {M::intfForwardingModelRecirculation, "intfForwardingModelRecirculation"},
        {M::intfForwardingModelRouted, "intfForwardingModelRouted"}}};
}
inline std::ostream& operator<<(std::ostream& os, IntfForwardingModel m) {
   return Mox::streamEnum(os, m);
}

using Eui64 = std::array<uint8_t, 8>;

// The status of one interface as the platform publishes it.
class IntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfStatus> {
   public:
      virtual void onForwardingModel() {}
      virtual void onDeviceName() {}
      virtual void onMtu() {}
      virtual void onEui64() {}
      virtual void onNetNsName() {}
      virtual void onOperUp() {}
   };

   explicit IntfStatus(Konet::IntfId intfId) : intfId_(std::move(intfId)) {}
   Konet::IntfId const& intfId() const { return intfId_; }

   IntfForwardingModel forwardingModel() const { return forwardingModel_; }
   void forwardingModelIs(IntfForwardingModel v) {
      setAttr(forwardingModel_, v, &NotifieeConst::onForwardingModel);
   }
   // The kernel device that carries the interface ("" while it has none).
   std::string const& deviceName() const { return deviceName_; }
   void deviceNameIs(std::string const& v) {
      setAttr(deviceName_, v, &NotifieeConst::onDeviceName);
   }
   uint32_t mtu() const { return mtu_; }
   void mtuIs(uint32_t v) { setAttr(mtu_, v, &NotifieeConst::onMtu); }
   // The interface's EUI-64 (from its MAC); all zero when unknown.
   Eui64 const& eui64() const { return eui64_; }
   void eui64Is(Eui64 const& v) { setAttr(eui64_, v, &NotifieeConst::onEui64); }
   // The namespace the device is in now.
   Konet::NamespaceName const& netNsName() const { return netNsName_; }
   void netNsNameIs(Konet::NamespaceName const& v) {
      setAttr(netNsName_, v, &NotifieeConst::onNetNsName);
   }
   bool operUp() const { return operUp_; }
   void operUpIs(bool v) { setAttr(operUp_, v, &NotifieeConst::onOperUp); }

private:
   Konet::IntfId const intfId_;
   IntfForwardingModel forwardingModel_ = IntfForwardingModel::intfForwardingModelUnknown;
   std::string deviceName_;
   uint32_t mtu_ = 0;
   Eui64 eui64_{};
   Konet::NamespaceName netNsName_ = Konet::NamespaceName::defaultNamespace();
   bool operUp_ = false;
};

// A directory of interface statuses by interface. Two kinds exist: the system's and the
// local interfaces' (Kind tells them apart as types).
template <int Kind>
class IntfStatusDirOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntfStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<IntfStatusDirOf> {
   public:
      virtual void onIntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus>>;

   Mox::Ptr<IntfStatus> intfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(intfStatus_, id);
   }
   Mox::Ptr<IntfStatus> intfStatusIs(Konet::IntfId const& id) {
      return this->template instantiateMember<IntfStatus>(intfStatus_, id, kIntfStatus,
                                                          &NotifieeConst::onIntfStatus);
   }
   void intfStatusDel(Konet::IntfId const& id) {
      this->delMember(intfStatus_, id, &NotifieeConst::onIntfStatus);
   }
   Members const& intfStatusIterator() const { return intfStatus_; }
   size_t intfStatusSize() const { return intfStatus_.size(); }

private:
   Members intfStatus_;
};
using AllIntfStatusDir = IntfStatusDirOf<0>;
using AllIntfStatusLocalDir = IntfStatusDirOf<1>;

// The interfaces whose devices are in one namespace, with their device names.
class DeviceIntfStatusDir : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<DeviceIntfStatusDir> {
   public:
      virtual void onIntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus const>>;

   explicit DeviceIntfStatusDir(Konet::NamespaceName ns) : nsName_(std::move(ns)) {}
   Konet::NamespaceName const& nsName() const { return nsName_; }

   Mox::Ptr<IntfStatus const> intfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(intfStatus_, id);
   }
   // The interface's status and its device name; (null, "") when the interface has no
   // device in this namespace.
   std::pair<Mox::Ptr<IntfStatus const>, std::string> intfStatusAndDeviceName(
       Konet::IntfId const& id) const;
   void intfStatusIs(Mox::Ptr<IntfStatus const> const& s) {
      setMember(intfStatus_, s->intfId(), s, &NotifieeConst::onIntfStatus);
   }
   void intfStatusDel(Konet::IntfId const& id) {
      delMember(intfStatus_, id, &NotifieeConst::onIntfStatus);
   }
   Members const& intfStatusIterator() const { return intfStatus_; }

private:
   Konet::NamespaceName const nsName_;
   Members intfStatus_;
};

// The kernel-interface status manager of one namespace: which interface each kernel device
// of the namespace carries.
class KniIntfStatusManager : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<KniIntfStatusManager> {
   public:
      virtual void onDeviceIntf(std::string const&) {}
   };
   KniIntfStatusManager(Konet::NamespaceName ns, Mox::Ptr<DeviceIntfStatusDir> dir)
       : nsName_(std::move(ns)), deviceIntfStatusDir_(std::move(dir)) {}

   Konet::NamespaceName const& nsName() const { return nsName_; }
   Mox::Ptr<DeviceIntfStatusDir> const& deviceIntfStatusDir() const { return deviceIntfStatusDir_; }
   // The interface a device of this namespace carries; the empty IntfId when unknown.
   Konet::IntfId deviceIntf(std::string const& deviceName) const {
      return Mox::valueOr(deviceIntf_, deviceName);
   }
   void deviceIntfIs(std::string const& deviceName, Konet::IntfId const& id) {
      setMember(deviceIntf_, deviceName, id, &NotifieeConst::onDeviceIntf);
   }
   void deviceIntfDel(std::string const& deviceName) {
      delMember(deviceIntf_, deviceName, &NotifieeConst::onDeviceIntf);
   }

private:
   Konet::NamespaceName const nsName_;
   Mox::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir_;
   Mox::HashMap<std::string, Konet::IntfId> deviceIntf_;
};

// The namespace an interface's device is to be in.
class IntfNamespaceConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfNamespaceConfig> {
   public:
      virtual void onNetNsName() {}
   };
   explicit IntfNamespaceConfig(Konet::IntfId id) : intfId_(std::move(id)) {}
   Konet::IntfId const& intfId() const { return intfId_; }
   Konet::NamespaceName const& netNsName() const { return netNsName_; }
   void netNsNameIs(Konet::NamespaceName const& v) {
      setAttr(netNsName_, v, &NotifieeConst::onNetNsName);
   }

private:
   Konet::IntfId const intfId_;
   Konet::NamespaceName netNsName_ = Konet::NamespaceName::defaultNamespace();
};

class AllIntfNamespaceConfigDir : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntfNamespaceConfig = 1;
   class NotifieeConst : public Mox::EntityNotifiee<AllIntfNamespaceConfigDir> {
   public:
      virtual void onIntfNamespaceConfig(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfNamespaceConfig>>;

   Mox::Ptr<IntfNamespaceConfig> intfNamespaceConfig(Konet::IntfId const& id) const {
      return Mox::valueOr(config_, id);
   }
   Mox::Ptr<IntfNamespaceConfig> intfNamespaceConfigIs(Konet::IntfId const& id) {
      return instantiateMember<IntfNamespaceConfig>(config_, id, kIntfNamespaceConfig,
                                                    &NotifieeConst::onIntfNamespaceConfig);
   }
   void intfNamespaceConfigDel(Konet::IntfId const& id) {
      delMember(config_, id, &NotifieeConst::onIntfNamespaceConfig);
   }
   Members const& intfNamespaceConfigIterator() const { return config_; }

private:
   Members config_;
};

// Inputs of the loopback machines, which hold them only.
class LoopbackIntfConfigDir : public Mox::Entity {};
class LoopbackIntfStatusDir : public Mox::Entity {};
class LoopbackIntfStatusLocalDir : public Mox::Entity {};
class IntfStatusPtrDir : public Mox::Entity {};

}  // namespace Interface
