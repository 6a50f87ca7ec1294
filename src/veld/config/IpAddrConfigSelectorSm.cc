#include "veld/config/IpAddrConfigSelectorSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldAddrSelector");

namespace {
Konet::IpAddrWithMask const kNoAddr;  // 0.0.0.0/0
}  // namespace
}  // namespace Veld

// Next to the type, so that the traces' templates find it.
namespace L3::Intf {
static std::ostream& operator<<(std::ostream& os, Mox::Ptr<Config const> const& l3) {
   return l3 ? os << l3->vrf() : os << "(none)";
}
}  // namespace L3::Intf

namespace Veld {

class IpAddrConfigSelectorSm::MoxCliConfig
    : public Mox::Reactor<IpAddrConfigSelectorSm, Ip::Config::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIpIntfConfig(Konet::IntfId const& intf) override { owner()->handleCliConfig(intf); }
};

class IpAddrConfigSelectorSm::MoxDhclientStatus
    : public Mox::Reactor<IpAddrConfigSelectorSm, Dhclient::Status::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIntfStatus(Konet::IntfId const& intf) override { owner()->handleDhclientStatus(intf); }
};

class IpAddrConfigSelectorSm::MoxLenderToBorrowersStatus
    : public Mox::Reactor<IpAddrConfigSelectorSm,
                          IpUnnumbered::LenderToBorrowersStatus::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onLenderToBorrowersEntry(Konet::IntfId const& lender) override {
      owner()->handleLenderToBorrowersEntry(lender);
   }
};

// ---- the machine

IpAddrConfigSelectorSm::IpAddrConfigSelectorSm(
    Mox::Ptr<Ip::Config const> cliConfig, Mox::Ptr<Dhclient::Status const> dhclientStatus,
    Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> lenderToBorrowersStatus,
    Mox::Ptr<Ip::Config> ipConfig)
    : cliConfig_(std::move(cliConfig)),
      dhclientStatus_(std::move(dhclientStatus)),
      lenderToBorrowersStatus_(std::move(lenderToBorrowersStatus)),
      ipConfig_(std::move(ipConfig)) {
   MOX_TRACE_FN0(th);
   moxCliConfig_ = Mox::make<MoxCliConfig>(this);
   moxCliConfig_->notifierIs(cliConfig_);
   moxDhclientStatus_ = Mox::make<MoxDhclientStatus>(this);
   moxDhclientStatus_->notifierIs(dhclientStatus_);
   moxLenderToBorrowersStatus_ = Mox::make<MoxLenderToBorrowersStatus>(this);
   moxLenderToBorrowersStatus_->notifierIs(lenderToBorrowersStatus_);
   for (auto const& intf : cliConfig_->ipIntfConfigIterator().keys())
      cliConfigReactorIs(cliConfig_->ipIntfConfig(intf));
   for (auto const& intf : dhclientStatus_->intfStatusIterator().keys())
      dhclientStatusReactorIs(dhclientStatus_->intfStatus(intf));
   for (auto const& lender : lenderToBorrowersStatus_->lenderToBorrowersEntryIterator().keys())
      unnumberedIntfStatusReactorIs(lenderToBorrowersStatus_->lenderToBorrowersEntry(lender));
   handleInitialized();
}

IpAddrConfigSelectorSm::~IpAddrConfigSelectorSm() {
   moxDoZombieReactors(true);
   for (auto const& intf : cliConfigReactor_.keys())
      (*cliConfigReactor_.find(intf))->moxDoZombieReactors(true);
   for (auto const& intf : dhclientStatusReactor_.keys())
      (*dhclientStatusReactor_.find(intf))->moxDoZombieReactors(true);
   for (auto const& intf : unnumberedIntfStatusReactor_.keys())
      (*unnumberedIntfStatusReactor_.find(intf))->moxDoZombieReactors(true);
}

Mox::Ptr<IpAddrConfigSelectorSm> IpAddrConfigSelectorSmIs(
    Mox::Ptr<Ip::Config const> cliConfig, Mox::Ptr<Dhclient::Status const> dhclientStatus,
    Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> lenderToBorrowersStatus,
    Mox::Ptr<Ip::Config> ipConfig) {
   return Mox::make<IpAddrConfigSelectorSm>(std::move(cliConfig), std::move(dhclientStatus),
                                            std::move(lenderToBorrowersStatus),
                                            std::move(ipConfig));
}

