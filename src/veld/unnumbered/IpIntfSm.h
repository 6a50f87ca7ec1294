// The reverse relation of unnumbered interfaces: watches every interface's IPv4 status
// (Ip::Status) for its unnumberedIntfId and keeps LenderToBorrowersStatus, one entry per
// lender with the set of its borrowers, and one LenderToBorrowersSm per entry that follows
// the lender's address.
//
// Per interface (MoxIpIntfStatus) the state is the lender it last recorded:
//    none --unnumberedIntfId names L--> borrowing from L (L's entry made by the first borrower)
//    borrowing from L --names M / names none / status deleted--> taken out of L's set (L's
//       entry deleted with its last borrower), then as above
// An interface whose status goes also stops lending: its entry's address becomes 0.0.0.0/0
// and its borrowers stay.
//
// The machine is made with the IPv4 status and does nothing until lenderToBorrowersStatusIs()
// attaches its output; it then continues from the entries it finds there.
#pragma once

#include "konet/IntfId.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"
#include "platform/Ip.h"
#include "veld/unnumbered/LenderToBorrowersSm.h"
#include "veld/unnumbered/LenderToBorrowersStatus.h"

namespace Veld::IpUnnumbered {

class IpIntfSm : public Mox::StateMachine {
public:
   // One interface's IPv4 status.
   class MoxIpIntfStatus : public Mox::Reactor<IpIntfSm, Ip::IpIntfStatus::NotifieeConst> {
   public:
      MoxIpIntfStatus(IpIntfSm* sm, Mox::Ptr<Ip::IpIntfStatus const> const& status);
      Konet::IntfId const& intf() const { return intf_; }
      // The lender this interface was last recorded as borrowing from ("" for none).
      Konet::IntfId const& newLenderIntfId() const { return newLenderIntfId_; }

      void onUnnumberedIntfId() override;
      void handleUnnumberedIntfIdChange(Konet::IntfId const& prevLender,
                                        Konet::IntfId const& newLender);
      void handleMaybeLendingIntf();
      void handleDel();

   private:
      Konet::IntfId const intf_;
      Konet::IntfId newLenderIntfId_;
   };

   explicit IpIntfSm(Mox::Ptr<Ip::Status const> ipStatus);
   ~IpIntfSm() override;

   Mox::Ptr<Ip::Status const> const& ipStatus() const { return ipStatus_; }
   Mox::Ptr<LenderToBorrowersStatus> const& lenderToBorrowersStatus() const {
      return lenderToBorrowersStatus_;
   }
   // Attaches the output and starts: the published relation first, then every status.
   void lenderToBorrowersStatusIs(Mox::Ptr<LenderToBorrowersStatus> const& status);

   Mox::Ptr<MoxIpIntfStatus> ipIntfStatus(Konet::IntfId const& intf) const;
   Mox::Ptr<MoxIpIntfStatus> ipIntfStatusIs(Mox::Ptr<Ip::IpIntfStatus const> const& status);
   void ipIntfStatusDel(Konet::IntfId const& intf);

   Mox::Ptr<LenderToBorrowersSm> lenderToBorrowersSmTbl(Konet::IntfId const& lender) const;
   Mox::Ptr<LenderToBorrowersSm> lenderToBorrowersSmTblIs(Mox::Ptr<LenderToBorrowersSm> const& sm);
   void lenderToBorrowersSmTblDel(Konet::IntfId const& lender);
   size_t lenderToBorrowersSmTblSize() const { return lenderToBorrowersSmTbl_.size(); }

   void handleLenderToBorrowersTblInit();
   void handleInitialized();
   void handleIpIntfStatus(Konet::IntfId const& intf);
   void cleanupPrevIntfState(Konet::IntfId const& intf, Konet::IntfId const& prevLender,
                             Konet::IntfId const& newLender);

private:
   class MoxIpStatus;

   // The lender's machine, made with the lender's status when there is one.
   void lenderSmIs(Konet::IntfId const& lender, Mox::Ptr<LenderToBorrowersEntry> const& entry);

   Mox::Ptr<Ip::Status const> const ipStatus_;
   Mox::Ptr<LenderToBorrowersStatus> lenderToBorrowersStatus_;
   Mox::Ptr<MoxIpStatus> moxIpStatus_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfStatus>> ipIntfStatus_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<LenderToBorrowersSm>> lenderToBorrowersSmTbl_;
};

Mox::Ptr<IpIntfSm> IpIntfSmIs(Mox::Ptr<Ip::Status const> ipStatus);

}  // namespace Veld::IpUnnumbered
