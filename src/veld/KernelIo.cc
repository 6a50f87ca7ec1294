#include "veld/KernelIo.h"

#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"

namespace Veld {

std::unique_ptr<Konet::ScopedNetNs> KernelIo::enterNamespace(Konet::NamespaceName const& ns,
                                                             char const* caller) {
   return std::make_unique<Konet::ScopedNetNs>(ns, caller);
}

int KernelIo::writeProcSys(std::string_view path, std::string_view value) {
   return Konet::writeProcSys(path, value);
}

int KernelIo::readProcSys(std::string_view path, std::string* value) {
   return Konet::readProcSys(path, value);
}

int KernelIo::ipAddrAdd(int sock, int ifindex, Konet::IpAddrWithMask const& addr,
                        uint32_t ifaFlags) {
   return Konet::ipAddrAdd(sock, ifindex, addr, ifaFlags);
}

void KernelIo::ipAddrAddAll(int sock, std::vector<Konet::IpAddrAdd> const& adds,
                            std::vector<int>* results) {
   Konet::ipAddrAddAll(sock, adds, results);
}

int KernelIo::ipAddrDel(int sock, int ifindex, Konet::IpAddrWithMask const& addr) {
   return Konet::ipAddrDel(sock, ifindex, addr);
}

int KernelIo::ip6AddrAdd(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr) {
   return Konet::ip6AddrAdd(sock, ifindex, addr);
}

int KernelIo::ip6AddrDel(int sock, int ifindex, Konet::Ip6AddrWithMask const& addr) {
   return Konet::ip6AddrDel(sock, ifindex, addr);
}

int KernelIo::setKintfFlags(int sock, int ifindex, uint32_t flags, uint32_t mask) {
   return Konet::setKintfFlags(sock, ifindex, flags, mask);
}

int KernelIo::ipAddrFlush(int sock, int ifindex, std::string const& devName,
                          std::string const& ns) {
   return Konet::ipAddrFlush(sock, ifindex, devName, ns);
}

int KernelIo::ifconfInterfaces(std::vector<Konet::IfconfEntry>* out) {
   return Konet::ifconfInterfaces(out);
}

int KernelIo::mssClampDump(std::map<std::string, Konet::MssClamp>* out, std::string* error) {
   return Konet::mssClampDump(out, error);
}

int KernelIo::mssClampSet(std::string const& dev, Konet::MssClamp clamp, std::string* error) {
   return Konet::mssClampSet(dev, clamp, error);
}

namespace {
KernelIo linuxIo;
KernelIo* currentIo = &linuxIo;
}  // namespace

KernelIo& KernelIo::current() { return *currentIo; }

KernelIo* KernelIo::currentIs(KernelIo* io) {
   KernelIo* previous = currentIo;
   currentIo = io ? io : &linuxIo;
   return previous;
}

}  // namespace Veld
