// The kernel network-information mirror of one network namespace: the kernel's interfaces
// and the addresses on them, kept current from netlink by the platform (src/linux) and read
// by the library through read-only table views.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>

#include "konet/IpAddr.h"
#include "konet/NamespaceName.h"
#include "mox/Entity.h"
#include "mox/Tessera.h"

namespace KernelNetInfo {

// A kernel interface: its ifindex in its namespace.
struct InterfaceKey {
   uint32_t ifIndex = 0;
   friend auto operator<=>(InterfaceKey, InterfaceKey) = default;
};
std::ostream& operator<<(std::ostream& os, InterfaceKey k);

struct IpKey {
   InterfaceKey intfKey;
   Konet::IpGenAddr addr;
   uint32_t prefixLen = 0;
   friend bool operator==(IpKey const&, IpKey const&) = default;
};
std::ostream& operator<<(std::ostream& os, IpKey const& k);

struct IpState {
   IpKey key;
   uint32_t flags = 0;     // the kernel's address flags (IFA_F_*)
   bool assigned = false;  // the kernel holds the address
   friend bool operator==(IpState const&, IpState const&) = default;
};

constexpr uint32_t kIffUp = 0x1;
constexpr uint32_t kIffNoArp = 0x80;
constexpr uint32_t kIffRunning = 0x40;
// An address that is not the primary of its subnet on its device (IFA_F_SECONDARY).
constexpr uint32_t kIfaSecondary = 0x01;

// How long the settings reported with a link count as a fresh read of their files.
inline constexpr double kConfFreshFor = 5.0;

// The per-device IPv6 /proc files whose values the kernel mirror keeps from link messages.
inline constexpr std::array<std::string_view, 9> kIp6ConfFiles = {
    "forwarding",      "accept_ra",  "accept_redirects", "autoconf",    "accept_ra_defrtr",
    "accept_ra_pinfo", "accept_dad", "enhanced_dad",     "disable_ipv6"};
// The index of `file` in kIp6ConfFiles, or -1.
constexpr int ip6ConfSlot(std::string_view file) {
   for (size_t i = 0; i < kIp6ConfFiles.size(); ++i) {
      if (kIp6ConfFiles[i] == file) return int(i);
   }
   return -1;
}

struct Interface {
   InterfaceKey key;
   std::string deviceName;
   uint32_t flags = 0;  // the Linux interface flags (IFF_*)
   // Advances each time the running state changes, flaps between two observations included.
   uint32_t runningStateChanges = 0;
   uint32_t mtu = 0;
   std::array<uint8_t, 6> mac{};
   // The device's IPv4 settings as the kernel reported them with the link: ipv4Conf[i] is
   // setting IPV4_DEVCONF_* number i + 1; ipv4ConfCount of them are known.
   std::array<uint32_t, 48> ipv4Conf{};
   uint32_t ipv4ConfCount = 0;
   // The device's IPv6 settings that the machines write (kIp6ConfFiles), as the kernel
   // reported them with the link: bit i of ipv6ConfKnown is set when ipv6Conf[i] was.
   std::array<int32_t, kIp6ConfFiles.size()> ipv6Conf{};
   uint16_t ipv6ConfKnown = 0;
   // When the mirror took in the report of these settings (Mox::System time). It sends no link
   // message when a /proc file changes, so they are as good as a read of the files at that time.
   // Not part of equality: a record that changed in nothing else keeps its older time.
   double confReportedAt = 0.0;

