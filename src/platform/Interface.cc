#include "platform/Interface.h"

namespace Interface {

std::pair<Mox::Ptr<IntfStatus const>, std::string> DeviceIntfStatusDir::intfStatusAndDeviceName(
    Konet::IntfId const& id) const {
   auto s = intfStatus(id);
   if (!s) return {nullptr, std::string()};
   return {s, s->deviceName()};
}

}  // namespace Interface
