#include "platform/warden/cagent.h"

namespace Warden {

const Zel::TypeNode& CAgent::typeNode() {
  static const Zel::TypeNode type = describe("Warden::CAgent");
  return type;
}

CAgent::~CAgent() = default;

void CAgent::entityManagerIs(const Zel::Ptr<Statedb::EntityManager>& manager) { entityManager_ = manager; }

void CAgent::doPreInit() {}
void CAgent::doInit() {}
void CAgent::doUpdateWarm() {}
void CAgent::doMountsComplete(Statedb::MountStatus status, const Zel::Ptr<Statedb::EntityManager>&) {
  handleMountStatus(status);
}
void CAgent::handleMountStatus(Statedb::MountStatus) {}

void CAgent::doStage(Zel::String stage, Zel::String) {
  set<&CAgent::stage_>(stage);
  handleStageProgressionComplete(stage, Zel::Name());
}
void CAgent::doStageForInstance(Zel::String stage, Zel::String, Zel::Name instance) {
  set<&CAgent::stage_>(stage);
  handleStageInstance(instance);
  handleStageProgressionComplete(stage, instance);
}
void CAgent::handleStageProgressionComplete(Zel::String, Zel::Name) {}
void CAgent::handleStageInstance(Zel::Name) {}
void CAgent::handleFlushEntityLogComplete() {}

}  // namespace Warden
