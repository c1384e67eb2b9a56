#include "policy/pattern.h"

#include <fnmatch.h>

#include <algorithm>
#include <string>

#include "platform/zel/core/exception.h"

namespace Policy {

Pattern::Pattern(Zel::Name text) : text_(text), kind_(Kind::name) {
  const std::string_view view = text.view();
  prefix_ = view.substr(0, view.find_first_of("*?[\\"));
  if (view.empty()) throw Zel::ValueError("an LED's name is empty");
  if (view.find_first_of("*?[") == std::string_view::npos)
    prefix_ = view;
  else if (prefix_.size() + 1 == view.size() && view.back() == '*')
    kind_ = Kind::prefix;
  else
    kind_ = Kind::glob;
  if (std::ranges::count(view, '*') > static_cast<std::ptrdiff_t>(kMostStars))
    throw Zel::ValueError("'" + std::string(view) + "' has more than " + std::to_string(kMostStars) + " '*'");
}

bool Pattern::fits(Zel::Name name) const {
  if (kind_ == Kind::name) return name == text_;
  if (!name.view().starts_with(prefix_)) return false;
  return kind_ == Kind::prefix || fnmatch(text_.charPtr(), name.charPtr(), 0) == 0;
}

}  // namespace Policy
