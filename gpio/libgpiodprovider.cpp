#include "gpio/libgpiodprovider.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "gpio/libgpiod.h"

namespace Gpio {

using Kind = LineError::Kind;

namespace {

// "gpiochip2" comes before "gpiochip10".
bool byNumber(const std::string& left, const std::string& right) {
  return left.size() != right.size() ? left.size() < right.size() : left < right;
}

std::vector<std::string> chipNames() {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/dev", ignored)) {
    const std::string name = entry.path().filename();
    if (name.starts_with("gpiochip") && !entry.is_symlink(ignored)) names.push_back(name);
  }
  std::sort(names.begin(), names.end(), byNumber);
  return names;
}

LibgpiodChip reopened(const LinePlace& place) {
  LibgpiodChip chip(place.chip);
  if (chip && chip.label() == place.label) return chip;
  const std::string why = chip ? "is now the chip '" + chip.label() + "'"
                               : "cannot be opened: " + std::generic_category().message(errno);
  throw LineError(Kind::absent, describe(place) + ": " + place.chip + " " + why);
}

std::vector<unsigned> offsetsOf(const std::vector<Line>& lines) {
  std::vector<unsigned> offsets;
  for (const Line& line : lines) offsets.push_back(line.place.offset);
  return offsets;
}

class LibgpiodRequest : public LineRequest {
 public:
  LibgpiodRequest(std::vector<Line> lines, const LineValues& lit)
      : LineRequest(std::move(lines), lit), chip_(reopened(this->lines().front().place)) {}

  void take(const std::string& consumer, const LineValues& levels) {
    if (!chip_.take(consumer, offsetsOf(lines()), levels)) throw refusal(errno);
  }

 protected:
  void write(const LineValues& levels) override {
    if (!chip_.set(levels)) throw chipError(place(), "set", errno);
  }
  void close() noexcept override { chip_.close(); }

 private:
  LineError refusal(int errorNumber) const {
    // Reopened, for libgpiod 1 remembers what the lines of an open chip were.
    if (errorNumber == EBUSY) return busyLines(lines(), reopened(lines().front().place).lines());
    return chipError(place(), "taken as outputs", errorNumber);
  }

  LibgpiodChip chip_;
};

}  // namespace

LibgpiodProvider::LibgpiodProvider(std::string consumer) : consumer_(std::move(consumer)) {}

LibgpiodProvider::~LibgpiodProvider() = default;

Survey LibgpiodProvider::survey() const {
  Survey survey;
  for (const std::string& name : chipNames()) {
    const LibgpiodChip chip(name);
    if (chip)
      survey.chips.push_back({name, chip.label(), chip.lines()});
    else
      survey.unreadable.push_back(name + " (" + std::generic_category().message(errno) + ")");
  }
  return survey;
}

std::unique_ptr<LineRequest> LibgpiodProvider::take(std::vector<Line> lines, const LineValues& lit,
                                                    const LineValues& levels) {
  auto request = std::make_unique<LibgpiodRequest>(std::move(lines), lit);
  request->take(consumer_, levels);
  return request;
}

}  // namespace Gpio
