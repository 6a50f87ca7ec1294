#include "agent/IntfStatusPublisher.h"

#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentIntf");
constexpr double kRetireWait = 3.0;
constexpr double kRetirePoll = 0.02;
constexpr double kReportDelay = 0.5;
}  // namespace

class IntfStatusPublisher::MoxInterfaceTable
    : public KernelNetInfo::Status::InterfaceTable::NotifieeConst {
public:
   MoxInterfaceTable(IntfStatusPublisher* owner, Konet::NamespaceName ns)
       : owner_(owner), ns_(std::move(ns)) {}
   void onEntry(KernelNetInfo::InterfaceKey const& key) override {
      owner_->handleKernelIntf(ns_, key);
   }

private:
   IntfStatusPublisher* owner_;
   Konet::NamespaceName ns_;
};

IntfStatusPublisher::IntfStatusPublisher(Entities& entities, KernelMirrors& mirrors)
    : e_(entities), mirrors_(mirrors) {
   retire_ = Mox::make<DeferredWork>(e_.scheduler, "IntfStatusRetire", [this] { doRetire(); });
   report_ = Mox::make<DeferredWork>(e_.scheduler, "IntfStatusReport", [this] { doReport(); });
   for (auto const& ns : mirrors_.namespaces())
      handleMirror(ns, mirrors_.mirror(ns));
   mirrors_.observerAdd(
       [this](Konet::NamespaceName const& ns, Konet::KernelMirror* m) { handleMirror(ns, m); });
}

IntfStatusPublisher::~IntfStatusPublisher() {
   for (auto& [ns, r] : reactors_)
      r->notifierIs(static_cast<KernelNetInfo::Status::InterfaceTable const*>(nullptr));
}

Interface::Eui64 IntfStatusPublisher::eui64FromMac(std::array<uint8_t, 6> const& mac) {
   Interface::Eui64 eui{};
   if (mac == std::array<uint8_t, 6>{}) return eui;
   eui = {mac[0], mac[1], mac[2], 0xff, 0xfe, mac[3], mac[4], mac[5]};
   return eui;
}

void IntfStatusPublisher::handleMirror(Konet::NamespaceName const& ns, Konet::KernelMirror* m) {
   MOX_TRACE_FN(th, " ns " << ns << (m ? " started" : " stopped"));
   if (!m) {
      reactors_.erase(ns);
      std::map<uint32_t, std::string> gone;
      gone.swap(names_[ns]);
      names_.erase(ns);
      for (auto const& [index, dev] : gone) {
         auto it = byDevice_.find(dev);
         if (it != byDevice_.end()) refresh(it->second);
      }
      return;
   }
   auto r = Mox::make<MoxInterfaceTable>(this, ns);
   r->notifierIs(m->status()->interfaceTable());
   reactors_[ns] = r;
   auto table = m->status()->interface();
   std::vector<KernelNetInfo::InterfaceKey> keys;
   for (auto it = table.begin(); it != table.end(); ++it)
      keys.push_back(it.key());
   for (auto key : keys)
      handleKernelIntf(ns, key);
}

void IntfStatusPublisher::handleKernelIntf(Konet::NamespaceName const& ns,
                                           KernelNetInfo::InterfaceKey key) {
   auto* m = mirrors_.mirror(ns);
   auto& names = names_[ns];
   std::string dev;
   if (auto const* rec = m ? m->status()->interface().find(key) : nullptr) {
      dev = rec->deviceName;
      auto old = names.find(key.ifIndex);
      if (old != names.end() && old->second != dev) {  // renamed: the old name is gone too
         auto was = byDevice_.find(old->second);
         names.erase(old);
         if (was != byDevice_.end()) refresh(was->second);
      }
      names[key.ifIndex] = dev;
   } else {
      auto old = names.find(key.ifIndex);
      if (old == names.end()) return;
      dev = old->second;
      names.erase(old);
   }
   auto it = byDevice_.find(dev);
   if (it != byDevice_.end()) refresh(it->second);
}

void IntfStatusPublisher::intfIs(Konet::IntfId const& id, InterfaceSettings const& settings) {
   MOX_TRACE_FN(th, id);
   retiring_.erase(id);
   auto& intf = intfs_[id];
   if (intf.device != settings.device) {
      byDevice_.erase(intf.device);
      intf.reportedMissing = false;
   }
   intf.device = settings.device;
   intf.routed = settings.routed;
   byDevice_[settings.device] = id;
   refresh(id);
}

