#include "linux/NetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>

#include "linux/SafeName.h"
#include "mox/Trace.h"

namespace Konet {
namespace {

Mox::TraceHandle traceNetNs("KonetNetNs");

std::string namedPath(NamespaceName const& name) {
   return std::string(kNetNsDir) + "/" + name.name();
}

// Like ip: /run/netns must be a shared mount so that a namespace mounted there is seen by
// every mount namespace that shares it. If it is not a mount point yet, bind it on itself
// first.
int makeNetNsDirShared() {
   bool bound = false;
   while (::mount("", kNetNsDir, "none", MS_SHARED | MS_REC, nullptr) != 0) {
      if (errno != EINVAL || bound) return errno;
      if (::mount(kNetNsDir, kNetNsDir, "none", MS_BIND | MS_REC, nullptr) != 0) return errno;
      bound = true;
   }
   return 0;
}

}  // namespace

Fd getns() { return Fd(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)); }

namespace {
thread_local uint64_t moves = 0;
thread_local ProcSysDirCache* procSysDir = nullptr;
}  // namespace

int setns(int fd) {
   ++moves;  // a failed setns may still have moved the thread: count it too
   return ::setns(fd, CLONE_NEWNET) == 0 ? 0 : errno;
}

uint64_t netNsMoves() { return moves; }

ProcSysDirCache* procSysDirCache() { return procSysDir; }

int openNamedNamespace(NamespaceName const& name, Fd* out) {
   if (int rc = checkNamespaceName(name.name())) return rc;
   out->reset(::open(namedPath(name).c_str(), O_RDONLY | O_CLOEXEC));
   return out->valid() ? 0 : errno;
}

int setnsByName(NamespaceName const& name) {
   Fd fd;
   if (int rc = openNamedNamespace(name, &fd)) return rc;
   return setns(fd.get());
}

int createNamedNamespace(NamespaceName const& name) {
   MOX_TRACE_FN(traceNetNs, name);
   if (int rc = checkNamespaceName(name.name())) return rc;
   if (::mkdir(kNetNsDir, 0755) != 0 && errno != EEXIST) return errno;
   if (int rc = makeNetNsDirShared()) return rc;
   std::string path = namedPath(name);
   {
      Fd file(::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0));
      if (!file) return errno;
   }
   // A new namespace is made by a helper thread, so that the caller's thread never leaves
   // its own; the bind mount keeps the namespace alive after the thread is gone.
   int rc = 0;
   try {
      std::thread([&] {
         if (::unshare(CLONE_NEWNET) != 0) {
            rc = errno;
         } else if (::mount("/proc/thread-self/ns/net", path.c_str(), "none", MS_BIND, nullptr) !=
                    0) {
            rc = errno;
         }
      }).join();
   } catch (std::system_error const&) {
      rc = EAGAIN;
   }
   if (rc != 0) ::unlink(path.c_str());
   return rc;
}

int deleteNamedNamespace(NamespaceName const& name) {
   MOX_TRACE_FN(traceNetNs, name);
   if (int rc = checkNamespaceName(name.name())) return rc;
   std::string path = namedPath(name);
   // EINVAL: not a mount point (a half-made name); the file still goes.
   if (::umount2(path.c_str(), MNT_DETACH) != 0 && errno != EINVAL) return errno;
   return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

ScopedNetNs::ScopedNetNs(NamespaceName const& ns, char const* caller)
    : outerProcSysDir_(procSysDir) {
   procSysDir = &procSysDir_;
   if (ns.isDefault()) return;
   saved_ = getns();
   error_ = saved_ ? setnsByName(ns) : errno;
   if (error_ != 0) {
      saved_.reset();
      if (caller)
         Mox::logMessage(Mox::LogSeverity::error, "KONET_SETNS",
                         std::string(caller) + ": Failed to setns to NS: " + ns.name());
   }
}

ScopedNetNs::~ScopedNetNs() {
   procSysDir = outerProcSysDir_;
   if (!saved_) return;
   if (int rc = setns(saved_.get()); rc != 0) {
      std::fprintf(stderr, "ScopedNetNs: cannot return to the saved namespace (err: %d)\n", rc);
      std::abort();
   }
}

}  // namespace Konet
