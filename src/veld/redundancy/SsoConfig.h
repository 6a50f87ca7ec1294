// The switchover flag: set by the agent once a switchover has happened, so that the VRF
// machines run their post-switchover handling. Readers are notified on a real change only.
#pragma once

#include "mox/Entity.h"

namespace Veld {

class SsoConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<SsoConfig> {
   public:
      virtual void onSwitchover() {}
   };

   bool switchover() const { return switchover_; }
   void switchoverIs(bool v) { setAttr(switchover_, v, &NotifieeConst::onSwitchover); }

private:
   bool switchover_ = false;
};

Mox::Ptr<SsoConfig> ssoConfigFactory();

}  // namespace Veld
