#include "mox/Notifiee.h"

#include <algorithm>

#include "mox/Error.h"

namespace Mox {

void NotifieeList::newMember(NotifieeBase* n) {
   members_.push_back(n);
   ++live_;
}

void NotifieeList::deleteMember(NotifieeBase* n) {
   auto it = std::find(members_.begin(), members_.end(), n);
   if (it == members_.end()) return;
   --live_;
   if (visiting_) {
      *it = nullptr;
      holes_ = true;
   } else {
      members_.erase(it);
   }
}

void NotifieeList::deleteAll() {
   for (auto*& m : members_) {
      if (!m) continue;
      m->inList_ = false;
      m = nullptr;
   }
   live_ = 0;
   if (visiting_) {
      holes_ = true;
   } else {
      members_.clear();
   }
}

void NotifieeList::compact() {
   members_.erase(std::remove(members_.begin(), members_.end(), nullptr), members_.end());
   holes_ = false;
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
