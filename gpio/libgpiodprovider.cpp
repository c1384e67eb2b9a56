#include "gpio/libgpiodprovider.h"

#include <gpiod.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Gpio {

using Kind = LineError::Kind;

namespace {

static_assert(maxLines == GPIOD_LINE_BULK_MAX_LINES);

struct ChipCloser {
  void operator()(gpiod_chip* chip) const { gpiod_chip_close(chip); }
};
using OpenChip = std::unique_ptr<gpiod_chip, ChipCloser>;
using Levels = std::array<int, maxLines>;

std::string textOf(const char* text) { return text ? text : ""; }

Levels asInts(const LineValues& levels) {
  Levels ints{};
  for (std::size_t i = 0; i < maxLines; ++i) ints[i] = levels[i];
  return ints;
}

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

// Null, and errno, where the chip cannot be opened. (The library's own walk over the chips gives up at the
// first that it may not open.)
OpenChip openChip(const std::string& name) { return OpenChip(gpiod_chip_open(("/dev/" + name).c_str())); }

LineInfo infoOf(gpiod_line* line) {
  if (!line) return {};
  return {textOf(gpiod_line_name(line)), gpiod_line_is_used(line), textOf(gpiod_line_consumer(line))};
}

std::vector<LineInfo> linesOf(gpiod_chip* chip) {
  std::vector<LineInfo> lines;
  for (unsigned offset = 0; offset < gpiod_chip_num_lines(chip); ++offset)
    lines.push_back(infoOf(gpiod_chip_get_line(chip, offset)));
  return lines;
}

OpenChip reopen(const LinePlace& place) {
  OpenChip chip = openChip(place.chip);
  if (chip && gpiod_chip_label(chip.get()) == place.label) return chip;
  const std::string why = chip ? "is now the chip '" + textOf(gpiod_chip_label(chip.get())) + "'"
                               : "cannot be opened: " + std::generic_category().message(errno);
  throw LineError(Kind::absent, describe(place) + ": " + place.chip + " " + why);
}

class LibgpiodRequest : public LineRequest {
 public:
  LibgpiodRequest(std::vector<Line> lines, const LineValues& lit)
      : LineRequest(std::move(lines), lit), chip_(reopen(this->lines().front().place)) {}

  void take(const std::string& consumer, const LineValues& levels) {
    std::array<unsigned, maxLines> offsets{};
    std::transform(lines().begin(), lines().end(), offsets.begin(),
                   [](const Line& line) { return line.place.offset; });
    if (gpiod_chip_get_lines(chip_.get(), offsets.data(), static_cast<unsigned>(lines().size()), &bulk_) != 0)
      throw chipError(place(), "found", errno);
    if (gpiod_line_request_bulk_output(&bulk_, consumer.c_str(), asInts(levels).data()) != 0)
      throw refusal(errno);
  }

 protected:
  // The whole request, always: asked to set one line of a bulk request, the library sets others, without an
  // error.
  void write(const LineValues& levels) override {
    if (gpiod_line_set_value_bulk(&bulk_, asInts(levels).data()) != 0) throw chipError(place(), "set", errno);
  }
  void close() noexcept override { chip_.reset(); }

 private:
  LineError refusal(int errorNumber) const {
    // Reopened, for the open chip remembers what the lines were when it first looked.
    if (errorNumber == EBUSY) return busyLines(lines(), linesOf(reopen(lines().front().place).get()));
    return chipError(place(), "taken as outputs", errorNumber);
  }

  OpenChip chip_;
  gpiod_line_bulk bulk_ = GPIOD_LINE_BULK_INITIALIZER;
};

}  // namespace

LibgpiodProvider::LibgpiodProvider(std::string consumer) : consumer_(std::move(consumer)) {}

LibgpiodProvider::~LibgpiodProvider() = default;

Survey LibgpiodProvider::survey() const {
  Survey survey;
  for (const std::string& name : chipNames()) {
    const OpenChip chip = openChip(name);
    if (chip)
      survey.chips.push_back({name, textOf(gpiod_chip_label(chip.get())), linesOf(chip.get())});
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
