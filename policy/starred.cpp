#include "policy/starred.h"

#include "platform/zel/core/exception.h"
#include "platform/zel/core/string.h"

namespace Policy {

Starred::Starred(std::string_view text) {
  const std::size_t star = text.find('*');
  hasStar_ = star != std::string_view::npos;
  before_ = text.substr(0, star);
  if (hasStar_) after_ = text.substr(star + 1);
  if (after_.find('*') != std::string::npos)
    throw Zel::ValueError("'" + Zel::excerpt(text) + "' has more than one '*'");
}

std::optional<std::string_view> Starred::match(std::string_view text) const {
  if (!hasStar_) return text == before_ ? std::optional(std::string_view()) : std::nullopt;
  if (text.size() < before_.size() + after_.size() || !text.starts_with(before_) || !text.ends_with(after_))
    return std::nullopt;
  return text.substr(before_.size(), text.size() - before_.size() - after_.size());
}

std::string Starred::with(std::string_view star) const {
  std::string text = before_;
  if (hasStar_) text.append(star).append(after_);
  return text;
}

}  // namespace Policy
