// The base class of agents.
#pragma once

#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/mount/mount.h"
#include "platform/zel/core/export.h"

namespace Warden {

// A host makes an agent with its factory, sets the entity manager, and calls doPreInit and doInit.
// doMountsComplete follows when the mount group that doInit closed is complete. The other operations have a
// default that an agent may override: the stages of the host's start-up, the agent's reports to the host, and
// its options.
class ZEL_API CAgent : public Zel::Described<CAgent, Statedb::Mounter> {
 public:
  static constexpr auto attributes() {
    return std::tuple{
        Zel::attribute::procedure<static_cast<void (CAgent::*)(Statedb::MountStatus)>(
            &CAgent::mountsComplete)>("doMountsComplete", "status"),
        Zel::attribute::procedure<&CAgent::doInit>("doInit"),
        Zel::attribute::accessor<&CAgent::agentPingResponderEnabled>("agentPingResponderEnabled"),
        Zel::attribute::accessor<&CAgent::agentSyncConfigEnabled>("agentSyncConfigEnabled"),
        Zel::attribute::value<&CAgent::stage_>("stage", Zel::attribute::kGet),
    };
  }
  static const Zel::TypeNode& typeNode();

  explicit CAgent(Zel::Name name) : Described(name) {}

  const Zel::Ptr<Statedb::EntityManager>& entityManager() const { return entityManager_; }
  virtual void entityManagerIs(const Zel::Ptr<Statedb::EntityManager>& entityManager);

  // Do nothing by default.
  virtual void doPreInit();
  virtual void doInit();
  virtual void doUpdateWarm();
  // Calls handleMountStatus by default.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;
  // Does nothing by default.
  virtual void handleMountStatus(Statedb::MountStatus status);

  // A stage of the host's start-up begins, for the agent or for one instance of it. Sets stage() and reports
  // the stage complete by default.
  virtual void doStage(Zel::String stage, Zel::String reason);
  virtual void doStageForInstance(Zel::String stage, Zel::String reason, Zel::Name instance);
  virtual void handleStageProgressionComplete(Zel::String stage, Zel::Name instance);
  virtual void handleStageInstance(Zel::Name instance);
  virtual void handleFlushEntityLogComplete();
  const Zel::String& stage() const { return stage_; }

  // Whether the host answers pings for the agent, and synchronizes its configuration.
  virtual bool agentPingResponderEnabled() const { return true; }
  virtual bool agentSyncConfigEnabled() const { return false; }

 protected:
  ~CAgent() override;
  // doMountsComplete with the agent's own entity manager.
  void mountsComplete(Statedb::MountStatus status) { doMountsComplete(status, entityManager_); }

 private:
  Zel::Ptr<Statedb::EntityManager> entityManager_;
  Zel::String stage_;
};

}  // namespace Warden
