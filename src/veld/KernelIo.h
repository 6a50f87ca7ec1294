// The machines' access to the kernel: namespaces, /proc/sys writes, addresses, device
// flags and MSS clamps. The default goes straight to the Linux layer. Tests put a decorator in
// front of it where the real kernel cannot produce what they need: a write that keeps failing, or
// kernel work that takes (virtual) time.
#pragma once

#include <cerrno>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "konet/IpPrefix.h"
#include "konet/NamespaceName.h"
#include "linux/NetNs.h"
#include "linux/NetlinkAddr.h"
#include "linux/NftMss.h"
#include "linux/ProcSys.h"

namespace Veld {

class KernelIo {
public:
   virtual ~KernelIo() = default;

   // Enters `ns` until the returned guard goes (the default namespace: stays). The guard's
   // error() is 0 when the thread is in the namespace.
   virtual std::unique_ptr<Konet::ScopedNetNs> enterNamespace(Konet::NamespaceName const& ns,
                                                              char const* caller);
   virtual int writeProcSys(std::string_view path, std::string_view value);
   virtual int readProcSys(std::string_view path, std::string* value);
   // Writes `value` unless the file holds it already (a restart finds most settings set);
   // ENOENT when the file is not there, as from a write.
   int writeProcSysIfDiffers(std::string_view path, std::string_view value) {
      std::string held;
      int err = readProcSys(path, &held);
      if (err == ENOENT || (err == 0 && held == value)) return err;
      return writeProcSys(path, value);
   }
   virtual int ipAddrAdd(int sock, int ifindex, Konet::IpAddrWithMask const& addr,
                         uint32_t ifaFlags);
   // Many adds at once (Konet::ipAddrAddAll); (*results)[i] is what ipAddrAdd gives adds[i].
   virtual void ipAddrAddAll(int sock, std::vector<Konet::IpAddrAdd> const& adds,
                             std::vector<int>* results);
   virtual int ipAddrDel(int sock, int ifindex, Konet::IpAddrWithMask const& addr);
   virtual int ip6AddrAdd(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr);
   virtual int ip6AddrDel(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr);
   virtual int setKintfFlags(int sock, int ifindex, uint32_t flags, uint32_t mask);
   virtual int ipAddrFlush(int sock, int ifindex, std::string const& devName,
                           std::string const& ns);
   virtual int ifconfInterfaces(std::vector<Konet::IfconfEntry>* out);
   virtual int mssClampDump(std::map<std::string, Konet::MssClamp>* out, std::string* error);
   virtual int mssClampSet(std::string const& dev, Konet::MssClamp clamp, std::string* error);

   // The process's kernel access: the Linux layer unless a test installed another.
   static KernelIo& current();
   // Installs `io` (nullptr: the Linux layer again); returns the previous one.
   static KernelIo* currentIs(KernelIo* io);
};

// Forwards everything to another KernelIo; a test's decorator overrides what it changes.
class KernelIoDecorator : public KernelIo {
public:
   explicit KernelIoDecorator(KernelIo& inner) : inner_(inner) {}
   std::unique_ptr<Konet::ScopedNetNs> enterNamespace(Konet::NamespaceName const& ns,
                                                      char const* caller) override {
      return inner_.enterNamespace(ns, caller);
   }
   int writeProcSys(std::string_view path, std::string_view value) override {
      return inner_.writeProcSys(path, value);
   }
   int readProcSys(std::string_view path, std::string* value) override {
      return inner_.readProcSys(path, value);
   }
   int ipAddrAdd(int sock, int ifindex, Konet::IpAddrWithMask const& addr,
                 uint32_t ifaFlags) override {
      return inner_.ipAddrAdd(sock, ifindex, addr, ifaFlags);
   }
   // A decorator sees every add on its own: the adds go one by one through ipAddrAdd.
   void ipAddrAddAll(int sock, std::vector<Konet::IpAddrAdd> const& adds,
                     std::vector<int>* results) override {
      results->clear();
      for (auto const& a : adds)
         results->push_back(ipAddrAdd(sock, a.ifindex, a.addr, a.ifaFlags));
   }
   int ipAddrDel(int sock, int ifindex, Konet::IpAddrWithMask const& addr) override {
      return inner_.ipAddrDel(sock, ifindex, addr);
   }
   int ip6AddrAdd(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr) override {
      return inner_.ip6AddrAdd(sock, ifindex, addr);
   }
   int ip6AddrDel(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr) override {
      return inner_.ip6AddrDel(sock, ifindex, addr);
   }
   int setKintfFlags(int sock, int ifindex, uint32_t flags, uint32_t mask) override {
      return inner_.setKintfFlags(sock, ifindex, flags, mask);
   }
   int ipAddrFlush(int sock, int ifindex, std::string const& devName,
                   std::string const& ns) override {
      return inner_.ipAddrFlush(sock, ifindex, devName, ns);
   }
   int ifconfInterfaces(std::vector<Konet::IfconfEntry>* out) override {
      return inner_.ifconfInterfaces(out);
   }
   int mssClampDump(std::map<std::string, Konet::MssClamp>* out, std::string* error) override {
      return inner_.mssClampDump(out, error);
   }
   int mssClampSet(std::string const& dev, Konet::MssClamp clamp, std::string* error) override {
      return inner_.mssClampSet(dev, clamp, error);
   }

protected:
   KernelIo& inner_;
};

}  // namespace Veld
