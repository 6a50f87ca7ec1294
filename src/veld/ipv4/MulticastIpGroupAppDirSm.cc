#include "veld/ipv4/MulticastIpGroupAppDirSm.h"

namespace Veld {

MulticastIpGroupAppDirSm::MulticastIpGroupAppDirSm(Inputs inputs)
    : MulticastGroupAppDirSmOf(std::move(inputs)) {
   MOX_TRACE_FN0(MulticastGroupFamily4::th);
   handleInitialized();
}

}  // namespace Veld
