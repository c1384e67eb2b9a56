// The entry point of the plug-in.
#include "facts/factsagent.h"

namespace {
const Zel::TypeRegistration types{&Pinlamp::FactsAgent::typeNode};
}

namespace Pinlamp {
ZEL_API Zel::Ptr<FactsAgent> agentFactory(Zel::Name name, const Warden::AgentOptions& options) {
  return Zel::allocate<FactsAgent>(name, FactsAgent::Options::read(options));
}
}  // namespace Pinlamp
