// One application's request for IPv6 on interfaces, applied to the merged output.
//
// Watches the application's Ip6::Ip6Enable (fixed for the machine's life), per interface;
// writes the output of its Ip6EnableSm. Per interface: the application enabling it sets the
// output true; the application no longer enabling it sets the output false unless another
// application still enables it. No state of its own beyond `initialized`.
#pragma once

#include "konet/IntfId.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "platform/Ip6.h"

namespace Veld {

class Ip6EnableSm;

class AppIp6EnableSm : public Mox::StateMachine {
public:
   class MoxIp6Enable : public Mox::Reactor<AppIp6EnableSm, Ip6::Ip6Enable::NotifieeConst> {
   public:
      using Mox::Reactor<AppIp6EnableSm, Ip6::Ip6Enable::NotifieeConst>::Reactor;
      void onEnable(Konet::IntfId const& intf) override { owner()->handleIp6Enable(intf); }
   };

   // ip6EnableSm is the machine that owns this one (not owned here).
   AppIp6EnableSm(Mox::String name, Mox::Ptr<Ip6::Ip6Enable const> ip6Enable,
                  Ip6EnableSm* ip6EnableSm);

   Mox::String const& name() const { return name_; }
   Mox::Ptr<Ip6::Ip6Enable const> const& ip6Enable() const { return ip6Enable_; }

   void handleInitialized();
   // Every interface the application's entity holds.
   void handleIp6Enable();
   void handleIp6Enable(Konet::IntfId const& intf);

private:
   Mox::String const name_;
   Mox::Ptr<Ip6::Ip6Enable const> const ip6Enable_;
   Ip6EnableSm* const ip6EnableSm_;
   Mox::Ptr<MoxIp6Enable> moxIp6Enable_;
};

}  // namespace Veld
