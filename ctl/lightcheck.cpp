#include "ctl/lightcheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "ctl/appliance.h"
#include "ctl/requests.h"
#include "ctl/text.h"
#include "platform/model/priorities.h"

namespace Ctl {

namespace {

constexpr char kRuleType[] = "Hardware::Led::LightRule";
constexpr double kFlashesSlower = 2 * kIdentifyFlash;  // than an LED that is to be found

// The types of the facts that the facts agent publishes, by directory.
const std::map<std::string, const char*> kFactTypes{
    {"link", "Facts::Link"},      {"fan", "Facts::Sensor"},         {"temperature", "Facts::Sensor"},
    {"voltage", "Facts::Sensor"}, {"current", "Facts::Sensor"},     {"power", "Facts::Sensor"},
    {"unit", "Facts::Unit"},      {"source", "Facts::SourceStatus"}};

std::string quoted(const std::string& text) { return "'" + text + "'"; }

// A kind of value, for messages.
std::string kindOf(const Json& value) {
  return value.is_boolean() ? "true or false" : value.is_number() ? "a number" : "a string";
}
std::string kindOfType(const std::string& type) {
  if (type == "bool") return "true or false";
  return type.find("String") != std::string::npos || type == "Zel::Name" ? "a string" : "a number";
}

class LightChecker {
 public:
  LightChecker(const Json& entities, const Json& types) {
    Mirror mirror;
    mirror.entitiesAre("", entities);
    for (const Lamp& lamp : lampsOf(mirror)) (lamp.configured ? leds_ : unset_).insert(lamp.name);
    for (const Json& type : types)
      for (const Json& attribute : type.at("attributes"))
        attributes_[type.at("name")][attribute.at("name")] = attribute.value("type", "");
    for (const auto& [path, entity] : mirror.entities()) check(path, entity);
  }

  std::vector<Finding> findings() { return std::move(all_); }

 private:
  void wrong(const std::string& text) { all_.push_back({path_, text}); }
  void note(const std::string& text) { all_.push_back({path_, text, true}); }

  void check(const std::string& path, const Mirror::Entity& entity) {
    path_ = path;
    const std::string above = parentPath(path);
    const char* type = above == Paths::kRequests ? kRequestType
                       : above == Paths::kRules  ? kRuleType
                                                 : nullptr;
    if (!type) return;
    if (entity.type != type)
      return wrong("is a " + entity.type + "; what is here is ignored unless it is a " + type);
    type == kRequestType ? checkRequest(entity.attributes) : checkRule(entity.attributes);
    checkFlash(entity.attributes.value("lightSetting", Json::object()));
  }

  void checkFlash(const Json& setting) {
    const Json interval = setting.value("flashInterval", Json(0));
    if (interval.is_number() && interval > 0 && interval < kFlashesSlower)
      note("flashes every " + shortNumber(interval) + " s, which people take for `identify` (" +
           shortNumber(kIdentifyFlash) + " s); give a flashInterval of " + shortNumber(kFlashesSlower) +
           " or more");
  }

  void checkRequest(const Json& attributes) {
    const auto leds = namesIn(attributes, "leds");
    if (leds.empty()) wrong("names no LED; give names or patterns, such as \"leds\": [\"Fan*\"]");
    for (const std::string& led : leds) checkLeds(led);
    for (const std::string& led : namesIn(attributes, "skip")) checkLeds(led);
    if (attributes.value("lasts", 0.0) > 0 && attributes.value("since", 0.0) == 0)
      note("comes back for " + shortNumber(attributes.at("lasts")) +
           " s at every start of the policy agent, as it has no \"since\"");
  }

  // A name or a shell pattern.
  void checkLeds(const std::string& pattern) {
    if (leds_.empty() || leds_.contains(pattern)) return;
    if (std::ranges::none_of(leds_, [&](const std::string& led) { return matches(pattern, led); }))
      noLed(pattern, isGlob(pattern));
  }

  void noLed(const std::string& wanted, bool isPattern) {
    if (unset_.contains(wanted))
      return wrong("LED " + quoted(wanted) +
                   " has a mapping alone, so the policy agent does not light it; add " + ledPath(wanted) +
                   ": {\"type\": \"" + kLedType + "\"}");
    wrong((isPattern ? "no LED matches " : "no LED is named ") + quoted(wanted) + hint(wanted, leds_));
  }

