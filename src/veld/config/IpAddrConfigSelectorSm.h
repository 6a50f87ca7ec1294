// Chooses each interface's primary IPv4 address: watches the command-line configuration
// (cliConfig), the DHCP client's status (dhclientStatus) and the lenders of unnumbered
// interfaces (lenderToBorrowersStatus), and writes the IPv4 configuration that the rest of
// the library reads (ipConfig). Every attribute of a command-line entry is copied as it is,
// except the primary address, which comes from the source that the entry's addrSource names:
//    cli  -> the command line's addrWithMask
//    dhcp -> the lease; 0.0.0.0/0 while it is pending or when there is no DHCP status
//    none -> only what a lender writes
// A borrower (an interface in a lender's set) gets the lender's address whenever that
// address or the set changes; a borrower taken out of the set gets 0.0.0.0/0.
//
// Three kinds of child, each keyed by interface and idle until initialized: one per
// command-line entry, one per DHCP status, one per lender. Start-up deletes the output
// entries that have no command-line entry, then initializes the command-line children (each
// runs every handler), then the DHCP children, then the lenders', so that the output has
// settled before anything reads it.
#pragma once

#include "konet/IntfId.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"
#include "platform/Dhclient.h"
#include "platform/Ip.h"
#include "veld/unnumbered/LenderToBorrowersStatus.h"

namespace Veld {

class IpAddrConfigSelectorSm : public Mox::StateMachine {
public:
   // One command-line entry: copies each attribute into the output entry.
   class MoxCliConfigReactor
       : public Mox::Reactor<IpAddrConfigSelectorSm, Ip::IpIntfConfig::NotifieeConst> {
   public:
      MoxCliConfigReactor(IpAddrConfigSelectorSm* sm, Mox::Ptr<Ip::IpIntfConfig const> const& c);
      Konet::IntfId const& intf() const { return intf_; }
      bool initialized() const { return initialized_; }

      void onAddrWithMask() override { handleAddrWithMask(); }
      void onSecondaryWithMask(Konet::IpAddrWithMask const& a) override {
         handleSecondaryWithMask(a);
      }
      void onVirtualAddrWithMask() override { handleVirtualAddrWithMask(); }
      void onVirtualSecondaryWithMask(Konet::IpAddrWithMask const& a) override {
         handleVirtualSecondaryWithMask(a);
      }
      void onMaxMssIngress() override { handleTcpMssIngress(); }
      void onMaxMssEgress() override { handleTcpMssEgress(); }
      void onConfigSource() override { handleConfigSource(); }
      void onProxyArpEnabled() override { handleProxyArpEnabled(); }
      void onLocalProxyArpEnabled() override { handleLocalProxyArpEnabled(); }
      void onGratuitousArpAccepted() override { handleGratuitousArpAccepted(); }
      void onForwarding() override { handleForwarding(); }
      void onNoArp() override { handleNoArp(); }
      void onDirectedBroadcastEnabled() override { handleDirectedBroadcastEnabled(); }
      void onAttachedRoutes() override { handleAttachedRoutes(); }
      void onUrpf() override { handleUrpf(); }
      void onUnnumberedIntfId() override { handleUnnumberedIntf(); }
      void onForceDpRoutingEnabled() override { handleForceDpRoutingEnabled(); }
      void onL3Config() override { handleL3Config(); }
      void onAddrSource() override { handleAddrSource(); }
      void onScope() override { handleScope(); }

      void handleInitialized();
      void handleDelete();
      void handleAddrWithMask();
      void handleSecondaryWithMask(Konet::IpAddrWithMask const& addr);
      void handleSecondaryWithMask();
      void handleVirtualAddrWithMask();
      void handleVirtualSecondaryWithMask(Konet::IpAddrWithMask const& addr);
      void handleVirtualSecondaryWithMask();
      void handleProxyArpEnabled();
      void handleLocalProxyArpEnabled();
      void handleGratuitousArpAccepted();
      void handleForwarding();
      void handleScope();
      void handleUrpf();
      void handleL3Config();
      void handleForceDpRoutingEnabled();
      void handleNoArp();
      void handleTcpMssIngress();
      void handleTcpMssEgress();
      void handleConfigSource();
      void handleDirectedBroadcastEnabled();
      void handleAttachedRoutes();
      void handleUnnumberedIntf();
      void handleAddrSource();

   private:
      // The output entry, or null before initialization.
      Mox::Ptr<Ip::IpIntfConfig> out();
      Ip::IpIntfConfig const& cli() const { return *notifierRaw(); }

      Konet::IntfId const intf_;
      bool initialized_ = false;
   };

   // One interface's DHCP status.
   class MoxDhclientStatusReactor
       : public Mox::Reactor<IpAddrConfigSelectorSm, Dhclient::IntfStatus::NotifieeConst> {
   public:
      MoxDhclientStatusReactor(IpAddrConfigSelectorSm* sm,
                               Mox::Ptr<Dhclient::IntfStatus const> const& status);
      Konet::IntfId const& intf() const { return intf_; }
      bool initialized() const { return initialized_; }

      void onAddrWithMask() override { handleAddrWithMask(); }
      void onPending() override { handlePending(); }

      void handleInitialized();
      void handleAddrWithMask();
      void handlePending();
      void handleDelete();

   private:
      Konet::IntfId const intf_;
      bool initialized_ = false;
   };

