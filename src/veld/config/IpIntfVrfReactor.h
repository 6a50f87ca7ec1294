// Keeps each IP interface's namespace configuration pointing at the namespace of its VRF.
//
// Watches the IPv4 configuration's interfaces, each interface's l3Config reference and its
// vrf, every VRF's local status entry (created, removed) and the state of the interface's
// own VRF. Writes Interface::AllIntfNamespaceConfigDir: one IntfNamespaceConfig per
// configured interface (created with the child, deleted when the interface leaves the
// configuration), whose netNsName is
//    the VRF's namespace       while the VRF's local state is active,
//    the default namespace     when it is deleting or the VRF has no local status,
//    unchanged                 in any other state.
// An interface without L3 configuration belongs to "default". There is no IPv6 twin: a
// namespace belongs to the interface, not to an address family.
#pragma once

#include "konet/IntfId.h"
#include "konet/VrfName.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"
#include "platform/Ip.h"

namespace Veld {

class IpIntfVrfReactor : public Mox::StateMachine {
public:
   class MoxIpIntfConfigReactor;

   IpIntfVrfReactor(Mox::Ptr<Ip::Config const> ipConfig,
                    Mox::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal,
                    Mox::Ptr<Interface::AllIntfNamespaceConfigDir> allIntfNamespaceConfigDir);
   ~IpIntfVrfReactor() override;

   Mox::Ptr<Ip::Config const> const& ipConfig() const { return ipConfig_; }
   Mox::Ptr<Ip::AllVrfStatusLocal const> const& allVrfStatusLocal() const {
      return allVrfStatusLocal_;
   }
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir> const& allIntfNamespaceConfigDir() const {
      return allIntfNamespaceConfigDir_;
   }

   Mox::Ptr<MoxIpIntfConfigReactor> ipIntfConfigReactor(Konet::IntfId const& intf) const;
   // The child of the configuration entity, created when absent.
   Mox::Ptr<MoxIpIntfConfigReactor> ipIntfConfigReactorIs(
       Mox::Ptr<Ip::IpIntfConfig const> const& ipIntfConfig);
   void ipIntfConfigReactorDel(Konet::IntfId const& intf);
   size_t ipIntfConfigReactorSize() const { return ipIntfConfigReactor_.size(); }

   void handleInitialized();
   void handleIpIntfConfig(Konet::IntfId const& intf);

private:
   class MoxIpConfig;

   Mox::Ptr<Ip::Config const> const ipConfig_;
   Mox::Ptr<Ip::AllVrfStatusLocal const> const allVrfStatusLocal_;
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir> const allIntfNamespaceConfigDir_;
   Mox::Ptr<MoxIpConfig> moxIpConfig_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfConfigReactor>> ipIntfConfigReactor_;
};

// One interface: its configuration's l3Config reference, that L3 configuration's vrf, the
// VRFs' local status entries and the local status of its own VRF.
class IpIntfVrfReactor::MoxIpIntfConfigReactor
    : public Mox::Reactor<IpIntfVrfReactor, Ip::IpIntfConfig::NotifieeConst> {
public:
   MoxIpIntfConfigReactor(IpIntfVrfReactor* sm, Mox::Ptr<Ip::IpIntfConfig const> const& config);

   Konet::IntfId const& intf() const { return intf_; }
   Mox::Ptr<Ip::IpIntfConfig const> ipIntfConfig() const { return notifier(); }
   Mox::Ptr<L3::Intf::Config const> l3Config() const;
   // The local status of the interface's VRF; null when the VRF has none.
   Mox::Ptr<Ip::VrfStatusLocal const> vrfStatusLocal() const;
   void vrfStatusLocalIs(Mox::Ptr<Ip::VrfStatusLocal const> const& status);
   bool initialized() const { return initialized_; }
   void initializedIs(bool initialized) { initialized_ = initialized; }

   void onL3Config() override { handleL3Config(); }
   void moxDoZombieReactors(bool zombie) override;

   void handleInitialized();
   void handleL3Config();
   void handleIpIntfConfigVrf();
   void handleVrfStatusCreation(L3::VrfName const& vrfName);
   void handleVrfStatusCreation();
   void handleVrfState();
   void handleDel();

private:
   class MoxL3Config;
   class MoxAllVrfStatusLocal;
   class MoxVrfStatusLocal;

   // The interface's VRF: its L3 configuration's, or the default VRF without one.
   L3::VrfName vrf() const;

   Konet::IntfId const intf_;
   Mox::Ptr<MoxL3Config> moxL3Config_;
   Mox::Ptr<MoxAllVrfStatusLocal> moxAllVrfStatusLocal_;
   Mox::Ptr<MoxVrfStatusLocal> moxVrfStatusLocal_;
   bool initialized_ = false;
};

Mox::Ptr<IpIntfVrfReactor> IpIntfVrfReactorIs(
    Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal,
    Mox::Ptr<Interface::AllIntfNamespaceConfigDir> allIntfNamespaceConfigDir);

}  // namespace Veld
