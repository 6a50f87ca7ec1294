// One lender of unnumbered interfaces: watches the lender's IPv4 status (when it has one)
// for its primary address and writes that address into the lender's LenderToBorrowersEntry;
// 0.0.0.0/0 while the lender has no status. Made and deleted by IpUnnumbered::IpIntfSm with
// the entry (first borrower in, last borrower out).
//
//    no status (entry 0.0.0.0/0) --lendingIpIntfStatusIs(s)--> following s's addrWithMask
//    following --lendingIpIntfStatusDel()--> no status
#pragma once

#include "konet/IntfId.h"
#include "mox/StateMachine.h"
#include "platform/Ip.h"
#include "veld/unnumbered/LenderToBorrowersStatus.h"

namespace Veld::IpUnnumbered {

class LenderToBorrowersSm : public Mox::StateMachine {
public:
   class MoxLendingIpIntfStatus
       : public Mox::Reactor<LenderToBorrowersSm, Ip::IpIntfStatus::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onAddrWithMask() override { owner()->handleLendingIpIntfStatusChanged(); }
   };

   LenderToBorrowersSm(Konet::IntfId lender, Mox::Ptr<LenderToBorrowersEntry> entry);
   ~LenderToBorrowersSm() override;

   Konet::IntfId const& lender() const { return lender_; }
   Mox::Ptr<LenderToBorrowersEntry> const& entry() const { return entry_; }

   Mox::Ptr<Ip::IpIntfStatus const> lendingIpIntfStatus() const;
   void lendingIpIntfStatusIs(Mox::Ptr<Ip::IpIntfStatus const> const& status);
   void lendingIpIntfStatusDel() { lendingIpIntfStatusIs(nullptr); }

   void handleLendingIpIntfStatusChanged();

private:
   Konet::IntfId const lender_;
   Mox::Ptr<LenderToBorrowersEntry> const entry_;
   Mox::Ptr<MoxLendingIpIntfStatus> moxLendingIpIntfStatus_;
};

Mox::Ptr<LenderToBorrowersSm> LenderToBorrowersSmIs(Konet::IntfId lender,
                                                    Mox::Ptr<LenderToBorrowersEntry> entry);

}  // namespace Veld::IpUnnumbered
