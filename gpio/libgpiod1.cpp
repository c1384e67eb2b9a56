// libgpiod 1.6. It reads what a line is when the line is first looked at, so chips are opened afresh for
// that.
#include <gpiod.h>

#include <algorithm>
#include <array>

#include "gpio/libgpiod.h"

namespace Gpio {

namespace {

static_assert(maxLines == GPIOD_LINE_BULK_MAX_LINES);

using Levels = std::array<int, maxLines>;

std::string textOf(const char* text) { return text ? text : ""; }

Levels asInts(const LineValues& levels) {
  Levels ints{};
  for (std::size_t i = 0; i < maxLines; ++i) ints[i] = levels[i];
  return ints;
}

LineInfo infoOf(gpiod_line* line) {
  if (!line) return {};
  return {textOf(gpiod_line_name(line)), gpiod_line_is_used(line), textOf(gpiod_line_consumer(line))};
}

}  // namespace

struct LibgpiodChip::Handles {
  ~Handles() { gpiod_chip_close(chip); }

  gpiod_chip* chip;
  gpiod_line_bulk taken = GPIOD_LINE_BULK_INITIALIZER;
};

LibgpiodChip::LibgpiodChip(const std::string& name) {
  if (gpiod_chip* chip = gpiod_chip_open(("/dev/" + name).c_str())) handles_.reset(new Handles{chip});
}

LibgpiodChip::~LibgpiodChip() = default;
LibgpiodChip::LibgpiodChip(LibgpiodChip&&) noexcept = default;

LibgpiodChip::operator bool() const { return handles_ != nullptr; }

std::string LibgpiodChip::label() const { return textOf(gpiod_chip_label(handles_->chip)); }

std::vector<LineInfo> LibgpiodChip::lines() const {
  std::vector<LineInfo> lines;
  for (unsigned offset = 0; offset < gpiod_chip_num_lines(handles_->chip); ++offset)
    lines.push_back(infoOf(gpiod_chip_get_line(handles_->chip, offset)));
  return lines;
}

bool LibgpiodChip::take(const std::string& consumer, const std::vector<unsigned>& offsets,
                        const LineValues& levels) {
  std::vector<unsigned> wanted = offsets;  // the library takes no constant one
  gpiod_line_bulk& taken = handles_->taken;
  return gpiod_chip_get_lines(handles_->chip, wanted.data(), static_cast<unsigned>(wanted.size()), &taken) ==
             0 &&
         gpiod_line_request_bulk_output(&taken, consumer.c_str(), asInts(levels).data()) == 0;
}

// All lines, always: asked to set one line of a bulk request, the library sets others, without an error.
bool LibgpiodChip::set(const LineValues& levels) {
  return gpiod_line_set_value_bulk(&handles_->taken, asInts(levels).data()) == 0;
}

void LibgpiodChip::close() noexcept { handles_.reset(); }

}  // namespace Gpio
