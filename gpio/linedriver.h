// Drives GPIO lines from pin values: finds each pin's line, takes the lines of a chip together, and writes
// what changed in one bulk set a request.
//
// Lines stay in their request as long as any line of it is wanted: lines are released only all together, and
// a released line may blink. A pin that is no longer wanted leaves its line as it is, or dark, as its wiring
// has it. Lines that are wanted later get a request of their own.
//
// A line that cannot be found, taken or written is retried after 0.5 s, then after twice as long each time,
// up to 30 s; the others are not held up. Activity thread only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gpio/lineprovider.h"
#include "platform/zel/core/name.h"

namespace Gpio {

// A pin's line.
struct Wiring {
  std::string chip;  // label or name; may be empty where `line` is a name
  std::string line;  // offset in digits, or name
  bool activeLow = false;
  LineExit onExit = LineExit::keep;

  bool operator==(const Wiring&) const = default;
};

// The state of a pin's line.
struct LineState {
  bool driven = false;  // the line shows the pin's value
  std::string place;    // empty until it was found
  std::string error;    // the last one; kept when the line is driven again

  bool operator==(const LineState&) const = default;
};

class LineDriver {
 public:
  // `provider` must outlive the driver. `report` is called with each error once, with one that lasts at most
  // once a minute, and with its end. It remembers a limited number of errors: beyond that, one that lasts is
  // reported more often, and its end may not be.
  LineDriver(LineProvider& provider, std::function<void(const std::string& text)> report);
  // Drops the lines as a killed process does; call release() first to leave them in order.
  ~LineDriver();
  LineDriver(const LineDriver&) = delete;
  LineDriver& operator=(const LineDriver&) = delete;

  // Set what is wanted: a pin has a line while it has both. drive() writes it.
  void wiringIs(Zel::Name pin, const std::optional<Wiring>& wiring);
  void valueIs(Zel::Name pin, std::optional<bool> lit);

  // Takes the lines that are wanted and due, and writes what changed. `now` as System::currentTime. Reports
  // errors of lines, does not throw them.
  void drive(double now);
  // The time of the next retry by drive(); positive infinity: none.
  double nextTry() const;
  // Darkens the lines that are to be off and releases all.
  void release();

  // The pins whose state changed since the last call.
  std::vector<Zel::Name> takeChanged();
  // nullopt where the pin has no line.
  std::optional<LineState> state(Zel::Name pin) const;

 private:
  struct Request;
  struct Backoff {
    double at = 0;     // of the next try
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
  void reportOnce(const std::string& text, double now);

  LineProvider& provider_;
  const std::function<void(const std::string&)> report_;
  Pins pins_;
  std::vector<std::unique_ptr<Request>> requests_;
  std::map<std::string, double> reported_;  // errors, and when each was reported last
};

}  // namespace Gpio
