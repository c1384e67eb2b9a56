// The agent's types come and go with its library, which also sees to the standard streams.
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
