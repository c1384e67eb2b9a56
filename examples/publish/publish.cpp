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
  double seconds() const { return seconds_; }
  void secondsIs(double seconds) { set<&Uptime::seconds_>(seconds); }

 private:
  double seconds_ = 0;
};

struct Tick : Zel::Reactor<Tick, Zel::Clock::NotifieeConst> {
  static constexpr const char* kTypeName = "Publish::Tick";
  explicit Tick(const Zel::Ptr<Uptime>& counter) : Reactor(Zel::activityManager().clock()), uptime(counter) {
    timeMinIs(Zel::System::currentTime() + 1);
  }
  void onTime() override {
    uptime->secondsIs(uptime->seconds() + 1);
    timeMinIs(timeMin() + 1);
  }
  const Zel::Ptr<Uptime> uptime;
};

struct Agent : Zel::Described<Agent, Warden::CAgent> {
  static constexpr auto attributes() { return std::tuple{}; }
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
    tick = Zel::allocate<Tick>(Zel::dynamicPtrCast<Uptime>(manager->getEntity("example/uptime")));
  }
  Zel::Ptr<Tick> tick;
};

ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }
const Zel::TypeRegistration types{&Uptime::typeNode, &Agent::typeNode};

}  // namespace Publish
