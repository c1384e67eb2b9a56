#include "gpio/linechip.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <set>
#include <system_error>

#include "platform/zel/core/assert.h"

namespace Gpio {

using Kind = LineError::Kind;

namespace {

std::string quoted(const std::string& text) { return "'" + text + "'"; }

std::string chipText(const ChipInfo& chip) { return chip.name + " " + quoted(chip.label); }

LinePlace placeOf(const ChipInfo& chip, std::size_t offset) {
  return {chip.name, chip.label, static_cast<unsigned>(offset), chip.lines[offset].name};
}

bool allDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

template <typename Parts>
std::string joined(const Parts& parts, const char* separator) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

std::string whatIsThere(const Survey& survey) {
  std::vector<std::string> parts;
  for (const ChipInfo& chip : survey.chips) parts.push_back(chipText(chip));
  for (const std::string& chip : survey.unreadable) parts.push_back(chip);
  return parts.empty() ? "there are none" : "there are " + joined(parts, ", ");
}

LineError noSuchChip(const Survey& survey, const std::string& chip) {
  const char* hint = allDigits(chip) ? "; a number is no name, give the label" : "";
  return {Kind::absent,
          "no GPIO chip has the label or the name " + quoted(chip) + " (" + whatIsThere(survey) + ")" + hint};
}

const ChipInfo& findChip(const Survey& survey, const std::string& wanted) {
  const ChipInfo* found = nullptr;
  for (const ChipInfo& chip : survey.chips) {
    if (chip.label != wanted && chip.name != wanted) continue;
    if (found)
      throw LineError(Kind::ambiguous, "the GPIO chip " + quoted(wanted) + " may be " + chipText(*found) +
                                           " or " + chipText(chip) + "; give the name of the right one");
    found = &chip;
  }
  if (!found) throw noSuchChip(survey, wanted);
  return *found;
}

LinePlace lineAt(const ChipInfo& chip, const std::string& digits) {
  unsigned offset = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), offset);
  if (parsed.ec == std::errc() && offset < chip.lines.size()) return placeOf(chip, offset);
  throw LineError(Kind::absent, chipText(chip) + " has no line " + digits + ", only 0 to " +
                                    std::to_string(chip.lines.size() - 1));
}

// The places of all lines of one name, chip by chip.
std::vector<LinePlace> namesakes(const std::vector<const ChipInfo*>& chips, const std::string& name) {
  std::vector<LinePlace> places;
  for (const ChipInfo* chip : chips)
    for (std::size_t offset = 0; offset < chip->lines.size(); ++offset)
      if (chip->lines[offset].name == name) places.push_back(placeOf(*chip, offset));
  return places;
}

LinePlace onlyOne(const std::vector<LinePlace>& places, const std::string& name, const std::string& where) {
  if (places.empty())
    throw LineError(Kind::absent, "no line is named " + quoted(name) + " (looked at " + where + ")");
  if (places.size() > 1)
    throw LineError(Kind::ambiguous, "the line " + quoted(name) + " may be " + describe(places[0]) + " or " +
                                         describe(places[1]) +
                                         "; give the chip and the offset of the right one");
  return places[0];
}

LinePlace lineOnAnyChip(const Survey& survey, const std::string& name) {
  if (allDigits(name))
    throw LineError(Kind::absent,
                    "line " + name + " of which GPIO chip? An offset needs the chip's label or name");
  std::vector<const ChipInfo*> chips;
  for (const ChipInfo& chip : survey.chips) chips.push_back(&chip);
  return onlyOne(namesakes(chips, name), name, "all chips: " + whatIsThere(survey));
}

LineValues levelsOf(const std::vector<Line>& lines, const LineValues& lit) {
  LineValues levels;
  for (std::size_t i = 0; i < lines.size(); ++i) levels[i] = lit[i] != lines[i].activeLow;
  return levels;
}

// The bits of lines that are there.
LineValues within(const std::vector<Line>& lines, const LineValues& values) {
  return values & (LineValues().set() >> (maxLines - lines.size()));
}