   bool running() const { return flags & kIffRunning; }
   // The kernel's value of IPv4 setting `devconf` (an IPV4_DEVCONF_* number), if reported.
   bool ipv4ConfValue(int devconf, uint32_t* value) const {
      if (devconf < 1 || uint32_t(devconf) > ipv4ConfCount) return false;
      *value = ipv4Conf[size_t(devconf) - 1];
      return true;
   }
   // The kernel's value of the IPv6 setting in /proc file `file`, if reported.
   bool ipv6ConfValue(std::string_view file, int32_t* value) const {
      int slot = ip6ConfSlot(file);
      if (slot < 0 || !(ipv6ConfKnown & (1u << slot))) return false;
      *value = ipv6Conf[size_t(slot)];
      return true;
   }
   // Whether the settings reported with the link are at most `maxAge` seconds old at `now`.
   bool confFresh(double now, double maxAge = kConfFreshFor) const {
      return confReportedAt > 0.0 && now - confReportedAt <= maxAge;
   }
   friend bool operator==(Interface const& a, Interface const& b) {
      return a.key == b.key && a.deviceName == b.deviceName && a.flags == b.flags &&
             a.runningStateChanges == b.runningStateChanges && a.mtu == b.mtu && a.mac == b.mac &&
             a.ipv4Conf == b.ipv4Conf && a.ipv4ConfCount == b.ipv4ConfCount &&
             a.ipv6Conf == b.ipv6Conf && a.ipv6ConfKnown == b.ipv6ConfKnown;
   }
};

}  // namespace KernelNetInfo

template <>
struct std::hash<KernelNetInfo::InterfaceKey> {
   size_t operator()(KernelNetInfo::InterfaceKey k) const noexcept { return k.ifIndex; }
};

template <>
struct std::hash<KernelNetInfo::IpKey> {
   size_t operator()(KernelNetInfo::IpKey const& k) const noexcept {
      return std::hash<Konet::IpGenAddr>()(k.addr) ^ (size_t(k.intfKey.ifIndex) << 8) ^ k.prefixLen;
   }
};

namespace KernelNetInfo {

// The mirror of one namespace. The writer (the platform's kernel mirror) holds it mutable;
// everyone else holds Ptr<Status const> and sees read-only views.
class Status : public Mox::Entity {
public:
   using InterfaceTable = Tessera::Table<InterfaceKey, Interface>;
   using IpStateTable = Tessera::Table<IpKey, IpState>;

   class NotifieeConst : public Mox::EntityNotifiee<Status> {};

   explicit Status(Konet::NamespaceName ns);

   Konet::NamespaceName const& nsName() const { return nsName_; }
   Tessera::TesseraMap<InterfaceKey, Interface> interface() const {
      return Tessera::TesseraMap<InterfaceKey, Interface>::readOnly(interfaces_);
   }
   Tessera::TesseraMap<IpKey, IpState> ipState() const {
      return Tessera::TesseraMap<IpKey, IpState>::readOnly(ipStates_);
   }
   // The interface record of a key or device name; the empty Interface() when absent.
   Interface interface(InterfaceKey k) const { return interfaces_->get(k); }
   Interface interfaceByName(std::string const& deviceName) const;
   // The same without a copy: valid until the table next changes; null when absent.
   Interface const* findInterfaceByName(std::string const& deviceName) const;

   // Writer side.
   void interfaceIs(Interface const& rec);
   void interfaceDel(InterfaceKey k);
   void ipStateIs(IpState const& s) { ipStates_->set(s.key, s); }
   void ipStateDel(IpKey const& k) { ipStates_->remove(k); }
   Mox::Ptr<InterfaceTable> const& interfaceTable() { return interfaces_; }
   Mox::Ptr<IpStateTable> const& ipStateTable() { return ipStates_; }

private:
   Konet::NamespaceName nsName_;
   Mox::Ptr<InterfaceTable> interfaces_;
   Mox::Ptr<IpStateTable> ipStates_;
   std::unordered_map<std::string, InterfaceKey> byName_;
};

// A machine's handle on the mirror of its namespace.
class Root : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Root> {};
   explicit Root(Mox::Ptr<Status const> status) : status_(std::move(status)) {}
   Mox::Ptr<Status const> const& status() const { return status_; }
   Interface interface(InterfaceKey k) const { return status_->interface(k); }
   Interface interfaceByName(std::string const& name) const {
      return status_->interfaceByName(name);
   }
   Interface const* findInterfaceByName(std::string const& name) const {
      return status_->findInterfaceByName(name);
   }

private:
   Mox::Ptr<Status const> status_;
};

}  // namespace KernelNetInfo
