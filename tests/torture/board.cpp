#include "tests/torture/board.h"

namespace Torture {

namespace {

constexpr const char* kColours[] = {"green", "red"};

std::string pin(unsigned led, unsigned colour) { return "L" + std::to_string(led) + "-" + kColours[colour]; }

// A bit for each colour that is set.
unsigned coloursOf(const Json& setting) {
  unsigned bits = 0;
  for (unsigned i = 0; i < 2; ++i) bits |= setting.value(kColours[i], false) ? 1U << i : 0U;
  return bits;
}

}  // namespace

Board::Board(Round& round, unsigned leds) : count_(leds), file_(round.folder.at("lines")) {
  contentIs(file_, std::string(2 * std::size_t{leds}, '\x7f'));
  startWatching();
}

std::string Board::lineAgent() { return built("lib/libtorture_lines.so:TortureLines"); }

std::string Board::ledPath(unsigned led) { return "hardware/led/config/leds/" + name(led); }

Json Board::mappings() const {
  Json changes{put("hardware/led/config", "Hardware::Led::LedSystemConfigDir"),
               put("hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir")};
  for (unsigned led = 0; led < count_; ++led) {
    changes.push_back(
        put("hardware/gpio/config/led/gpioLeds/" + name(led), "Hardware::Gpio::GpioLedConfig",
            {{"gpioGreenName", {pin(led, 0)}}, {"gpioRedName", {pin(led, 1)}}, {"ready", true}}));
    for (unsigned i = 0; i < 2; ++i)
      changes.push_back(put("hardware/corvel/gpio/init/" + pin(led, i), "Hardware::Gpio::GpioLineInit",
                            {{"chip", "board"},
                             {"line", std::to_string(2 * led + i)},
                             {"activeLow", isActiveLow(2 * led + i)}}));
  }
  return changes;
}

Json Board::setting(unsigned led, const Json& lightSetting) {
  return put(ledPath(led), "Hardware::Led::LedConfig", {{"lightSetting", lightSetting}});
}

Json Board::randomSetting(Random& random, double leastInterval) {
  Json setting = Json::object();
  for (const char* colour : kColours)
    if (random.chance(60)) setting[colour] = true;
  if (random.chance(50)) setting["flashInterval"] = random.within(leastInterval, 3 * leastInterval);
  return setting;
}

unsigned Board::lines(unsigned led) const {
  const std::string levels = contentOf(file_);
  unsigned bits = 0;
  for (unsigned line = 2 * led; line < 2 * led + 2; ++line) {
    if (levels[line] == '\x7f') return ~0U;
    bits |= (levels[line] != 0) != isActiveLow(line) ? 1U << line % 2 : 0U;
  }
  return bits;
}

std::string Board::differs(unsigned led, const Rows& rows) {
  const auto row = rows.find(ledPath(led));
  if (row == rows.end()) return "";
  const Json& setting = row->second.at("lightSetting");
  const unsigned colours = coloursOf(setting), line = lines(led);
  unsigned pins = 0;
  for (unsigned i = 0; i < 2; ++i) {
    const auto found = rows.find(std::string(kPins) + "/" + pin(led, i));
    if (found == rows.end()) return name(led) + " has no " + kColours[i] + " pin";
    if (found->second.contains("value") && found->second.at("value") != 0) pins |= 1U << i;
  }
  Seen& seen = seen_[led];
  seen.lit |= pins == colours, seen.dark |= pins == 0;
  seen.lineLit |= line == colours, seen.lineDark |= line == 0;
  const bool flashes = setting.value("flashInterval", 0.0) > 0;
  const bool isRight =
      flashes ? (pins == colours || pins == 0) && seen.lit && seen.dark && seen.lineLit && seen.lineDark
              : pins == colours && line == colours;
  return isRight ? ""
                 : name(led) + " is set to " + setting.dump() + ", its pins show " + std::to_string(pins) +
                       " and its lines " + std::to_string(line) + " (1 green, 2 red" +
                       (flashes ? "; as it flashes, both must be seen lit and dark)" : ")");
}

std::string Board::differs(const Rows& rows) {
  std::string first;
  for (unsigned led = 0; led < count_; ++led)
    if (const std::string why = differs(led, rows); first.empty()) first = why;
  return first;
}

}  // namespace Torture
