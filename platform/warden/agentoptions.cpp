#include "platform/warden/agentoptions.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace Warden {

namespace {

constexpr std::size_t kMaxText = 4096;

template <class Words>
std::string listed(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

std::string shown(double number) {
  std::ostringstream out;
  out << number;
  return out.str();
}

[[noreturn]] void refuse(const std::string& name, const std::string& value, const std::string& expected) {
  throw OptionError("option '" + name + "=" + value + "': expected " + expected);
}

}  // namespace

OptionError::OptionError(const std::string& text) : Exception(text) {}
OptionError::~OptionError() = default;

AgentOptions AgentOptions::parse(const std::string& text) {
  if (text.size() > kMaxText) throw OptionError("the options exceed 4 KiB");
  AgentOptions options;
  std::istringstream each(text);
  for (std::string option; std::getline(each, option, '&');) {
    const std::size_t equals = option.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw OptionError("option '" + option + "': expected NAME=VALUE");
    const std::string name = option.substr(0, equals);
    if (!options.values_.emplace(name, option.substr(equals + 1)).second)
      throw OptionError("option '" + name + "' is there twice");
  }
  return options;
}

const std::string* AgentOptions::find(const std::string& name) const {
  known_.insert(name);
  const auto found = values_.find(name);
  return found == values_.end() ? nullptr : &found->second;
}

double AgentOptions::number(const std::string& name, double fallback, double lowest, double highest) const {
  const std::string* text = find(name);
  if (!text) return fallback;
  double value = 0;
  const char* const end = text->data() + text->size();
  const auto read = std::from_chars(text->data(), end, value);
  if (read.ec != std::errc() || read.ptr != end || !(value >= lowest && value <= highest))
    refuse(name, *text, "a number from " + shown(lowest) + " to " + shown(highest));
  return value;
}

std::set<std::string> AgentOptions::words(const std::string& name,
                                          const std::vector<std::string>& known) const {
  const std::string* text = find(name);
  if (!text) return {known.begin(), known.end()};
  std::set<std::string> words;
  std::istringstream each(*text);
  for (std::string word; std::getline(each, word, ',');) {
    if (std::ranges::find(known, word) == known.end())
      refuse(name, *text, "a list of these, separated by commas: " + listed(known));
    words.insert(word);
  }
  if (words.empty()) refuse(name, *text, "one or more of: " + listed(known));
  return words;
}

void AgentOptions::checkAllKnown() const {
  for (const auto& [name, value] : values_)
    if (!known_.contains(name))
      throw OptionError("there is no option '" + name + "'; there are: " + listed(known_));
}

}  // namespace Warden