Mox::Ptr<Ip::IpIntfConfig> IpAddrConfigSelectorSm::createIpIntfConfig(Konet::IntfId const& intf) {
   return ipConfig_->ipIntfConfigIs(intf);
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxCliConfigReactor> IpAddrConfigSelectorSm::cliConfigReactor(
    Konet::IntfId const& intf) const {
   return Mox::valueOr(cliConfigReactor_, intf);
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxCliConfigReactor> IpAddrConfigSelectorSm::cliConfigReactorIs(
    Mox::Ptr<Ip::IpIntfConfig const> const& c) {
   Mox::requireNonNull(c, "_cliConfigReactor", "Veld::IpAddrConfigSelectorSm::cliConfigReactor");
   if (auto* child = cliConfigReactor_.find(c->intf())) return *child;
   auto child = Mox::make<MoxCliConfigReactor>(this, c);
   cliConfigReactor_.emplace(c->intf(), child);
   return child;
}

void IpAddrConfigSelectorSm::cliConfigReactorDel(Konet::IntfId const& intf) {
   auto child = cliConfigReactor(intf);
   if (!child) return;
   cliConfigReactor_.erase(intf);
   child->moxDoZombieReactors(true);
   child->handleDelete();
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxDhclientStatusReactor>
IpAddrConfigSelectorSm::dhclientStatusReactor(Konet::IntfId const& intf) const {
   return Mox::valueOr(dhclientStatusReactor_, intf);
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxDhclientStatusReactor>
IpAddrConfigSelectorSm::dhclientStatusReactorIs(
    Mox::Ptr<Dhclient::IntfStatus const> const& status) {
   Mox::requireNonNull(status, "_dhclientStatusReactor",
                       "Veld::IpAddrConfigSelectorSm::dhclientStatusReactor");
   if (auto* child = dhclientStatusReactor_.find(status->intf())) return *child;
   auto child = Mox::make<MoxDhclientStatusReactor>(this, status);
   dhclientStatusReactor_.emplace(status->intf(), child);
   return child;
}

void IpAddrConfigSelectorSm::dhclientStatusReactorDel(Konet::IntfId const& intf) {
   auto child = dhclientStatusReactor(intf);
   if (!child) return;
   dhclientStatusReactor_.erase(intf);
   child->moxDoZombieReactors(true);
   child->handleDelete();
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor>
IpAddrConfigSelectorSm::unnumberedIntfStatusReactor(Konet::IntfId const& lender) const {
   return Mox::valueOr(unnumberedIntfStatusReactor_, lender);
}

Mox::Ptr<IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor>
IpAddrConfigSelectorSm::unnumberedIntfStatusReactorIs(
    Mox::Ptr<IpUnnumbered::LenderToBorrowersEntry const> const& entry) {
   Mox::requireNonNull(entry, "_unnumberedIntfStatusReactor",
                       "Veld::IpAddrConfigSelectorSm::unnumberedIntfStatusReactor");
   if (auto* child = unnumberedIntfStatusReactor_.find(entry->lender())) return *child;
   auto child = Mox::make<MoxUnnumberedIntfStatusReactor>(this, entry);
   unnumberedIntfStatusReactor_.emplace(entry->lender(), child);
   return child;
}

void IpAddrConfigSelectorSm::unnumberedIntfStatusReactorDel(Konet::IntfId const& lender) {
   auto child = unnumberedIntfStatusReactor(lender);
   if (!child) return;
   unnumberedIntfStatusReactor_.erase(lender);
   child->moxDoZombieReactors(true);
   child->handleDelete();
}

void IpAddrConfigSelectorSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   // Entries left from before a restart for interfaces that are gone meanwhile go first.
   for (auto const& intf : ipConfig_->ipIntfConfigIterator().keys()) {
      if (!cliConfig_->ipIntfConfig(intf)) ipConfig_->ipIntfConfigDel(intf);
   }
   for (auto const& intf : cliConfigReactor_.keys())
      cliConfigReactor(intf)->handleInitialized();
   for (auto const& intf : dhclientStatusReactor_.keys())
      dhclientStatusReactor(intf)->handleInitialized();
   for (auto const& lender : unnumberedIntfStatusReactor_.keys())
      unnumberedIntfStatusReactor(lender)->handleInitialized();
   initializedSet(true);
}

void IpAddrConfigSelectorSm::handleDelete() {
   MOX_TRACE_FN0(th);
   for (auto const& intf : cliConfigReactor_.keys())
      cliConfigReactor(intf)->handleDelete();
   for (auto const& intf : dhclientStatusReactor_.keys())
      dhclientStatusReactor(intf)->handleDelete();
}

// A command-line entry appeared, went, or was replaced by another entity.
void IpAddrConfigSelectorSm::handleCliConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, intf);
   auto config = cliConfig_->ipIntfConfig(intf);
   auto child = cliConfigReactor(intf);
   if (child && child->notifier() != config) {
      cliConfigReactorDel(intf);
      child = nullptr;
   }
   if (config && !child) cliConfigReactorIs(config)->handleInitialized();
}

void IpAddrConfigSelectorSm::handleDhclientStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, intf);
   auto status = dhclientStatus_->intfStatus(intf);
   auto child = dhclientStatusReactor(intf);
   if (child && child->notifier() != status) {
      dhclientStatusReactorDel(intf);
      child = nullptr;
   }
   if (status && !child) dhclientStatusReactorIs(status)->handleInitialized();
}

