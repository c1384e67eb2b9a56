#include "gpio/chip.h"

#include <charconv>

namespace Gpio {

using Kind = LineError::Kind;

namespace {

std::string chipText(const Chip& chip) { return chip.name + " " + inQuotes(chip.label); }

LinePlace placeOf(const Chip& chip, std::size_t offset) {
  return {chip.name, chip.label, static_cast<unsigned>(offset), chip.lines[offset].name};
}

bool allDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string whatIsThere(const Survey& survey) {
  std::vector<std::string> parts;
  for (const Chip& chip : survey.chips) parts.push_back(chipText(chip));
  for (const std::string& chip : survey.unreadable) parts.push_back(chip);
  return parts.empty() ? "there are none" : "there are " + joined(parts, ", ");
}

LineError noSuchChip(const Survey& survey, const std::string& chip) {
  const char* hint = allDigits(chip) ? "; a number is no name, give the label" : "";
  return {Kind::absent, "no GPIO chip has the label or the name " + inQuotes(chip) + " (" +
                            whatIsThere(survey) + ")" + hint};
}

const Chip& findChip(const Survey& survey, const std::string& wanted) {
  const Chip* found = nullptr;
  for (const Chip& chip : survey.chips) {
    if (chip.label != wanted && chip.name != wanted) continue;
    if (found)
      throw LineError(Kind::ambiguous, "the GPIO chip " + inQuotes(wanted) + " may be " + chipText(*found) +
                                           " or " + chipText(chip) + "; give the name of the right one");
    found = &chip;
  }
  if (!found) throw noSuchChip(survey, wanted);
  return *found;
}

LinePlace lineAt(const Chip& chip, const std::string& digits) {
  unsigned offset = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), offset);
  if (parsed.ec == std::errc() && offset < chip.lines.size()) return placeOf(chip, offset);
  throw LineError(Kind::absent, chipText(chip) + " has no line " + digits + ", only 0 to " +
                                    std::to_string(chip.lines.size() - 1));
}

// The places of all lines of one name, chip by chip.
std::vector<LinePlace> namesakes(const std::vector<const Chip*>& chips, const std::string& name) {
  std::vector<LinePlace> places;
  for (const Chip* chip : chips)
    for (std::size_t offset = 0; offset < chip->lines.size(); ++offset)
      if (chip->lines[offset].name == name) places.push_back(placeOf(*chip, offset));
  return places;
}

LinePlace onlyOne(const std::vector<LinePlace>& places, const std::string& name, const std::string& where) {
  if (places.empty())
    throw LineError(Kind::absent, "no line is named " + inQuotes(name) + " (looked at " + where + ")");
  if (places.size() > 1)
    throw LineError(Kind::ambiguous, "the line " + inQuotes(name) + " may be " + describe(places[0]) +
                                         " or " + describe(places[1]) +
                                         "; give the chip and the offset of the right one");
  return places[0];
}

LinePlace lineOnAnyChip(const Survey& survey, const std::string& name) {
  if (allDigits(name))
    throw LineError(Kind::absent,
                    "line " + name + " of which GPIO chip? An offset needs the chip's label or name");
  std::vector<const Chip*> chips;
  for (const Chip& chip : survey.chips) chips.push_back(&chip);
  return onlyOne(namesakes(chips, name), name, "all chips: " + whatIsThere(survey));
}

}  // namespace

std::string describe(const LinePlace& place) {
  return "line " + std::to_string(place.offset) + (place.name.empty() ? "" : " " + inQuotes(place.name)) +
         " of " + place.chip + " " + inQuotes(place.label);
}

std::string inQuotes(const std::string& text) { return "'" + text + "'"; }

std::string joined(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

LineError::LineError(Kind kind, const std::string& text, std::vector<LineFault> faults)
    : runtime_error(text), kind_(kind), faults_(std::move(faults)) {}

LineError::~LineError() = default;

LinePlace Survey::find(const std::string& chip, const std::string& line) const {
  if (line.empty()) throw LineError(Kind::absent, "no line is given; give its offset or its name");
  if (chip.empty()) return lineOnAnyChip(*this, line);
  const Chip& found = findChip(*this, chip);
  return allDigits(line) ? lineAt(found, line) : onlyOne(namesakes({&found}, line), line, chipText(found));
}

}  // namespace Gpio
