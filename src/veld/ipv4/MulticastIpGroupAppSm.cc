#include "veld/ipv4/MulticastIpGroupAppSm.h"

namespace Veld {

Mox::TraceHandle MulticastGroupFamily4::th("VeldMulticast");

template class MulticastGroupAppSmOf<MulticastGroupFamily4>;

}  // namespace Veld
