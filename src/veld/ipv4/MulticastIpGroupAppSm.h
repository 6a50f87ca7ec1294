// One application's IPv4 multicast groups on the interfaces' IPv4 statuses, the twin of
// MulticastGroupAppSm (MulticastGroupAppSmOf.h has the machine; this is its IPv4 family).
// Its "No ip6Status for " trace keeps the IPv6 wording on purpose: the twins trace alike.
//
// Watches the application's Ip::MulticastApplication entries; writes the `mcaddr` groups of
// the Ip::IpIntfStatus of each interface it names, once that status exists.
#pragma once

#include <vector>

#include "platform/Ip.h"
#include "veld/MulticastGroupAppSmOf.h"

namespace Veld {

struct MulticastGroupFamily4 {
   using Addr = Konet::IpAddr;
   using IntfStatus = Ip::IpIntfStatus;
   using Input = Ip::Input::Status;
   using Groups = Ip::MulticastGroupsForApplications;
   using Application = Ip::MulticastApplication;
   using GroupInfo = Ip::MulticastGroupInfo;

   template <class Sm>
   class MoxInput : public Mox::Reactor<Sm, Input::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Input::NotifieeConst>::Reactor;
      void onIpIntfStatus(Konet::IntfId const& intf) override {
         this->owner()->handleIntfStatus(intf);
      }
   };
   static Mox::Ptr<IntfStatus> status(Input const& input, Konet::IntfId const& intf) {
      return input.ipIntfStatus(intf);
   }
   static std::vector<Konet::IntfId> intfs(Input const& input) {
      return input.ipIntfStatusIterator().keys();
   }

   static Mox::TraceHandle th;
   static constexpr char kStatusNotAvailable[] = "ip status intf not available";
   static constexpr char kAdd[] = "add Ipv4 multicast group ";
   static constexpr char kDelete[] = "delete Ipv4 multicast group.";
};

class MulticastIpGroupAppSm : public MulticastGroupAppSmOf<MulticastGroupFamily4> {
public:
   using MulticastGroupAppSmOf::MulticastGroupAppSmOf;
   void handleIpStatusIntf(Konet::IntfId const& intf) { handleIp6StatusIntf(intf); }
   Mox::Ptr<Ip::IpIntfStatus> ipStatusIntf(Konet::IntfId const& intf) const {
      return ip6StatusIntf(intf);
   }
};

}  // namespace Veld
