// Writers and readers of kernel settings under /proc/sys/net.
//
// /proc/sys/net shows the network namespace of the thread that opens a file, so a write
// "in a namespace" enters it first (ScopedNetNs). Functions return 0 or the raw errno of
// the failure, ENOENT included (the device is gone, or not in this namespace): whether
// that counts as success is the caller's decision. A failed write other than ENOENT logs
// "Failed (err: <errno>) to write <value> to <path>".
//
// Only paths under "/proc/sys/net/" are accepted, without "..": anything else is EINVAL,
// as are unsafe device, setting and namespace names (SafeName.h).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "konet/IpAddr.h"
#include "konet/NamespaceName.h"

namespace Konet {

inline constexpr char V4_PROC_CONF[] = "/proc/sys/net/ipv4/conf";
inline constexpr char V6_PROC_CONF[] = "/proc/sys/net/ipv6/conf";
inline constexpr char V6_PROC_NEIGH[] = "/proc/sys/net/ipv6/neigh";

int writeProcSys(std::string_view path, std::string_view value);
// Writes only when the file reads otherwise: for settings made once per namespace, so that a
// restart on a kernel already set writes nothing. ENOENT when there is no such file.
int writeProcSysIfDiffers(std::string_view path, std::string_view value);
// The writes this process made under /proc/sys/net (attempted, successful or not).
uint64_t procSysWrites();
// Writes <directory>/<device>/<setting>, e.g. (V6_PROC_CONF, "et1", "forwarding", "1").
int writeProcSysDev(std::string_view directory, std::string_view device, std::string_view setting,
                    std::string_view value);
// writeProcSys inside namespace `ns`; the default name writes in the caller's namespace.
int writeProcSysInNetNs(std::string_view path, std::string_view value, NamespaceName const& ns);
// Writes V6_PROC_CONF/<device>/<setting> inside `ns`. True on success; with
// `missingDeviceOk`, ENOENT (no such device in that namespace) is a success too.
bool setIpv6ProcSysInNetNs(std::string_view device, std::string_view setting,
                           std::string_view value, NamespaceName const& ns, bool missingDeviceOk);

// The kernel's number (IPV4_DEVCONF_*) of a per-device IPv4 setting, by its file name under
// /proc/sys/net/ipv4/conf/<device>/ ("rp_filter"); 0 for a file the kernel has no number for.
// Link messages report a device's settings by these numbers.
int ipv4DevconfIndex(std::string_view setting);
// The same for a per-device IPv6 setting under /proc/sys/net/ipv6/conf/<device>/: its
// DEVCONF_* number plus one, or 0.
int ipv6DevconfIndex(std::string_view setting);

// The content of a /proc/sys/net file without its trailing newline.
int readProcSys(std::string_view path, std::string* value);

// An interface with an IPv4 address, as SIOCGIFCONF lists them (one entry per address
// label: "eth0", "eth0:1").
struct IfconfEntry {
   std::string name;
   IpAddr addr;
};
// The current namespace's interfaces that have IPv4 addresses (ioctl SIOCGIFCONF on an
// AF_INET socket).
int ifconfInterfaces(std::vector<IfconfEntry>* out);

}  // namespace Konet
