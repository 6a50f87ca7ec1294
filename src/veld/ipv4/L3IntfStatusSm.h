// Merges the L3 interface statuses of every producer (the IPv4 and IPv6 machines of each
// VRF) into the published L3 interface status directory (IntfStatusMergeSmOf.h has the
// rules).
//
// The sole writer of the published L3 statuses (L3::Intf::StatusDir): an interface's is
// this machine's own object, carrying the VRF of its source; it goes when no input holds the
// interface any more.
#pragma once

#include "platform/L3.h"
#include "veld/IntfStatusMergeSmOf.h"

namespace Veld {

struct L3IntfStatusFamily {
   using InputDir = L3::Intf::InputStatusDir;
   using Input = L3::Intf::Input::StatusDir;
   using IntfStatus = L3::Intf::Status;

   template <class Sm>
   class MoxInput : public Mox::Reactor<Sm, Input::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Input::NotifieeConst>::Reactor;
      virtual Mox::Name const& name() const = 0;
      void onIntfStatus(Konet::IntfId const& intf) override {
         this->owner()->handleIntfStatus(name(), intf);
      }
   };
   static std::vector<Mox::Name> inputNames(InputDir const& dir) {
      return dir.inputStatusIterator().keys();
   }
   static Mox::Ptr<Input const> input(InputDir const& dir, Mox::Name const& name) {
      return dir.inputStatus(name);
   }
   static std::vector<Konet::IntfId> intfs(Input const& input) {
      return input.intfStatusIterator().keys();
   }
   static Mox::Ptr<IntfStatus const> status(Input const& input, Konet::IntfId const& intf) {
      return input.intfStatus(intf);
   }

   static Mox::TraceHandle th;
   static constexpr char kNullStatus[] =
       "null _intfStatus parameter to mutator for "
       "Veld::L3IntfStatusSm::MoxInputStatus::intfStatus not allowed";
   static constexpr char kIntfStatusDeleted[] = "intfStatus deleted: ";
   static constexpr char kSweep[] = " inputStatus ";
};

class L3IntfStatusSm : public IntfStatusMergeSmOf<L3IntfStatusSm, L3IntfStatusFamily> {
public:
   L3IntfStatusSm(Mox::Ptr<L3::Intf::InputStatusDir const> inputStatusDir,
                  Mox::Ptr<L3::Intf::StatusDir> intfStatusDir);

   Mox::Ptr<L3::Intf::StatusDir> const& intfStatusDir() const { return intfStatusDir_; }

   // What publishing means here (called by the merge).
   void publish(Konet::IntfId const& intf, Mox::Ptr<L3::Intf::Status const> const& from);
   void unpublish(Konet::IntfId const& intf);
   std::vector<Konet::IntfId> publishedIntfs() const;
   void inputsChanged() {}

private:
   Mox::Ptr<L3::Intf::StatusDir> const intfStatusDir_;
};

}  // namespace Veld
