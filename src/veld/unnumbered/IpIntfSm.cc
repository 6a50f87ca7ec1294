#include "veld/unnumbered/IpIntfSm.h"

#include "mox/Trace.h"

namespace Veld::IpUnnumbered {

static Mox::TraceHandle th("VeldIpUnnumbered");

class IpIntfSm::MoxIpStatus : public Mox::Reactor<IpIntfSm, Ip::Status::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIntf(Konet::IntfId const& intf) override { owner()->handleIpIntfStatus(intf); }
};

IpIntfSm::IpIntfSm(Mox::Ptr<Ip::Status const> ipStatus) : ipStatus_(std::move(ipStatus)) {
   MOX_TRACE_FN0(th);
   moxIpStatus_ = Mox::make<MoxIpStatus>(this);
}

IpIntfSm::~IpIntfSm() {
   moxDoZombieReactors(true);
   for (auto const& intf : ipIntfStatus_.keys())
      (*ipIntfStatus_.find(intf))->moxDoZombieReactors(true);
}

Mox::Ptr<IpIntfSm> IpIntfSmIs(Mox::Ptr<Ip::Status const> ipStatus) {
   return Mox::make<IpIntfSm>(std::move(ipStatus));
}

void IpIntfSm::lenderToBorrowersStatusIs(Mox::Ptr<LenderToBorrowersStatus> const& status) {
   MOX_TRACE_FN0(th);
   if (lenderToBorrowersStatus_ == status) return;
   lenderToBorrowersStatus_ = status;
   if (!status) return;
   handleLenderToBorrowersTblInit();
   handleInitialized();
}

Mox::Ptr<IpIntfSm::MoxIpIntfStatus> IpIntfSm::ipIntfStatus(Konet::IntfId const& intf) const {
   return Mox::valueOr(ipIntfStatus_, intf);
}

Mox::Ptr<IpIntfSm::MoxIpIntfStatus> IpIntfSm::ipIntfStatusIs(
    Mox::Ptr<Ip::IpIntfStatus const> const& status) {
   Mox::requireNonNull(status, "_ipIntfStatus", "Veld::IpUnnumbered::IpIntfSm::ipIntfStatus");
   if (auto* child = ipIntfStatus_.find(status->intf())) return *child;
   auto child = Mox::make<MoxIpIntfStatus>(this, status);
   ipIntfStatus_.emplace(status->intf(), child);
   child->handleMaybeLendingIntf();
   if (!status->unnumberedIntfId().empty()) {
      child->handleUnnumberedIntfIdChange(Konet::IntfId(), status->unnumberedIntfId());
   }
   return child;
}

void IpIntfSm::ipIntfStatusDel(Konet::IntfId const& intf) {
   auto child = ipIntfStatus(intf);
   if (!child) return;
   ipIntfStatus_.erase(intf);
   child->moxDoZombieReactors(true);
   child->handleDel();
}

Mox::Ptr<LenderToBorrowersSm> IpIntfSm::lenderToBorrowersSmTbl(Konet::IntfId const& lender) const {
   return Mox::valueOr(lenderToBorrowersSmTbl_, lender);
}

Mox::Ptr<LenderToBorrowersSm> IpIntfSm::lenderToBorrowersSmTblIs(
    Mox::Ptr<LenderToBorrowersSm> const& sm) {
   Mox::requireNonNull(sm, "_lenderToBorrowersSmTbl",
                       "Veld::IpUnnumbered::IpIntfSm::lenderToBorrowersSmTbl");
   lenderToBorrowersSmTbl_.assign(sm->lender(), sm);
   return sm;
}

void IpIntfSm::lenderToBorrowersSmTblDel(Konet::IntfId const& lender) {
   lenderToBorrowersSmTbl_.erase(lender);
}

void IpIntfSm::lenderSmIs(Konet::IntfId const& lender,
                          Mox::Ptr<LenderToBorrowersEntry> const& entry) {
   auto sm = lenderToBorrowersSmTblIs(LenderToBorrowersSmIs(lender, entry));
   if (auto status = ipStatus_->intf(lender)) sm->lendingIpIntfStatusIs(status);
}

// A restarted agent continues from the relation it published: each entry gets its machine
// again, and keeps its address until the lender's status says otherwise.
void IpIntfSm::handleLenderToBorrowersTblInit() {
   MOX_TRACE_FN0(th);
   for (auto const& lender : lenderToBorrowersStatus_->lenderToBorrowersEntryIterator().keys()) {
      if (lenderToBorrowersSmTbl(lender)) continue;
      lenderSmIs(lender, lenderToBorrowersStatus_->lenderToBorrowersEntry(lender));
   }
}

void IpIntfSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   moxIpStatus_->notifierIs(ipStatus_);
   for (auto const& intf : ipStatus_->intfIterator().keys())
      handleIpIntfStatus(intf);
   initializedSet(true);
}

// An interface's status appeared, went, or was replaced by another entity.
void IpIntfSm::handleIpIntfStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, intf);
   if (!lenderToBorrowersStatus_) return;
   auto status = ipStatus_->intf(intf);
   auto child = ipIntfStatus(intf);
   if (child && child->notifier() != status) {
      ipIntfStatusDel(intf);
      child = nullptr;
   }
   if (status && !child) ipIntfStatusIs(status);
}

void IpIntfSm::cleanupPrevIntfState(Konet::IntfId const& intf, Konet::IntfId const& prevLender,
                                    Konet::IntfId const& newLender) {
   if (auto lending = lenderToBorrowersSmTbl(intf)) {
      MOX_TRACE(th, 7, " Deleting lending Intf: " << intf);
      lending->lendingIpIntfStatusDel();
   }
   MOX_TRACE(th, 7,
             " possible borrowingIntf: " << intf << " lendingIntf: " << newLender << " prevLender "
                                         << prevLender);
   if (prevLender.empty()) return;
   auto entry = lenderToBorrowersStatus_->lenderToBorrowersEntry(prevLender);
   if (!entry) return;
   MOX_TRACE(th, 7, "prev entry found with lender: " << prevLender);
   if (entry->borrowingIntfId(intf)) {
      MOX_TRACE(th, 7, "Removing borrowing Intf: " << intf);
      entry->borrowingIntfIdDel(intf);
   }
   if (entry->borrowingIntfIdSize() == 0) {
      MOX_TRACE(th, 7, "Removed last unnumbered intf referring to: " << prevLender);
      lenderToBorrowersStatus_->lenderToBorrowersEntryDel(prevLender);
      lenderToBorrowersSmTblDel(prevLender);
   }
}

// ---- one interface

IpIntfSm::MoxIpIntfStatus::MoxIpIntfStatus(IpIntfSm* sm,
                                           Mox::Ptr<Ip::IpIntfStatus const> const& status)
    : Reactor(sm), intf_(status->intf()) {
   notifierIs(status);
}

void IpIntfSm::MoxIpIntfStatus::onUnnumberedIntfId() {
   handleUnnumberedIntfIdChange(newLenderIntfId_, notifier()->unnumberedIntfId());
}

void IpIntfSm::MoxIpIntfStatus::handleUnnumberedIntfIdChange(Konet::IntfId const& prevLender,
                                                             Konet::IntfId const& newLender) {
   MOX_TRACE_FN(th, " On interface: " << intf_ << ", prevLenderIntfId: " << prevLender
                                      << ", newLenderIntfId: " << newLender);
   // Copies: the arguments may be this reactor's own member.
   Konet::IntfId const prev = prevLender;
   Konet::IntfId const next = newLender;
   if (prev == next && !next.empty()) return;
   auto* sm = owner();
   sm->cleanupPrevIntfState(intf_, prev, next);
   newLenderIntfId_ = Konet::IntfId();
   if (next.empty()) return;
   MOX_TRACE(th, 7, " On intf " << intf_ << " lending intf is: " << next);
   auto const& table = sm->lenderToBorrowersStatus();
   auto entry = table->lenderToBorrowersEntry(next);
   if (!entry) {
      MOX_TRACE(th, 7, "First reference to lending intf " << next);
      entry = table->lenderToBorrowersEntryIs(next);
      sm->lenderSmIs(next, entry);
   } else if (!sm->lenderToBorrowersSmTbl(next)) {
      sm->lenderSmIs(next, entry);
   }
   MOX_TRACE(th, 7, "Adding Borrowing Intf: " << intf_);
   entry->borrowingIntfIdIs(intf_);
   newLenderIntfId_ = next;
}

void IpIntfSm::MoxIpIntfStatus::handleMaybeLendingIntf() {
   MOX_TRACE_FN(th, intf_);
   if (auto lending = owner()->lenderToBorrowersSmTbl(intf_)) {
      MOX_TRACE(th, 7, "Setting lendingIpIntfStatus " << intf_);
      lending->lendingIpIntfStatusIs(notifier());
   }
}

void IpIntfSm::MoxIpIntfStatus::handleDel() {
   MOX_TRACE_FN(th, " Deleting intf: " << intf_);
   Konet::IntfId const prev = newLenderIntfId_;
   newLenderIntfId_ = Konet::IntfId();
   owner()->cleanupPrevIntfState(intf_, prev, Konet::IntfId());
}

}  // namespace Veld::IpUnnumbered
