// What changed between two configurations, by place: the global routing knobs, each VRF
// and each interface. The agent writes only these places to the library's inputs, so that an
// untouched interface sees no notification and its device no kernel request.
#pragma once

#include <vector>

#include "agent/Config.h"

namespace VeldAgent {

struct ConfigDiff {
   bool routingChanged = false;
   std::vector<L3::VrfName> vrfsAdded, vrfsRemoved, vrfsChanged;
   std::vector<Konet::IntfId> intfsAdded, intfsRemoved, intfsChanged;

   bool empty() const {
      return !routingChanged && vrfsAdded.empty() && vrfsRemoved.empty() && vrfsChanged.empty() &&
             intfsAdded.empty() && intfsRemoved.empty() && intfsChanged.empty();
   }
   // "2 interfaces changed, 1 VRF added", for the log.
   std::string summary() const;
};

ConfigDiff diffConfigurations(Configuration const& before, Configuration const& after);

}  // namespace VeldAgent
