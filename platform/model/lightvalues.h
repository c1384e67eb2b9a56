// The values that requests and rules for LEDs are made of.
#pragma once

#include <compare>
#include <cstdint>
#include <vector>

#include "platform/model/priorities.h"
#include "platform/zel/core/export.h"
#include "platform/zel/object/valuetraits.h"

namespace Led {

// A level of priorities.h. In rows the class's name, or a number between two of them.
struct Priority {
  std::uint32_t level = 100;  // policy
  auto operator<=>(const Priority&) const = default;
};

// A length of time: finite and not negative.
struct Seconds {
  double count = 0.0;
  auto operator<=>(const Seconds&) const = default;
};

enum class Comparison : std::uint8_t { is, isNot, above, below, missing };

// A fact's attribute is compared with it: true or false, a number, or a string of at most kLongest bytes.
struct Operand {
  static constexpr std::size_t kLongest = 255;

  Zel::Value value = true;
  bool operator==(const Operand&) const = default;
};

// One of those that ask for an LED: a request, or a rule with the text that its '*' stands for.
struct Claim {
  Zel::Name rule;  // empty: a request
  Zel::Name name;  // of the request; for a rule the text of '*'
  std::uint32_t priority = 0;
  bool operator==(const Claim&) const = default;
};
// The one that is shown first.
struct Claims {
  std::vector<Claim> list;
  bool operator==(const Claims&) const = default;
};

}  // namespace Led

template <>
struct ZEL_API Zel::ValueTraits<Led::Priority> {
  static std::string typeName() { return "priority"; }
  static Value toValue(Led::Priority priority);
  static Led::Priority fromValue(const Value& value);
};

template <>
struct ZEL_API Zel::ValueTraits<Led::Seconds> {
  static std::string typeName() { return "seconds"; }
  static Value toValue(Led::Seconds seconds) { return seconds.count; }
  static Led::Seconds fromValue(const Value& value);
};

template <>
struct ZEL_API Zel::ValueTraits<Led::Comparison> {
  static std::string typeName() { return "comparison"; }
  static Value toValue(Led::Comparison comparison);
  static Led::Comparison fromValue(const Value& value);
};

template <>
struct ZEL_API Zel::ValueTraits<Led::Operand> {
  static std::string typeName() { return "true or false, number or text"; }
  static Value toValue(const Led::Operand& operand) { return operand.value; }
  static Led::Operand fromValue(const Value& value);
};

// An array of {"request": NAME, "priority": …} or {"rule": NAME, "for": TEXT, "priority": …}.
template <>
struct ZEL_API Zel::ValueTraits<Led::Claims> {
  static std::string typeName() { return "claims"; }
  static Value toValue(const Led::Claims& claims);
  static Led::Claims fromValue(const Value& value);
  static void check(const Value& value);
};
