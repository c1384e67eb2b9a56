#include "gpio/lineagent.h"

#include <stdexcept>

#include "platform/model/paths.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/entity/dir.h"

namespace Pinlamp {

namespace {

using Hardware::Gpio::CorvelPinConfig;
using Hardware::Gpio::GpioLineInit;
using Hardware::Gpio::GpioLineStatus;

// Troubles are always told; the facility adds what goes well.
constexpr unsigned kTrouble = 0;
constexpr unsigned kDriven = 6;

const Zel::TraceHandle& traceHandle() {
  static const Zel::TraceHandle handle("PinlampGpio", false);
  return handle;
}

void report(const std::string& text) {
  Zel::traceRecord(traceHandle(), kTrouble, "LineAgent", __LINE__, "report",
                   [&](std::ostream& out) { out << text; });
}

Gpio::Wiring wiringOf(const GpioLineInit& init) {
  const bool off = init.onExit() == Hardware::Gpio::OnExit::off;
  return {init.chip().stdString(), init.line().text.stdString(), init.activeLow(),
          off ? Gpio::LineExit::off : Gpio::LineExit::keep};
}

}  // namespace

class LineAgent::PinsReactor : public Zel::Reactor<PinsReactor, Zel::Dir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::PinsReactor";
  PinsReactor(const Zel::Ptr<const Zel::Dir>& pins, LineAgent& agent) : Reactor(pins), agent_(agent) {}
  void onEntry(Zel::Name name) override { agent_.pinChanged(name); }

 private:
  LineAgent& agent_;
};

class LineAgent::PinReactor : public Zel::Reactor<PinReactor, CorvelPinConfig::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::PinReactor";
  PinReactor(const Zel::Ptr<const CorvelPinConfig>& pin, LineAgent& agent) : Reactor(pin), agent_(agent) {}
  void onValue() override { agent_.valueChanged(*notifier()); }

 private:
  LineAgent& agent_;
};

class LineAgent::WiringsReactor : public Zel::Reactor<WiringsReactor, Zel::Dir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::WiringsReactor";
  WiringsReactor(const Zel::Ptr<const Zel::Dir>& wirings, LineAgent& agent)
      : Reactor(wirings), agent_(agent) {}
  void onEntry(Zel::Name name) override { agent_.wiringChanged(name); }

 private:
  LineAgent& agent_;
};

class LineAgent::WiringReactor : public Zel::Reactor<WiringReactor, GpioLineInit::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::WiringReactor";
  WiringReactor(const Zel::Ptr<const GpioLineInit>& wiring, LineAgent& agent)
      : Reactor(wiring), agent_(agent) {}
  void onChip() override { changed(); }
  void onLine() override { changed(); }
  void onActiveLow() override { changed(); }
  void onOnExit() override { changed(); }

 private:
  void changed() { agent_.wiringValueChanged(*notifier()); }
  LineAgent& agent_;
};

class LineAgent::RetryReactor : public Zel::Reactor<RetryReactor, Zel::Clock::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::RetryReactor";
  RetryReactor(const Zel::Ptr<const Zel::Clock>& clock, LineAgent& agent) : Reactor(clock), agent_(agent) {}
  void onTime() override { agent_.due_ = true; }

 private:
  LineAgent& agent_;
};

const Zel::TypeNode& LineAgent::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::LineAgent");
  return type;
}

LineAgent::LineAgent(Zel::Name name, std::unique_ptr<Gpio::LineProvider> lines)
    : Described(name), lines_(std::move(lines)), driver_(*lines_, &report) {}

LineAgent::~LineAgent() {
  if (statusDir_) Zel::activityManager().passEndDel(*this);
  driver_.release();
}

void LineAgent::doInit() {
  if (Zel::TraceFacility& facility = Zel::TraceFacility::named("PinlampGpio"); facility.mask() == 0)
    facility.maskIs(1U << kTrouble);
  const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
  group->doMount({Paths::kWirings, "Zel::Dir", "r"});
  group->doMount({Paths::kPins, "Zel::Dir", "r"});
  group->doMount({Paths::kLineStatus, "Zel::Dir", "wi"});
  group->doClose(false, "", 0.0);
}

void LineAgent::doMountsComplete(Statedb::MountStatus status,
                                 const Zel::Ptr<Statedb::EntityManager>& manager) {
  if (status != Statedb::mountSuccess_) throw std::runtime_error("the line agent's mounts failed");
  const auto wirings = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kWirings));
  const auto pins = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kPins));
  statusDir_ = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kLineStatus));
  for (const auto& stale : statusDir_->entries()) statusDir_->entryDel(stale->name());
  wirings_ = Zel::allocate<WiringsReactor>(wirings, *this);
  pins_ = Zel::allocate<PinsReactor>(pins, *this);
  retry_ = Zel::allocate<RetryReactor>(Zel::activityManager().clock(), *this);
  for (const auto& wiring : wirings->entries()) wiringChanged(wiring->name());
  for (const auto& pin : pins->entries()) pinChanged(pin->name());
  Zel::activityManager().passEndIs(*this);
  due_ = true;
}

// An entity came, went, or became another object: `reactors` get one for it where it is there. Returns it.
template <class T, class R>
Zel::Ptr<T> LineAgent::follow(const Zel::Dir& dir, Zel::Name name, Zel::PtrMap<R>& reactors) {
  due_ = true;
  reactors.remove(name);
  const auto entity = Zel::dynamicPtrCast<T>(dir.entityRef(name));
  if (entity) reactors.insert(name, Zel::allocate<R>(entity, *this));
  return entity;
}

void LineAgent::pinChanged(Zel::Name name) {
  if (const auto pin = follow<CorvelPinConfig>(*pins_->notifier(), name, pinReactors_))
    valueChanged(*pin);
  else
    driver_.valueIs(name, std::nullopt);
}

void LineAgent::valueChanged(const CorvelPinConfig& pin) {
  driver_.valueIs(pin.name(), pin.value() != 0);
  due_ = true;
}

void LineAgent::wiringChanged(Zel::Name name) {
  if (const auto wiring = follow<GpioLineInit>(*wirings_->notifier(), name, wiringReactors_))
    wiringValueChanged(*wiring);
  else
    driver_.wiringIs(name, std::nullopt);
}

void LineAgent::wiringValueChanged(const GpioLineInit& wiring) {
  driver_.wiringIs(wiring.name(), wiringOf(wiring));
  due_ = true;
}

void LineAgent::onPassEnd() {
  if (!std::exchange(due_, false)) return;
  driver_.drive(Zel::System::currentTime());
  retry_->timeMinIs(driver_.nextTry());
  for (const Zel::Name name : driver_.takeChanged()) publish(name);
}

void LineAgent::publish(Zel::Name name) {
  const auto state = driver_.state(name);
  if (!state) {
    statusDir_->entryDel(name);
    return;
  }
  const auto status =
      Zel::dynamicPtrCast<GpioLineStatus>(statusDir_->entryIs(name, "Hardware::Gpio::GpioLineStatus"));
  if (!status) return;
  status->drivenIs(state->driven);
  status->placeIs(state->place);
  status->errorIs(state->error);
  if (state->driven)
    Zel::traceRecord(traceHandle(), kDriven, "LineAgent", __LINE__, "publish",
                     [&](std::ostream& out) { out << "pin '" << name << "' drives " << state->place; });
}

}  // namespace Pinlamp
