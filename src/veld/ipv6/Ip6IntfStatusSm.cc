#include "veld/ipv6/Ip6IntfStatusSm.h"

namespace Veld {

Mox::TraceHandle Ip6IntfStatusFamily::th("VeldIp6Status");

Ip6IntfStatusSm::Ip6IntfStatusSm(Mox::Ptr<Ip6::Ip6InputStatusDir const> inputStatusDir,
                                 Mox::Ptr<Ip6::Config const> ip6Config,
                                 Mox::Ptr<Ip6::Status> ip6Status)
    : IpFamilyStatusSmOf(std::move(inputStatusDir), std::move(ip6Config), std::move(ip6Status)) {
   MOX_TRACE_FN0(Ip6IntfStatusFamily::th);
   handleInitialized();
}

}  // namespace Veld
