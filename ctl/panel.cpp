#include "ctl/panel.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <regex>

#include "ctl/text.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

Look lookOf(const char* (*variable)(const char* name)) {
  const auto text = [&](const char* name) { return std::string(variable(name) ? variable(name) : ""); };
  std::string locale = text("LC_ALL");
  for (const char* name : {"LC_CTYPE", "LANG"})
    if (locale.empty()) locale = text(name);
  Look look;
  look.unicode = locale.find("UTF-8") != std::string::npos || locale.find("utf8") != std::string::npos;
  const std::string terminal = text("TERM");
  const std::string depth = text("COLORTERM");
  if (!text("NO_COLOR").empty() || terminal.empty() || terminal == "dumb")
    look.colours = Look::Colours::none;
  else if (depth == "truecolor" || depth == "24bit")
    look.colours = Look::Colours::truecolor;
  else
    look.colours =
        terminal.find("256color") != std::string::npos ? Look::Colours::ansi256 : Look::Colours::ansi16;
  return look;
}

namespace {

struct PortName {
  std::string word;
  std::vector<unsigned> numbers;
};

// `numbers` is empty if the name is not a port's.
PortName portName(const std::string& name) {
  static const std::regex form("([A-Za-z][A-Za-z_-]*)([0-9]{1,4})(/[0-9]{1,4})?(/[0-9]{1,4})?");
  std::smatch match;
  if (!std::regex_match(name, match, form)) return {};
  PortName port{match[1], {}};
  for (std::size_t i = 2; i < match.size(); ++i)
    if (match[i].matched)
      port.numbers.push_back(static_cast<unsigned>(std::stoul(match[i].str().substr(i == 2 ? 0 : 1))));
  return port;
}

using Members = std::vector<std::pair<PortName, const Lamp*>>;

constexpr std::size_t kFewestPorts = 4;
constexpr unsigned kMostLanes = 8;

// Whether names of two numbers are SLOT/PORT rather than PORT/LANE.
bool secondIsPort(const Members& members) {
  return std::any_of(members.begin(), members.end(), [](const auto& member) {
    return member.first.numbers.size() == 2 && member.first.numbers[1] > kMostLanes;
  });
}

void addToBlocks(const std::string& word, const Members& members, std::vector<PortBlock>& blocks) {
  std::map<std::string, std::vector<Port>> byTitle;
  const bool slots = secondIsPort(members);
  for (const auto& [name, lamp] : members) {
    const auto& numbers = name.numbers;
    const bool slotted = numbers.size() == 3 || (numbers.size() == 2 && slots);
    const std::string title = word + (slotted ? std::to_string(numbers[0]) + '/' : "");
    const std::size_t at = slotted ? 1 : 0;
    byTitle[title].push_back({lamp, numbers[at], at + 1 < numbers.size() ? numbers[at + 1] : 0});
  }
  for (auto& [title, ports] : byTitle) blocks.push_back({title, std::move(ports)});
  std::stable_sort(blocks.begin(), blocks.end(),
                   [](const PortBlock& a, const PortBlock& b) { return naturallyBefore(a.title, b.title); });
}

}  // namespace

PanelLayout panelLayout(const std::vector<Lamp>& lamps) {
  std::map<std::string, Members> byWord;
  for (const Lamp& lamp : lamps)
    if (PortName name = portName(lamp.name); !name.numbers.empty())
      byWord[name.word].emplace_back(std::move(name), &lamp);
  std::erase_if(byWord, [](const auto& entry) { return entry.second.size() < kFewestPorts; });
  PanelLayout layout;
  for (const auto& [word, members] : byWord) addToBlocks(word, members, layout.blocks);
  for (const Lamp& lamp : lamps)
    if (!byWord.contains(portName(lamp.name).word)) layout.others.push_back(&lamp);
  return layout;
}

namespace {

// Text and its width on the screen, which escape sequences don't add to.
struct Cell {
  std::string text;
  std::size_t width = 0;
  std::size_t lamps = 0;  // that it shows

