// The per-VRF views of the IPv6 interface configuration: VrfIp6IntfConfig holds the
// Ip6::IntfConfig of each interface of one VRF; VrfIp6IntfConfigDir holds the views by VRF.
// VrfIp6IntfConfigSm fills them; each VRF's IPv6 machine reads its own.
#pragma once

#include "platform/Ip6.h"
#include "veld/config/VrfIntfConfigOf.h"

namespace Veld {

class VrfIp6IntfConfig : public VrfIntfConfigOf<VrfIp6IntfConfig, Ip6::IntfConfig> {
public:
   static constexpr char kIpIntfConfigMutator[] = "Veld::VrfIp6IntfConfig::ipIntfConfig";
   using VrfIntfConfigOf::VrfIntfConfigOf;
};

class VrfIp6IntfConfigDir : public VrfIntfConfigDirOf<VrfIp6IntfConfigDir, VrfIp6IntfConfig> {};

}  // namespace Veld
