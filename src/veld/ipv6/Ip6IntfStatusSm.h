// Merges the IPv6 interface statuses of every producer (each VRF's Ip6IntfSm, other agents)
// into the published IPv6 status (IntfStatusMergeSmOf.h has the rules).
//
// The sole writer of the published IPv6 status (Ip6::Status): publishes the input's own
// status object under the interface, lists each VRF's interfaces in vrfIp6IntfStatus (an
// entry goes with its last interface), and ORs the inputs' urpfConfiguredOnAnyIntf
// (IpFamilyStatusSmOf.h, shared with the IPv4 twin).
#pragma once

#include <vector>

#include "platform/Ip6.h"
#include "veld/IpFamilyStatusSmOf.h"

namespace Veld {

struct Ip6IntfStatusFamily {
   using InputDir = Ip6::Ip6InputStatusDir;
   using Input = Ip6::Input::Status;
   using IntfStatus = Ip6::IntfStatus;
   using Config = Ip6::Config;
   using Status = Ip6::Status;
   using VrfEntry = Ip6::VrfIp6IntfStatus;

   template <class Sm>
   class MoxInput : public Mox::Reactor<Sm, Input::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Input::NotifieeConst>::Reactor;
      virtual Mox::Name const& name() const = 0;
      void onIp6IntfStatus(Konet::IntfId const& intf) override {
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
      return input.ip6IntfStatusIterator().keys();
   }
   static Mox::Ptr<IntfStatus const> status(Input const& input, Konet::IntfId const& intf) {
      return input.ip6IntfStatus(intf);
   }

   static void intfIs(Status& s, Mox::Ptr<IntfStatus const> const& st) { s.intfIs(st); }
   static void intfDel(Status& s, Konet::IntfId const& intf) { s.intfDel(intf); }
   static std::vector<Konet::IntfId> intfs(Status const& s) { return s.intfIterator().keys(); }
   static Mox::Ptr<VrfEntry> vrfEntry(Status const& s, L3::VrfName const& vrf) {
      return s.vrfIp6IntfStatus(vrf);
   }
   static Mox::Ptr<VrfEntry> vrfEntryIs(Status& s, L3::VrfName const& vrf) {
      return s.vrfIp6IntfStatusIs(vrf);
   }
   static void vrfEntryDel(Status& s, L3::VrfName const& vrf) { s.vrfIp6IntfStatusDel(vrf); }
   static void entryAdd(VrfEntry& e, Mox::Ptr<IntfStatus const> const& st) {
      e.ip6IntfStatusIs(st);
   }
   static void entryDel(VrfEntry& e, Konet::IntfId const& intf) { e.ip6IntfStatusDel(intf); }
   static size_t entrySize(VrfEntry const& e) { return e.ip6IntfStatusSize(); }

   static Mox::TraceHandle th;
   static constexpr char kNullStatus[] =
       "null _ip6IntfStatus parameter to mutator for "
       "Veld::Ip6IntfStatusSm::MoxInputStatus::ip6IntfStatus not allowed\"";
   static constexpr char kIntfStatusDeleted[] = "intfStatus deleted: ";
   static constexpr char kSweep[] = "  ips ";
   static constexpr char kAdded[] = " ip6IntfStatus added ";
   static constexpr char kDeleted[] = " ip6IntfStatus deleted ";
   static constexpr char kAddVrf[] = "Add vrfIp6IntfStatus for vrf ";
   static constexpr char kDelFromVrf[] = " from vrfIp6IntfStatus of vrf ";
   static constexpr char kDelVrf[] = "Delete vrfIp6IntfStatus of vrf ";
};

class Ip6IntfStatusSm : public IpFamilyStatusSmOf<Ip6IntfStatusSm, Ip6IntfStatusFamily> {
public:
   Ip6IntfStatusSm(Mox::Ptr<Ip6::Ip6InputStatusDir const> inputStatusDir,
                   Mox::Ptr<Ip6::Config const> ip6Config, Mox::Ptr<Ip6::Status> ip6Status);

   Mox::Ptr<Ip6::Config const> const& ip6Config() const { return config(); }
   Mox::Ptr<Ip6::Status> const& ip6Status() const { return status(); }
};

}  // namespace Veld
