#include "platform/KernelNetInfo.h"

namespace KernelNetInfo {

std::ostream& operator<<(std::ostream& os, InterfaceKey k) { return os << k.ifIndex; }

std::ostream& operator<<(std::ostream& os, IpKey const& k) {
   return os << k.intfKey << ":" << k.addr << "/" << k.prefixLen;
}

Status::Status(Konet::NamespaceName ns)
    : nsName_(std::move(ns)),
      interfaces_(Mox::make<InterfaceTable>("kni/ns/" + nsName_.name() + "/interface")),
      ipStates_(Mox::make<IpStateTable>("kni/ns/" + nsName_.name() + "/ip")) {}

Interface Status::interfaceByName(std::string const& deviceName) const {
   auto const* rec = findInterfaceByName(deviceName);
   return rec ? *rec : Interface();
}

Interface const* Status::findInterfaceByName(std::string const& deviceName) const {
   auto it = byName_.find(deviceName);
   return it == byName_.end() ? nullptr : interfaces_->find(it->second);
}

void Status::interfaceIs(Interface const& rec) {
   auto const* old = interfaces_->find(rec.key);
   if (old && old->deviceName != rec.deviceName) {
      auto it = byName_.find(old->deviceName);
      if (it != byName_.end() && it->second == rec.key) byName_.erase(it);
   }
   byName_[rec.deviceName] = rec.key;
   interfaces_->set(rec.key, rec);
}

void Status::interfaceDel(InterfaceKey k) {
   if (auto const* old = interfaces_->find(k)) {
      auto it = byName_.find(old->deviceName);
      if (it != byName_.end() && it->second == k) byName_.erase(it);
   }
   interfaces_->remove(k);
}

}  // namespace KernelNetInfo
