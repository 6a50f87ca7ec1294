// Follows one kernel interface record for the IPv4 interface machine of its namespace.
//
// Created on the first record seen for a kernel interface, deleted when the record goes.
// When the interface runs before it has been given a name (a device that came up before the
// agent knew it) and whenever its running state changes, the interface is scheduled for a
// kernel address update; a running-state change that could have hidden a flap (not running
// now, or the change count moved by more than one) first flushes the interface's IPv6
// entries from the address map. Flag changes that leave the running state alone are ignored.
#pragma once

#include "konet/IntfId.h"
#include "mox/Entity.h"
#include "platform/Interface.h"
#include "platform/KernelNetInfo.h"
#include "veld/addr/AddrMap.h"

namespace Veld {

// What a KniIntfState needs of its interface machine.
class KniIntfStateOwner {
public:
   virtual void doScheduleKernelAddrUpdate(Konet::IntfId const& intf) = 0;
   // The namespace's table of which interface each device carries.
   virtual Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager() const = 0;
   virtual Mox::Ptr<AddrMap> const& addrMap() const = 0;

protected:
   ~KniIntfStateOwner() = default;
};

class KniIntfState : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<KniIntfState> {};

   KniIntfState(KniIntfStateOwner* sm, Mox::Ptr<KernelNetInfo::Root const> kniRoot,
                KernelNetInfo::Interface const& kniIntf);

   // What it keeps of the record: the name and the running state's count (a whole record,
   // with the device's settings, is several hundred bytes per device).
   std::string const& deviceName() const { return deviceName_; }
   uint32_t runningStateChanges() const { return runningStateChanges_; }
   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleIfName();
   void handleFlags(KernelNetInfo::Interface const& kniIntf);
   void handleUpdate(KernelNetInfo::Interface const& kniIntf);

private:
   void scheduleUpdate(std::string const& deviceName);
   KniIntfStateOwner* const sm_;  // not owning: the machine owns us
   Mox::Ptr<KernelNetInfo::Root const> const kniRoot_;
   std::string deviceName_;
   uint32_t runningStateChanges_ = 0;
   bool running_ = false;
   bool initialized_ = false;
};

}  // namespace Veld
