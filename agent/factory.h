// The entry point of the agent's plug-in.
#pragma once

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/ptr.h"

namespace Pinlamp {

class Agent;

// Makes an agent of that name. A host looks the function up by its name in the loaded library, and casts the
// result to Warden::CAgent. The library must stay loaded as long as the agent lives.
ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name);

}  // namespace Pinlamp
