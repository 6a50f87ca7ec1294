// Merges the L3 interface statuses of every producer (the IPv4 and IPv6 machines of each
// VRF) into the published L3 interface status directory.
//
// Watches the directory of inputs, each input's statuses and each status's VRF. The
// published status of an interface is this machine's own object, carrying the VRF of the
// input that holds it; it goes when no input holds the interface any more.
#pragma once

#include "mox/StateMachine.h"
#include "platform/L3.h"

namespace Veld {

class L3IntfStatusSm : public Mox::StateMachine {
public:
   class MoxInputStatus;

   L3IntfStatusSm(Mox::Ptr<L3::Intf::InputStatusDir const> inputStatusDir,
                  Mox::Ptr<L3::Intf::StatusDir> intfStatusDir);
   ~L3IntfStatusSm() override;

   Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir() const {
      return inputStatusDir_;
   }
   Mox::Ptr<L3::Intf::StatusDir> const& intfStatusDir() const { return intfStatusDir_; }
   // Re-points the machine to another directory of inputs and re-syncs.
   void notifierIs(Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir);

   void handleInitialized();
   void handleInput(Mox::Name const& name);
   void handleDeletedInputStatus();
   // An input's status of intf appeared, changed its VRF or went.
   void handleIntfStatus(Mox::Name const& input, Konet::IntfId const& intf);

private:
   class MoxInputStatusDir;
   Mox::Ptr<L3::Intf::Status const> heldBy(Konet::IntfId const& intf,
                                           Mox::Name const& except) const;
   void publish(Konet::IntfId const& intf, Mox::Ptr<L3::Intf::Status const> const& from);

   Mox::Ptr<L3::Intf::InputStatusDir const> inputStatusDir_;
   Mox::Ptr<L3::Intf::StatusDir> const intfStatusDir_;
   Mox::Ptr<MoxInputStatusDir> moxInputStatusDir_;
   Mox::HashMap<Mox::Name, Mox::Ptr<MoxInputStatus>> inputStatus_;
};

}  // namespace Veld
