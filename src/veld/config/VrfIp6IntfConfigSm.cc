#include "veld/config/VrfIp6IntfConfigSm.h"

namespace Veld {

Mox::TraceHandle VrfIp6IntfConfigFamily::th("VeldVrfIp6IntfConfig");

template class VrfIntfConfigSmOf<VrfIp6IntfConfigFamily>;

Mox::Ptr<VrfIp6IntfConfigSm> VrfIp6IntfConfigSmIs(
    Mox::Ptr<Ip6::Config const> ip6Config, Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDir) {
   return Mox::make<VrfIp6IntfConfigSm>(std::move(ip6Config), std::move(vrfIp6IntfConfigDir));
}

}  // namespace Veld