bool oneChip(const std::vector<Line>& lines) {
  return std::all_of(lines.begin(), lines.end(),
                     [&](const Line& line) { return line.place.chip == lines.front().place.chip; });
}

bool allDifferent(const std::vector<Line>& lines) {
  std::set<unsigned> offsets;
  return std::all_of(lines.begin(), lines.end(),
                     [&](const Line& line) { return offsets.insert(line.place.offset).second; });
}

}  // namespace

std::string describe(const LinePlace& place) {
  return "line " + std::to_string(place.offset) + (place.name.empty() ? "" : " " + quoted(place.name)) +
         " of " + place.chip + " " + quoted(place.label);
}

LineError::LineError(Kind kind, const std::string& text, std::vector<LineFault> faults)
    : runtime_error(text), kind_(kind), faults_(std::move(faults)) {}

LineError::~LineError() = default;

LinePlace Survey::find(const std::string& chip, const std::string& line) const {
  if (line.empty()) throw LineError(Kind::absent, "no line is given; give its offset or its name");
  if (chip.empty()) return lineOnAnyChip(*this, line);
  const ChipInfo& found = findChip(*this, chip);
  return allDigits(line) ? lineAt(found, line) : onlyOne(namesakes({&found}, line), line, chipText(found));
}

LineRequest::LineRequest(std::vector<Line> lines, const LineValues& lit)
    : lines_(std::move(lines)), values_(within(lines_, lit)) {}

LineRequest::~LineRequest() = default;

void LineRequest::set(const LineValues& lit) {
  ZEL_REQUIRE(!released_, place());
  const LineValues wanted = within(lines_, lit);
  if (wanted == values_ && !inDoubt_) return;
  values_ = wanted;
  inDoubt_ = true;
  write(levelsOf(lines_, values_));
  inDoubt_ = false;
}

void LineRequest::release() {
  if (released_) return;
  struct Closer {
    LineRequest& request;
    ~Closer() {
      request.released_ = true;
      request.close();
    }
  } closer{*this};
  LineValues left = values_;
  for (std::size_t i = 0; i < lines_.size(); ++i)
    if (lines_[i].onExit == LineExit::off) left.reset(i);
  set(left);
}

std::string LineRequest::place() const {
  std::vector<std::string> offsets;
  for (const Line& line : lines_) offsets.push_back(std::to_string(line.place.offset));
  const LinePlace& first = lines_.front().place;
  return (offsets.size() > 1 ? "lines " : "line ") + joined(offsets, ", ") + " of " + first.chip + " " +
         quoted(first.label);
}

LineProvider::~LineProvider() = default;

std::unique_ptr<LineRequest> LineProvider::request(std::vector<Line> lines, const LineValues& lit) {
  ZEL_REQUIRE(!lines.empty() && lines.size() <= maxLines, lines.size() << " lines");
  ZEL_REQUIRE(oneChip(lines) && allDifferent(lines), "first " << describe(lines.front().place));
  const LineValues levels = levelsOf(lines, lit);
  return take(std::move(lines), lit, levels);
}

LineError busyLines(const std::vector<Line>& wanted, const std::vector<LineInfo>& known) {
  std::vector<LineFault> faults;
  std::vector<std::string> texts;
  for (const Line& line : wanted) {
    if (line.place.offset >= known.size() || !known[line.place.offset].used) continue;
    const std::string& consumer = known[line.place.offset].consumer;
    texts.push_back(describe(line.place) + " is busy: held by " +
                    (consumer.empty() ? "somebody without a name" : quoted(consumer)));
    faults.push_back({line.place, texts.back()});
  }
  if (texts.empty())
    texts.push_back(describe(wanted.front().place) + " or one beside it was busy a moment ago");
  return {Kind::busy, joined(texts, "; "), std::move(faults)};
}

LineError chipError(const std::string& place, const std::string& done, int errorNumber) {
  const Kind kind = errorNumber == ENODEV ? Kind::gone : Kind::failed;
  return {kind, place + " cannot be " + done + ": " + std::generic_category().message(errorNumber)};
}

}  // namespace Gpio
