#include "veld/config/VrfIpIntfConfigSm.h"

namespace Veld {

Mox::TraceHandle VrfIpIntfConfigFamily::th("VeldVrfIpIntfConfig");

template class VrfIntfConfigSmOf<VrfIpIntfConfigFamily>;

Mox::Ptr<VrfIpIntfConfigSm> VrfIpIntfConfigSmIs(Mox::Ptr<Ip::Config const> ipConfig,
                                                Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDir) {
   return Mox::make<VrfIpIntfConfigSm>(std::move(ipConfig), std::move(vrfIpIntfConfigDir));
}

}  // namespace Veld
