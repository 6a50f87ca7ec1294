// Ip6IntfSm: the per-device IPv6 settings under /proc/sys/net/ipv6 and disable_ipv6. Each
// value is written only when it differs from the one last written for the device; the record
// goes with the device. Runs inside the VRF's namespace.
#include <cerrno>
#include <iostream>

#include "linux/ProcSys.h"
#include "mox/Trace.h"
#include "veld/ipv6/Ip6IntfSm.h"

namespace Veld {

namespace {

Mox::TraceHandle th("VeldIp6");

using S = IntfIp6KernelState;

char const* bit(bool on) { return on ? "1" : "0"; }

// The kernel's accept_dad for a configured mode: off, on, or on with IPv6 switched off when a
// link-local address fails.
char const* acceptDadValue(Ip6::AcceptDadMode mode) {
   switch (mode) {
      case Ip6::AcceptDadMode::dadDisabled:
         return "0";
      case Ip6::AcceptDadMode::dadDefault:
      case Ip6::AcceptDadMode::dadEnabled:
         return "1";
      case Ip6::AcceptDadMode::dadStrict:
         return "2";
   }
   MOX_ASSERT(!"unknown accept-DAD mode");
   return "1";
}

}  // namespace

bool Ip6IntfSm::setIp6Enable(std::string const& deviceName, Konet::IntfId const& intf, bool enable,
                             Konet::NamespaceName const& ns, ProcIpv6Set& procIpv6Set) {
   MOX_TRACE(th, 7, deviceName << " in namespace " << ns << " enable=" << enable);
   if (auto const* held = procIpv6Set.procIpv6Enabled.find(intf); held && *held == enable) {
      // IPv6 switched off behind the agent's back drops every IPv6 address of the device:
      // only a device with IPv6 on as written and no address left is looked at again. Under
      // accept-DAD strict the kernel switches IPv6 off itself when the link-local address
      // fails DAD; that is what the mode asks for, so it stays off (no DAD loop).
      auto config = routedIp6IntfConfig(intf);
      bool strict = config && config->acceptDad() == Ip6::AcceptDadMode::dadStrict;
      if (!enable || strict || !kernelAddrsGone(deviceName)) return true;
   }
   // Read before it is switched on: the kernel itself switches IPv6 off (DAD failure under
   // strict mode) and no link message tells of it. Off is never undone by the kernel, so a
   // fresh report of off, with nothing written since, stands for a read.
   char const* wanted = enable ? "0" : "1";
   std::string reported;
   if (!enable && !procIpv6Set.procIpv6Enabled.find(intf) &&
       reportedValue(deviceName, Konet::V6_PROC_CONF, "disable_ipv6", &reported) &&
       reported == wanted) {
      procIpv6Set.procIpv6Enabled.assign(intf, enable);
      return true;
   }
   MOX_TRACE(th, 5,
             "Attempting to " << (enable ? "enable" : "disable") << " ipv6 on device " << deviceName
                              << " in namespace " << ns);
   int err = kernelIo().writeProcSysIfDiffers(
       std::string(Konet::V6_PROC_CONF) + "/" + deviceName + "/disable_ipv6", wanted);
   if (err) return false;
   procIpv6Set.procIpv6Enabled.assign(intf, enable);
   return true;
}

// The kernel reports a device's settings with its link messages but sends none when a file
// is written: what it reported counts as a fresh read of the file for a few seconds
// (KernelNetInfo::kConfFreshFor), and only for a file this machine has not written since.
bool Ip6IntfSm::reportedValue(std::string const& deviceName, char const* dir, char const* file,
                              std::string* value) const {
   if (!kniRoot_ || std::string_view(dir) != Konet::V6_PROC_CONF) return false;
   auto const* kniIntf = kniRoot_->findInterfaceByName(deviceName);
   int32_t reported = 0;
   if (!kniIntf || !kniIntf->confFresh(Mox::System::currentTime()) ||
       !kniIntf->ipv6ConfValue(file, &reported))
      return false;
   *value = std::to_string(reported);
   return true;
}

bool Ip6IntfSm::kernelAddrsGone(std::string const& deviceName) const {
   auto const* kniIntf = kniRoot_ ? kniRoot_->findInterfaceByName(deviceName) : nullptr;
   if (!kniIntf) return false;
   auto const* held = kernelAddrs6(kniIntf->key);
   return !held || held->empty();
}

// Some per-device files are not in every kernel (the neighbour-solicitation source): "all"
// is asked once whether it has one.
bool Ip6IntfSm::kernelHasConf(char const* dir, char const* file) {
   if (std::string_view(dir) != Konet::V6_PROC_CONF || KernelNetInfo::ip6ConfSlot(file) >= 0) {
      return true;
   }
   auto [has, fresh] = confFileExists_.emplace(file);
   if (fresh) {
      std::string value;
      *has = kernelIo().readProcSys(std::string(dir) + "/all/" + file, &value) != ENOENT;
   }
   return *has;
}

// What a write of each setting traces (none for accept_redirects).
namespace {
char const* traceLabel(S::Setting s) {
   static constexpr char const* kLabel[S::kSettings] = {
       "forwarding",  "custom_ns_source", "use_custom_ns_source",
       "ns-interval", "accept-dad",       "enhanced_dad",
       nullptr,       "accept_ra",        "accept_ra_pinfo",
       "autoconf",    "accept_ra_defrtr"};
   return kLabel[s];
}
}  // namespace

// Writes one setting when its value changed. ENOENT (the device or the file is not there)
// counts as done without being recorded; another failure is reported, recorded nowhere and
// returned.
int Ip6IntfSm::writeSetting(Konet::IntfId const& intf, IntfIp6KernelState& state, S::Setting s,
                            char const* dir, std::string const& dev, char const* file,
                            std::string const& value) {
   if (!state.needsWrite(s, value)) return 0;
   if (!kernelHasConf(dir, file)) {
      state.heldIs(s, value);  // a setting this kernel does not have
      return 0;
   }
   std::string path = std::string(dir) + "/" + dev + "/" + file;
   int err = 0;
   if (!state.written(s)) {
      // Nothing written to this device yet: a restart finds the value set already, and a
      // file this kernel lacks is not written at all.
      std::string held;
      if (!reportedValue(dev, dir, file, &held)) err = kernelIo().readProcSys(path, &held);
      if (err == 0 && held == value) {
         state.heldIs(s, value);
         return 0;
      }
   }
   if (err != ENOENT) err = kernelIo().writeProcSys(path, value);
   if (err == 0) {
      state.writtenIs(s, value);
      if (char const* label = traceLabel(s)) {
         if (s == S::forwarding) {
            MOX_TRACE(th, 5, "Set forwarding for (" << intf.name() << ") to " << value);
         } else {
            MOX_TRACE(th, 5, "Setting " << label << " to " << value << " for " << intf.name());
         }
      }
      return 0;
   }
   if (err == ENOENT) {
      MOX_TRACE(th, 5,
                "Ignoring ENOENT error (err:" << err << ") when writing " << dir << "/" << dev
                                              << "/" << file << " to " << value);
      return 0;
   }
   std::string shown = s == S::enhancedDad ? "enhanced-dad" : file;
   std::string text =
       "Failed (err: " + std::to_string(err) + ") to write " + dir + "/" + dev + "/" + shown;
   std::cerr << text << " for " << intf << std::endl;
   MOX_TRACE(th, 0, text);
   return err;
}

int Ip6IntfSm::doUpdateProc(Konet::IntfId const& intf) {
   auto dev =
       in_.kernelIntfDir ? in_.kernelIntfDir->intfStatusAndDeviceName(intf).second : std::string();
   auto config = routedIp6IntfConfig(intf);
   if (dev.empty() || !config) {
      MOX_TRACE(th, 7,
                "doUpdateProc tried to write to /proc before"
                    << " deviceName for " << intf << " was written.");
      return 0;
   }
   auto& state = *intfIp6KernelState_.emplace(intf).first;
   if (kniRoot_) state.ifIndexIs(kniRoot_->interfaceByName(dev).key.ifIndex);
   auto const* conf = Konet::V6_PROC_CONF;
   int failed = 0;
   auto write = [&](S::Setting s, char const* dir, char const* file, std::string const& value) {
      if (int err = writeSetting(intf, state, s, dir, dev, file, value)) failed = err;
   };

   write(S::forwarding, conf, "forwarding", bit(isForwardingEnabled(intf)));
   auto nsSource = config->nsSourceAddr();
   if (!nsSource.isZero()) {
      write(S::customNsSource, conf, "custom_ns_source", nsSource.toString());
      write(S::useCustomNsSource, conf, "use_custom_ns_source", "1");
   } else {
      write(S::useCustomNsSource, conf, "use_custom_ns_source", "0");
   }
   if (uint32_t ms = config->nsRetransmitInterval()) {
      write(S::nsRetransTime, Konet::V6_PROC_NEIGH, "retrans_time_ms", std::to_string(ms));
   }
   write(S::acceptDad, conf, "accept_dad", acceptDadValue(config->acceptDad()));
   write(S::enhancedDad, conf, "enhanced_dad", bit(enhancedDadEnabled(config)));
   write(S::acceptRedirects, conf, "accept_redirects", "0");
   bool slaac = config->addrSource() == Ip6::AddrSource::slaac;
   write(S::acceptRa, conf, "accept_ra", slaac || config->acceptRaDefRtr() ? "2" : "0");
   write(S::acceptRaPinfo, conf, "accept_ra_pinfo", bit(slaac));
   write(S::autoconf, conf, "autoconf", bit(slaac));
   write(S::acceptRaDefRtr, conf, "accept_ra_defrtr", bit(config->acceptRaDefRtr()));
   return failed;
}

}  // namespace Veld
