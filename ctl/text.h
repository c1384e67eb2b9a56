// Names, paths and patterns as people type them.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl {

// A name as one component of a path: '/', '%' and control characters as %XX, and the dots of "." and "..".
std::string escapeComponent(std::string_view name);
// The inverse; a '%' that two hexadecimal digits don't follow stands for itself.
std::string unescapeComponent(std::string_view component);

// The last component of a path, unescaped.
std::string lastName(std::string_view path);
// The path without its last component; empty for a path of one.
std::string parentPath(std::string_view path);
// Whether `path` is `above` or stands under it. Everything stands under the empty path.
bool isUnder(std::string_view path, std::string_view above);

// The path up to and with the first '/' at or after `from`; all of it where there is none.
std::string upToSlash(const std::string& path, std::size_t from);

// "a, b, c".
std::string joined(const std::vector<std::string>& texts, std::string_view separator = ", ");

bool isGlob(std::string_view text);
// Shell patterns; '*' matches slashes too, since LED names hold them.
bool matches(const std::string& pattern, const std::string& name);

// Numbers within names compare as numbers: Ethernet2/1 stands before Ethernet10/1.
bool naturallyBefore(std::string_view a, std::string_view b);

// At most three of the known names that differ least from `name`; none where none is near.
std::vector<std::string> nearest(const std::string& name, const std::set<std::string>& known);
// "; nearest: a, b", or "; known: …" where none is near, or "; there are none".
std::string hint(const std::string& name, const std::set<std::string>& known);

// A number without needless zeros: "0.5", "2".
std::string shortNumber(double number);

}  // namespace Ctl