   // One lender: writes its address into each of its borrowers' output entries.
   class MoxUnnumberedIntfStatusReactor
       : public Mox::Reactor<IpAddrConfigSelectorSm,
                             IpUnnumbered::LenderToBorrowersEntry::NotifieeConst> {
   public:
      MoxUnnumberedIntfStatusReactor(
          IpAddrConfigSelectorSm* sm,
          Mox::Ptr<IpUnnumbered::LenderToBorrowersEntry const> const& entry);
      Konet::IntfId const& intf() const { return lender_; }
      bool initialized() const { return initialized_; }

      void onAddrWithMask() override { handleAddrWithMask(); }
      void onBorrowingIntfId(Konet::IntfId const& b) override {
         updateBorrowingIntf(b, notifierRaw()->borrowingIntfId(b));
      }

      void handleInitialized();
      void handleAddrWithMask();
      void updateBorrowingIntf(Konet::IntfId const& borrower, bool present);
      // The entry went: its remaining borrowers lose the address.
      void handleDelete();

   private:
      Konet::IntfId const lender_;
      bool initialized_ = false;
      Mox::HashSet<Konet::IntfId> borrowers_;  // those given the address, for handleDelete
   };

   IpAddrConfigSelectorSm(
       Mox::Ptr<Ip::Config const> cliConfig, Mox::Ptr<Dhclient::Status const> dhclientStatus,
       Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> lenderToBorrowersStatus,
       Mox::Ptr<Ip::Config> ipConfig);
   ~IpAddrConfigSelectorSm() override;

   Mox::Ptr<Ip::Config const> const& cliConfig() const { return cliConfig_; }
   Mox::Ptr<Dhclient::Status const> const& dhclientStatus() const { return dhclientStatus_; }
   Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> const& lenderToBorrowersStatus() const {
      return lenderToBorrowersStatus_;
   }
   Mox::Ptr<Ip::Config> const& ipConfig() const { return ipConfig_; }

   Mox::Ptr<Ip::IpIntfConfig> createIpIntfConfig(Konet::IntfId const& intf);

   Mox::Ptr<MoxCliConfigReactor> cliConfigReactor(Konet::IntfId const& intf) const;
   Mox::Ptr<MoxCliConfigReactor> cliConfigReactorIs(Mox::Ptr<Ip::IpIntfConfig const> const& c);
   void cliConfigReactorDel(Konet::IntfId const& intf);
   Mox::Ptr<MoxDhclientStatusReactor> dhclientStatusReactor(Konet::IntfId const& intf) const;
   Mox::Ptr<MoxDhclientStatusReactor> dhclientStatusReactorIs(
       Mox::Ptr<Dhclient::IntfStatus const> const& status);
   void dhclientStatusReactorDel(Konet::IntfId const& intf);
   Mox::Ptr<MoxUnnumberedIntfStatusReactor> unnumberedIntfStatusReactor(
       Konet::IntfId const& lender) const;
   Mox::Ptr<MoxUnnumberedIntfStatusReactor> unnumberedIntfStatusReactorIs(
       Mox::Ptr<IpUnnumbered::LenderToBorrowersEntry const> const& entry);
   void unnumberedIntfStatusReactorDel(Konet::IntfId const& lender);

   void handleInitialized();
   void handleDelete();
   void handleCliConfig(Konet::IntfId const& intf);
   void handleDhclientStatus(Konet::IntfId const& intf);
   void handleLenderToBorrowersEntry(Konet::IntfId const& lender);

   // The DHCP rule: a command-line entry whose source is DHCP takes the lease, or
   // 0.0.0.0/0 while the lease is pending.
   void applyDhcpRule(Konet::IntfId const& intf);

private:
   class MoxCliConfig;
   class MoxDhclientStatus;
   class MoxLenderToBorrowersStatus;

   Mox::Ptr<Ip::Config const> const cliConfig_;
   Mox::Ptr<Dhclient::Status const> const dhclientStatus_;
   Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> const lenderToBorrowersStatus_;
   Mox::Ptr<Ip::Config> const ipConfig_;
   Mox::Ptr<MoxCliConfig> moxCliConfig_;
   Mox::Ptr<MoxDhclientStatus> moxDhclientStatus_;
   Mox::Ptr<MoxLenderToBorrowersStatus> moxLenderToBorrowersStatus_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxCliConfigReactor>> cliConfigReactor_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxDhclientStatusReactor>> dhclientStatusReactor_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxUnnumberedIntfStatusReactor>>
       unnumberedIntfStatusReactor_;
};

Mox::Ptr<IpAddrConfigSelectorSm> IpAddrConfigSelectorSmIs(
    Mox::Ptr<Ip::Config const> cliConfig, Mox::Ptr<Dhclient::Status const> dhclientStatus,
    Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus const> lenderToBorrowersStatus,
    Mox::Ptr<Ip::Config> ipConfig);

}  // namespace Veld
