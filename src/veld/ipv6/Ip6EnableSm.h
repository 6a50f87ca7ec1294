// Merges the applications' requests for IPv6 on an interface into one output.
//
// Watches a directory whose entries are the applications' Ip6::Ip6Enable entities, by
// name, and keeps one AppIp6EnableSm per entry that is one (an entry of another type gets
// none). Writes nothing itself: each application's machine updates the output
// (ip6EnableOverride), in which an interface is enabled while at least one application
// enables it.
//
// An application's entry that goes takes its machine with it but leaves the output as it
// was: the interfaces it alone enabled stay enabled until some application changes them.
// This is deliberate; an application that wants them disabled sets them false first.
#pragma once

#include "mox/Dir.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "platform/Ip6.h"
#include "veld/ipv6/AppIp6EnableSm.h"

namespace Veld {

class Ip6EnableSm : public Mox::StateMachine {
public:
   class MoxIp6EnableDir : public Mox::Reactor<Ip6EnableSm, Mox::Dir::NotifieeConst> {
   public:
      using Mox::Reactor<Ip6EnableSm, Mox::Dir::NotifieeConst>::Reactor;
      void onEntry(Mox::Name const& name) override;
   };

   Ip6EnableSm(Mox::Ptr<Mox::Dir const> ip6EnableDir, Mox::Ptr<Ip6::Ip6Enable> ip6EnableOverride);
   // Lets every application's machine go, without touching the output.
   ~Ip6EnableSm() override;

   Mox::Ptr<Mox::Dir const> const& ip6EnableDir() const { return ip6EnableDir_; }
   Mox::Ptr<Ip6::Ip6Enable> const& ip6EnableOverride() const { return ip6EnableOverride_; }

   void handleInitialized();
   // Every entry of the directory.
   void handleIp6EnableDir();
   // One entry appeared, was replaced or went.
   void handleIp6EnableDir(Mox::String const& name);

   Mox::Ptr<AppIp6EnableSm> appIp6EnableSm(Mox::String const& name) const {
      return Mox::valueOr(appIp6EnableSm_, name);
   }
   Mox::Ptr<AppIp6EnableSm> appIp6EnableSmIs(Mox::String const& name,
                                             Mox::Ptr<Ip6::Ip6Enable const> const& ip6Enable);
   void appIp6EnableSmDel(Mox::String const& name);
   // Stops following every application; the output stays as it is.
   void appIp6EnableSmDelAll();
   size_t appIp6EnableSmSize() const { return appIp6EnableSm_.size(); }

   // Some application's entity enables intf.
   bool isAnyIp6Enabled(Konet::IntfId const& intf) const;

private:
   Mox::Ptr<Mox::Dir const> const ip6EnableDir_;
   Mox::Ptr<Ip6::Ip6Enable> const ip6EnableOverride_;
   Mox::Ptr<MoxIp6EnableDir> moxIp6EnableDir_;
   Mox::HashMap<Mox::String, Mox::Ptr<AppIp6EnableSm>> appIp6EnableSm_;
};

// The factory the agent calls: a machine delivering from the start.
Mox::Ptr<Ip6EnableSm> Ip6EnableSmIs(Mox::Ptr<Mox::Dir const> const& ip6EnableDir,
                                    Mox::Ptr<Ip6::Ip6Enable> const& ip6EnableOverride);

}  // namespace Veld