void IpAddrConfigSelectorSm::handleLenderToBorrowersEntry(Konet::IntfId const& lender) {
   MOX_TRACE_FN(th, lender);
   auto entry = lenderToBorrowersStatus_->lenderToBorrowersEntry(lender);
   auto child = unnumberedIntfStatusReactor(lender);
   if (child && child->notifier() != entry) {
      unnumberedIntfStatusReactorDel(lender);
      child = nullptr;
   }
   if (entry && !child) unnumberedIntfStatusReactorIs(entry)->handleInitialized();
}

void IpAddrConfigSelectorSm::applyDhcpRule(Konet::IntfId const& intf) {
   auto cli = cliConfig_->ipIntfConfig(intf);
   auto status = dhclientStatus_->intfStatus(intf);
   if (!cli || cli->addrSource() != Ip::AddrSource::dhcp || !status) return;
   createIpIntfConfig(intf)->addrWithMaskIs(status->pending() ? kNoAddr : status->addrWithMask());
}

// ---- one command-line entry

IpAddrConfigSelectorSm::MoxCliConfigReactor::MoxCliConfigReactor(
    IpAddrConfigSelectorSm* sm, Mox::Ptr<Ip::IpIntfConfig const> const& c)
    : Reactor(sm), intf_(c->intf()) {
   notifierIs(c);
}

Mox::Ptr<Ip::IpIntfConfig> IpAddrConfigSelectorSm::MoxCliConfigReactor::out() {
   return initialized_ ? owner()->createIpIntfConfig(intf_) : nullptr;
}

