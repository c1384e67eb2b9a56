// Publishes an entity of a type of its own: for how many seconds the agent runs, at "example/uptime".
//
//   pinlampd --agent build/libpublish.so:Publish …
//   pinlampctl watch example
#include "platform/pinlamp.h"

namespace Publish {

class Uptime : public Zel::Described<Uptime, Zel::Entity> {
 public:
  static constexpr auto attributes() {
    return std::tuple{Zel::attribute::value<&Uptime::seconds_>("seconds")};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Publish::Uptime", &Zel::newEntity<Uptime>);
    return type;
  }
  explicit Uptime(Zel::Name name) : Described(name) {}
  void count() { set<&Uptime::seconds_>(seconds_ + 1); }

 private:
  double seconds_ = 0;
};

struct Agent : Zel::Described<Agent, Warden::CAgent> {
  struct Tick : Zel::NestedReactor<Tick, Zel::Clock::NotifieeConst, Agent> {
    static constexpr const char* kTypeName = "Publish::Tick";
    using NestedReactor::NestedReactor;
    void onTime() override { notifyOwner(&Agent::count); }
  };
  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() { return std::tuple{&Agent::tick}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Publish::Agent");
    return type;
  }
  using Described::Described;
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount({"example/uptime", "Publish::Uptime", "wi"});
    group->doClose(false, "", 0.0);
  }
  void doMountsComplete(Statedb::MountStatus, const Zel::Ptr<Statedb::EntityManager>& manager) override {
    uptime = Zel::dynamicPtrCast<Uptime>(manager->getEntity("example/uptime"));
    tick.make(*this, Zel::activityManager().clock());
    tick->timeMinIs(Zel::System::currentTime() + 1);
  }
  void count() {
    uptime->count();
    tick->timeMinIs(tick->timeMin() + 1);
  }
  Zel::Ptr<Uptime> uptime;
  Zel::Slot<Tick> tick;
};

ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }
const Zel::TypeRegistration types{&Uptime::typeNode, &Agent::typeNode};

}  // namespace Publish
