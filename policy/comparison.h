// How a rule compares a fact's attribute.
#pragma once

#include "platform/model/lightvalues.h"

namespace Policy {

// Throws ValueError where the rule's value does not suit the comparison: "above" needs a number.
void checkComparison(Led::Comparison comparison, const Zel::Value& wanted);

// Numbers are compared by value, texts as a whole; a link mode ("linkModeForced100gfull") also by its short
// form ("100gfull"). Throws ValueError where the two are of different kinds. REQUIRES: not `missing`.
bool compare(Led::Comparison comparison, const Zel::Value& found, const Zel::Value& wanted);

}  // namespace Policy
