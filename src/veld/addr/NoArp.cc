#include "veld/addr/NoArp.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldNoArp");
}

bool noArpWanted(Interface::IntfStatus const* intfStatus, Ip::IpIntfConfig const* ipConfig,
                 Ip6::IntfConfig const* ip6Config) {
   if (!intfStatus ||
       intfStatus->forwardingModel() != Interface::IntfForwardingModel::intfForwardingModelRouted) {
      return false;
   }
   return (ipConfig && ipConfig->noArp() == Ip::TristateBool::isTrue) ||
          (ip6Config && ip6Config->noArp() == Ip::TristateBool::isTrue);
}

int doUpdateNoArp(KernelIo& io, int sock, KernelNetInfo::Interface const& kniIntf, bool noArp) {
   if (noArp == bool(kniIntf.flags & KernelNetInfo::kIffNoArp)) return 0;
   MOX_TRACE(th, 5, kniIntf.deviceName << ": IFF_NOARP " << (noArp ? "set" : "cleared"));
   int err = io.setKintfFlags(sock, static_cast<int>(kniIntf.key.ifIndex),
                              noArp ? KernelNetInfo::kIffNoArp : 0, KernelNetInfo::kIffNoArp);
   if (err) {
      Mox::logFailure("VELD-NOARP",
                      "Failed to change IFF_NOARP of " + kniIntf.deviceName + " to " +
                          (noArp ? "enabled" : "disabled"),
                      err);
   }
   return err;
}

}  // namespace Veld
