// Which of the two status directories holds an interface's status: the local interfaces'
// or the ordinary one.
#pragma once

#include <functional>

#include "konet/IntfId.h"

namespace Veld {

// Local interfaces are the box's own test interfaces, named "Test..."; the agent's platform
// layer may install its own rule.
bool isLocalInterface(Konet::IntfId const& name);
void localInterfacePredicateIs(std::function<bool(Konet::IntfId const&)> predicate);

}  // namespace Veld
