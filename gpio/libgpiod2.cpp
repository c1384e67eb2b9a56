// libgpiod 2.
#include <gpiod.h>

#include <array>

#include "gpio/libgpiod.h"

namespace Gpio {

namespace {

// A pointer that is released by the library's own function for its type.
template <auto release>
struct Releaser {
  template <typename T>
  void operator()(T* object) const {
    release(object);
  }
};
template <typename T, auto release>
using Owned = std::unique_ptr<T, Releaser<release>>;

using OpenChip = Owned<gpiod_chip, gpiod_chip_close>;
using ChipInfo = Owned<gpiod_chip_info, gpiod_chip_info_free>;
using OneLine = Owned<gpiod_line_info, gpiod_line_info_free>;
using Settings = Owned<gpiod_line_settings, gpiod_line_settings_free>;
using LineConfig = Owned<gpiod_line_config, gpiod_line_config_free>;
using RequestConfig = Owned<gpiod_request_config, gpiod_request_config_free>;
using Request = Owned<gpiod_line_request, gpiod_line_request_release>;

using Levels = std::array<gpiod_line_value, maxLines>;

std::string textOf(const char* text) { return text ? text : ""; }

Levels asLineValues(const LineValues& levels) {
  Levels all{};
  for (std::size_t i = 0; i < maxLines; ++i)
    all[i] = levels[i] ? GPIOD_LINE_VALUE_ACTIVE : GPIOD_LINE_VALUE_INACTIVE;
  return all;
}

LineInfo infoOf(const OneLine& line) {
  if (!line) return {};
  return {textOf(gpiod_line_info_get_name(line.get())), gpiod_line_info_is_used(line.get()),
          textOf(gpiod_line_info_get_consumer(line.get()))};
}

// Outputs with these levels; null, and errno, where that fails.
LineConfig outputs(const std::vector<unsigned>& offsets, const LineValues& levels) {
  const Settings settings(gpiod_line_settings_new());
  LineConfig config(gpiod_line_config_new());
  const bool isMade =
      settings && config &&
      gpiod_line_settings_set_direction(settings.get(), GPIOD_LINE_DIRECTION_OUTPUT) == 0 &&
      gpiod_line_config_add_line_settings(config.get(), offsets.data(), offsets.size(), settings.get()) ==
          0 &&
      gpiod_line_config_set_output_values(config.get(), asLineValues(levels).data(), offsets.size()) == 0;
  return isMade ? std::move(config) : nullptr;
}

}  // namespace

struct LibgpiodChip::Handles {
  OpenChip chip;
  Request taken = nullptr;
};

LibgpiodChip::LibgpiodChip(const std::string& name) {
  if (OpenChip chip{gpiod_chip_open(("/dev/" + name).c_str())}) handles_.reset(new Handles{std::move(chip)});
}

LibgpiodChip::~LibgpiodChip() = default;
LibgpiodChip::LibgpiodChip(LibgpiodChip&&) noexcept = default;

LibgpiodChip::operator bool() const { return handles_ != nullptr; }

std::string LibgpiodChip::label() const {
  const ChipInfo info(gpiod_chip_get_info(handles_->chip.get()));
  return info ? textOf(gpiod_chip_info_get_label(info.get())) : "";
}

std::vector<LineInfo> LibgpiodChip::lines() const {
  std::vector<LineInfo> lines;
  const ChipInfo info(gpiod_chip_get_info(handles_->chip.get()));
  const std::size_t count = info ? gpiod_chip_info_get_num_lines(info.get()) : 0;
  for (unsigned offset = 0; offset < count; ++offset)
    lines.push_back(infoOf(OneLine(gpiod_chip_get_line_info(handles_->chip.get(), offset))));
  return lines;
}

bool LibgpiodChip::take(const std::string& consumer, const std::vector<unsigned>& offsets,
                        const LineValues& levels) {
  const LineConfig config = outputs(offsets, levels);
  const RequestConfig request(gpiod_request_config_new());
  if (!config || !request) return false;
  gpiod_request_config_set_consumer(request.get(), consumer.c_str());
  handles_->taken.reset(gpiod_chip_request_lines(handles_->chip.get(), request.get(), config.get()));
  return handles_->taken != nullptr;
}

bool LibgpiodChip::set(const LineValues& levels) {
  return gpiod_line_request_set_values(handles_->taken.get(), asLineValues(levels).data()) == 0;
}

void LibgpiodChip::close() noexcept { handles_.reset(); }

}  // namespace Gpio
