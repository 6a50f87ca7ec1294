// State machines and their nested reactors.
//
// A state machine watches its inputs through nested reactors (named Mox + the watched type:
// MoxIpIntfConfig, MoxClock, ...). A nested reactor only forwards: its onY(key) calls the
// machine's hand-written handleY(key). The machine owns its reactors through pointer or
// collection attributes; every nested reactor is also hooked into its machine so that the
// machine can switch them all at once (zombie mode, notification on/off) and so that none of
// them can call into a machine that is gone.
//
// Initialisation: the constructor wires the inputs and, as its last step, calls
// handleInitialized(), which does the full initial pass as if every key had changed, returns
// at once when `initialized` is already true and sets it at its end. initializedIs() only
// stores the flag (delivering onInitialized() on a change); it never runs the pass.
#pragma once

#include <sstream>
#include <string>
#include <type_traits>

#include "mox/Entity.h"
#include "mox/Error.h"

namespace Mox {

class StateMachine;

// Links a nested reactor into its machine's list. A reactor unlinks itself through the link
// that points to it (the machine's head or the previous reactor's next), so it needs no
// pointer to the machine: there is one hook per reactor, thousands per machine.
class ReactorHook {
public:
   ReactorHook(ReactorHook const&) = delete;
   ReactorHook& operator=(ReactorHook const&) = delete;

protected:
   ReactorHook(StateMachine* sm, NotifieeBase* self);
   ~ReactorHook();

private:
   friend class StateMachine;
   NotifieeBase* self_;
   ReactorHook** link_ = nullptr;  // what points to this hook; null once unhooked
   ReactorHook* next_ = nullptr;
};

class StateMachine : public Entity {
public:
   class NotifieeConst : public EntityNotifiee<StateMachine> {
   public:
      virtual void onInitialized() {}
   };

   ~StateMachine() override;
   // Dropping the last reference during a delivery silences the machine's reactors at once;
   // its memory goes when the delivery ends.
   void handleZeroRef() const noexcept override;

   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { setAttr(initialized_, v, &NotifieeConst::onInitialized); }

   // Forwarded to every nested reactor this machine owns.
   void moxDoZombieReactors(bool zombie);
   void hasNotificationActiveIs(bool active);
   bool hasNotificationActive() const { return active_; }
   size_t nestedReactors() const;

protected:
   StateMachine() = default;
   // Sets the flag without delivering (the last step of handleInitialized()).
   void initializedSet(bool v) { initialized_ = v; }

private:
   friend class ReactorHook;
   ReactorHook* reactors_ = nullptr;
   bool initialized_ = false;
   bool active_ = true;
};

// A nested reactor of machine Sm on notifier type Base::NotifierType. Owner is whoever holds
// its back pointer: the machine itself, or a per-member reactor of the machine.
template <class Owner, class Base>
class Reactor : public Base, private ReactorHook {
public:
   Reactor(Owner* owner, StateMachine* sm) : ReactorHook(sm, this), owner_(owner) {}
   // A template, so that its constraint is checked only where it is called, once Owner is
   // complete (clang 14 checks a plain constructor's when it declares the copy constructor).
   template <class O = Owner>
   explicit Reactor(O* owner) requires std::is_base_of_v<StateMachine, O>
       : ReactorHook(owner, this), owner_(owner) {}

   Owner* owner() const { return owner_; }

private:
   Owner* owner_;
};

// A reactor R of machine `sm` following `notifier`; none while there is no notifier (an
// input the machine was built without).
template <class R, class Sm, class N>
Ptr<R> reactorOn(Sm* sm, N const& notifier) {
   if (!notifier) return nullptr;
   auto r = make<R>(sm);
   r->notifierIs(notifier);
   return r;
}

// Text of a value in framework messages: entities by address, values through operator<<.
template <class T>
std::string describe(T const& v) {
   std::ostringstream os;
   if constexpr (requires { v.ptr(); }) {
      os << static_cast<void const*>(v.ptr());
   } else if constexpr (std::is_same_v<T, bool>) {
      os << (v ? "true" : "false");
   } else {
      os << v;
   }
   return os.str();
}

// The create-or-update rule for a constructor parameter: an existing child may be returned
// only if it was built with the same value.
template <class T>
void checkCtorParam(char const* attr, T const& current, T const& passed) {
   if (current == passed) return;
   throwNameInUseException(
       std::string("Reinstantiating the pointer interface where constructor parameter attribute ") +
       attr + " has a different value of " + describe(passed) + " than the current value of " +
       describe(current) + " not allowed");
}

// The framework's refusal of a null argument to a collection mutator.
[[noreturn]] void throwNullParameter(char const* param, char const* mutator);

template <class P>
void requireNonNull(P const& p, char const* param, char const* mutator) {
   if (!p) throwNullParameter(param, mutator);
}

}  // namespace Mox
