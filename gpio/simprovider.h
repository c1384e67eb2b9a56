// GPIO chips in memory that can be made to fail, and that log every write to a line.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gpio/lineprovider.h"

namespace Gpio {

// One line of one bulk write, as the kernel would log it.
struct LineWrite {
  std::uint64_t set;  // lines of one bulk write share it; a request's first values are a write too
  std::string chip;   // the chip's label
  unsigned offset;
  bool level;

  bool operator==(const LineWrite&) const = default;
};

// A board of simulated chips; gives out their lines as one consumer.
class SimProvider : public LineProvider {
 public:
  explicit SimProvider(std::string consumer = "pinlamp");
  ~SimProvider() override;

  // Adds a chip of `lines` low lines, named ("gpiochip0") in the order of addition, and returns that name.
  // Labels need not be unique.
  std::string chipIs(const std::string& label, unsigned lines);
  // Removes a chip; requests that hold its lines fail as `gone`. Its name is not used again.
  void chipDel(const std::string& name);
  // Makes opening the chip fail with this error; 0: succeed again.
  void openErrorIs(const std::string& name, int errorNumber);
  // Makes writes to the chip's lines fail with this error; 0: succeed again.
  void setErrorIs(const std::string& name, int errorNumber);
  // Whether released lines keep their level (the default), or fall back to low.
  void keepsLevelsIs(const std::string& name, bool keeps);
  void lineNameIs(const std::string& chip, unsigned offset, const std::string& name);
  // Has another consumer take a line; an empty one releases it.
  void holderIs(const std::string& chip, unsigned offset, const std::string& consumer);
  // REQUIRES, for all of the above and level(): the chip exists and has the line.

  bool level(const std::string& chip, unsigned offset) const;
  // Everything that was written to the chips, in order.
  const std::vector<LineWrite>& writes() const;
  void writesDel();

  Survey survey() const override;

  struct Chip;
  struct Log;

 protected:
  std::unique_ptr<LineRequest> take(std::vector<Line> lines, const LineValues& lit,
                                    const LineValues& levels) override;

 private:
  Chip& chip(const std::string& name) const;
  LineInfo& line(const std::string& chip, unsigned offset) const;

  std::string consumer_;
  std::vector<std::shared_ptr<Chip>> chips_;
  std::shared_ptr<Log> log_;
  unsigned nextNumber_ = 0;
};

}  // namespace Gpio
