// Network namespaces: entering them, and the named ones under /run/netns.
//
// A network namespace belongs to a thread, not to the process: everything here changes or
// reads the calling thread's namespace only. Sockets keep the namespace they were opened
// in, and /proc/sys/net shows the namespace of the thread that opens a file.
//
// Named namespaces are the files that `ip netns add` makes: a bind mount of a namespace
// file on /run/netns/<name>, with /run/netns itself a shared mount so that other mount
// namespaces see new names.
//
// Functions return 0 or a positive errno. Names are checked (SafeName.h) before they reach
// a path: an unsafe name is EINVAL.
#pragma once

#include <cstdint>
#include <string>

#include "konet/NamespaceName.h"
#include "linux/Fd.h"

namespace Konet {

inline constexpr char kNetNsDir[] = "/run/netns";

// The calling thread's current network namespace; invalid with errno set on failure.
Fd getns();
// Moves the calling thread into the namespace of `fd` (from getns or openNamedNamespace).
int setns(int fd);
// Counts the calling thread's moves between namespaces through this layer: what was opened
// under /proc/sys/net at one count belongs to the namespace the thread is in while the
// count stays the same.
uint64_t netNsMoves();

// The /proc/sys/net directory that the thread wrote in last (ProcSys.cc), kept only while a
// ScopedNetNs holds the thread in one namespace.
struct ProcSysDirCache {
   std::string path;  // with its trailing '/'
   uint64_t moves = 0;
   Fd fd;
};
// The innermost ScopedNetNs's cache of the calling thread; null outside every scope.
ProcSysDirCache* procSysDirCache();
// Moves the calling thread into the named namespace. The default names have no file: they
// are EINVAL here (ScopedNetNs treats them as "stay").
int setnsByName(NamespaceName const& name);
// Opens /run/netns/<name>, e.g. to move a device there by descriptor.
int openNamedNamespace(NamespaceName const& name, Fd* out);

// Does what `ip netns add <name>` does. EEXIST when the name is taken.
int createNamedNamespace(NamespaceName const& name);
// Does what `ip netns del <name>` does: detaches the mount and removes the file. The
// namespace itself goes when nothing else holds it (sockets, devices' peers, threads).
int deleteNamedNamespace(NamespaceName const& name);

// Enters a network namespace for the lifetime of the object and returns to the one the
// thread was in on every way out (return, exception). The default namespace name ("" or
// "default") means the caller's own: nothing changes and nothing is saved.
//
//    ScopedNetNs inNs(ns, __func__);
//    if (!inNs.ok()) return inNs.error();
//
// A failure to enter logs "<caller>: Failed to setns to NS: <name>" (nothing for a null
// caller, whose failure is already known) and leaves the thread
// where it was. Failing to return is fatal: the thread would go on in the wrong namespace.
class ScopedNetNs {
public:
   explicit ScopedNetNs(NamespaceName const& ns, char const* caller = "ScopedNetNs");
   ~ScopedNetNs();
   ScopedNetNs(ScopedNetNs const&) = delete;
   ScopedNetNs& operator=(ScopedNetNs const&) = delete;

   bool ok() const { return error_ == 0; }
   // 0 when the thread is in the namespace, else the errno of the failure.
   int error() const { return error_; }

private:
   Fd saved_;
   int error_ = 0;
   ProcSysDirCache procSysDir_;
   ProcSysDirCache* outerProcSysDir_;
};

}  // namespace Konet
