// The per-VRF views of the IPv4 interface configuration: VrfIpIntfConfig holds the
// Ip::IpIntfConfig of each interface of one VRF; VrfIpIntfConfigDir holds the views by VRF.
// VrfIpIntfConfigSm fills them; each VRF's IPv4 machine reads its own.
#pragma once

#include "platform/Ip.h"
#include "veld/config/VrfIntfConfigOf.h"

namespace Veld {

class VrfIpIntfConfig : public VrfIntfConfigOf<VrfIpIntfConfig, Ip::IpIntfConfig> {
public:
   static constexpr char kIpIntfConfigMutator[] = "Veld::VrfIpIntfConfig::ipIntfConfig";
   using VrfIntfConfigOf::VrfIntfConfigOf;
};

class VrfIpIntfConfigDir : public VrfIntfConfigDirOf<VrfIpIntfConfigDir, VrfIpIntfConfig> {};

}  // namespace Veld
