// The facts about the machine, as libpinlamp-facts.so publishes them under "facts": one entity for each link,
// sensor and failed unit. docs/facts.md has the table of attributes. Activity thread only.
#pragma once

#include <cstdint>

#include "platform/zel/entity/entity.h"

namespace Facts {

// A network link, under "facts/link". Has the interface's name.
class ZEL_API Link : public Zel::Described<Link, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Link> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onUp() {}
    virtual void onCarrier() {}
    virtual void onSpeed() {}
    virtual void onDuplex() {}
    virtual void onReceived() {}
    virtual void onSent() {}
    virtual void onTraffic() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&Link::up_, &N::onUp>("up"),
                      Zel::attribute::value<&Link::carrier_, &N::onCarrier>("carrier"),
                      Zel::attribute::value<&Link::speed_, &N::onSpeed>("speed"),
                      Zel::attribute::value<&Link::duplex_, &N::onDuplex>("duplex"),
                      Zel::attribute::value<&Link::received_, &N::onReceived>("received"),
                      Zel::attribute::value<&Link::sent_, &N::onSent>("sent"),
                      Zel::attribute::value<&Link::traffic_, &N::onTraffic>("traffic")};
  }
  static const Zel::TypeNode& typeNode();

  explicit Link(const Zel::Name& name) : Described(name) {}

  // Whether the interface was set up.
  bool up() const { return up_; }
  void upIs(bool up) { set<&Link::up_>(up); }
  // Whether it is up and its cable, or its peer, is there.
  bool carrier() const { return carrier_; }
  void carrierIs(bool carrier) { set<&Link::carrier_>(carrier); }
  // Mbit/s; 0: unknown, or no carrier.
  std::uint32_t speed() const { return speed_; }
  void speedIs(std::uint32_t megabits) { set<&Link::speed_>(megabits); }
  // "full" or "half"; empty: unknown, or no carrier.
  const Zel::String& duplex() const { return duplex_; }
  void duplexIs(const Zel::String& duplex) { set<&Link::duplex_>(duplex); }
  // Bytes a second, between the last two polls; 0 without carrier. Traffic is the sum of both.
  double received() const { return received_; }
  void receivedIs(double bytes) { set<&Link::received_>(bytes); }
  double sent() const { return sent_; }
  void sentIs(double bytes) { set<&Link::sent_>(bytes); }
  double traffic() const { return traffic_; }
  void trafficIs(double bytes) { set<&Link::traffic_>(bytes); }

 private:
  Zel::String duplex_;
  double received_ = 0;
  double sent_ = 0;
  double traffic_ = 0;
  std::uint32_t speed_ = 0;
  bool up_ = false;
  bool carrier_ = false;
};

// A sensor of a chip, under "facts/fan" (value in rpm), "facts/temperature" (°C), "facts/voltage" (V),
// "facts/current" (A) or "facts/power" (W). Named CHIP.SENSOR: "lm75-i2c-0-48.temp1".
class ZEL_API Sensor : public Zel::Described<Sensor, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Sensor> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onValue() {}
    virtual void onAlarm() {}
    virtual void onFault() {}
    virtual void onLow() {}
    virtual void onHigh() {}
    virtual void onCritical() {}
    virtual void onLabel() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&Sensor::value_, &N::onValue>("value"),
                      Zel::attribute::value<&Sensor::alarm_, &N::onAlarm>("alarm"),
                      Zel::attribute::value<&Sensor::fault_, &N::onFault>("fault"),
                      Zel::attribute::value<&Sensor::low_, &N::onLow>("low"),
                      Zel::attribute::value<&Sensor::high_, &N::onHigh>("high"),
                      Zel::attribute::value<&Sensor::critical_, &N::onCritical>("critical"),
                      Zel::attribute::value<&Sensor::label_, &N::onLabel>("label")};
  }
  static const Zel::TypeNode& typeNode();

  explicit Sensor(const Zel::Name& name) : Described(name) {}

  // The last one that was read.
  double value() const { return value_; }
  void valueIs(double value) { set<&Sensor::value_>(value); }
  // Whether the chip raises any alarm for the sensor; for a chip without alarms, whether the value is beyond
  // a limit.
  bool alarm() const { return alarm_; }
  void alarmIs(bool alarm) { set<&Sensor::alarm_>(alarm); }
  // Whether the sensor can't be read, or the chip reports it as broken.
  bool fault() const { return fault_; }
  void faultIs(bool fault) { set<&Sensor::fault_>(fault); }
  // The chip's limits; 0 where it has none.
  double low() const { return low_; }
  void lowIs(double limit) { set<&Sensor::low_>(limit); }
  double high() const { return high_; }
  void highIs(double limit) { set<&Sensor::high_>(limit); }
  double critical() const { return critical_; }
  void criticalIs(double limit) { set<&Sensor::critical_>(limit); }
  // From the driver or the configuration of libsensors; the sensor's own name where neither has one.
  const Zel::String& label() const { return label_; }
  void labelIs(const Zel::String& label) { set<&Sensor::label_>(label); }

 private:
  Zel::String label_;
  double value_ = 0;
  double low_ = 0;
  double high_ = 0;
  double critical_ = 0;
  bool alarm_ = false;
  bool fault_ = false;
};

// A failed unit of the service manager, under "facts/unit". Has the unit's name.
class ZEL_API Unit : public Zel::Described<Unit, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Unit> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onActiveState() {}
    virtual void onSubState() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&Unit::activeState_, &N::onActiveState>("activeState"),
                      Zel::attribute::value<&Unit::subState_, &N::onSubState>("subState")};
  }
  static const Zel::TypeNode& typeNode();

  explicit Unit(const Zel::Name& name) : Described(name) {}

  // "failed".
  const Zel::String& activeState() const { return activeState_; }
  void activeStateIs(const Zel::String& state) { set<&Unit::activeState_>(state); }
  const Zel::String& subState() const { return subState_; }
  void subStateIs(const Zel::String& state) { set<&Unit::subState_>(state); }

 private:
  Zel::String activeState_;
  Zel::String subState_;
};

// A source of facts, under "facts/source": "links", "sensors" or "units".
class ZEL_API SourceStatus : public Zel::Described<SourceStatus, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<SourceStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onFacts() {}
    virtual void onWorking() {}
    virtual void onError() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&SourceStatus::facts_, &N::onFacts>("facts"),
                      Zel::attribute::value<&SourceStatus::working_, &N::onWorking>("working"),
                      Zel::attribute::value<&SourceStatus::error_, &N::onError>("error")};
  }
  static const Zel::TypeNode& typeNode();

  explicit SourceStatus(const Zel::Name& name) : Described(name) {}

  // How many entities it has: for "units", how many units failed.
  std::uint32_t facts() const { return facts_; }
  void factsIs(std::uint32_t count) { set<&SourceStatus::facts_>(count); }
  // Whether the facts are complete and followed.
  bool working() const { return working_; }
  void workingIs(bool working) { set<&SourceStatus::working_>(working); }
  // Why it does not work; empty where it does.
  const Zel::String& error() const { return error_; }
  void errorIs(const Zel::String& error) { set<&SourceStatus::error_>(error); }

 private:
  Zel::String error_;
  std::uint32_t facts_ = 0;
  bool working_ = false;
};

}  // namespace Facts
