// GPIO lines, whatever drives them: the kernel's character devices (libgpiodchip.h), or chips in memory
// (simchip.h).
//
// A pass over the lines goes: survey() once, find() every line that is wanted, request() those of one chip
// together, then set() all of a request in one write whenever one of them changes. Nothing is kept between
// surveys: chips come and go, and their kernel names go round.
//
// Activity thread only. Nothing here waits for hardware.
#pragma once

#include <bitset>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Gpio {

// As many lines as one request can hold.
inline constexpr std::size_t maxLines = 64;

// One bit a line, in the order of a request's lines.
using LineValues = std::bitset<maxLines>;

// A line as it was found on a chip that is there. Equal places are one wire.
struct LinePlace {
  std::string
      chip;  // the kernel's name for it, such as "gpiochip0": unique, but only as long as the chip is there
  std::string label;  // what the driver calls the chip
  unsigned offset = 0;
  std::string name;  // the line's own name; empty where it has none

  auto operator<=>(const LinePlace&) const = default;
};

// A place as people read it: "line 3 'LED_G' of gpiochip0 'front'".
std::string describe(const LinePlace& place);

// What became of one line of a request that failed.
struct LineFault {
  LinePlace place;
  std::string text;
};

// A line that cannot be found, had or driven. The text is one line that says what, where and why. Everything
// may be tried again later: chips appear, holders let go, wiring is corrected.
class LineError : public std::runtime_error {
 public:
  enum class Kind {
    absent,     // no such chip or line (yet)
    ambiguous,  // the name stands for more than one
    busy,       // somebody else holds lines of the request; `faults` says which and who
    gone,       // the chip went away: the request will never work again, drop it and find the lines anew
    failed,     // the chip refused; the request can be used again
  };

  LineError(Kind kind, const std::string& text, std::vector<LineFault> faults = {});
  ~LineError() override;

  Kind kind() const { return kind_; }
  // For `busy`: the lines in the way, so that the others can be requested without them. Empty where the
  // holder let go before it could be named.
  const std::vector<LineFault>& faults() const { return faults_; }

 private:
  Kind kind_;
  std::vector<LineFault> faults_;
};

struct LineInfo {
  std::string name;
  bool used = false;
  std::string consumer;  // who holds it, as it calls itself; may be empty for a line in use
};

struct ChipInfo {
  std::string name;
  std::string label;
  std::vector<LineInfo> lines;  // by offset
};

// The chips and lines of one moment.
struct Survey {
  std::vector<ChipInfo> chips;          // in the order of their numbers
  std::vector<std::string> unreadable;  // chips that could not be looked at, each with the reason

  // The line that `line`, an offset in digits or a line's name, is on the chip whose label or kernel name is
  // `chip`. Where `chip` is empty the line is looked for by name on all chips. A chip's number alone is never
  // taken for its name, for numbers change from boot to boot. Throws LineError `absent` or `ambiguous`, the
  // latter naming both places.
  LinePlace find(const std::string& chip, const std::string& line) const;
};

// What a line is to be left as when its request is released in order.
enum class LineExit {
  keep,  // as it is; whether the level outlives the release is up to the chip
  off,   // dark
};

struct Line {
  LinePlace place;
  bool activeLow = false;  // lit is the low level
  LineExit onExit = LineExit::keep;
};

// Output lines of one chip, held until release() or destruction and written together.
//
// One request holds lines of both polarities: libgpiod 1.6 knows active-low for a whole request only, and two
// requests would be two writes where one is promised. So levels are inverted here, and the kernel sees plain
// outputs.
class LineRequest {
 public:
  // Gives the lines back and writes nothing, as a killed process does. Lines that were not released are left
  // as they are, or as the chip has it.
  virtual ~LineRequest();
  LineRequest(const LineRequest&) = delete;
  LineRequest& operator=(const LineRequest&) = delete;

  const std::vector<Line>& lines() const { return lines_; }
  // What the lines were last asked to show; bits beyond the lines are 0.
  const LineValues& values() const { return values_; }

  // Shows `lit` on all lines, in one write; none where they show it already. After a failure the lines may
  // show either, and the next call writes whatever it is given. Throws LineError `failed` or `gone`.
  // REQUIRES: not released.
  void set(const LineValues& lit);

  // Darkens the lines that are to be `off`, the rest unchanged, in one write, and gives all of them back,
  // also where that write fails. Does nothing the second time. Throws LineError as set().
  void release();

 protected:
  LineRequest(std::vector<Line> lines, const LineValues& lit);

  // All lines to these electrical levels at once. Throws LineError.
  virtual void write(const LineValues& levels) = 0;
  // Gives the lines back; called once.
  virtual void close() noexcept = 0;
  // The chip and its lines for an error's text: "lines 0, 3 of gpiochip0 'front'".
  std::string place() const;

 private:
  std::vector<Line> lines_;
  LineValues values_;
  bool inDoubt_ = false;
  bool released_ = false;
};

// Gives out lines. Owned by whoever drives them; requests may outlive it.
class LineProvider {
 public:
  virtual ~LineProvider();
  LineProvider(const LineProvider&) = delete;
  LineProvider& operator=(const LineProvider&) = delete;

  // What is there now. Chips that cannot be looked at do not make it fail.
  virtual Survey survey() const = 0;

  // Takes lines as outputs that show `lit` from the first moment on, so that a line which is lit already does
  // not blink. Takes all or none. Throws LineError `absent` (also where another chip goes by that kernel name
  // by now), `busy` or `failed`. REQUIRES: 1 to maxLines different lines, all of one chip.
  std::unique_ptr<LineRequest> request(std::vector<Line> lines, const LineValues& lit);

 protected:
  LineProvider() = default;

  // As request(), with its precondition checked; `levels` are electrical.
  virtual std::unique_ptr<LineRequest> take(std::vector<Line> lines, const LineValues& lit,
                                            const LineValues& levels) = 0;
};

// For providers: the error for lines that somebody holds, from what is known of each (by offset).
LineError busyLines(const std::vector<Line>& wanted, const std::vector<LineInfo>& known);
// For providers: the error for lines that cannot be `done` ("set"), for the system's reason `errorNumber`, as
// in errno.
LineError chipError(const std::string& place, const std::string& done, int errorNumber);

}  // namespace Gpio
