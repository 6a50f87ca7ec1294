#include "veld/ipv6/MulticastGroupAppDirSm.h"

namespace Veld {

MulticastGroupAppDirSm::MulticastGroupAppDirSm(Inputs inputs)
    : MulticastGroupAppDirSmOf(std::move(inputs)) {
   MOX_TRACE_FN0(MulticastGroupFamily6::th);
   handleInitialized();
}

}  // namespace Veld