void IntfStatusPublisher::intfDel(Konet::IntfId const& id, InterfaceSettings const& old) {
   MOX_TRACE_FN(th, id);
   intfs_.erase(id);
   auto dev = byDevice_.find(old.device);
   if (dev != byDevice_.end() && dev->second == id) byDevice_.erase(dev);
   Retiring r;
   r.device = old.device;
   if (old.ipv4.address) r.addrs.insert(*old.ipv4.address);
   r.addrs.insert(old.ipv4.secondaries.begin(), old.ipv4.secondaries.end());
   if (old.ipv4.virtualAddress) r.addrs.insert(*old.ipv4.virtualAddress);
   r.addrs.insert(old.ipv4.virtualSecondaries.begin(), old.ipv4.virtualSecondaries.end());
   r.by = Mox::System::currentTime() + kRetireWait;
   retiring_[id] = std::move(r);
   retire_->scheduleTaskDelay(kRetirePoll);
}

// Where a rule is left to us: a device is looked for first in the namespace its status
// names, then in every other mirrored namespace.
void IntfStatusPublisher::refresh(Konet::IntfId const& id) {
   auto it = intfs_.find(id);
   if (it == intfs_.end()) return;
   auto& intf = it->second;
   auto status = e_.allIntfStatus->intfStatusIs(id);
   status->forwardingModelIs(intf.routed
                                 ? Interface::IntfForwardingModel::intfForwardingModelRouted
                                 : Interface::IntfForwardingModel::intfForwardingModelBridged);
   std::vector<Konet::NamespaceName> order{status->netNsName()};
   for (auto const& ns : mirrors_.namespaces()) {
      if (!(ns == status->netNsName())) order.push_back(ns);
   }
   for (auto const& ns : order) {
      auto* m = mirrors_.mirror(ns);
      if (!m) continue;
      auto rec = m->status()->interfaceByName(intf.device);
      if (rec == KernelNetInfo::Interface()) continue;
      MOX_TRACE(th, 7, id << " device " << rec.deviceName << " in ns " << ns);
      status->mtuIs(rec.mtu);
      status->eui64Is(eui64FromMac(rec.mac));
      status->operUpIs(rec.running());
      status->netNsNameIs(ns);
      status->deviceNameIs(rec.deviceName);
      if (intf.reportedMissing) {
         Mox::logMessage(Mox::LogSeverity::notice, "VELD-INTF",
                         "device " + rec.deviceName + " of interface " + id.name() +
                             " appeared in namespace " + ns.name());
         intf.reportedMissing = false;
      }
      return;
   }
   status->deviceNameIs("");
   status->operUpIs(false);
   // A device on its way between namespaces is missing for a moment: only one still missing
   // a little later is reported.
   if (!intf.reportedMissing) report_->scheduleTaskDelay(kReportDelay);
}

void IntfStatusPublisher::doReport() {
   for (auto& [id, intf] : intfs_) {
      auto status = e_.allIntfStatus->intfStatus(id);
      if (intf.reportedMissing || !status || !status->deviceName().empty()) continue;
      Mox::logMessage(Mox::LogSeverity::warning, "VELD-INTF",
                      "device " + intf.device + " of interface " + id.name() +
                          " does not exist; the interface waits for it");
      intf.reportedMissing = true;
   }
}

void IntfStatusPublisher::doRetire() {
   double now = Mox::System::currentTime();
   for (auto it = retiring_.begin(); it != retiring_.end();) {
      // Named, not a structured binding: clang 14 lets no lambda (the trace's) capture one.
      auto const& id = it->first;
      auto const& r = it->second;
      bool held = false;
      if (now < r.by) {
         for (auto const& ns : mirrors_.namespaces()) {
            auto* m = mirrors_.mirror(ns);
            auto rec = m->status()->interfaceByName(r.device);
            if (rec == KernelNetInfo::Interface()) continue;
            for (auto const& a : r.addrs) {
               KernelNetInfo::IpKey k{rec.key, Konet::IpGenAddr(a.addr()), a.len()};
               held = held || m->status()->ipState().find(k) != nullptr;
            }
         }
      }
      if (held) {
         ++it;
         continue;
      }
      MOX_TRACE(th, 7, "retired " << id);
      if (!intfs_.count(id)) e_.allIntfStatus->intfStatusDel(id);
      it = retiring_.erase(it);
   }
   if (!retiring_.empty()) retire_->scheduleTaskDelay(kRetirePoll);
}

std::set<std::string> IntfStatusPublisher::missingDevices() const {
   std::set<std::string> out;
   for (auto const& [id, intf] : intfs_) {
      auto status = e_.allIntfStatus->intfStatus(id);
      if (!status || status->deviceName().empty()) out.insert(intf.device);
   }
   return out;
}

}  // namespace VeldAgent
