#include "mox/Ptr.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <unordered_map>

namespace Mox {

bool VFPtrInterface::threadSafePointers_ = false;

namespace {

struct Registry {
   std::unordered_map<std::string, std::unique_ptr<AllocTrackTypeInfo>> byMangled;
};

Registry& registry() {
   static Registry r;
   return r;
}

std::string demangle(char const* mangled) {
   int status = 0;
   std::unique_ptr<char, void (*)(void*)> s(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                            std::free);
   return status == 0 && s ? std::string(s.get()) : std::string(mangled);
}

}  // namespace

AllocTrackTypeInfo::AllocTrackTypeInfo(std::string name) : name_(std::move(name)) {}

AllocTrackTypeInfo& AllocTrackTypeInfo::registered(char const* mangled) {
   auto& slot = registry().byMangled[mangled];
   if (!slot) slot = std::make_unique<AllocTrackTypeInfo>(demangle(mangled));
   return *slot;
}

std::vector<AllocTrackTypeInfo const*> AllocTrackTypeInfo::all() {
   std::vector<AllocTrackTypeInfo const*> out;
   for (auto& [_, info] : registry().byMangled)
      out.push_back(info.get());
   return out;
}

PtrInterface::~PtrInterface() {
   if (allocInfo_) allocInfo_->trackDeallocation();
}

void PtrInterface::handleZeroRef() const noexcept {
   if (Delivery::active()) {
      Delivery::defer(this);
      return;
   }
   delete this;
}

[[gnu::tls_model("initial-exec")]] constinit thread_local uint32_t Delivery::depth_ = 0;
[[gnu::tls_model(
    "initial-exec")]] constinit thread_local std::vector<PtrInterface const*>* Delivery::pending_ =
    nullptr;

void Delivery::defer(PtrInterface const* p) {
   if (p->zeroRefDeferred_) return;
   p->zeroRefDeferred_ = true;
   if (!pending_) pending_ = new std::vector<PtrInterface const*>;
   pending_->push_back(p);
}

void Delivery::drain() noexcept {
   while (pending_) {
      std::unique_ptr<std::vector<PtrInterface const*>> batch(std::exchange(pending_, nullptr));
      for (auto const* p : *batch) {
         p->zeroRefDeferred_ = false;
         // Destroying one may release others: with no delivery running they go at once.
         if (p->ref_ == 0) delete p;
      }
   }
}

void* PtrInterface::moxMemAlloc(size_t bytes) {
   void* p = std::malloc(bytes ? bytes : 1);
   if (!p) throw std::bad_alloc();
   return p;
}

void PtrInterface::moxMemFree(void* p) noexcept { std::free(p); }

}  // namespace Mox
