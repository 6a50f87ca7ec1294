#include "veld/redundancy/WarpState.h"

namespace Veld {

void WarpState::backlogEmptyIs(std::string const& key, bool empty) {
   setMember(backlogEmpty_, key, empty, &NotifieeConst::onBacklogEmpty);
}

void WarpState::backlogEmptyDel(std::string const& key) {
   delMember(backlogEmpty_, key, &NotifieeConst::onBacklogEmpty);
}

}  // namespace Veld
