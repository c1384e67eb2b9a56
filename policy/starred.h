// A text with at most one '*', which stands for any text: "Ethernet*".
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Policy {

class Starred {
 public:
  // Throws ValueError where there are two '*'.
  explicit Starred(std::string_view text);

  bool hasStar() const { return hasStar_; }
  // What '*' stands for in a text, nothing without a '*'; nullopt where the text does not fit.
  std::optional<std::string_view> match(std::string_view text) const;
  // The text with `star` for its '*'.
  std::string with(std::string_view star) const;

 private:
  std::string before_;
  std::string after_;
  bool hasStar_;
};

}  // namespace Policy