// Each handler copies one attribute; the trace names it and the new value.
#define VELD_COPY_ATTR(label, get, set)                             \
   do {                                                             \
      if (!initialized_) return;                                    \
      MOX_TRACE_FN(th, " Intf: " << intf_ << label << cli().get()); \
      out()->set(cli().get());                                      \
   } while (0)

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleInitialized() {
   MOX_TRACE_FN(th, " Intf: " << intf_);
   initialized_ = true;
   handleL3Config();
   handleAddrSource();  // copies the address from its source
   handleSecondaryWithMask();
   handleVirtualAddrWithMask();
   handleVirtualSecondaryWithMask();
   handleProxyArpEnabled();
   handleLocalProxyArpEnabled();
   handleGratuitousArpAccepted();
   handleForwarding();
   handleScope();
   handleUrpf();
   handleForceDpRoutingEnabled();
   handleNoArp();
   handleTcpMssIngress();
   handleTcpMssEgress();
   handleConfigSource();
   handleDirectedBroadcastEnabled();
   handleAttachedRoutes();
   handleUnnumberedIntf();
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleDelete() {
   MOX_TRACE_FN(th, " Intf: " << intf_);
   initialized_ = false;
   owner()->ipConfig()->ipIntfConfigDel(intf_);
}

// The command-line rule: the typed address, when the source is the command line.
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleAddrWithMask() {
   if (!initialized_) return;
   MOX_TRACE_FN(th, " Intf: " << intf_ << " address: " << cli().addrWithMask());
   if (cli().addrSource() != Ip::AddrSource::cli) return;
   out()->addrWithMaskIs(cli().addrWithMask());
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleSecondaryWithMask(
    Konet::IpAddrWithMask const& addr) {
   if (!initialized_) return;
   bool const added = cli().secondaryWithMask(addr);
   MOX_TRACE_FN(
       th, " Intf: " << intf_ << " address: " << addr << (added ? " Added addr" : " Deleted addr"));
   if (added) {
      out()->secondaryWithMaskIs(addr);
   } else {
      out()->secondaryWithMaskDel(addr);
   }
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleSecondaryWithMask() {
   if (!initialized_) return;
   for (auto const& a : out()->secondaryWithMaskIterator().keys()) {
      if (!cli().secondaryWithMask(a)) handleSecondaryWithMask(a);
   }
   for (auto const& a : cli().secondaryWithMaskIterator().keys())
      handleSecondaryWithMask(a);
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleVirtualAddrWithMask() {
   VELD_COPY_ATTR(" address: ", virtualAddrWithMask, virtualAddrWithMaskIs);
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleVirtualSecondaryWithMask(
    Konet::IpAddrWithMask const& addr) {
   if (!initialized_) return;
   bool const added = cli().virtualSecondaryWithMask(addr);
   MOX_TRACE_FN(
       th, " Intf: " << intf_ << " address: " << addr << (added ? " Added addr" : " Deleted addr"));
   if (added) {
      out()->virtualSecondaryWithMaskIs(addr);
   } else {
      out()->virtualSecondaryWithMaskDel(addr);
   }
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleVirtualSecondaryWithMask() {
   if (!initialized_) return;
   for (auto const& a : out()->virtualSecondaryWithMaskIterator().keys()) {
      if (!cli().virtualSecondaryWithMask(a)) handleVirtualSecondaryWithMask(a);
   }
   for (auto const& a : cli().virtualSecondaryWithMaskIterator().keys())
      handleVirtualSecondaryWithMask(a);
}

void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleProxyArpEnabled() {
   VELD_COPY_ATTR(" proxyArpEnabled: ", proxyArpEnabled, proxyArpEnabledIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleLocalProxyArpEnabled() {
   VELD_COPY_ATTR(" localProxyArpEnabled: ", localProxyArpEnabled, localProxyArpEnabledIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleGratuitousArpAccepted() {
   VELD_COPY_ATTR(" gratuitousArpAccepted: ", gratuitousArpAccepted, gratuitousArpAcceptedIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleForwarding() {
   VELD_COPY_ATTR(" forwarding: ", forwarding, forwardingIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleScope() {
   if (!initialized_) return;
   MOX_TRACE_FN(th, " Intf: " << intf_ << " scope: " << unsigned(cli().scope()));
   out()->scopeIs(cli().scope());
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleUrpf() {
   VELD_COPY_ATTR(" urpf: ", urpf, urpfIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleL3Config() {
   VELD_COPY_ATTR(" l3Config: ", l3Config, l3ConfigIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleForceDpRoutingEnabled() {
   VELD_COPY_ATTR(" forceDpRoutingEnabled: ", forceDpRoutingEnabled, forceDpRoutingEnabledIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleNoArp() {
   VELD_COPY_ATTR(" noArp: ", noArp, noArpIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleTcpMssIngress() {
   VELD_COPY_ATTR(" maxMssIngress: ", maxMssIngress, maxMssIngressIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleTcpMssEgress() {
   VELD_COPY_ATTR(" maxMssEgress: ", maxMssEgress, maxMssEgressIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleConfigSource() {
   VELD_COPY_ATTR(" configSource: ", configSource, configSourceIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleDirectedBroadcastEnabled() {
   VELD_COPY_ATTR(" directedBroadcastEnabled: ", directedBroadcastEnabled,
                  directedBroadcastEnabledIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleAttachedRoutes() {
   VELD_COPY_ATTR(" attachedRoutes: ", attachedRoutes, attachedRoutesIs);
}
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleUnnumberedIntf() {
   VELD_COPY_ATTR(" unnumberedIntfId: ", unnumberedIntfId, unnumberedIntfIdIs);
}

#undef VELD_COPY_ATTR

// The source changed: the address follows it at once.
void IpAddrConfigSelectorSm::MoxCliConfigReactor::handleAddrSource() {
   if (!initialized_) return;
   auto const source = cli().addrSource();
   MOX_TRACE_FN(th, " Intf: " << intf_ << " addrSource: " << source);
   out()->addrSourceIs(source);
   if (source == Ip::AddrSource::cli) {
      handleAddrWithMask();
   } else if (owner()->dhclientStatus()->intfStatus(intf_)) {
      owner()->applyDhcpRule(intf_);
   } else {
      out()->addrWithMaskIs(kNoAddr);
   }
}

// ---- one DHCP status

IpAddrConfigSelectorSm::MoxDhclientStatusReactor::MoxDhclientStatusReactor(
    IpAddrConfigSelectorSm* sm, Mox::Ptr<Dhclient::IntfStatus const> const& status)
    : Reactor(sm), intf_(status->intf()) {
   notifierIs(status);
}

void IpAddrConfigSelectorSm::MoxDhclientStatusReactor::handleInitialized() {
   MOX_TRACE_FN(th, " Intf: " << intf_);
   initialized_ = true;
   handleAddrWithMask();
}

void IpAddrConfigSelectorSm::MoxDhclientStatusReactor::handleAddrWithMask() {
   if (!initialized_) return;
   MOX_TRACE_FN(th, " Intf: " << intf_ << " address: " << notifierRaw()->addrWithMask());
   owner()->applyDhcpRule(intf_);
}

void IpAddrConfigSelectorSm::MoxDhclientStatusReactor::handlePending() {
   if (!initialized_) return;
   MOX_TRACE_FN(th, " Intf: " << intf_ << " pending: " << notifierRaw()->pending());
   handleAddrWithMask();
}

// The lease is gone: an interface on DHCP keeps no address; one back on the command line
// takes its typed address.
void IpAddrConfigSelectorSm::MoxDhclientStatusReactor::handleDelete() {
   MOX_TRACE_FN(th, " Intf: " << intf_);
   initialized_ = false;
   auto cli = owner()->cliConfig()->ipIntfConfig(intf_);
   if (!cli) return;
   if (cli->addrSource() != Ip::AddrSource::cli) {
      owner()->createIpIntfConfig(intf_)->addrWithMaskIs(kNoAddr);
   } else if (auto child = owner()->cliConfigReactor(intf_)) {
      child->handleAddrWithMask();
   }
}

// ---- one lender

IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor::MoxUnnumberedIntfStatusReactor(
    IpAddrConfigSelectorSm* sm, Mox::Ptr<IpUnnumbered::LenderToBorrowersEntry const> const& entry)
    : Reactor(sm), lender_(entry->lender()) {
   notifierIs(entry);
}

void IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor::handleInitialized() {
   MOX_TRACE_FN(th, " Intf: " << lender_);
   initialized_ = true;
   handleAddrWithMask();
}

void IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor::handleAddrWithMask() {
   if (!initialized_) return;
   MOX_TRACE_FN(th, " Intf: " << lender_ << " has addr " << notifierRaw()->addrWithMask());
   for (auto const& b : notifierRaw()->borrowingIntfIdIterator().keys())
      updateBorrowingIntf(b, true);
}

void IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor::updateBorrowingIntf(
    Konet::IntfId const& borrower, bool present) {
   if (!initialized_) return;
   MOX_TRACE_FN(
       th, " Lending Intf: " + lender_.name() + ", Borrower: " + borrower.name() + ", Present: "
               << present);
   if (present) {
      borrowers_.insert(borrower);
      owner()->createIpIntfConfig(borrower)->addrWithMaskIs(notifierRaw()->addrWithMask());
      return;
   }
   borrowers_.erase(borrower);
   if (auto out = owner()->ipConfig()->ipIntfConfig(borrower)) out->addrWithMaskIs(kNoAddr);
}

void IpAddrConfigSelectorSm::MoxUnnumberedIntfStatusReactor::handleDelete() {
   MOX_TRACE_FN(th, " Intf: " << lender_);
   for (auto const& b : borrowers_.keys())
      updateBorrowingIntf(b, false);
   initialized_ = false;
}

}  // namespace Veld
