#include "mox/Notifiee.h"

#include <algorithm>

#include "mox/Error.h"

namespace Mox {

void NotifieeList::newMember(NotifieeBase* n) {
   if (used_ == cap_) {
      uint32_t const cap = cap_ * 2;
      auto** grown = new NotifieeBase*[cap];
      std::copy(slots(), slots() + used_, grown);
      if (cap_ > 1) delete[] many_;
      many_ = grown;
      cap_ = cap;
   }
   slots()[used_++] = n;
   ++live_;
}

void NotifieeList::deleteMember(NotifieeBase* n) {
   NotifieeBase** const s = slots();
   auto* it = std::find(s, s + used_, n);
   if (it == s + used_) return;
   --live_;
   if (visiting_) {
      *it = nullptr;
      holes_ = true;
   } else {
      std::copy(it + 1, s + used_, it);
      --used_;
   }
}

void NotifieeList::deleteAll() {
   NotifieeBase** const s = slots();
   for (uint32_t i = 0; i < used_; ++i) {
      if (!s[i]) continue;
      s[i]->inList_ = false;
      s[i] = nullptr;
   }
   live_ = 0;
   if (visiting_) {
      holes_ = true;
   } else {
      used_ = 0;
   }
}

void NotifieeList::compact() {
   NotifieeBase** const s = slots();
   used_ = static_cast<uint32_t>(std::remove(s, s + used_, nullptr) - s);
   holes_ = false;
}

void NotifieeList::release() {
   if (cap_ > 1) delete[] many_;
   one_ = nullptr;
   cap_ = 1;
   used_ = 0;
}

Notifier::~Notifier() {
   // Reactors hold a reference to their notifier, so none can be attached here; a stale
   // entry would be a reactor that outlived its own notifier reference.
   notifiees_.deleteAll();
}

NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void NotifieeBase::handleZeroRef() const noexcept {
   if (Delivery::active()) const_cast<NotifieeBase*>(this)->moxDoZombieReactors(true);
   PtrInterface::handleZeroRef();
}

void NotifieeBase::notifierBaseIs(Notifier const* n) {
   if (n == notifier_.ptr()) return;
   if (inList_) {
      notifier_->notifieeList().deleteMember(this);
      inList_ = false;
   }
   // Keep the old notifier alive until we are out of its list.
   Ptr<Notifier const> old = std::move(notifier_);
   notifier_ = n;
   if (notifier_ && wantRegistered_) {
      notifier_->notifieeList().newMember(this);
      inList_ = true;
   }
}

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
   wantRegistered_ = registered;
   if (!notifier_) return;
   if (registered && !inList_) {
      notifier_->notifieeList().newMember(this);
      inList_ = true;
   } else if (!registered && inList_) {
      notifier_->notifieeList().deleteMember(this);
      inList_ = false;
   }
}

}  // namespace Mox
