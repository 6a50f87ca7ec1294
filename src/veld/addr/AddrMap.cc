#include "veld/addr/AddrMap.h"

#include <ios>

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("AddrMap");
}

bool IntfGenAddr::attributeIs(std::string_view name, uint64_t value) {
   if (name != "flags") return false;
   setAttr(flags_, static_cast<uint32_t>(value), &NotifieeConst::onFlags);
   return true;
}

AddrMap::AddrMap(Mox::Ptr<KernelNetInfo::Status const> kniStatus)
    : kniStatus_(std::move(kniStatus)) {}

AddrMap::~AddrMap() { genAddrDelAll(); }

Mox::Ptr<IntfGenAddr> AddrMap::genAddrIs(KernelNetInfo::InterfaceKey ifKey) {
   return instantiateMember<IntfGenAddr>(genAddr_, ifKey, kGenAddr, &NotifieeConst::onGenAddr);
}

void AddrMap::genAddrDel(KernelNetInfo::InterfaceKey ifKey) {
   delMember(genAddr_, ifKey, &NotifieeConst::onGenAddr);
}

void AddrMap::genAddrDelAll() { delAllMembers(genAddr_, &NotifieeConst::onGenAddr); }

void AddrMap::addAddr(KernelNetInfo::InterfaceKey ifKey, Konet::IpAddrWithMask const& addr) {
   MOX_TRACE_FN(th, "Adding ipv4 addr " << addr << " from index: " << ifKey);
   genAddrIs(ifKey)->addrIs(addr);
}

void AddrMap::addAddr6(KernelNetInfo::InterfaceKey ifKey, Konet::Ip6AddrWithMask const& addr) {
   auto g = genAddrIs(ifKey);
   MOX_TRACE_FN(th, "Adding ipv6 addr " << addr << " at index " << ifKey);
   g->addr6Is(addr);
   g->addr6FlagsIs(addr, 0);
}

void AddrMap::delAddr(KernelNetInfo::InterfaceKey ifKey, Konet::IpAddrWithMask const& addr) {
   MOX_TRACE_FN(th, "Deleting ipv4 addr " << addr << " from index: " << ifKey);
   if (auto g = genAddr(ifKey)) g->addrDel(addr);
}

void AddrMap::delAddr6(KernelNetInfo::InterfaceKey ifKey, Konet::Ip6AddrWithMask const& addr) {
   MOX_TRACE_FN(th, "Deleting ipv6 addr " << addr << " from index: " << ifKey);
   if (auto g = genAddr(ifKey)) {
      g->addr6Del(addr);
      g->addr6FlagsDel(addr);
   }
}

void AddrMap::flushAddr(KernelNetInfo::InterfaceKey ifKey) {
   if (auto g = genAddr(ifKey)) g->addrDelAll();
}

void AddrMap::flushAddr6(KernelNetInfo::InterfaceKey ifKey) {
   auto g = genAddr(ifKey);
   if (!g) return;
   for (auto const& a : g->addr6Iterator().keys()) {
      if (a.addr().isLinkLocal()) {
         g->addr6FlagsIs(a, 0);
      } else {
         delAddr6(ifKey, a);
      }
   }
}

void AddrMap::updateAddr6Flags(KernelNetInfo::IpKey const& ipKey, uint32_t flags) {
   if (!ipKey.addr.isV6()) return;
   auto g = genAddr(ipKey.intfKey);
   if (!g) return;
   Konet::Ip6AddrWithMask a(ipKey.addr.v6(), static_cast<uint8_t>(ipKey.prefixLen));
   if (!g->addr6(a)) return;  // flags are never recorded for an address the map does not hold
   MOX_TRACE_FN(th, "Update addr6 " << a << " at index " << ipKey.intfKey << " flags: 0x"
                                    << std::hex << flags);
   g->addr6FlagsIs(a, flags);
}

}  // namespace Veld
