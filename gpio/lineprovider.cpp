#include "gpio/lineprovider.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include "platform/zel/core/assert.h"

namespace Gpio {

using Kind = LineError::Kind;

namespace {

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
         inQuotes(first.label);
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
                    (consumer.empty() ? "a consumer without a name" : inQuotes(consumer)));
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
