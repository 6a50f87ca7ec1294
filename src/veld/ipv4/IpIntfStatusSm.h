// Merges the IPv4 interface statuses of every producer (each VRF's IpIntfSm, other agents)
// into the published IPv4 status.
//
// Watches the directory of inputs, each input's interface statuses and each status's VRF.
// Publishes the input's own status object under the interface, lists each VRF's interfaces
// in vrfIpIntfStatus (an entry goes with its last interface), and ORs the inputs'
// urpfConfiguredOnAnyIntf. An interface stays published while any input holds it; with two
// inputs holding it, the latest addition wins the published slot.
#pragma once

#include "mox/StateMachine.h"
#include "platform/Ip.h"

namespace Veld {

class IpIntfStatusSm : public Mox::StateMachine {
public:
   class MoxInputStatus;

   IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                  Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus);
   ~IpIntfStatusSm() override;

   Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir() const { return inputStatusDir_; }
   Mox::Ptr<Ip::Config const> const& ipConfig() const { return ipConfig_; }
   Mox::Ptr<Ip::Status> const& ipStatus() const { return ipStatus_; }
   // Re-points the machine to another directory of inputs and re-syncs.
   void notifierIs(Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir);

   void handleInitialized();
   void handleInput(Mox::Name const& name);
   void handleDeletedInputStatus();
   void handleUrpfConfiguredOnAnyIntf();
   void addIpStatus(Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfStatus const> const& status);
   void deleteIpStatus(Konet::IntfId const& intf);

   // Called by the per-input reactors.
   void handleIpIntfStatus(Mox::Name const& input, Konet::IntfId const& intf);
   void handleVrf(Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfStatus const> const& status);

private:
   class MoxInputStatusDir;
   // The status of intf in any input, the latest added first; null when none holds it.
   Mox::Ptr<Ip::IpIntfStatus const> heldElsewhere(Konet::IntfId const& intf,
                                                  Mox::Name const& except) const;
   void removeFromVrf(Konet::IntfId const& intf);

   Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir_;
   Mox::Ptr<Ip::Config const> const ipConfig_;
   Mox::Ptr<Ip::Status> const ipStatus_;
   Mox::Ptr<MoxInputStatusDir> moxInputStatusDir_;
   Mox::HashMap<Mox::Name, Mox::Ptr<MoxInputStatus>> inputStatus_;
   Mox::HashMap<Konet::IntfId, L3::VrfName> publishedVrf_;  // the VRF entry each interface is in
};

}  // namespace Veld
