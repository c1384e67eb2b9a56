#include "policy/comparison.h"

#include <optional>
#include <string>

#include "platform/zel/core/exception.h"
#include "utils/lampwise.h"

namespace Policy {

namespace {

using Led::Comparison;

std::optional<double> number(const Zel::Value& value) {
  if (const auto* whole = value.as<std::int64_t>()) return static_cast<double>(*whole);
  if (const auto* real = value.as<double>()) return *real;
  return std::nullopt;
}

// Short forms are made only where there may be one: that takes microseconds.
bool sameText(const std::string& found, const std::string& wanted) {
  if (found == wanted) return true;
  return found.find("linkMode") != std::string::npos && Lampwise::shortenLinkMode(found).view() == wanted &&
         !wanted.empty();
}

[[noreturn]] void throwOtherKind(const Zel::Value& found, const Zel::Value& wanted) {
  Zel::throwWrongKind(found, (std::string(wanted.kindText()) + ", as in the rule").c_str());
}

bool same(const Zel::Value& found, const Zel::Value& wanted) {
  if (const auto a = number(found), b = number(wanted); a && b) return *a == *b;
  if (const auto* a = found.as<bool>(), *b = wanted.as<bool>(); a && b) return *a == *b;
  if (const auto* a = found.as<std::string>(), *b = wanted.as<std::string>(); a && b) return sameText(*a, *b);
  throwOtherKind(found, wanted);
}

}  // namespace

void checkComparison(Comparison comparison, const Zel::Value& wanted) {
  const bool needsNumber = comparison == Comparison::above || comparison == Comparison::below;
  if (needsNumber && !number(wanted))
    throw Zel::ValueError(std::string("'") + (comparison == Comparison::above ? "above" : "below") +
                          "' needs a number as its value, found " + wanted.kindText());
}

bool compare(Comparison comparison, const Zel::Value& found, const Zel::Value& wanted) {
  if (comparison == Comparison::is) return same(found, wanted);
  if (comparison == Comparison::isNot) return !same(found, wanted);
  const auto a = number(found), b = number(wanted);
  if (!a || !b) throwOtherKind(found, wanted);
  return comparison == Comparison::above ? *a > *b : *a < *b;
}

}  // namespace Policy
