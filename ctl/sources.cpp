#include "ctl/sources.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace Ctl {

namespace {

// Bytes of one file; bounds memory.
constexpr std::size_t kLongestFile = std::size_t{256} << 20;

std::string contentsOf(std::istream& in, const std::string& file) {
  std::string text;
  char chunk[65536];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    text.append(chunk, static_cast<std::size_t>(in.gcount()));
    if (text.size() > kLongestFile) throw Refusal(file + ": has more than 256 MiB");
  }
  if (in.bad()) throw Refusal("can't read '" + file + "': " + std::strerror(errno));
  return text;
}

Configuration::Source sourceFrom(const std::string& file) {
  if (file == "-") return {"standard input", contentsOf(std::cin, "standard input")};
  std::error_code ignored;
  if (std::filesystem::is_directory(file, ignored))
    throw Refusal("can't read '" + file + "': it is a directory; name the files in it, such as " + file +
                  "/*.json");
  std::ifstream in(file, std::ios::binary);
  if (!in) throw Refusal("can't read '" + file + "': " + std::strerror(errno));
  return {file, contentsOf(in, file)};
}

}  // namespace

std::vector<Configuration::Source> sourcesFrom(const std::vector<std::string>& files) {
  std::vector<Configuration::Source> sources;
  for (const std::string& file : files) sources.push_back(sourceFrom(file));
  return sources;
}

}  // namespace Ctl
