#include "platform/model/lightvalues.h"

#include <cmath>
#include <iterator>
#include <string>

using Led::Claim;
using Led::Claims;
using Led::Comparison;
using Led::Operand;
using Led::Priority;
using Led::Seconds;

namespace Zel {

namespace {

constexpr const char* kComparisons[] = {"is", "isNot", "above", "below", "missing"};
constexpr const char* kExpectedComparison = R"("is", "isNot", "above", "below" or "missing")";
constexpr const char* kExpectedPriority =
    R"("base", "policy", "operator", "identify", "lampTest", or a whole number from 0 to 499)";
constexpr const char* kExpectedClaim =
    "an object with \"priority\", and either \"request\" or \"rule\" and \"for\"";

std::string_view nameIn(const Value& claim, const char* field) {
  const Value* found = claim.field(field);
  const auto* text = found ? found->as<std::string>() : nullptr;
  if (text) Name::check(*text);
  return text ? std::string_view(*text) : std::string_view();
}

// Interns no names.
std::uint32_t priorityOf(const Value& claim) {
  const Value* priority = claim.field("priority");
  const auto* number = priority ? priority->as<std::int64_t>() : nullptr;
  const bool isRequest = claim.field("request") && !claim.field("rule") && !claim.field("for");
  const bool isRule = !claim.field("request") && claim.field("rule") && claim.field("for");
  if (!number || *number < 0 || *number > Led::kHighestPriority || isRequest == isRule)
    throwWrongKind(claim, kExpectedClaim);
  return static_cast<std::uint32_t>(*number);
}

Claim claimOf(const Value& value) {
  const std::uint32_t priority = priorityOf(value);
  if (value.field("request")) return {{}, Name(nameIn(value, "request")), priority};
  return {Name(nameIn(value, "rule")), Name(nameIn(value, "for")), priority};
}

Value valueOf(const Claim& claim) {
  Value value = Value::Fields{};
  if (!claim.rule.empty()) value.fieldIs("rule", claim.rule.view());
  value.fieldIs(claim.rule.empty() ? "request" : "for", claim.name.view());
  value.fieldIs("priority", claim.priority);
  return value;
}

}  // namespace

Value ValueTraits<Priority>::toValue(Priority priority) {
  for (const Led::PriorityClass& each : Led::kPriorityClasses)
    if (each.level == priority.level) return each.name;
  return priority.level;
}

Priority ValueTraits<Priority>::fromValue(const Value& value) {
  if (const auto* text = value.as<std::string>())
    for (const Led::PriorityClass& each : Led::kPriorityClasses)
      if (*text == each.name) return {each.level};
  return {
      static_cast<std::uint32_t>(detail::wholeNumber(value, 0, Led::kHighestPriority, kExpectedPriority))};
}

Seconds ValueTraits<Seconds>::fromValue(const Value& value) {
  const double count = detail::number(value);
  if (!std::isfinite(count) || count < 0.0) throwWrongKind(value, "seconds, finite and not negative");
  return {count};
}

Value ValueTraits<Comparison>::toValue(Comparison comparison) {
  return kComparisons[static_cast<std::size_t>(comparison)];
}

Comparison ValueTraits<Comparison>::fromValue(const Value& value) {
  const auto& text = detail::expect<std::string>(value, kExpectedComparison);
  for (std::size_t i = 0; i < std::size(kComparisons); ++i)
    if (text == kComparisons[i]) return static_cast<Comparison>(i);
  throwWrongKind(value, kExpectedComparison);
}

Operand ValueTraits<Operand>::fromValue(const Value& value) {
  const auto* text = value.as<std::string>();
  const auto* number = value.as<double>();
  const bool isNumber = value.as<std::int64_t>() || (number && std::isfinite(*number));
  if (value.as<bool>() || isNumber || (text && text->size() <= Operand::kLongest)) return {value};
  throwWrongKind(value, "true or false, a finite number, or a string of at most 255 bytes");
}

Value ValueTraits<Claims>::toValue(const Claims& claims) {
  Value::List list;
  for (const Claim& each : claims.list) list.push_back(valueOf(each));
  return list;
}

Claims ValueTraits<Claims>::fromValue(const Value& value) {
  Claims claims;
  for (const Value& each : detail::expect<Value::List>(value, "an array"))
    claims.list.push_back(claimOf(each));
  return claims;
}

void ValueTraits<Claims>::check(const Value& value) {
  for (const Value& each : detail::expect<Value::List>(value, "an array"))
    static_cast<void>(priorityOf(each)), nameIn(each, "request"), nameIn(each, "rule"), nameIn(each, "for");
}

}  // namespace Zel