  Cell() = default;
  explicit Cell(const std::string& plain) : text(plain), width(columnsOf(plain)) {}
  Cell(std::string bytes, std::size_t columns, std::size_t shown = 0)
      : text(std::move(bytes)), width(columns), lamps(shown) {}

  Cell& operator+=(const Cell& other) {
    text += other.text;
    width += other.width;
    lamps += other.lamps;
    return *this;
  }
  Cell& padTo(std::size_t columns) {
    if (width < columns) *this += Cell(std::string(columns - width, ' '));
    return *this;
  }
};
using Cells = std::vector<Cell>;

std::array<int, 3> mixed(const PerColour<bool>& shows) {
  std::array<int, 3> rgb{};
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (std::size_t channel = 0; shows[i] && channel < rgb.size(); ++channel)
      rgb[channel] = std::max<int>(rgb[channel], kColours[i].rgb[channel]);
  return rgb;
}

// The colour that is shown; null if none is, or several are.
const Colour* onlyColour(const PerColour<bool>& shows) {
  const auto first = std::find(shows.begin(), shows.end(), true);
  if (std::count(shows.begin(), shows.end(), true) != 1) return nullptr;
  return &kColours[static_cast<std::size_t>(first - shows.begin())];
}

std::string colourCode(const PerColour<bool>& shows, Look::Colours depth) {
  const auto [red, green, blue] = mixed(shows);
  switch (depth) {
    case Look::Colours::truecolor:
      return "38;2;" + std::to_string(red) + ';' + std::to_string(green) + ';' + std::to_string(blue);
    case Look::Colours::ansi256: {
      const auto level = [](int channel) {
        return channel < 48 ? 0 : channel < 115 ? 1 : (channel - 35) / 40;
      };
      return "38;5;" + std::to_string(16 + 36 * level(red) + 6 * level(green) + level(blue));
    }
    case Look::Colours::ansi16:
      return onlyColour(shows) ? onlyColour(shows)->terminalCode : "97";
    case Look::Colours::none:
      break;
  }
  return {};
}

std::string styled(const std::string& code, const std::string& text, const Look& look) {
  return look.colours == Look::Colours::none ? text : "\x1b[" + code + 'm' + text + "\x1b[0m";
}

Cell dim(const std::string& plain, const Look& look) { return {styled("2", plain, look), columnsOf(plain)}; }

// The LED itself, one column wide: lit, dark, or not driven.
Cell lampCell(const Lamp& lamp, const Look& look) {
  if (!lamp.driven) return {styled("2", look.unicode ? "·" : "-", look), 1, 1};
  if (!lamp.lit()) return {styled("2", look.unicode ? "○" : ".", look), 1, 1};
  if (look.colours != Look::Colours::none)
    return {styled(colourCode(lamp.shows, look.colours), look.unicode ? "●" : "@", look), 1, 1};
  const Colour* only = onlyColour(lamp.shows);
  return {std::string(1, only ? only->letter : '*'), 1, 1};
}

// Two ports, one above the other; the lanes of each are side by side.
struct Column {
  std::vector<const Lamp*> above, below;
  unsigned numberAbove = 0, numberBelow = 0;
};

std::vector<Column> portColumns(const PortBlock& block) {
  std::map<unsigned, Column> columns;
  const bool fromZero =
      std::any_of(block.ports.begin(), block.ports.end(), [](const Port& port) { return port.number == 0; });
  for (const Port& port : block.ports) {
    const unsigned index = port.number - (fromZero ? 0 : 1);
    Column& column = columns[index / 2];
    (index % 2 == 0 ? column.above : column.below).push_back(port.lamp);
    (index % 2 == 0 ? column.numberAbove : column.numberBelow) = port.number;
  }
  std::vector<Column> sorted;
  for (auto& [index, column] : columns) sorted.push_back(std::move(column));
  return sorted;
}

std::size_t widthOf(const Column& column) {
  const std::size_t digits = std::to_string(std::max(column.numberAbove, column.numberBelow)).size();
  return std::max({column.above.size(), column.below.size(), digits}) + 1;
}

Cell numberCell(const std::vector<const Lamp*>& lamps, unsigned number, const Look& look) {
  return lamps.empty() ? Cell() : dim(std::to_string(number), look);
}

Cell lampsCell(const std::vector<const Lamp*>& lamps, const Look& look) {
  Cell cell;
  for (const Lamp* lamp : lamps) cell += lampCell(*lamp, look);
  return cell;
}

// Appends a cell, right-aligned in `width` columns.
void append(Cell& line, const Cell& cell, std::size_t width) {
  line.padTo(line.width + width - std::min(width, cell.width));
  line += cell;
}

// Appends a port column to the four lines of a band: numbers, LEDs, LEDs, numbers.
void appendColumn(Cells& band, const Column& column, const Look& look) {
  const std::size_t width = widthOf(column);
  append(band[0], numberCell(column.above, column.numberAbove, look), width);
  append(band[1], lampsCell(column.above, look), width);
  append(band[2], lampsCell(column.below, look), width);
  append(band[3], numberCell(column.below, column.numberBelow, look), width);
}

// A block's lines. Columns beyond the width wrap into further bands below.
Cells blockLines(const PortBlock& block, const Look& look, std::size_t width) {
  Cells lines;
  Cells band(4);
  for (const Column& column : portColumns(block)) {
    if (band[0].width + widthOf(column) > width && band[0].width > 0) {
      lines.insert(lines.end(), band.begin(), band.end());
      band.assign(4, Cell());
    }
    appendColumn(band, column, look);
  }
  lines.insert(lines.end(), band.begin(), band.end());
  return lines;
}

Cells portLines(const std::vector<PortBlock>& blocks, const Look& look, std::size_t width) {
  Cells lines;
  for (const PortBlock& block : blocks) {
    if (blocks.size() > 1) lines.push_back(dim(' ' + block.title, look));
    for (Cell& line : blockLines(block, look, width)) lines.push_back(std::move(line));
  }
  return lines;
}

std::string shownName(const Lamp& lamp) { return Zel::printable(lamp.name); }

// LEDs with their names, in as many columns as fit.
Cells otherLines(const std::vector<const Lamp*>& others, const Look& look, std::size_t width,
                 std::size_t rowsWanted) {
  if (others.empty()) return {};
  std::size_t cellWidth = 0;
  for (const Lamp* lamp : others) cellWidth = std::max(cellWidth, columnsOf(shownName(*lamp)) + 4);
  const std::size_t fitting = std::max<std::size_t>(1, width / cellWidth);
  const std::size_t rows =
      std::max((others.size() + fitting - 1) / fitting, std::min(rowsWanted, others.size()));
  Cells lines(rows);
  for (std::size_t i = 0; i < others.size(); ++i) {
    Cell& line = lines[i % rows].padTo(i / rows * cellWidth);
    line += Cell(" ");
    line += lampCell(*others[i], look);
    line += Cell(' ' + shownName(*others[i]));
  }
  return lines;
}

std::size_t widest(const Cells& lines) {
  std::size_t width = 0;
  for (const Cell& line : lines) width = std::max(width, line.width);
  return width;
}

Cells beside(Cells left, const Cells& right, std::size_t gap) {
  const std::size_t at = widest(left) + gap;
  left.resize(std::max(left.size(), right.size()));
  for (std::size_t i = 0; i < right.size(); ++i) left[i].padTo(at) += right[i];
  return left;
}

Cells bodyLines(const PanelLayout& layout, const Look& look, std::size_t width) {
  constexpr std::size_t kGap = 3;
  Cells ports = portLines(layout.blocks, look, width);
  const std::size_t used = widest(ports) + kGap;
  const Cells narrow = otherLines(layout.others, look, width > used ? width - used : 0, ports.size());
  if (!ports.empty() && used + widest(narrow) <= width) return beside(std::move(ports), narrow, kGap);
  if (!ports.empty() && !layout.others.empty()) ports.emplace_back();
  for (Cell& line : otherLines(layout.others, look, width, 0)) ports.push_back(std::move(line));
  return ports;
}

std::string summary(const std::vector<Lamp>& lamps) {
  const auto count = [&](auto&& which) {
    return std::to_string(std::count_if(lamps.begin(), lamps.end(), which));
  };
  std::string text = ' ' + std::to_string(lamps.size()) +
                     " LEDs: " + count([](const Lamp& lamp) { return lamp.lit(); }) + " lit now, " +
                     count([](const Lamp& lamp) { return lamp.flashInterval != 0.0; }) + " flashing";
  if (const auto dark = count([](const Lamp& lamp) { return lamp.configured && !lamp.driven; }); dark != "0")
    text += ", " + dark + " not driven";
  if (const auto lacking = count([](const Lamp& lamp) { return lamp.lacksPin(); }); lacking != "0")
    text += ", " + lacking + " set to a colour without a pin";
  return text;
}

std::size_t lampsIn(Cells::const_iterator first, Cells::const_iterator last) {
  return std::accumulate(first, last, std::size_t{0}, [](auto sum, auto& line) { return sum + line.lamps; });
}

// "… 12 more above, 40 more below: arrows, Page Up, Page Down".
std::string moreText(const Cells& body, const Scroll& scroll, const Look& look) {
  const auto first = body.begin() + static_cast<std::ptrdiff_t>(scroll.from);
  const std::size_t above = lampsIn(body.begin(), first);
  const std::size_t below = lampsIn(first + static_cast<std::ptrdiff_t>(scroll.page), body.end());
  std::string text = look.unicode ? " … " : " ... ";
  if (above > 0) text += std::to_string(above) + " more above" + (below > 0 ? ", " : "");
  if (below > 0) text += std::to_string(below) + " more" + (above > 0 ? " below" : "");
  return text + "  (arrows and page keys scroll)";
}

// The part of the body that the screen has room for, and how much more there is.
void appendScrolled(const Cells& body, const Look& look, const PanelSize& size, Scroll& scroll,
                    std::vector<std::string>& lines) {
  constexpr std::size_t kOthers = 3;  // the title, what is left out, and the summary
  scroll.page = size.rows > kOthers ? size.rows - kOthers : 0;
  scroll.from = std::min(scroll.from, body.size() - scroll.page);
  for (std::size_t i = 0; i < scroll.page; ++i) lines.push_back(body[scroll.from + i].text);
  if (size.rows >= kOthers)
    lines.push_back(styled("2", firstColumns(moreText(body, scroll, look), size.columns), look));
}

}  // namespace

