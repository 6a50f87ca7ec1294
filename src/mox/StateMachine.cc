#include "mox/StateMachine.h"

namespace Mox {

ReactorHook::ReactorHook(StateMachine* sm, NotifieeBase* self) : self_(self) {
   if (!sm) return;
   next_ = sm->reactors_;
   if (next_) next_->link_ = &next_;
   link_ = &sm->reactors_;
   sm->reactors_ = this;
   if (!sm->active_) self_->hasNotificationActiveIs(false);
}

ReactorHook::~ReactorHook() {
   if (!link_) return;
   *link_ = next_;
   if (next_) next_->link_ = link_;
}

StateMachine::~StateMachine() {
   // A reactor kept alive elsewhere (by a delivery in progress) must never call back into
   // this machine: unhook and silence every one that is left.
   for (ReactorHook* h = reactors_; h;) {
      ReactorHook* next = h->next_;
      h->self_->moxDoZombieReactors(true);
      h->link_ = nullptr;
      h->next_ = nullptr;
      h = next;
   }
   reactors_ = nullptr;
}

void StateMachine::handleZeroRef() const noexcept {
   if (Delivery::active()) const_cast<StateMachine*>(this)->moxDoZombieReactors(true);
   Entity::handleZeroRef();
}

void StateMachine::moxDoZombieReactors(bool zombie) {
   for (ReactorHook* h = reactors_; h; h = h->next_)
      h->self_->moxDoZombieReactors(zombie);
}

void StateMachine::hasNotificationActiveIs(bool active) {
   active_ = active;
   for (ReactorHook* h = reactors_; h; h = h->next_)
      h->self_->hasNotificationActiveIs(active);
}

size_t StateMachine::nestedReactors() const {
   size_t n = 0;
   for (ReactorHook* h = reactors_; h; h = h->next_)
      ++n;
   return n;
}

void throwNullParameter(char const* param, char const* mutator) {
   throwRangeException(std::string("null ") + param + " parameter to mutator for " + mutator +
                       " not allowed");
}

}  // namespace Mox
