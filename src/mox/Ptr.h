// Reference-counted objects.
//
// Every entity, state machine and reactor derives from PtrInterface and is held through
// Ptr<T> (Ptr<T const> for read-only inputs). An object is born holding one reference that
// belongs to its creator: Mox::make<T>(...) adopts it into the returned Ptr, so a constructor
// may hand out and drop Ptrs to itself without destroying the half-built object. The count is
// a 32-bit word; it is incremented atomically only while the process-wide flag
// VFPtrInterface::threadSafePointers_ is set. All decrements go through deleteRef(), which
// calls handleZeroRef() at zero.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Mox {

// Live allocations of one type, as reported by moxMemAlloc's callers.
class AllocTrackTypeInfo {
public:
   explicit AllocTrackTypeInfo(std::string name);

   template <class T>
   static AllocTrackTypeInfo& instance() {
      static AllocTrackTypeInfo& info = registered(typeid(T).name());
      return info;
   }
   static std::vector<AllocTrackTypeInfo const*> all();

   // One object of the type: all of them have the size the first one had.
   void trackAllocation(size_t bytes) {
      objectBytes_ = bytes;
      ++liveObjects_;
      ++totalObjects_;
      liveBytes_ += bytes;
   }
   void trackDeallocation() {
      --liveObjects_;
      liveBytes_ -= objectBytes_;
   }
   void trackArrayAllocation(size_t count, size_t bytes) {
      liveObjects_ += count;
      totalObjects_ += count;
      liveBytes_ += bytes;
   }
   void trackArrayDeallocation(size_t count, size_t bytes) {
      liveObjects_ -= count;
      liveBytes_ -= bytes;
   }

   std::string const& name() const { return name_; }  // the demangled type name
   int64_t liveObjects() const { return liveObjects_; }
   int64_t totalObjects() const { return totalObjects_; }
   int64_t liveBytes() const { return liveBytes_; }

private:
   static AllocTrackTypeInfo& registered(char const* mangled);
   std::string name_;
   int64_t liveObjects_ = 0;
   int64_t totalObjects_ = 0;
   int64_t liveBytes_ = 0;
   size_t objectBytes_ = 0;
};

class VFPtrInterface {
public:
   // Set by multi-threaded hosts before they share objects between threads.
   static bool threadSafePointers_;
};

class PtrInterface : public VFPtrInterface {
public:
   PtrInterface() = default;
   // A copy is a new object: it starts with its own creator's reference.
   PtrInterface(PtrInterface const&) : VFPtrInterface() {}
   PtrInterface& operator=(PtrInterface const&) { return *this; }
   virtual ~PtrInterface();

   void newRef() const noexcept {
      if (threadSafePointers_) {
         std::atomic_ref<uint32_t>(ref_).fetch_add(1, std::memory_order_relaxed);
      } else {
         ++ref_;
      }
   }
   void deleteRef() const noexcept {
      uint32_t left;
      if (threadSafePointers_) {
         left = std::atomic_ref<uint32_t>(ref_).fetch_sub(1, std::memory_order_acq_rel) - 1;
      } else {
         left = --ref_;
      }
      if (left == 0) handleZeroRef();
   }
   uint32_t references() const noexcept { return ref_; }

   // The last reference went: destroys the object, or, while a delivery (a reactor callback,
   // a timer, a task) is running, when the outermost one ends, so that code still on the
   // stack never runs on a freed object. An owner with other plans overrides it.
   virtual void handleZeroRef() const noexcept;

   // The deletion of this object is in progress (set by its owner before it lets go).
   void moxMarkedForDeletionIs(bool marked) { markedForDeletion_ = marked; }
   bool moxMarkedForDeletion() const { return markedForDeletion_; }

   static void* moxMemAlloc(size_t bytes);
   static void moxMemFree(void* p) noexcept;
   static void* operator new(size_t bytes) { return moxMemAlloc(bytes); }
   static void operator delete(void* p) noexcept { moxMemFree(p); }

   // Records the object's type with the allocation tracker (done by make(), whose objects of
   // one type all have the same size: the tracker keeps it, not the object).
   void moxAllocTrackIs(AllocTrackTypeInfo* info, size_t bytes) noexcept {
      allocInfo_ = info;
      info->trackAllocation(bytes);
   }

private:
   friend class Delivery;
   mutable uint32_t ref_ = 1;  // the creator's reference
   bool markedForDeletion_ = false;
   mutable bool zeroRefDeferred_ = false;
   AllocTrackTypeInfo* allocInfo_ = nullptr;
};

// Brackets a delivery. Objects whose last reference goes inside one are destroyed when the
// outermost delivery of the thread ends (unless a new reference appeared meanwhile).
class Delivery {
public:
   class Scope {
   public:
      Scope() noexcept { ++depth_; }
      ~Scope() {
         if (--depth_ == 0 && pending_) drain();
      }
      Scope(Scope const&) = delete;
      Scope& operator=(Scope const&) = delete;
   };
   static bool active() noexcept { return depth_ != 0; }
   static void defer(PtrInterface const* p);

private:
   static void drain() noexcept;
   // Trivially initialised thread-locals in the initial-exec model: reading them is one
   // segment-relative load, also from the shared library.
   // constinit: no initialisation check on access.
   [[gnu::tls_model("initial-exec")]] static constinit thread_local uint32_t depth_;
   [[gnu::tls_model(
       "initial-exec")]] static constinit thread_local std::vector<PtrInterface const*>*
       pending_;  // null when empty
};

template <class T>
class Ptr {
public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) {
      if (p_) p_->newRef();
   }
   Ptr(Ptr const& o) noexcept : p_(o.p_) {
      if (p_) p_->newRef();
   }
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
      if (p_) p_->newRef();
   }
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
   ~Ptr() {
      if (p_) p_->deleteRef();
   }

   Ptr& operator=(Ptr const& o) noexcept {
      Ptr(o).swap(*this);
      return *this;
   }
   Ptr& operator=(Ptr&& o) noexcept {
      Ptr(std::move(o)).swap(*this);
      return *this;
   }
   Ptr& operator=(std::nullptr_t) noexcept {
      Ptr().swap(*this);
      return *this;
   }

   // Takes over a reference the caller already owns (the creator's, from make()).
   static Ptr adopt(T* p) noexcept {
      Ptr r;
      r.p_ = p;
      return r;
   }
   T* release() noexcept { return std::exchange(p_, nullptr); }

   T* ptr() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

   template <class U>
   bool operator==(Ptr<U> const& o) const noexcept {
      return p_ == o.ptr();
   }
   bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
   bool operator==(T const* p) const noexcept { return p_ == p; }

private:
   T* p_ = nullptr;
};

// Allocates a T through moxMemAlloc, tracked per type, and returns it holding the only
// reference.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
   T* p = new T(std::forward<Args>(args)...);
   p->moxAllocTrackIs(&AllocTrackTypeInfo::instance<T>(), sizeof(T));
   return Ptr<T>::adopt(p);
}

template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) noexcept {
   return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> ptrDynamicCast(Ptr<U> const& p) noexcept {
   return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

template <class T>
Ptr<T const> constPtr(Ptr<T> const& p) noexcept {
   return Ptr<T const>(p);
}

}  // namespace Mox

template <class T>
struct std::hash<Mox::Ptr<T>> {
   size_t operator()(Mox::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
