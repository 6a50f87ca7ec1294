#include "veld/ipv6/AppIp6EnableSm.h"

#include "mox/Trace.h"
#include "veld/ipv6/Ip6EnableSm.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldIp6Enable");
}  // namespace

AppIp6EnableSm::AppIp6EnableSm(Mox::String name, Mox::Ptr<Ip6::Ip6Enable const> ip6Enable,
                               Ip6EnableSm* ip6EnableSm)
    : name_(std::move(name)), ip6Enable_(std::move(ip6Enable)), ip6EnableSm_(ip6EnableSm) {
   MOX_TRACE_FN(th, name_);
   moxIp6Enable_ = Mox::make<MoxIp6Enable>(this);
   moxIp6Enable_->notifierIs(ip6Enable_);
   handleInitialized();
}

void AppIp6EnableSm::handleInitialized() {
   MOX_TRACE_FN(th, name_);
   if (initialized()) return;
   handleIp6Enable();
   initializedSet(true);
}

void AppIp6EnableSm::handleIp6Enable() {
   MOX_TRACE_FN(th, name_);
   if (!ip6Enable_) return;
   for (auto const& intf : ip6Enable_->enableIterator().keys())
      handleIp6Enable(intf);
}

// The output follows the application when it enables; when it does not, the output turns
// false only once no application enables the interface.
void AppIp6EnableSm::handleIp6Enable(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto const& output = ip6EnableSm_->ip6EnableOverride();
   bool current = output->enable(intf);
   bool wanted = ip6Enable_ && ip6Enable_->enable(intf);
   if (current == wanted) return;
   if (wanted) {
      output->enableIs(intf, true);
   } else if (!ip6EnableSm_->isAnyIp6Enabled(intf)) {
      output->enableIs(intf, false);
   }
}

}  // namespace Veld
