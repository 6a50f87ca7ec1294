#include "veld/redundancy/SsoConfig.h"

namespace Veld {

Mox::Ptr<SsoConfig> ssoConfigFactory() { return Mox::make<SsoConfig>(); }

}  // namespace Veld
