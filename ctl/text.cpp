#include "ctl/text.h"

#include <fnmatch.h>
#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>
#include <numeric>
#include <sstream>
#include <utility>

#include "ctl/refusal.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

std::string printableLines(std::vector<std::string> lines) {
  for (std::string& line : lines) line = Zel::printable(line);
  return joined(lines, "\n");
}

}  // namespace

Refusal::Refusal(const std::string& line) : std::runtime_error(Zel::printable(line)) {}
Refusal::Refusal(const std::vector<std::string>& lines) : std::runtime_error(printableLines(lines)) {}

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool mustBeEscaped(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return c == '/' || c == '%' || byte < 0x20 || byte == 0x7f;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && std::isxdigit(static_cast<unsigned char>(text[1])) &&
         std::isxdigit(static_cast<unsigned char>(text[2]));
}

}  // namespace

std::string escapeComponent(std::string_view name) {
  std::string component;
  const bool dots = name == "." || name == "..";
  for (const char c : name) {
    if (!mustBeEscaped(c) && !dots) {
      component += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    component += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
  }
  return component;
}

std::string unescapeComponent(std::string_view component) {
  std::string name;
  while (!component.empty()) {
    const bool escape = isEscape(component);
    name += escape ? static_cast<char>(std::stoi(std::string(component.substr(1, 2)), nullptr, 16))
                   : component[0];
    component.remove_prefix(escape ? 3 : 1);
  }
  return name;
}

std::string lastName(std::string_view path) { return unescapeComponent(path.substr(path.rfind('/') + 1)); }

std::string parentPath(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash));
}

bool isUnder(std::string_view path, std::string_view above) {
  return above.empty() ||
         (path.starts_with(above) && (path.size() == above.size() || path[above.size()] == '/'));
}

std::string upToSlash(const std::string& path, std::size_t from) {
  const std::size_t slash = path.find('/', from);
  return slash == std::string::npos ? path : path.substr(0, slash + 1);
}

std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
  std::string all;
  for (const std::string& text : texts) {
    if (&text != &texts.front()) all += separator;
    all += text;
  }
  return all;
}

std::string firstOf(std::vector<std::string> texts) {
  constexpr std::size_t kShown = 8;
  const std::size_t more = texts.size() - std::min(texts.size(), kShown);
  texts.resize(texts.size() - more);
  return joined(texts) + (more == 0 ? "" : ", and " + std::to_string(more) + " more");
}

bool isGlob(std::string_view text) { return text.find_first_of("*?[") != std::string_view::npos; }

bool matches(const std::string& pattern, const std::string& name) {
  return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

namespace {

// Removes and returns the leading number or character of a name: the unit of comparison.
std::string_view unitOf(std::string_view& name) {
  std::size_t length = 0;
  while (length < name.size() && isDigit(name[length])) ++length;
  const auto unit = name.substr(0, std::max<std::size_t>(length, 1));
  name.remove_prefix(unit.size());
  return unit;
}

int compareUnits(std::string_view a, std::string_view b) {
  if (!isDigit(a[0]) || !isDigit(b[0])) return a.compare(b);
  a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
  b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
  return a.size() != b.size() ? (a.size() < b.size() ? -1 : 1) : a.compare(b);
}

}  // namespace

bool naturallyBefore(std::string_view a, std::string_view b) {
  for (std::string_view x = a, y = b; !x.empty() || !y.empty();) {
    if (x.empty() || y.empty()) return x.empty();
    if (const int order = compareUnits(unitOf(x), unitOf(y))) return order < 0;
  }
  return a < b;
}

namespace {

// Levenshtein distance, ignoring case. Takes as long as the product of the lengths.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const bool same =
          std::tolower(static_cast<unsigned char>(a[i])) == std::tolower(static_cast<unsigned char>(b[j]));
      const std::size_t replaced = diagonal + (same ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::vector<std::string> nearest(const std::string& name, const std::set<std::string>& known) {
  constexpr std::size_t kLongest = 200;  // that anybody mistypes
  if (name.size() > kLongest) return {};
  const std::size_t limit = std::max<std::size_t>(2, name.size() / 3);
  std::vector<std::pair<std::size_t, std::string>> found;
  for (const std::string& each : known) {
    if (each.size() > name.size() + limit || name.size() > each.size() + limit) continue;
    if (const auto far = distance(name, each); far <= limit) found.emplace_back(far, each);
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  if (found.size() > 3) found.resize(3);
  std::vector<std::string> names;
  for (auto& [far, each] : found) names.push_back(std::move(each));
  return names;
}

std::string hint(const std::string& name, const std::set<std::string>& known) {
  if (known.empty()) return "; there are none";
  if (const auto near = nearest(name, known); !near.empty()) return "; nearest: " + joined(near);
  constexpr std::size_t kShown = 8;
  std::vector<std::string> all(known.begin(), known.end());
  std::sort(all.begin(), all.end(), naturallyBefore);
  const bool more = all.size() > kShown;
  if (more) all.resize(kShown);
  return "; known: " + joined(all) + (more ? ", …" : "");
}

std::string inSeconds(const std::string& text) {
  struct Unit {
    std::string_view name;
    double seconds;
    double parts;  // of these seconds
  };
  static constexpr Unit kUnits[] = {{"ms", 1, 1000}, {"s", 1, 1}, {"min", 60, 1}, {"h", 3600, 1}};
  double number = 0.0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const std::string_view name(rest, static_cast<std::size_t>(end - rest));
  const auto unit = std::ranges::find(kUnits, name, &Unit::name);
  if (error != std::errc() || unit == std::end(kUnits)) return text;
  char digits[32];
  return {digits, std::to_chars(digits, std::end(digits), number * unit->seconds / unit->parts).ptr};
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

namespace {

// The first character of UTF-8 text, and its bytes: at least one.
std::pair<wchar_t, std::size_t> firstCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t size = first < 0xC0 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (size == 1 || size > text.size()) return {static_cast<wchar_t>(first), 1};
  auto character = static_cast<unsigned>(first) & (0xFFU >> (size + 1));
  for (std::size_t i = 1; i < size; ++i)
    character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  return {static_cast<wchar_t>(character), size};
}

// By the C library's table for UTF-8, whatever the locale: names are UTF-8. 1 for what it does not know.
std::size_t widthOf(wchar_t character) {
  if (character < 0x7F) return 1;
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (utf8 == nullptr) return 1;
  const locale_t before = uselocale(utf8);
  const int width = wcwidth(character);
  uselocale(before);
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const auto [character, bytes] = firstCharacter(text);
    columns += widthOf(character);
    text.remove_prefix(bytes);
  }
  return columns;
}

std::string firstColumns(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  for (std::size_t used = 0; end < text.size();) {
    const auto [character, bytes] = firstCharacter(text.substr(end));
    used += widthOf(character);
    if (used > columns) break;
    end += bytes;
  }
  return std::string(text.substr(0, end));
}

std::string shortNumber(double number) {
  std::ostringstream text;
  text << number;
  return text.str();
}

}  // namespace Ctl
