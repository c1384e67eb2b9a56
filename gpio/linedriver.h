// Drives GPIO lines from pin values: finds each pin's line, takes the lines of a chip together, and writes
// what changed in one bulk set a request.
//
// Lines that were taken stay in their request as long as any line of it is wanted: giving one back would mean
// to let go of all, and a line that is let go may blink. A pin that is no longer wanted leaves its line as it
// is, or dark, as its wiring says. Lines that are wanted later get a request of their own.
//
// What cannot be found, had or written is tried again, after 0.5 s at first and then twice as long each time
// up to 30 s, while all others go on. Activity thread only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gpio/linechip.h"
#include "platform/zel/core/name.h"

namespace Gpio {

// Where a pin's line is.
struct Wiring {
  std::string chip;  // label or name; may be empty where `line` is a name
  std::string line;  // offset in digits, or name
  bool activeLow = false;
  LineExit onExit = LineExit::keep;

  bool operator==(const Wiring&) const = default;
};

// How a pin's line fares.
struct LineState {
  bool driven = false;  // the line shows the pin's value
  std::string place;    // empty until it was found
  std::string error;    // the last one; kept when the line is driven again

  bool operator==(const LineState&) const = default;
};

class LineDriver {
 public:
  // `provider` must outlive the driver. `report` hears of each trouble once, and of one that lasts at most
  // once a minute, and of its end.
  LineDriver(LineProvider& provider, std::function<void(const std::string& text)> report);
  // Lets go of the lines as a killed process does; release() first leaves them in order.
  ~LineDriver();
  LineDriver(const LineDriver&) = delete;
  LineDriver& operator=(const LineDriver&) = delete;

  // What is wanted: a pin has a line while it has both. Nothing is written before drive().
  void wiringIs(Zel::Name pin, const std::optional<Wiring>& wiring);
  void valueIs(Zel::Name pin, std::optional<bool> lit);

  // Takes the lines that are wanted and due, and writes what changed. `now` as System::currentTime. Does not
  // throw for what goes wrong with lines.
  void drive(double now);
  // When drive() has something to try again; positive infinity: nothing.
  double nextTry() const;
  // Darkens the lines that are to be off and gives all back.
  void release();

  // The pins whose state changed since they were taken last.
  std::vector<Zel::Name> takeChanged();
  // Nothing where the pin has no line.
  std::optional<LineState> state(Zel::Name pin) const;

 private:
  struct Request;
  struct Backoff {
    double at = 0;     // when to try again
    double delay = 0;  // the last one, seconds

    void failed(double now);
  };
  struct Pin {
    std::optional<Wiring> wiring;
    std::optional<bool> lit;
    Request* request = nullptr;  // that holds its line
    std::size_t slot = 0;
    Backoff backoff;
    LineState state;
    bool changed = false;

    bool wanted() const { return wiring && lit; }
    bool waits() const { return wanted() && !request; }
  };
  using Pins = std::map<Zel::Name, Pin>;
  using Wanted = std::vector<std::pair<Zel::Name, LinePlace>>;

  void leave(Pin& pin);
  void takeLines(double now);
  std::optional<LinePlace> placeOf(const Survey& survey, Zel::Name name, Pin& pin, double now);
  std::pair<Request*, std::size_t> holder(const LinePlace& place) const;
  bool reuse(Pin& pin, const LinePlace& place);
  bool freeHolder(const LinePlace& place);
  void request(Wanted wanted, double now);
  std::vector<Zel::Name> requestOnce(const Wanted& wanted, double now);
  void write(double now);
  void write(Request& request, double now);
  void drop(Request& request, const std::string& error, double now);
  void fail(Pin& pin, const std::string& error, double now);
  void driven(Pin& pin, const LinePlace& place);
  void stateIs(Pin& pin, const LineState& state);
  void say(const std::string& text, double now);

  LineProvider& provider_;
  const std::function<void(const std::string&)> report_;
  Pins pins_;
  std::vector<std::unique_ptr<Request>> requests_;
  std::map<std::string, double> reported_;  // texts of trouble, and when each was said last
};

}  // namespace Gpio
