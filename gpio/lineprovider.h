// Taking and driving GPIO lines, those of the kernel's character devices (libgpiodprovider.h), or chips in
// memory (simprovider.h).
//
// One pass: survey() once, find() every line that is wanted, request() those of one chip
// together, then set() all of a request in one write whenever one of them changes. Nothing is kept between
// surveys: chips come and go, and their kernel names go round.
//
// Activity thread only. Nothing here waits for hardware.
#pragma once

#include <bitset>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "gpio/chip.h"

namespace Gpio {

// As many lines as one request can hold.
inline constexpr std::size_t maxLines = 64;

// One bit a line, in the order of a request's lines.
using LineValues = std::bitset<maxLines>;

// The level that a line is left at when its request is released in order.
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
// One request holds lines of both polarities: libgpiod 1 knows active-low for a whole request only, and two
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
  // The values that were set last; bits beyond the lines are 0.
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

// Finds and hands out lines. Requests may outlive it.
class LineProvider {
 public:
  virtual ~LineProvider();
  LineProvider(const LineProvider&) = delete;
  LineProvider& operator=(const LineProvider&) = delete;

  // The chips that are there now. Does not fail for chips that cannot be read.
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

// For providers: the error for lines that others hold; `known` is by offset.
LineError busyLines(const std::vector<Line>& wanted, const std::vector<LineInfo>& known);
// For providers: the error for lines that cannot be `done` ("set"), for the system's reason `errorNumber`, as
// in errno.
LineError chipError(const std::string& place, const std::string& done, int errorNumber);

}  // namespace Gpio
