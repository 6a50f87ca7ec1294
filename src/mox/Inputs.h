// A machine's constructor inputs, declared once.
//
// A machine lists its inputs as one X-list of (type, name) pairs, in its constructor's
// order, and its Inputs struct expands it:
//
//    #define VELD_WARP_SM_INPUTS(X) X(Mox::Ptr<Ip::Config const>, ipConfig) X(...)
//    struct Inputs {
//       MOX_INPUTS(VELD_WARP_SM_INPUTS)
//    };
//
// MOX_INPUTS declares one member per pair and Inputs::checkCtorParams(current, passed), the
// create-or-update rule over all of them in order: the first that differs is the name-in-use
// error naming it ("_ipConfig"). Roots, the agent and tests pass the struct as a whole, so
// adding an input is one line in the list plus the place that produces it.
//
// A macro because the language cannot list a struct's members with their names; this is the
// one place that does.
#pragma once

#include "mox/StateMachine.h"

// An optional third element is the member's initial value: X(int, netlinkSocket, -1).
#define MOX_INPUT_MEMBER_(type, name, ...) type name{__VA_ARGS__};
#define MOX_INPUT_CHECK_(type, name, ...) \
   ::Mox::checkCtorParam("_" #name, current.name, passed.name);

#define MOX_INPUTS(LIST)   \
   LIST(MOX_INPUT_MEMBER_) \
   static void checkCtorParams(auto const& current, auto const& passed) { LIST(MOX_INPUT_CHECK_) }
