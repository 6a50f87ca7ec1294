// One application's IPv6 multicast groups on the interfaces' IPv6 statuses
// (MulticastGroupAppSmOf.h has the machine; this is its IPv6 family).
//
// Watches the application's Ip6::MulticastApplication entries; writes the `mcaddr` groups of
// the Ip6::IntfStatus of each interface it names, once that status exists.
#pragma once

#include <vector>

#include "platform/Ip6.h"
#include "veld/MulticastGroupAppSmOf.h"

namespace Veld {

struct MulticastGroupFamily6 {
   using Addr = Konet::Ip6Addr;
   using IntfStatus = Ip6::IntfStatus;
   using Input = Ip6::Input::Status;
   using Groups = Ip6::MulticastGroupsForApplications;
   using Application = Ip6::MulticastApplication;
   using GroupInfo = Ip6::MulticastGroupInfo;

   template <class Sm>
   class MoxInput : public Mox::Reactor<Sm, Input::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Input::NotifieeConst>::Reactor;
      void onIp6IntfStatus(Konet::IntfId const& intf) override {
         this->owner()->handleIntfStatus(intf);
      }
   };
   static Mox::Ptr<IntfStatus> status(Input const& input, Konet::IntfId const& intf) {
      return input.ip6IntfStatus(intf);
   }
   static std::vector<Konet::IntfId> intfs(Input const& input) {
      return input.ip6IntfStatusIterator().keys();
   }

   static Mox::TraceHandle th;
   static constexpr char kStatusNotAvailable[] = "ip6 status intf not available";
   static constexpr char kAdd[] = "add multicast group ";
   static constexpr char kDelete[] = "delete multicast group.";
};

class MulticastGroupAppSm : public MulticastGroupAppSmOf<MulticastGroupFamily6> {
public:
   using MulticastGroupAppSmOf::MulticastGroupAppSmOf;
};

}  // namespace Veld
