// Registers the agent's types while its library is loaded, and initialises the standard streams.
#include <ios>

#include "agent/agent.h"

namespace {

const Zel::TypeRegistration types{
    &Pinlamp::ConfigReactor::typeNode,
    &Pinlamp::Agent::typeNode,
    &Pinlamp::GpioLedStateMachine::typeNode,
};

const std::ios_base::Init standardStreams;

}  // namespace
