// The configuration file: {PATH: {"type": TYPE, ATTRIBUTE: VALUE, …}, …}, written with one entity per line.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

class Configuration {
 public:
  // Parses a file's text; `file` names it in errors. Throws Refusal with all errors, one per line:
  // FILE:LINE: …, or FILE:LINE:COLUMN: … for a JSON syntax error.
  Configuration(std::string file, std::string text);

  // The changes that store every entity, each before those under it.
  Json puts() const;
  // The changes that remove what `entities` (as read from the host) has and this configuration lacks. After
  // them and puts() the host has exactly this configuration, except at and under the paths in `filled`, which
  // agents fill.
  Json dels(const Json& entities, const std::vector<std::string>& filled) const;

  std::size_t size() const { return entities_.size(); }
  // Prefixes an error of the host, which begins with a path, with the path's position in the file.
  std::string located(const std::string& error) const;

 private:
  void check(const std::string& path, const Json& entity, std::vector<std::string>& errors) const;
  std::string positionOf(const std::string& key) const;

  const std::string file_;
  const std::string text_;
  std::map<std::string, Json> entities_;  // by path: all attributes, and "type"
};

// The file's text for entities as read from the host, without those that agents fill: pins, line status, and
// everything at and under the paths in `filled`.
std::string configurationText(const Json& entities, const std::vector<std::string>& filled);
// The file's text for all of the entities.
std::string wholeText(const Json& entities);

}  // namespace Ctl
