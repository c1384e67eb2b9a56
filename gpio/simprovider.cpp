#include "gpio/simprovider.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/zel/core/assert.h"

namespace Gpio {

using Kind = LineError::Kind;

struct SimProvider::Log {
  std::vector<LineWrite> writes;
  std::uint64_t sets = 0;
};

struct SimProvider::Chip {
  Gpio::Chip info;
  std::vector<bool> levels;
  bool present = true;
  bool keepsLevels = true;
  int openError = 0;
  int setError = 0;
};

namespace {

// Shares its chip and the log, both of which it may outlive on the board.
class SimRequest : public LineRequest {
 public:
  SimRequest(std::vector<Line> lines, const LineValues& lit, std::shared_ptr<SimProvider::Chip> chip,
             std::shared_ptr<SimProvider::Log> log)
      : LineRequest(std::move(lines), lit), chip_(std::move(chip)), log_(std::move(log)) {}
  ~SimRequest() override { giveBack(); }

  void take(const std::string& consumer, const LineValues& levels) {
    for (const Line& line : lines()) {
      LineInfo& info = chip_->info.lines[line.place.offset];
      info.used = true;
      info.consumer = consumer;
    }
    held_ = true;
    drive(levels);
  }

 protected:
  void write(const LineValues& levels) override {
    const int error = chip_->present ? chip_->setError : ENODEV;
    if (error != 0) throw chipError(place(), "set", error);
    drive(levels);
  }
  void close() noexcept override { giveBack(); }

 private:
  void drive(const LineValues& levels) {
    ++log_->sets;
    for (std::size_t i = 0; i < lines().size(); ++i) {
      const unsigned offset = lines()[i].place.offset;
      chip_->levels[offset] = levels[i];
      log_->writes.push_back({log_->sets, chip_->info.label, offset, levels[i]});
    }
  }
  void giveBack() noexcept {
    if (!held_) return;
    held_ = false;
    for (const Line& line : lines()) {
      LineInfo& info = chip_->info.lines[line.place.offset];
      info.used = false;
      info.consumer.clear();
      if (!chip_->keepsLevels) chip_->levels[line.place.offset] = false;
    }
  }

  std::shared_ptr<SimProvider::Chip> chip_;
  std::shared_ptr<SimProvider::Log> log_;
  bool held_ = false;
};

bool anyUsed(const std::vector<Line>& lines, const std::vector<LineInfo>& known) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const Line& line) { return known[line.place.offset].used; });
}

}  // namespace

SimProvider::SimProvider(std::string consumer)
    : consumer_(std::move(consumer)), log_(std::make_shared<Log>()) {}

SimProvider::~SimProvider() = default;

std::string SimProvider::chipIs(const std::string& label, unsigned lines) {
  auto chip = std::make_shared<Chip>();
  chip->info = {"gpiochip" + std::to_string(nextNumber_++), label, std::vector<LineInfo>(lines)};
  chip->levels.resize(lines);
  chips_.push_back(chip);
  return chip->info.name;
}

void SimProvider::chipDel(const std::string& name) {
  chip(name).present = false;
  std::erase_if(chips_, [](const auto& each) { return !each->present; });
}

void SimProvider::openErrorIs(const std::string& name, int errorNumber) {
  chip(name).openError = errorNumber;
}

void SimProvider::setErrorIs(const std::string& name, int errorNumber) { chip(name).setError = errorNumber; }

void SimProvider::keepsLevelsIs(const std::string& name, bool keeps) { chip(name).keepsLevels = keeps; }

void SimProvider::lineNameIs(const std::string& chip, unsigned offset, const std::string& name) {
  line(chip, offset).name = name;
}

void SimProvider::holderIs(const std::string& chip, unsigned offset, const std::string& consumer) {
  LineInfo& info = line(chip, offset);
  info.used = !consumer.empty();
  info.consumer = consumer;
}

bool SimProvider::level(const std::string& name, unsigned offset) const {
  const Chip& found = chip(name);
  ZEL_REQUIRE(offset < found.levels.size(), name << " line " << offset);
  return found.levels[offset];
}

const std::vector<LineWrite>& SimProvider::writes() const { return log_->writes; }

void SimProvider::writesDel() { log_->writes.clear(); }

Survey SimProvider::survey() const {
  Survey survey;
  for (const auto& each : chips_) {
    if (each->openError == 0)
      survey.chips.push_back(each->info);
    else
      survey.unreadable.push_back(each->info.name + " (" + std::generic_category().message(each->openError) +
                                  ")");
  }
  return survey;
}

std::unique_ptr<LineRequest> SimProvider::take(std::vector<Line> lines, const LineValues& lit,
                                               const LineValues& levels) {
  const LinePlace& first = lines.front().place;
  const auto found = std::find_if(chips_.begin(), chips_.end(), [&](const auto& each) {
    return each->openError == 0 && each->info.name == first.chip && each->info.label == first.label;
  });
  if (found == chips_.end()) throw LineError(Kind::absent, describe(first) + ": the chip is not there");
  if (anyUsed(lines, (*found)->info.lines)) throw busyLines(lines, (*found)->info.lines);
  auto request = std::make_unique<SimRequest>(std::move(lines), lit, *found, log_);
  request->take(consumer_, levels);
  return request;
}

SimProvider::Chip& SimProvider::chip(const std::string& name) const {
  const auto found =
      std::find_if(chips_.begin(), chips_.end(), [&](const auto& each) { return each->info.name == name; });
  ZEL_REQUIRE(found != chips_.end(), "no chip " << name);
  return **found;
}

LineInfo& SimProvider::line(const std::string& name, unsigned offset) const {
  Chip& found = chip(name);
  ZEL_REQUIRE(offset < found.info.lines.size(), name << " line " << offset);
  return found.info.lines[offset];
}

}  // namespace Gpio
