// Keeps, for every registered namespace, which interfaces have their kernel device there:
// the namespace's DeviceIntfStatusDir and its device-name to interface table.
//
// Watches the interface status directories (the local one too when asked to) and each
// interface's deviceName and netNsName. An interface is placed in the namespace its status
// names, once that namespace is registered with intfStatusManagerIs(); it leaves it when its
// device, its namespace or its status goes.
#pragma once

#include "mox/StateMachine.h"
#include "platform/Interface.h"

namespace Interface {

class NetNsIntfStatusManagerRoot : public Mox::StateMachine {
public:
   NetNsIntfStatusManagerRoot(Mox::Ptr<AllIntfStatusDir const> allIntfStatusDir,
                              Mox::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                              bool includeLocal);
   ~NetNsIntfStatusManagerRoot() override;

   Mox::Ptr<AllIntfStatusDir const> const& allIntfStatusDir() const { return allIntfStatusDir_; }
   Mox::Ptr<AllIntfStatusLocalDir const> const& allIntfStatusLocalDir() const {
      return allIntfStatusLocalDir_;
   }
   bool includeLocal() const { return includeLocal_; }

   // Registers a namespace (with the directory to fill, or a new one) and returns its manager.
   Mox::Ptr<KniIntfStatusManager> intfStatusManagerIs(Konet::NamespaceName const& ns,
                                                      Mox::Ptr<DeviceIntfStatusDir> dir = nullptr);
   Mox::Ptr<KniIntfStatusManager> intfStatusManager(Konet::NamespaceName const& ns) const;
   void intfStatusManagerDel(Konet::NamespaceName const& ns);

   void handleInitialized();
   void handleIntf(Konet::IntfId const& id);

private:
   class MoxAllIntfStatusDir;
   class MoxAllIntfStatusLocalDir;
   class MoxIntfStatus;
   struct Placement {
      Konet::NamespaceName ns;
      std::string deviceName;
      bool operator==(Placement const&) const = default;
   };
   static Konet::NamespaceName normalized(Konet::NamespaceName const& ns);
   Mox::Ptr<IntfStatus const> statusOf(Konet::IntfId const& id) const;
   void place(Konet::IntfId const& id, Placement const& p, Mox::Ptr<IntfStatus const> const& s);
   void unplace(Konet::IntfId const& id, Placement const& p);

   Mox::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
   Mox::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
   bool includeLocal_;
   Mox::Ptr<MoxAllIntfStatusDir> moxAllIntfStatusDir_;
   Mox::Ptr<MoxAllIntfStatusLocalDir> moxAllIntfStatusLocalDir_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIntfStatus>> moxIntfStatus_;
   Mox::HashMap<Konet::IntfId, Placement> placement_;
   Mox::HashMap<Konet::NamespaceName, Mox::Ptr<KniIntfStatusManager>> intfStatusManager_;
};

}  // namespace Interface
