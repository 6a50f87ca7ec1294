// The fast-upgrade state. After a fast reboot, status is held back until the inputs are
// validated and every machine that programs the kernel has drained its backlog; each such
// machine reports here, under its own key ("ipIntfSm-default", "ip6IntfSm-blue"), whether
// its kernel backlog is empty.
#pragma once

#include <string>

#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"

namespace Veld {

class WarpState : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<WarpState> {
   public:
      virtual void onBacklogEmpty(std::string const&) {}
   };
   using BacklogEmpty = Mox::HashMap<std::string, bool>;

   explicit WarpState(Mox::Name name) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

   // False for a machine that has not reported yet.
   bool backlogEmpty(std::string const& key) const { return Mox::valueOr(backlogEmpty_, key); }
   void backlogEmptyIs(std::string const& key, bool empty);
   void backlogEmptyDel(std::string const& key);
   BacklogEmpty const& backlogEmptyIterator() const { return backlogEmpty_; }

private:
   Mox::Name const name_;
   BacklogEmpty backlogEmpty_;
};

}  // namespace Veld