  void checkRule(const Json& attributes) {
    const std::string fact = attributes.value("fact", ""), led = attributes.value("led", "");
    const std::string comparison = attributes.value("comparison", "is");
    if (hasFactPath(fact)) checkComparison(fact, comparison, attributes);
    if (std::ranges::count(led, '*') > 1)
      wrong("the LED " + quoted(led) + " has more than one '*'; leave one");
    if (led.find('*') != std::string::npos && fact.find('*') == std::string::npos)
      wrong("the LED " + quoted(led) + " has a '*', but the fact " + quoted(fact) +
            " has none for it to stand for; give both one, or name one LED");
    checkRuleLed(led);
  }

  bool hasFactPath(const std::string& fact) {
    const std::string above = parentPath(fact);
    const bool isFact = parentPath(above) == Paths::kFacts && !lastName(fact).empty();
    if (!isFact)
      wrong(quoted(fact) + " is no path of a fact: '" + Paths::kFacts + "/DIRECTORY/FACT', such as '" +
            Paths::kFacts + "/link/eth0'");
    else if (above.find('*') != std::string::npos || std::ranges::count(fact, '*') > 1)
      wrong("the fact " + quoted(fact) + ": only its last component may have a '*', and only one");
    return isFact;
  }

  void checkComparison(const std::string& fact, const std::string& comparison, const Json& attributes) {
    const std::string name = attributes.value("attribute", "");
    const Json value = attributes.value("value", Json(true));
    if (comparison == "missing") return;
    if (name.empty()) return wrong("names no attribute of the fact; give \"attribute\"");
    const bool needsNumber = comparison == "above" || comparison == "below";
    if (needsNumber && !value.is_number())
      return wrong(quoted(comparison) + " needs a number as its value, found " + value.dump());
    if (const std::string type = factType(fact); !type.empty()) checkAttribute(type, name, value);
    checkFault(fact, name, attributes.value("priority", Json("policy")));
  }

  // The type of a fact; empty where it is not known.
  std::string factType(const std::string& fact) {
    const auto known = kFactTypes.find(lastName(parentPath(fact)));
    if (known != kFactTypes.end()) return known->second;
    std::set<std::string> names;
    for (const auto& [name, type] : kFactTypes) names.insert(name);
    note("the facts agent publishes nothing under " + quoted(parentPath(fact)) +
         hint(lastName(parentPath(fact)), names));
    return {};
  }

  void checkAttribute(const std::string& type, const std::string& name, const Json& value) {
    std::set<std::string> names;
    for (const auto& [each, its] : attributes_[type]) names.insert(each);
    if (!names.contains(name))
      return wrong("a " + type + " has no attribute " + quoted(name) + hint(name, names));
    const std::string kind = kindOfType(attributes_[type][name]);
    if (kind != kindOf(value))
      wrong("compares " + quoted(name) + ", which is " + kind + ", with " + value.dump() + "; give " + kind);
  }

  void checkFault(const std::string& fact, const std::string& name, const Json& priority) {
    const bool isFault = name == "alarm" || name == "fault" || lastName(parentPath(fact)) == "unit";
    if (isFault && levelOf(priority) < Led::kFaultLevel)
      note("is dark while `pinlampctl darken` lasts; a fault that is to stay lit has a priority of " +
           std::to_string(Led::kFaultLevel) + " or more");
  }

  static std::uint32_t levelOf(const Json& priority) {
    for (const Led::PriorityClass& each : Led::kPriorityClasses)
      if (priority == each.name) return each.level;
    return priority.get<std::uint32_t>();
  }

  // A name, or what is before and after its '*'. A lane without an LED lights that of its port.
  void checkRuleLed(const std::string& led) {
    if (led.empty()) return wrong("names no LED; give \"led\"");
    const std::size_t star = led.find('*');
    const std::string before = led.substr(0, star), after = star == led.npos ? "" : led.substr(star + 1);
    const auto fits = [&](const std::string& each) {
      if (star == led.npos) return each == led || led.starts_with(each + '/');
      return each.size() >= before.size() + after.size() && each.starts_with(before) && each.ends_with(after);
    };
    if (!leds_.empty() && std::ranges::none_of(leds_, fits)) noLed(led, star != led.npos);
  }

  std::set<std::string> leds_;                                            // that are configured
  std::set<std::string> unset_;                                           // that have a mapping alone
  std::map<std::string, std::map<std::string, std::string>> attributes_;  // types of values, by type and name
  std::string path_;
  std::vector<Finding> all_;
};

}  // namespace

std::vector<Finding> lightFindingsIn(const Json& entities, const Json& types) {
  return LightChecker(entities, types).findings();
}

}  // namespace Ctl
