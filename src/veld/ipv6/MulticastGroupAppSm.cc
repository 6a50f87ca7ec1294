#include "veld/ipv6/MulticastGroupAppSm.h"

namespace Veld {

Mox::TraceHandle MulticastGroupFamily6::th("VeldMulticast6");

template class MulticastGroupAppSmOf<MulticastGroupFamily6>;

}  // namespace Veld