std::vector<std::string> panelFrame(const std::vector<Lamp>& lamps, const std::string& title,
                                    const Look& look, const PanelSize& size, Scroll& scroll) {
  constexpr std::size_t kOthers = 4;  // the title, the summary, and an empty line beside each
  std::vector<std::string> lines{styled("1", firstColumns(' ' + title, size.columns), look)};
  Cells body = bodyLines(panelLayout(lamps), look, size.columns);
  for (Cell& line : body)
    if (line.width > size.columns) line = Cell();
  if (body.size() + kOthers <= size.rows) {
    scroll = {0, body.size()};
    lines.emplace_back();
    for (const Cell& line : body) lines.push_back(line.text);
    lines.emplace_back();
  } else {
    appendScrolled(body, look, size, scroll, lines);
  }
  if (size.rows > 1) lines.push_back(styled("2", firstColumns(summary(lamps), size.columns), look));
  return lines;
}

namespace {

void padTo(std::string& line, std::size_t columns) {
  line.append(std::max(columns, columnsOf(line) + 1) - columnsOf(line), ' ');
}

}  // namespace

std::string plainLine(const Lamp& lamp) {
  std::string line = shownName(lamp);
  padTo(line, 16);
  line += lamp.shownText();
  padTo(line, 30);
  return line + lamp.settingText();
}

}  // namespace Ctl
