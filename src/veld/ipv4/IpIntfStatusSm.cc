#include "veld/ipv4/IpIntfStatusSm.h"

namespace Veld {

Mox::TraceHandle IpIntfStatusFamily::th("VeldIpStatus");

IpIntfStatusSm::IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                               Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus)
    : IpFamilyStatusSmOf(std::move(inputStatusDir), std::move(ipConfig), std::move(ipStatus)) {
   MOX_TRACE_FN0(IpIntfStatusFamily::th);
   handleInitialized();
}

}  // namespace Veld
