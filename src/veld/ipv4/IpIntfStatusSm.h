// Merges the IPv4 interface statuses of every producer (each VRF's IpIntfSm, other agents)
// into the published IPv4 status (IntfStatusMergeSmOf.h has the rules).
//
// The sole writer of the published IPv4 status (Ip::Status): publishes the input's own
// status object under the interface, lists each VRF's interfaces in vrfIpIntfStatus (an
// entry goes with its last interface), and ORs the inputs' urpfConfiguredOnAnyIntf.
#pragma once

#include "mox/HashMap.h"
#include "platform/Ip.h"
#include "veld/IntfStatusMergeSmOf.h"

namespace Veld {

struct IpIntfStatusFamily {
   using InputDir = Ip::IpInputStatusDir;
   using Input = Ip::Input::Status;
   using IntfStatus = Ip::IpIntfStatus;

   template <class Sm>
   class MoxInput : public Mox::Reactor<Sm, Input::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Input::NotifieeConst>::Reactor;
      virtual Mox::Name const& name() const = 0;
      void onIpIntfStatus(Konet::IntfId const& intf) override {
         this->owner()->handleIntfStatus(name(), intf);
      }
      void onUrpfConfiguredOnAnyIntf() override { this->owner()->handleUrpfConfiguredOnAnyIntf(); }
   };
   static std::vector<Mox::Name> inputNames(InputDir const& dir) {
      return dir.inputStatusIterator().keys();
   }
   static Mox::Ptr<Input const> input(InputDir const& dir, Mox::Name const& name) {
      return dir.inputStatus(name);
   }
   static std::vector<Konet::IntfId> intfs(Input const& input) {
      return input.ipIntfStatusIterator().keys();
   }
   static Mox::Ptr<IntfStatus const> status(Input const& input, Konet::IntfId const& intf) {
      return input.ipIntfStatus(intf);
   }

   static Mox::TraceHandle th;
   static constexpr char kNullStatus[] =
       "null _ipIntfStatus parameter to mutator for "
       "Veld::IpIntfStatusSm::MoxInputStatus::ipIntfStatus not allowed\"";
   static constexpr char kIntfStatusDeleted[] = "ipIntfStatus deleted: ";
   static constexpr char kSweep[] = "  ips ";
};

class IpIntfStatusSm : public IntfStatusMergeSmOf<IpIntfStatusSm, IpIntfStatusFamily> {
public:
   IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                  Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus);

   Mox::Ptr<Ip::Config const> const& ipConfig() const { return ipConfig_; }
   Mox::Ptr<Ip::Status> const& ipStatus() const { return ipStatus_; }

   void handleUrpfConfiguredOnAnyIntf();

   // What publishing means here (called by the merge).
   void publish(Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfStatus const> const& status);
   void unpublish(Konet::IntfId const& intf);
   std::vector<Konet::IntfId> publishedIntfs() const;
   void inputsChanged() { handleUrpfConfiguredOnAnyIntf(); }

private:
   void removeFromVrf(Konet::IntfId const& intf);

   Mox::Ptr<Ip::Config const> const ipConfig_;
   Mox::Ptr<Ip::Status> const ipStatus_;
   Mox::HashMap<Konet::IntfId, L3::VrfName> publishedVrf_;  // the VRF entry each interface is in
};

}  // namespace Veld
