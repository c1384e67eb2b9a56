// The facts as sources give them, and where they give them to.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "platform/zel/core/name.h"

namespace Facts {

// platform/model/facts.h has the meanings and the units.
struct LinkFact {
  bool up = false;
  bool carrier = false;
  std::uint32_t speed = 0;
  std::string duplex;
  double received = 0;
  double sent = 0;

  bool operator==(const LinkFact&) const = default;
};

enum class SensorKind : std::uint8_t { fan, temperature, voltage, current, power };

struct SensorFact {
  SensorKind kind = SensorKind::fan;
  std::string label;
  double value = 0;
  double low = 0;
  double high = 0;
  double critical = 0;
  bool alarm = false;
  bool fault = false;

  bool operator==(const SensorFact&) const = default;
};

struct UnitFact {
  std::string activeState;
  std::string subState;

  bool operator==(const UnitFact&) const = default;
};

// A source can't go on. The text is the whole message.
class SourceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Takes the facts of one source. It must outlive the source. Called on the activity thread alone.
template <class Fact>
class Sink {
 public:
  virtual void factIs(Zel::Name name, const Fact& fact) = 0;
  // Ignored where there is no such fact.
  virtual void factDel(Zel::Name name) = 0;
  // All facts that there are were given: others, left by an earlier run, are removed.
  virtual void complete() = 0;
  // The source goes on, but with something missing; empty: with nothing.
  virtual void errorIs(const std::string& error) = 0;
  // The source can't go on: its facts are removed. It is ended, and another made, later; it may give more
  // until then.
  virtual void failed(const std::string& error) = 0;

 protected:
  ~Sink() = default;
};

// Runs a part of a source; a SourceError ends the source.
template <class Fact, class Part>
void runFor(Sink<Fact>& sink, Part part) {
  try {
    part();
  } catch (const SourceError& error) {
    sink.failed(error.what());
  }
}

// The name of a fact: bytes other than printable ASCII become "\xNN", and what exceeds a name's limit of 255
// bytes is cut off. REQUIRES: the text is not empty.
Zel::Name factName(const std::string& text);

}  // namespace Facts
