// GPIO chips and their lines, as a survey finds them.
//
//     const Survey survey = provider.survey();
//     for (const Chip& chip : survey.chips) std::cout << chip.name << ' ' << chip.label << '\n';
//     const LinePlace led = survey.find("front", "LED_G");
//
// Activity thread only.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Gpio {

// A line that was found on a chip. Equal places are one wire.
struct LinePlace {
  std::string chip;   // the kernel's name, such as "gpiochip0"; unique as long as the chip exists
  std::string label;  // the driver's name for the chip
  unsigned offset = 0;
  std::string name;  // the line's own name; empty where it has none

  auto operator<=>(const LinePlace&) const = default;
};

// "line 3 'LED_G' of gpiochip0 'front'", for messages.
std::string describe(const LinePlace& place);
// For messages: a text in quotes, and texts with separators between them.
std::string inQuotes(const std::string& text);
std::string joined(const std::vector<std::string>& parts, const char* separator);

// The fault of one line of a request.
struct LineFault {
  LinePlace place;
  std::string text;
};

// A line that cannot be found, taken or driven. The text is one line: what, where and why. Every operation
// may be retried later: chips appear, lines are released, wiring is corrected.
class LineError : public std::runtime_error {
 public:
  enum class Kind {
    absent,     // no such chip or line (yet)
    ambiguous,  // the name stands for more than one
    busy,       // others hold lines of the request; `faults` lists them with their holders
    gone,       // the chip went away and the request is dead: drop it and find the lines again
    failed,     // the chip refused; the request can be used again
  };

  LineError(Kind kind, const std::string& text, std::vector<LineFault> faults = {});
  ~LineError() override;

  Kind kind() const { return kind_; }
  // For `busy`: the lines in the way, so that the others can be requested without them. Empty where the
  // holder released them before it could be named.
  const std::vector<LineFault>& faults() const { return faults_; }

 private:
  Kind kind_;
  std::vector<LineFault> faults_;
};

struct LineInfo {
  std::string name;
  bool used = false;
  std::string consumer;  // the holder's own name; may be empty for a line in use
};

struct Chip {
  std::string name;
  std::string label;
  std::vector<LineInfo> lines;  // by offset
};

// The chips and lines of one moment.
struct Survey {
  std::vector<Chip> chips;              // in the order of their numbers
  std::vector<std::string> unreadable;  // chips that could not be read, each with the reason

  // Finds a line by `line`, its offset in digits or its name, on the chip whose label or kernel name is
  // `chip`; by name on all chips where `chip` is empty. A chip's number alone is not a name, because numbers
  // change from boot to boot. Throws LineError `absent` or `ambiguous`, the latter naming both places.
  LinePlace find(const std::string& chip, const std::string& line) const;
};

}  // namespace Gpio
