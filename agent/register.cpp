// The agent's types come and go with its library.
#include "agent/agent.h"

namespace {

const Zel::TypeRegistration types{
    &Pinlamp::ConfigReactor::typeNode,
    &Pinlamp::Agent::typeNode,
    &Pinlamp::GpioLedStateMachine::typeNode,
};

}  // namespace
