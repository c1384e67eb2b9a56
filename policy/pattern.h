// Names of LEDs in requests: a name, or a shell pattern as pinlampctl has them ("Ethernet*", "Fan[12]"). '*'
// matches slashes too.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/zel/core/name.h"

namespace Policy {

class Pattern {
 public:
  // More of them could take too long to match.
  static constexpr std::size_t kMostStars = 8;

  // Throws ValueError where the text is empty or has too many '*'.
  explicit Pattern(Zel::Name text);

  Zel::Name text() const { return text_; }
  // Whether it is a pattern rather than a name.
  bool isGlob() const { return kind_ != Kind::name; }
  // All names that fit start with it.
  std::string_view prefix() const { return prefix_; }
  bool fits(Zel::Name name) const;

  friend bool operator==(const Pattern& a, const Pattern& b) { return a.text_ == b.text_; }

 private:
  enum class Kind { name, prefix, glob };

  Zel::Name text_;
  std::string_view prefix_;  // of text_
  Kind kind_;
};

}  // namespace Policy
