// Names, paths and patterns.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl {

// A name as one component of a path: '/', '%' and control characters as %XX, and the dots of "." and "..".
std::string escapeComponent(std::string_view name);
// The inverse. Keeps a '%' that is not followed by two hexadecimal digits.
std::string unescapeComponent(std::string_view component);

// The last component of a path, unescaped.
std::string lastName(std::string_view path);
// The path without its last component; empty for a path of one.
std::string parentPath(std::string_view path);
// Whether `path` is `above` or is under it. Everything is under the empty path.
bool isUnder(std::string_view path, std::string_view above);

// The path through the first '/' at or after `from`; all of it if there is none.
std::string upToSlash(const std::string& path, std::size_t from);

// "a, b, c".
std::string joined(const std::vector<std::string>& texts, std::string_view separator = ", ");

// The first eight: "a, b, and 5 more".
std::string firstOf(std::vector<std::string> texts);

std::vector<std::string> linesOf(const std::string& text);

// The columns that UTF-8 text takes on a terminal, and as much of it as fits into `columns`.
std::size_t columnsOf(std::string_view text);
std::string firstColumns(std::string_view text, std::size_t columns);

bool isGlob(std::string_view text);
// Shell patterns; '*' matches slashes too, since LED names hold them.
bool matches(const std::string& pattern, const std::string& name);

// Natural order: numbers within names compare by value, so Ethernet2/1 is before Ethernet10/1.
bool naturallyBefore(std::string_view a, std::string_view b);

// At most three known names, by edit distance from `name`; empty if none is near, or `name` has more than 200
// bytes.
std::vector<std::string> nearest(const std::string& name, const std::set<std::string>& known);
// "; nearest: a, b", or "; known: …" if none is near, or "; there are none".
std::string hint(const std::string& name, const std::set<std::string>& known);

// A time with a unit as the number of its seconds: "500ms" as "0.5"; also s, min and h. Anything else as it
// is.
std::string inSeconds(const std::string& text);

// A number without trailing zeros: "0.5", "2".
std::string shortNumber(double number);

}  // namespace Ctl
