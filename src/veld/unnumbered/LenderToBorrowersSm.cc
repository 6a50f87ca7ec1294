#include "veld/unnumbered/LenderToBorrowersSm.h"

#include "mox/Trace.h"

namespace Veld::IpUnnumbered {

static Mox::TraceHandle th("VeldIpUnnumbered");

LenderToBorrowersSm::LenderToBorrowersSm(Konet::IntfId lender,
                                         Mox::Ptr<LenderToBorrowersEntry> entry)
    : lender_(std::move(lender)), entry_(std::move(entry)) {
   MOX_TRACE_FN(th, lender_);
   moxLendingIpIntfStatus_ = Mox::make<MoxLendingIpIntfStatus>(this);
   initializedSet(true);
}

LenderToBorrowersSm::~LenderToBorrowersSm() { moxDoZombieReactors(true); }

Mox::Ptr<LenderToBorrowersSm> LenderToBorrowersSmIs(Konet::IntfId lender,
                                                    Mox::Ptr<LenderToBorrowersEntry> entry) {
   return Mox::make<LenderToBorrowersSm>(std::move(lender), std::move(entry));
}

Mox::Ptr<Ip::IpIntfStatus const> LenderToBorrowersSm::lendingIpIntfStatus() const {
   return moxLendingIpIntfStatus_->notifier();
}

void LenderToBorrowersSm::lendingIpIntfStatusIs(Mox::Ptr<Ip::IpIntfStatus const> const& status) {
   moxLendingIpIntfStatus_->notifierIs(status);
   handleLendingIpIntfStatusChanged();
}

void LenderToBorrowersSm::handleLendingIpIntfStatusChanged() {
   MOX_TRACE_FN(th, " Lending intf is: " << lender_);
   auto status = lendingIpIntfStatus();
   auto addr = status ? status->addrWithMask() : Konet::IpAddrWithMask();
   MOX_TRACE(th, 7, " Lending intf has addr: " << addr);
   entry_->addrWithMaskIs(addr);
}

}  // namespace Veld::IpUnnumbered
