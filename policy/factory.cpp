// The entry point of the plug-in.
#include <chrono>

#include "policy/policyagent.h"

namespace Pinlamp {

namespace {

const Zel::TypeRegistration policyTypes{&Policy::Work::typeNode, &Policy::FactFollower::typeNode,
                                        &PolicyAgent::typeNode};

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

ZEL_API Zel::Ptr<PolicyAgent> agentFactory(Zel::Name name) {
  return Zel::allocate<PolicyAgent>(name, &secondsSince1970);
}

}  // namespace Pinlamp
