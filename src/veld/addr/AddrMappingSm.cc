#include "veld/addr/AddrMappingSm.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldAddrMapping");
}

AddrMappingSm::AddrMappingSm(Mox::Ptr<KernelNetInfo::Status const> kniStatus,
                             Mox::Ptr<AddrMap> addrMap)
    : kniStatus_(std::move(kniStatus)), addrMap_(std::move(addrMap)) {
   MOX_TRACE_FN0(th);
   handleInitialized();
}

Mox::Ptr<AddrMappingSm> AddrMappingSmIs(Mox::Ptr<KernelNetInfo::Status const> kniStatus,
                                        Mox::Ptr<AddrMap> addrMap) {
   return Mox::make<AddrMappingSm>(std::move(kniStatus), std::move(addrMap));
}

void AddrMappingSm::seed(KernelNetInfo::IpState const& s) {
   auto const& key = s.key;
   auto len = static_cast<uint8_t>(key.prefixLen);
   if (key.addr.isV6()) {
      Konet::Ip6AddrWithMask a(key.addr.v6(), len);
      if (s.assigned) {
         addrMap_->addAddr6(key.intfKey, a);
         addrMap_->updateAddr6Flags(key, s.flags);  // addAddr6 set them to 0
      } else {
         addrMap_->delAddr6(key.intfKey, a);
      }
   } else if (key.addr.isV4()) {
      Konet::IpAddrWithMask a(key.addr.v4(), len);
      if (s.assigned) {
         addrMap_->addAddr(key.intfKey, a);
      } else {
         addrMap_->delAddr(key.intfKey, a);
      }
   }
}

void AddrMappingSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   struct Done {
      AddrMappingSm* sm;
      ~Done() { sm->initializedSet(true); }  // on every way out
   } done{this};
   if (!kniStatus_ || !addrMap_) return;
   auto table = kniStatus_->ipState();
   try {
      for (auto it = table.begin(); it != table.end(); ++it)
         seed(it.value());
   } catch (Cinder::CorruptionDetectedException const& e) {
      // Report it to the table, which records it and raises it again; the seeding ends
      // here with what it has.
      try {
         table.corruptionDetected(e.what());
      } catch (Cinder::CorruptionDetectedException const&) {
      }
   }
}

}  // namespace Veld
