#include "veld/ipv4/IpIntfConfigReactors.h"

#include "mox/Trace.h"
#include "veld/LocalInterface.h"

namespace Veld {

namespace {
Mox::TraceHandle th("Veld");
}

// ---- MoxIpIntfConfigFilter

IpIntfSm::MoxIpIntfConfigFilter::MoxIpIntfConfigFilter(
    IpIntfSm* sm, Mox::Ptr<Ip::IpIntfConfig const> const& config)
    : Reactor(sm), intfId_(config->intf()) {
   notifierIs(config);
   handleInitialized();
}

Mox::Ptr<Interface::IntfStatus const> IpIntfSm::MoxIpIntfConfigFilter::intfStatus() const {
   return intfStatus_ ? intfStatus_->notifier() : nullptr;
}

void IpIntfSm::MoxIpIntfConfigFilter::attachIntfStatus() {
   auto const& dir = owner()->kernelIntfDir();
   auto status = dir ? dir->intfStatusAndDeviceName(intfId_).first : nullptr;
   if (status == intfStatus()) return;
   if (!status) {
      intfStatus_ = nullptr;
      return;
   }
   intfStatus_ = Mox::make<MoxIntfStatus>(this, owner());
   intfStatus_->notifierIs(status);
}

void IpIntfSm::MoxIpIntfConfigFilter::handleInitialized() {
   MOX_TRACE_FN(th, " for " << intfId_ << " myNS: " << owner()->nsName());
   if (initialized_) return;
   attachIntfStatus();
   if (!intfStatus() && !owner()->standbyMode()) {
      auto const& ipStatus = owner()->ipStatusFor(intfId_);
      if (ipStatus && ipStatus->ipIntfStatus(intfId_)) {
         MOX_TRACE(th, 5, " Deleting ipIntfStatus for " << intfId_);
         owner()->handleIntfStatusForDeletedIntfConfig(intfId_);
      }
   }
   initialized_ = true;
   handleForwardingModel();
}

void IpIntfSm::MoxIpIntfConfigFilter::handleForwardingModel() {
   auto status = intfStatus();
   MOX_TRACE_FN(th, " for " << intfId_ << " model "
                            << (status ? std::string(Mox::stringValue(status->forwardingModel()))
                                       : std::string("???")));
   if (!initialized_) return;
   if (status &&
       status->forwardingModel() == Interface::IntfForwardingModel::intfForwardingModelRouted) {
      owner()->routedIpIntfConfigIs(intfId_, config());
   } else {
      owner()->routedIpIntfConfigDel(intfId_);
   }
}

void IpIntfSm::MoxIpIntfConfigFilter::handleIntfStatus() {
   MOX_TRACE_FN(th, " for " << intfId_);
   auto before = intfStatus();
   attachIntfStatus();
   if (!intfStatus()) {
      if (before) MOX_TRACE(th, 5, " interface " << intfId_ << " deleted");
      owner()->routedIpIntfConfigDel(intfId_);
      return;
   }
   if (intfStatus() != before) handleForwardingModel();
}

// ---- MoxIpIntfConfig

IpIntfSm::MoxIpIntfConfig::MoxIpIntfConfig(IpIntfSm* sm,
                                           Mox::Ptr<Ip::IpIntfConfig const> const& config)
    : Reactor(sm), intfId_(config->intf()) {
   notifierIs(config);
   attachL3Config();
}

void IpIntfSm::MoxIpIntfConfig::attachL3Config() {
   auto const& l3 = config()->l3Config();
   if (l3Config_ && l3Config_->notifierRaw() == l3.ptr()) return;
   l3Config_ = nullptr;
   if (l3) {
      l3Config_ = Mox::make<MoxL3Config>(this, owner());
      l3Config_->notifierIs(l3);
   }
   if (initialized_) {
      handleVrf();
      handleIcmpSrc();
   }
}

void IpIntfSm::MoxIpIntfConfig::handleInitialized() {
   MOX_TRACE_FN(th, " initialized " << intfId_);
   if (initialized_) return;
   initialized_ = true;
   refresh();
}

void IpIntfSm::MoxIpIntfConfig::refresh() {
   MOX_TRACE_FN(th, " for " << intfId_);
   owner()->doScheduleKernelProcUpdate(intfId_);
   handleAddrWithMask();
   handleTcpMssIngress();
   handleTcpMssEgress();
   handleNoArp();
   handleDirectedBroadcast();
   handleAttachedRoutes();
   handleUnnumberedIntf();
   handleUrpf();  // also brings the data-plane routing flag up to date
}

Mox::Ptr<Ip::IpIntfStatus> IpIntfSm::MoxIpIntfConfig::writableStatus(char const* standbyTrace) {
   if (owner()->standbyMode()) {
      MOX_TRACE(th, 5, intfId_ << standbyTrace);
      return nullptr;
   }
   return owner()->ipIntfStatusOf(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleAddrWithMask() {
   MOX_TRACE_FN(th, " for " << intfId_);
   owner()->intfStatusEnsure(intfId_, config());
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handlePrimaryAddrWithMask() {
   MOX_TRACE_FN(th, "ip address for " << intfId_ << " is " << config()->addrWithMask());
   handleAddrWithMask();
}

void IpIntfSm::MoxIpIntfConfig::handleVirtualAddrWithMask() {
   MOX_TRACE_FN(th,
                "virtual ip address for " << intfId_ << " is " << config()->virtualAddrWithMask());
   handleAddrWithMask();
}

void IpIntfSm::MoxIpIntfConfig::handleSecondary(Konet::IpAddrWithMask const& addr) {
   MOX_TRACE_FN(th, " for " << intfId_ << " " << addr);
   if (!config()->secondaryWithMask(addr)) {
      if (owner()->standbyMode()) {
         MOX_TRACE(th, 5, "Standby Veld skipping instantiation for " << intfId_);
      } else if (auto status = owner()->ipIntfStatusOf(intfId_)) {
         status->activeSecondaryWithMaskDel(addr);
         MOX_TRACE(th, 5, "secondary ip address for " << intfId_ << " deleted " << addr);
      }
   }
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleSecondary() {
   MOX_TRACE_FN(th, " for " << intfId_);
   if (auto status = owner()->ipIntfStatusOf(intfId_)) {
      for (auto const& a : status->activeSecondaryWithMaskIterator().keys())
         handleSecondary(a);
   }
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleVirtualSecondaryWithMask(Konet::IpAddrWithMask const& addr) {
   MOX_TRACE_FN(th, " for " << intfId_ << " " << addr);
   if (!config()->virtualSecondaryWithMask(addr)) {
      if (owner()->standbyMode()) {
         MOX_TRACE(th, 5, "Standby Veld skipping instantiation for " << intfId_);
      } else if (auto status = owner()->ipIntfStatusOf(intfId_)) {
         status->activeVirtualSecondaryWithMaskDel(addr);
         MOX_TRACE(th, 5, "secondary vurtual ip address for " << intfId_ << " deleted " << addr);
      }
   }
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleVirtualSecondaryWithMask() {
   MOX_TRACE_FN(th, " for " << intfId_);
   if (auto status = owner()->ipIntfStatusOf(intfId_); status && !owner()->standbyMode()) {
      for (auto const& a : status->activeVirtualSecondaryWithMaskIterator().keys()) {
         if (config()->virtualSecondaryWithMask(a)) continue;
         status->activeVirtualSecondaryWithMaskDel(a);
         MOX_TRACE(th, 5, "secondary virtual ip address for " << intfId_ << " deleted " << a);
      }
   }
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleTcpMssIngress() {
   MOX_TRACE_FN(th, "maxMssIngress for " << intfId_ << " is " << config()->maxMssIngress());
   owner()->doScheduleKernelAddrUpdate(intfId_);  // the device's MSS clamps
   auto status = writableStatus(": Called in standby mode! Skipping");
   if (!status) return;
   status->maxMssIngressIs(config()->maxMssIngress());
   MOX_TRACE(th, 5,
             "ipIntfStatus maxMssIngress for " << intfId_ << " set to " << status->maxMssIngress());
}

void IpIntfSm::MoxIpIntfConfig::handleTcpMssEgress() {
   MOX_TRACE_FN(th, " for " << intfId_ << " is " << config()->maxMssEgress());
   owner()->doScheduleKernelAddrUpdate(intfId_);  // the device's MSS clamps
   auto status = writableStatus(": Called in standby mode! Skipping");
   if (!status) return;
   status->maxMssEgressIs(config()->maxMssEgress());
   MOX_TRACE(th, 5,
             "ipIntfStatus maxMssEgress for " << intfId_ << " set to " << status->maxMssEgress());
}

void IpIntfSm::MoxIpIntfConfig::handleNoArp() {
   MOX_TRACE_FN(th, "noArp for " << intfId_ << " is " << config()->noArp());
   if (owner()->standbyMode()) {
      // No status to compare against: the kernel follows the configuration regardless.
      MOX_TRACE(th, 5, intfId_ << ": Called in standby mode! Skipping");
      owner()->doScheduleKernelAddrUpdate(intfId_);
      return;
   }
   auto status = owner()->ipIntfStatusOf(intfId_);
   if (!status || status->noArp() == config()->noArp()) return;
   MOX_TRACE(th, 5, "ipIntfStatus noArp for " << intfId_ << " set to " << config()->noArp());
   status->noArpIs(config()->noArp());
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleConfigSource() {
   MOX_TRACE_FN(th, "configSource for " << intfId_ << " is " << config()->configSource());
}

void IpIntfSm::MoxIpIntfConfig::handleProxyArpEnabled() {
   MOX_TRACE_FN(th, "proxy-ARP for " << intfId_ << " is " << config()->proxyArpEnabled());
   owner()->doScheduleKernelProcUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleLocalProxyArpEnabled() {
   MOX_TRACE_FN(th,
                "local proxy-ARP for " << intfId_ << " is " << config()->localProxyArpEnabled());
   owner()->doScheduleKernelProcUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleGratuitousArpAccepted() {
   MOX_TRACE_FN(
       th, "gratuitous-ARP accept for " << intfId_ << " is " << config()->gratuitousArpAccepted());
   owner()->doScheduleKernelProcUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleForwarding() {
   MOX_TRACE_FN(th, "forwarding for " << intfId_ << " is " << config()->forwarding()
                                      << " In NS: " << owner()->nsName()
                                      << " forwarding mode: " << config()->forwarding());
   owner()->doScheduleKernelProcUpdate(intfId_);
   owner()->updateDpRoutingEnabled(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleForceDpRoutingEnabled() {
   MOX_TRACE_FN(
       th, "forceDpRoutingEnabled for " << intfId_ << " is " << config()->forceDpRoutingEnabled());
   owner()->doScheduleKernelProcUpdate(intfId_);
   owner()->updateDpRoutingEnabled(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleDirectedBroadcast() {
   auto status = writableStatus(": Called in standby mode! Skipping");
   MOX_TRACE_FN(th, "updating directedBroadcast status "
                        << (status ? status->directedBroadcastEnabled() : false) << " -> "
                        << config()->directedBroadcastEnabled() << " on " << intfId_
                        << " IN NS: " << owner()->nsName());
   if (status) status->directedBroadcastEnabledIs(config()->directedBroadcastEnabled());
   owner()->doScheduleKernelProcUpdate(intfId_);  // bc_forwarding
}

void IpIntfSm::MoxIpIntfConfig::handleAttachedRoutes() {
   auto status = writableStatus(": Called in standby mode! Skipping");
   MOX_TRACE_FN(th, " updating attachedRoutes status "
                        << (status ? status->attachedRoutes() : false) << " -> "
                        << config()->attachedRoutes() << " on " << intfId_
                        << " in NS: " << owner()->nsName() << " vrf " << owner()->vrfName());
   if (status) status->attachedRoutesIs(config()->attachedRoutes());
   owner()->doScheduleKernelAddrUpdate(intfId_);  // the addresses' IFA_F_NOPREFIXROUTE
}

void IpIntfSm::MoxIpIntfConfig::handleUnnumberedIntf() {
   auto status = writableStatus(": Called in standby mode! Skipping");
   MOX_TRACE_FN(th, " updating unnumberedIntfId "
                        << (status ? status->unnumberedIntfId() : Konet::IntfId())
                        << " referencing " << config()->unnumberedIntfId() << " on " << intfId_
                        << " in NS: " << owner()->nsName() << " vrf " << owner()->vrfName());
   if (status) status->unnumberedIntfIdIs(config()->unnumberedIntfId());
}

void IpIntfSm::MoxIpIntfConfig::handleUrpf() {
   auto urpf = config()->urpf();
   MOX_TRACE_FN(th, "uRPF for " << intfId_ << " is " << urpf.mode);
   owner()->updateUrpfStatus(intfId_, urpf);
   owner()->updateUrpfAndRouting(intfId_, urpf);  // schedules the settings (rp_filter)
   owner()->urpfOnAnyIntfPublish(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleVrf() {
   MOX_TRACE_FN(
       th, " on " << intfId_ << " In NS: " << owner()->nsName() << " vrf " << configVrf(config()));
   owner()->doScheduleKernelAddrUpdate(intfId_);
}

void IpIntfSm::MoxIpIntfConfig::handleIcmpSrc() {
   MOX_TRACE_FN(th, " on " << intfId_);
   if (owner()->icmpSrcIntf_ == intfId_) owner()->handleIcmpSrcIntfOnStatus(intfId_);
}

}  // namespace Veld
