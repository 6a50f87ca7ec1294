// Merges the IPv4 interface statuses of every producer (each VRF's IpIntfSm, other agents)
// into the published IPv4 status (IntfStatusMergeSmOf.h has the rules).
//
// The sole writer of the published IPv4 status (Ip::Status): publishes the input's own
// status object under the interface, lists each VRF's interfaces in vrfIpIntfStatus (an
// entry goes with its last interface), and ORs the inputs' urpfConfiguredOnAnyIntf
// (IpFamilyStatusSmOf.h, shared with the IPv6 twin).
#pragma once

#include "platform/Ip.h"
#include "veld/IpFamilyStatusSmOf.h"

namespace Veld {

struct IpIntfStatusFamily {
   using InputDir = Ip::IpInputStatusDir;
   using Input = Ip::Input::Status;
   using IntfStatus = Ip::IpIntfStatus;
   using Config = Ip::Config;
   using Status = Ip::Status;
   using VrfEntry = Ip::VrfIpIntfStatus;

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

   static void intfIs(Status& s, Mox::Ptr<IntfStatus const> const& st) { s.intfIs(st); }
   static void intfDel(Status& s, Konet::IntfId const& intf) { s.intfDel(intf); }
   static std::vector<Konet::IntfId> intfs(Status const& s) { return s.intfIterator().keys(); }
   static Mox::Ptr<VrfEntry> vrfEntry(Status const& s, L3::VrfName const& vrf) {
      return s.vrfIpIntfStatus(vrf);
   }
   static Mox::Ptr<VrfEntry> vrfEntryIs(Status& s, L3::VrfName const& vrf) {
      return s.vrfIpIntfStatusIs(vrf);
   }
   static void vrfEntryDel(Status& s, L3::VrfName const& vrf) { s.vrfIpIntfStatusDel(vrf); }
   static void entryAdd(VrfEntry& e, Mox::Ptr<IntfStatus const> const& st) { e.ipIntfStatusIs(st); }
   static void entryDel(VrfEntry& e, Konet::IntfId const& intf) { e.ipIntfStatusDel(intf); }
   static size_t entrySize(VrfEntry const& e) { return e.ipIntfStatusSize(); }

   static Mox::TraceHandle th;
   static constexpr char kNullStatus[] =
       "null _ipIntfStatus parameter to mutator for "
       "Veld::IpIntfStatusSm::MoxInputStatus::ipIntfStatus not allowed\"";
   static constexpr char kIntfStatusDeleted[] = "ipIntfStatus deleted: ";
   static constexpr char kSweep[] = "  ips ";
   static constexpr char kAdded[] = " ipIntfStatus added ";
   static constexpr char kDeleted[] = " ipIntfStatus deleted ";
   static constexpr char kAddVrf[] = "Add vrfIpIntfStatus for vrf ";
   static constexpr char kDelFromVrf[] = " from vrfIpIntfStatus of vrf";
   static constexpr char kDelVrf[] = "Delete vrfIpIntfStatus of vrf ";
};

class IpIntfStatusSm : public IpFamilyStatusSmOf<IpIntfStatusSm, IpIntfStatusFamily> {
public:
   IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                  Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus);

   Mox::Ptr<Ip::Config const> const& ipConfig() const { return config(); }
   Mox::Ptr<Ip::Status> const& ipStatus() const { return status(); }
};

}  // namespace Veld
