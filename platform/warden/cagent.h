// The base class of agents.
#pragma once

#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/mount/mount.h"
#include "platform/zel/core/export.h"

namespace Warden {

// A host makes an agent with its factory, sets the entity manager, and calls doPreInit and doInit. When the
// mount group that doInit closed is complete, doMountsComplete follows. The other operations have a base
// behaviour that an agent may replace: the stages of a host's start-up, reports to it, and what it asks of an
// agent.
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

  // The base does nothing.
  virtual void doPreInit();
  virtual void doInit();
  virtual void doUpdateWarm();
  // The base hands the status on to handleMountStatus.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;
  // The base does nothing.
  virtual void handleMountStatus(Statedb::MountStatus status);

  // A stage of the host's start-up begins, for the agent or for one instance of it. The base sets stage() and
  // reports the stage complete.
  virtual void doStage(Zel::String stage, Zel::String reason);
  virtual void doStageForInstance(Zel::String stage, Zel::String reason, Zel::Name instance);
  virtual void handleStageProgressionComplete(Zel::String stage, Zel::Name instance);
  virtual void handleStageInstance(Zel::Name instance);
  virtual void handleFlushEntityLogComplete();
  const Zel::String& stage() const { return stage_; }

  // Whether the host answers pings for the agent (true), and keeps its configuration in step (false).
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
