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

// Troubles are always logged; the facility adds successes.
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

class LineAgent::PinsReactor : public Zel::NestedReactor<PinsReactor, Zel::Dir::NotifieeConst, LineAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::PinsReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name name) override { notifyOwner(&LineAgent::pinChanged, name); }
};

class LineAgent::PinReactor
    : public Zel::NestedReactor<PinReactor, CorvelPinConfig::NotifieeConst, LineAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::PinReactor";
  using NestedReactor::NestedReactor;
  void onValue() override { notifyOwner(&LineAgent::valueChanged, *notifier()); }
};

class LineAgent::WiringsReactor
    : public Zel::NestedReactor<WiringsReactor, Zel::Dir::NotifieeConst, LineAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::WiringsReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name name) override { notifyOwner(&LineAgent::wiringChanged, name); }
};

class LineAgent::WiringReactor
    : public Zel::NestedReactor<WiringReactor, GpioLineInit::NotifieeConst, LineAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::WiringReactor";
  using NestedReactor::NestedReactor;
  void onChip() override { changed(); }
  void onLine() override { changed(); }
  void onActiveLow() override { changed(); }
  void onOnExit() override { changed(); }

 private:
  void changed() { notifyOwner(&LineAgent::wiringValueChanged, *notifier()); }
};

class LineAgent::RetryReactor
    : public Zel::NestedReactor<RetryReactor, Zel::Clock::NotifieeConst, LineAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::LineAgent::RetryReactor";
  using NestedReactor::NestedReactor;
  void onTime() override { notifyOwner(&LineAgent::retry); }
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
  group->doMount({Paths::kLineStatus, "Zel::Dir", "we"});
  group->doClose(false, "", 0.0);
}

void LineAgent::doMountsComplete(Statedb::MountStatus status,
                                 const Zel::Ptr<Statedb::EntityManager>& manager) {
  if (status != Statedb::mountSuccess_) throw std::runtime_error("the line agent's mounts failed");
  const auto wirings = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kWirings));
  const auto pins = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kPins));
  statusDir_ = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kLineStatus));
  for (const auto& stale : statusDir_->entries()) statusDir_->entryDel(stale->name());
  wirings_.make(*this, wirings);
  pins_.make(*this, pins);
  retry_.make(*this, Zel::activityManager().clock());
  for (const auto& wiring : wirings->entries()) wiringChanged(wiring->name());
  for (const auto& pin : pins->entries()) pinChanged(pin->name());
  Zel::activityManager().passEndIs(*this);
  due_ = true;
}

void LineAgent::pinChanged(Zel::Name name) {
  const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(pins_.notifier()->entityRef(name));
  pinReactors_.watch(name, *this, pin);
  if (pin) return valueChanged(*pin);
  driver_.valueIs(name, std::nullopt);
  due_ = true;
}

void LineAgent::valueChanged(const CorvelPinConfig& pin) {
  driver_.valueIs(pin.name(), pin.value() != 0);
  due_ = true;
}

void LineAgent::wiringChanged(Zel::Name name) {
  const auto wiring = Zel::dynamicPtrCast<GpioLineInit>(wirings_.notifier()->entityRef(name));
  wiringReactors_.watch(name, *this, wiring);
  if (wiring) return wiringValueChanged(*wiring);
  driver_.wiringIs(name, std::nullopt);
  due_ = true;
}

void LineAgent::wiringValueChanged(const GpioLineInit& wiring) {
  driver_.wiringIs(wiring.name(), wiringOf(wiring));
  due_ = true;
}

void LineAgent::onPassEnd() {
  if (!std::exchange(due_, false)) return;
  driver_.drive(Zel::System::currentTime());
  retry_->timeMinIs(driver_.nextTry());
  for (const Zel::Name& name : driver_.takeChanged()) publish(name);
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
