// Lenders and their borrowers: for each interface that unnumbered interfaces borrow their
// address from, its current primary address and the set of borrowers. Written by
// IpUnnumbered::IpIntfSm and its LenderToBorrowersSm; read by IpAddrConfigSelectorSm.
#pragma once

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"

namespace Veld::IpUnnumbered {

class LenderToBorrowersEntry : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<LenderToBorrowersEntry> {
   public:
      virtual void onAddrWithMask() {}
      virtual void onBorrowingIntfId(Konet::IntfId const&) {}
   };
   using Borrowers = Mox::HashSet<Konet::IntfId>;

   explicit LenderToBorrowersEntry(Konet::IntfId lender) : lender_(std::move(lender)) {}
   Konet::IntfId const& lender() const { return lender_; }

   // The lender's primary address; 0.0.0.0/0 while the lender has none.
   Konet::IpAddrWithMask addrWithMask() const { return addrWithMask_; }
   void addrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(addrWithMask_, v, &NotifieeConst::onAddrWithMask);
   }
   bool borrowingIntfId(Konet::IntfId const& b) const { return borrowingIntfId_.contains(b); }
   void borrowingIntfIdIs(Konet::IntfId const& b) {
      insertMember(borrowingIntfId_, b, &NotifieeConst::onBorrowingIntfId);
   }
   void borrowingIntfIdDel(Konet::IntfId const& b) {
      delMember(borrowingIntfId_, b, &NotifieeConst::onBorrowingIntfId);
   }
   Borrowers const& borrowingIntfIdIterator() const { return borrowingIntfId_; }
   size_t borrowingIntfIdSize() const { return borrowingIntfId_.size(); }

private:
   Konet::IntfId const lender_;
   Konet::IpAddrWithMask addrWithMask_;
   Borrowers borrowingIntfId_;
};

class LenderToBorrowersStatus : public Mox::Entity {
public:
   static constexpr Mox::AttrId kLenderToBorrowersEntry = 1;
   class NotifieeConst : public Mox::EntityNotifiee<LenderToBorrowersStatus> {
   public:
      virtual void onLenderToBorrowersEntry(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<LenderToBorrowersEntry>>;

   Mox::Ptr<LenderToBorrowersEntry> lenderToBorrowersEntry(Konet::IntfId const& lender) const {
      return Mox::valueOr(entry_, lender);
   }
   // The lender's entry, created when absent.
   Mox::Ptr<LenderToBorrowersEntry> lenderToBorrowersEntryIs(Konet::IntfId const& lender) {
      return instantiateMember<LenderToBorrowersEntry>(entry_, lender, kLenderToBorrowersEntry,
                                                       &NotifieeConst::onLenderToBorrowersEntry);
   }
   void lenderToBorrowersEntryDel(Konet::IntfId const& lender) {
      delMember(entry_, lender, &NotifieeConst::onLenderToBorrowersEntry);
   }
   Members const& lenderToBorrowersEntryIterator() const { return entry_; }

private:
   Members entry_;
};

}  // namespace Veld::IpUnnumbered
