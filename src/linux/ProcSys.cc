#include "linux/ProcSys.h"

#include <linux/ip.h>

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
// After netinet/in.h, whose IPv6 types it would otherwise define again.
#include <linux/ipv6.h>

#include <cerrno>
#include <cstring>

#include "linux/Fd.h"
#include "linux/NetNs.h"
#include "linux/SafeName.h"
#include "mox/Trace.h"

namespace Konet {
namespace {

constexpr std::string_view kProcSysNet = "/proc/sys/net/";

int checkPath(std::string_view path) {
   char const* problem = nullptr;
   if (!path.starts_with(kProcSysNet)) {
      problem = "not under /proc/sys/net/";
   } else if (path.find("..") != std::string_view::npos) {
      problem = "contains \"..\"";
   } else if (path.find('\0') != std::string_view::npos) {
      problem = "contains NUL";
   }
   if (!problem) return 0;
   Mox::logMessage(Mox::LogSeverity::error, "KONET_UNSAFE_NAME",
                   "Refusing path \"" + escapedName(path) + "\": " + problem);
   return EINVAL;
}

int writeTo(Fd const& fd, std::string_view value) {
   ssize_t n;
   do {
      n = ::write(fd.get(), value.data(), value.size());
   } while (n < 0 && errno == EINTR);
   if (n < 0) return errno;
   return static_cast<size_t>(n) == value.size() ? 0 : EIO;
}

// Settings are read and written in runs of one directory (a device's settings one after
// the other), and opening each file by its full path walks seven directories every time.
// Inside a ScopedNetNs the thread keeps the directory it used last open, so that the next
// file of that directory is one step away. The directory belongs to the namespace the
// thread was in when it opened it (netNsMoves), and a device that went takes its directory
// along: the kernel answers ENOENT for any file in it, even once a device of the same name
// is back, and the full path is walked again.
Fd openFile(std::string const& path, int flags) {
   auto* cache = procSysDirCache();
   if (!cache) return Fd(::open(path.c_str(), flags | O_CLOEXEC));
   auto slash = path.rfind('/');
   std::string_view dir(path.data(), slash + 1);
   char const* file = path.c_str() + slash + 1;
   if (cache->fd && cache->moves == netNsMoves() && cache->path == dir) {
      Fd fd(::openat(cache->fd.get(), file, flags | O_CLOEXEC));
      if (fd || errno != ENOENT) return fd;
   }
   cache->fd.reset(::open(std::string(dir).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
   if (!cache->fd) return Fd();
   cache->path = dir;
   cache->moves = netNsMoves();
   return Fd(::openat(cache->fd.get(), file, flags | O_CLOEXEC));
}

int writeFile(std::string const& path, std::string_view value) {
   Fd fd = openFile(path, O_WRONLY);
   return fd ? writeTo(fd, value) : errno;
}

std::string trimDir(std::string_view dir) {
   while (dir.size() > 1 && dir.back() == '/')
      dir.remove_suffix(1);
   return std::string(dir);
}

}  // namespace

namespace {
uint64_t writes = 0;
}

uint64_t procSysWrites() { return writes; }

int writeProcSysIfDiffers(std::string_view path, std::string_view value) {
   std::string held;
   int rc = readProcSys(path, &held);
   if (rc == ENOENT || (rc == 0 && held == value)) return rc;
   return writeProcSys(path, value);
}

int writeProcSys(std::string_view path, std::string_view value) {
   if (int rc = checkPath(path)) return rc;
   ++writes;
   std::string p(path);
   int rc = writeFile(p, value);
   if (rc != 0 && rc != ENOENT) {
      Mox::logMessage(
          Mox::LogSeverity::error, "KONET_PROC_WRITE",
          "Failed (err: " + std::to_string(rc) + ") to write " + std::string(value) + " to " + p);
   }
   return rc;
}

int writeProcSysDev(std::string_view directory, std::string_view device, std::string_view setting,
                    std::string_view value) {
   if (int rc = checkDeviceName(device)) return rc;
   if (int rc = checkSettingName(setting)) return rc;
   std::string path = trimDir(directory);
   path += '/';
   path += device;
   path += '/';
   path += setting;
   return writeProcSys(path, value);
}

int writeProcSysInNetNs(std::string_view path, std::string_view value, NamespaceName const& ns) {
   ScopedNetNs inNs(ns, "writeProcSysInNetNs");
   if (!inNs.ok()) return inNs.error();
   return writeProcSys(path, value);
}

bool setIpv6ProcSysInNetNs(std::string_view device, std::string_view setting,
                           std::string_view value, NamespaceName const& ns, bool missingDeviceOk) {
   ScopedNetNs inNs(ns, "setIpv6ProcSysInNetNs");
   if (!inNs.ok()) return false;
   int rc = writeProcSysDev(V6_PROC_CONF, device, setting, value);
   return rc == 0 || (missingDeviceOk && rc == ENOENT);
}

int readProcSys(std::string_view path, std::string* value) {
   if (int rc = checkPath(path)) return rc;
   Fd fd = openFile(std::string(path), O_RDONLY);
   if (!fd) return errno;
   value->clear();
   char buf[256];
   while (true) {
      ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return errno;
      if (n == 0) break;
      value->append(buf, static_cast<size_t>(n));
   }
   while (!value->empty() && value->back() == '\n')
      value->pop_back();
   return 0;
}

int ifconfInterfaces(std::vector<IfconfEntry>* out) {
   out->clear();
   Fd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   if (!sock) return errno;
   // Ask for the size first, then fetch; retry if interfaces appeared in between.
   std::vector<ifreq> reqs;
   ifconf ifc{};
   while (true) {
      ifc.ifc_len = 0;
      ifc.ifc_req = nullptr;
      if (::ioctl(sock.get(), SIOCGIFCONF, &ifc) != 0) return errno;
      reqs.resize(static_cast<size_t>(ifc.ifc_len) / sizeof(ifreq) + 1);
      ifc.ifc_len = static_cast<int>(reqs.size() * sizeof(ifreq));
      ifc.ifc_req = reqs.data();
      if (::ioctl(sock.get(), SIOCGIFCONF, &ifc) != 0) return errno;
      if (static_cast<size_t>(ifc.ifc_len) < reqs.size() * sizeof(ifreq)) break;
   }
   for (size_t i = 0; i < static_cast<size_t>(ifc.ifc_len) / sizeof(ifreq); ++i) {
      ifreq const& r = reqs[i];
      IfconfEntry e;
      e.name.assign(r.ifr_name, strnlen(r.ifr_name, IFNAMSIZ));
      sockaddr_in sin;
      std::memcpy(&sin, &r.ifr_addr, sizeof sin);
      e.addr = IpAddr(ntohl(sin.sin_addr.s_addr));
      out->push_back(std::move(e));
   }
   return 0;
}

int ipv4DevconfIndex(std::string_view setting) {
   static constexpr std::pair<std::string_view, int> kIndex[] = {
       {"forwarding", IPV4_DEVCONF_FORWARDING},
       {"proxy_arp", IPV4_DEVCONF_PROXY_ARP},
       {"accept_redirects", IPV4_DEVCONF_ACCEPT_REDIRECTS},
       {"send_redirects", IPV4_DEVCONF_SEND_REDIRECTS},
       {"rp_filter", IPV4_DEVCONF_RP_FILTER},
       {"arp_filter", IPV4_DEVCONF_ARPFILTER},
       {"arp_announce", IPV4_DEVCONF_ARP_ANNOUNCE},
       {"arp_ignore", IPV4_DEVCONF_ARP_IGNORE},
       {"promote_secondaries", IPV4_DEVCONF_PROMOTE_SECONDARIES},
       {"arp_accept", IPV4_DEVCONF_ARP_ACCEPT},
       {"proxy_arp_pvlan", IPV4_DEVCONF_PROXY_ARP_PVLAN},
       {"bc_forwarding", IPV4_DEVCONF_BC_FORWARDING},
   };
   for (auto const& [name, index] : kIndex) {
      if (name == setting) return index;
   }
   return 0;
}

int ipv6DevconfIndex(std::string_view setting) {
   static constexpr std::pair<std::string_view, int> kIndex[] = {
       {"forwarding", DEVCONF_FORWARDING},
       {"accept_ra", DEVCONF_ACCEPT_RA},
       {"accept_redirects", DEVCONF_ACCEPT_REDIRECTS},
       {"autoconf", DEVCONF_AUTOCONF},
       {"accept_ra_defrtr", DEVCONF_ACCEPT_RA_DEFRTR},
       {"accept_ra_pinfo", DEVCONF_ACCEPT_RA_PINFO},
       {"accept_dad", DEVCONF_ACCEPT_DAD},
       {"enhanced_dad", DEVCONF_ENHANCED_DAD},
       {"disable_ipv6", DEVCONF_DISABLE_IPV6},
   };
   for (auto const& [name, index] : kIndex) {
      if (name == setting) return index + 1;
   }
   return 0;
}

}  // namespace Konet
