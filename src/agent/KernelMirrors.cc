#include "agent/KernelMirrors.h"

#include <sys/epoll.h>

#include <cstring>

#include "linux/Netlink.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentKni");
}

KernelMirrors::KernelMirrors(EventLoop& loop, Mox::Ptr<Larder::EntityManager> larder)
    : loop_(loop), larder_(std::move(larder)) {}

KernelMirrors::~KernelMirrors() {
   for (auto& [ns, e] : entries_) {
      loop_.remove(e.mirror->fd());
      larder_->entityDel(larderPath(ns));
   }
}

Konet::NamespaceName KernelMirrors::key(Konet::NamespaceName const& ns) {
   return ns.isDefault() ? Konet::NamespaceName::defaultNamespace() : ns;
}

std::string KernelMirrors::larderPath(Konet::NamespaceName const& ns) {
   return Larder::formatPath("kni/ns/%s/status", key(ns).name());
}

int KernelMirrors::mirrorIs(Konet::NamespaceName const& nsIn) {
   auto ns = key(nsIn);
   if (entries_.count(ns)) return 0;
   MOX_TRACE_FN(th, " ns " << ns);
   Entry e;
   e.mirror = std::make_unique<Konet::KernelMirror>(ns);
   if (int err = e.mirror->start()) return err;
   int err = 0;
   e.requests = Konet::createNetlinkSocket(ns, 0, 2, true, 0, &err);
   if (!e.requests) return err;
   auto* mirror = e.mirror.get();
   err = loop_.add(mirror->fd(), EPOLLIN, [mirror, ns](uint32_t) {
      if (int rc = mirror->processEvents()) {
         Mox::logFailure("VELD-KNI", "kernel mirror of namespace " + ns.name(), rc,
                         Mox::LogSeverity::warning);
      }
   });
   if (err) return err;
   larder_->entityIs(larderPath(ns), mirror->status());
   entries_.emplace(ns, std::move(e));
   for (auto const& o : observers_)
      o(ns, mirror);
   return 0;
}

void KernelMirrors::mirrorDel(Konet::NamespaceName const& nsIn) {
   auto ns = key(nsIn);
   auto it = entries_.find(ns);
   if (it == entries_.end()) return;
   MOX_TRACE_FN(th, " ns " << ns);
   loop_.remove(it->second.mirror->fd());
   larder_->entityDel(larderPath(ns));
   for (auto const& o : observers_)
      o(ns, nullptr);
   entries_.erase(it);
}

Konet::KernelMirror* KernelMirrors::mirror(Konet::NamespaceName const& ns) const {
   auto it = entries_.find(key(ns));
   return it == entries_.end() ? nullptr : it->second.mirror.get();
}

std::vector<Konet::NamespaceName> KernelMirrors::namespaces() const {
   std::vector<Konet::NamespaceName> out;
   for (auto const& [ns, e] : entries_)
      out.push_back(ns);
   return out;
}

int KernelMirrors::requestSocket(Konet::NamespaceName const& ns) const {
   auto it = entries_.find(key(ns));
   return it == entries_.end() ? -1 : it->second.requests.get();
}

}  // namespace VeldAgent

namespace VeldAgent {

std::map<uint32_t, std::vector<Konet::IpAddrWithMask>> kernelIpv4ByIfindex(
    Konet::KernelMirror const& mirror) {
   std::map<uint32_t, std::vector<Konet::IpAddrWithMask>> out;
   auto table = mirror.status()->ipState();
   for (auto it = table.begin(); it != table.end(); ++it) {
      auto const& k = it.key();
      if (!k.addr.isV4() || !it.value().assigned) continue;
      out[k.intfKey.ifIndex].emplace_back(k.addr.v4(), static_cast<uint8_t>(k.prefixLen));
   }
   return out;
}

}  // namespace VeldAgent
