// Notifiers and reactors (notifiees).
//
// A reactor observes one notifier and holds a reference to it; the notifier keeps a plain
// list of its registered reactors. A change calls a virtual onX() on every registered and
// active reactor, synchronously, from inside the setter.
//
// What a handler may do during delivery, all of it safe:
//  - create reactors on the same notifier: they are not called for the change in progress
//    (they were not there when it happened) but for every later one;
//  - delete or detach reactors, itself included: a reactor detached before its turn is not
//    called; the one running is kept alive until its handler returns;
//  - write attributes of the notifier, which delivers the nested change to every reactor
//    first, then resumes the outer delivery;
//  - drop the last reference to the notifier itself: the delivery keeps it alive to the end.
// A reactor that stays registered receives each change exactly once.
#pragma once

#include <cstdint>
#include <vector>

#include "mox/Ptr.h"

namespace Mox {

class NotifieeBase;

// The registered reactors of one notifier. Removal during a visit leaves a hole that the
// outermost visit compacts when it ends; members added during a visit wait for the next one.
//
// Every entity has a list and most have one reactor or none, so the list is small: a single
// member is kept in place, more in an array of their own that grows by doubling.
class NotifieeList {
public:
   NotifieeList() = default;
   NotifieeList(NotifieeList const&) = delete;
   NotifieeList& operator=(NotifieeList const&) = delete;
   ~NotifieeList() { release(); }

   void newMember(NotifieeBase* n);
   void deleteMember(NotifieeBase* n);
   void deleteAll();
   bool empty() const { return live_ == 0; }
   size_t size() const { return live_; }
   bool visiting() const { return visiting_ != 0; }

   // Calls f(member) for every member present when the visit starts and still registered
   // when its turn comes, skipping inactive and zombie reactors.
   template <class F>
   void doVisit(F&& f);

private:
   // The slots, holes included: in place while there is room for one only.
   NotifieeBase** slots() { return cap_ > 1 ? many_ : &one_; }
   void compact();
   void release();
   union {
      NotifieeBase* one_ = nullptr;
      NotifieeBase** many_;
   };
   uint32_t used_ = 0;  // slots in use, holes included
   uint32_t cap_ = 1;
   uint32_t live_ = 0;
   uint16_t visiting_ = 0;  // nested visits: as deep as deliveries nest on the stack
   bool holes_ = false;
};

// Anything reactors can observe.
//
// Keeping things alive during a delivery costs no reference counting: an object whose last
// reference goes while a delivery runs is destroyed when the outermost delivery ends
// (Delivery, in Ptr.h).
class Notifier : public PtrInterface {
public:
   Notifier() = default;
   Notifier(Notifier const&) : PtrInterface() {}  // reactors stay with the original
   ~Notifier() override;
   NotifieeList& notifieeList() const { return notifiees_; }

protected:
   // Delivers one change: fn(notifiee) for every reactor.
   template <class N, class F>
   void notifyEach(F&& fn) const;

private:
   mutable NotifieeList notifiees_;
};

// Base of every reactor. `PtrInterface::NotifieeConst` in the platform's terms.
class NotifieeBase : public PtrInterface {
public:
   NotifieeBase() = default;
   NotifieeBase(NotifieeBase const&) = delete;
   NotifieeBase& operator=(NotifieeBase const&) = delete;
   ~NotifieeBase() override;

   // Registers with the notifier (the default) or leaves its list, keeping the notifier.
   void isRegisteredNotifieeIs(bool registered);
   bool isRegisteredNotifiee() const { return wantRegistered_; }
   // Switches delivery on or off while staying registered.
   void hasNotificationActiveIs(bool active) { muteBit(kInactive, !active); }
   bool hasNotificationActive() const { return !(mute_ & kInactive); }
   // A zombie is being torn down: it stays attached but its handlers are no longer called.
   virtual void moxDoZombieReactors(bool zombie) { muteBit(kZombie, zombie); }
   bool moxZombie() const { return mute_ & kZombie; }
   bool wantsDelivery() const { return mute_ == 0; }
   // Dropping the last reference during a delivery stops the reactor at once; its memory
   // goes when the delivery ends.
   void handleZeroRef() const noexcept override;

   Notifier const* notifierBase() const { return notifier_.ptr(); }

protected:
   // Attaches to a new notifier (detaching from the old one); null detaches.
   void notifierBaseIs(Notifier const* n);
   // Delivery was off (inactive or zombie) and is on again.
   virtual void handleDeliveryResumed() {}

private:
   friend class NotifieeList;
   Ptr<Notifier const> notifier_;
   bool wantRegistered_ = true;
   bool inList_ = false;
   static constexpr uint8_t kInactive = 1;
   static constexpr uint8_t kZombie = 2;
   void muteBit(uint8_t bit, bool on) {
      bool const was = mute_ != 0;
      mute_ = on ? (mute_ | bit) : (mute_ & ~bit);
      if (was && mute_ == 0) handleDeliveryResumed();
   }
   uint8_t mute_ = 0;  // delivery is skipped unless zero
};

// Typed reactor base: attaches only to a T (or one derived from it).
template <class T>
class NotifieeOf : public NotifieeBase {
public:
   using NotifierType = T;
   Ptr<T const> notifier() const { return Ptr<T const>(static_cast<T const*>(notifierBase())); }
   T const* notifierRaw() const { return static_cast<T const*>(notifierBase()); }
   void notifierIs(Ptr<T const> const& n) { notifierBaseIs(n.ptr()); }
   void notifierIs(T const* n) { notifierBaseIs(n); }
};

template <class F>
void NotifieeList::doVisit(F&& f) {
   if (live_ == 0) return;
   ++visiting_;
   struct Leave {
      NotifieeList* list;
      ~Leave() {
         if (--list->visiting_ == 0 && list->holes_) list->compact();
      }
   } leave{this};
   uint32_t const n = used_;
   for (uint32_t i = 0; i < n; ++i) {
      // Read through slots() each time: a handler may add members and move the array.
      NotifieeBase* m = slots()[i];
      if (!m || !m->wantsDelivery()) continue;
      f(m);
   }
}

template <class N, class F>
void Notifier::notifyEach(F&& fn) const {
   if (notifiees_.empty()) return;
   Delivery::Scope scope;
   notifiees_.doVisit([&](NotifieeBase* m) { fn(static_cast<N*>(m)); });
}

}  // namespace Mox
