// A file includes headers of its own folder and of the folders below that, and no others.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/places.h"

namespace {

namespace fs = std::filesystem;

// Each module (a folder or a single header) and those directly below it. Being below is transitive.
const std::map<std::string, std::vector<std::string>> kBelow{
    {"platform/zel/core", {}},
    {"platform/zel/object", {"platform/zel/core"}},
    {"platform/zel/notify", {"platform/zel/object"}},
    {"platform/zel/entity", {"platform/zel/notify"}},
    {"platform/zel", {"platform/zel/entity"}},
    {"platform/statedb/store", {"platform/zel/entity"}},
    {"platform/statedb/mount", {"platform/statedb/store"}},
    {"platform/warden", {"platform/statedb/mount"}},
    {"platform/cell", {"platform/zel/core"}},
    {"platform/model/paths.h", {}},  // words alone, for clients that know no entity
    {"platform/model/colours.h", {}},
    {"platform/model/priorities.h", {}},
    {"platform/model",
     {"platform/zel/entity", "platform/model/paths.h", "platform/model/colours.h",
      "platform/model/priorities.h"}},
    {"platform", {"platform/zel", "platform/warden", "platform/model", "platform/cell"}},
    {"common", {"platform/zel/core"}},
    {"statemachine", {"common", "platform/model"}},
    {"reactor", {"statemachine"}},
    {"agent", {"reactor", "platform/warden"}},
    {"utils", {"platform/model", "platform/cell"}},
    {"gpio", {"platform/model", "platform/warden"}},
    {"facts", {"platform/model", "platform/warden"}},
    {"policy", {"utils", "platform/warden"}},
    {"host/io", {"platform/zel/notify"}},
    {"host/rpc", {"host/io", "platform/statedb/store"}},
    {"host/store", {"host/rpc"}},
    {"host/control", {"host/rpc", "platform/warden"}},
    {"host/whenlost.cpp", {"host", "platform/model"}},  // reads light settings
    {"host/controlsocket.h", {}},
    {"host", {"host/store", "host/control", "host/controlsocket.h", "platform/cell"}},
    {"ctl",
     {"host/controlsocket.h", "platform/zel/core", "platform/model/paths.h", "platform/model/colours.h",
      "platform/model/priorities.h"}},
    {"ctl/commands", {"ctl"}},
    {"ctl/commands/storecommand.cpp", {"ctl", "host/store"}},
};

// The module that a file belongs to: its own, or that of the nearest folder; empty if there is none.
std::string moduleOf(std::string path) {
  while (!path.empty() && !kBelow.contains(path)) path = fs::path(path).parent_path().string();
  return path;
}

void addWithBelow(const std::string& module, std::set<std::string>& all) {
  if (!all.insert(module).second) return;
  for (const std::string& below : kBelow.at(module)) addWithBelow(below, all);
}

// The project's own headers that a file includes.
std::vector<std::string> includesOf(const fs::path& file) {
  std::vector<std::string> includes;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("#include \"")) includes.push_back(line.substr(10, line.find('"', 10) - 10));
  return includes;
}

std::vector<fs::path> sources() {
  std::set<std::string> tops;
  for (const auto& [module, below] : kBelow) tops.insert(module.substr(0, module.find('/')));
  std::vector<fs::path> files;
  for (const std::string& top : tops)
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(Places::sourceFolder()) / top))
      if (const auto ending = entry.path().extension(); ending == ".h" || ending == ".cpp")
        files.push_back(entry.path());
  return files;
}

TEST(Layers, AFileIncludesHeadersOfItsOwnFolderAndOfThoseBelowOnly) {
  std::size_t seen = 0;
  for (const fs::path& file : sources()) {
    const std::string name = fs::relative(file, Places::sourceFolder()).string();
    const std::string module = moduleOf(name);
    std::set<std::string> allowed;
    addWithBelow(module, allowed);
    for (const std::string& include : includesOf(file)) {
      ++seen;
      EXPECT_TRUE(fs::exists(fs::path(Places::sourceFolder()) / include)) << name << " includes " << include;
      EXPECT_TRUE(allowed.contains(moduleOf(include)))
          << name << " includes " << include << ", which is not below " << module;
    }
  }
  EXPECT_GT(seen, 400U) << "the sources were not found";
}

// It loads whatever agent the command line names: their types are texts from outside to it.
TEST(Layers, TheHostNamesNoTypeOfAnAgent) {
  const std::regex typeOfAnAgent("\\b(Pinlamp|Hardware|Led|Environment)::[A-Z]");
  std::size_t seen = 0;
  for (const fs::path& file : sources()) {
    const std::string name = fs::relative(file, Places::sourceFolder()).string();
    if (!name.starts_with("host/")) continue;
    ++seen;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
      EXPECT_FALSE(std::regex_search(line, typeOfAnAgent)) << name << ": " << line;
  }
  EXPECT_GT(seen, 20U) << "the sources were found";
}

}  // namespace
