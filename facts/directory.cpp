#include "facts/directory.h"

namespace Facts {

void Published<LinkFact>::write(const LinkFact& fact, Link& link) {
  link.upIs(fact.up);
  link.carrierIs(fact.carrier);
  link.speedIs(fact.speed);
  link.duplexIs(fact.duplex);
  link.receivedIs(fact.received);
  link.sentIs(fact.sent);
  link.trafficIs(fact.received + fact.sent);
}

void Published<SensorFact>::write(const SensorFact& fact, Sensor& sensor) {
  sensor.valueIs(fact.value);
  sensor.lowIs(fact.low);
  sensor.highIs(fact.high);
  sensor.criticalIs(fact.critical);
  sensor.alarmIs(fact.alarm);
  sensor.faultIs(fact.fault);
  sensor.labelIs(fact.label);
}

void Published<UnitFact>::write(const UnitFact& fact, Unit& unit) {
  unit.activeStateIs(fact.activeState);
  unit.subStateIs(fact.subState);
}

}  // namespace Facts
