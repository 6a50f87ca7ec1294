// Seeds an address map from the kernel mirror's IP state table, once, when it is created:
// assigned addresses are added (IPv6 ones with the table's flags), unassigned ones removed.
// It does not watch the table afterwards; the interface machines keep the map current.
//
// Corruption of the table met during the walk is reported to the table; what was read
// before it stays in the map and the machine is initialised anyway, with nothing retried.
#pragma once

#include "mox/StateMachine.h"
#include "platform/KernelNetInfo.h"
#include "veld/addr/AddrMap.h"

namespace Veld {

class AddrMappingSm : public Mox::StateMachine {
public:
   AddrMappingSm(Mox::Ptr<KernelNetInfo::Status const> kniStatus, Mox::Ptr<AddrMap> addrMap);

   Mox::Ptr<KernelNetInfo::Status const> const& kniStatus() const { return kniStatus_; }
   Mox::Ptr<AddrMap> const& addrMap() const { return addrMap_; }

   void handleInitialized();

private:
   void seed(KernelNetInfo::IpState const& s);
   Mox::Ptr<KernelNetInfo::Status const> const kniStatus_;
   Mox::Ptr<AddrMap> const addrMap_;
};

// The factory the roots use.
Mox::Ptr<AddrMappingSm> AddrMappingSmIs(Mox::Ptr<KernelNetInfo::Status const> kniStatus,
                                        Mox::Ptr<AddrMap> addrMap);

}  // namespace Veld
