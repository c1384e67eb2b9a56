// The configuration file: {PATH: {"type": TYPE, ATTRIBUTE: VALUE, …}, …}, one entity a line when written.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

class Configuration {
 public:
  // Reads a file's text; `file` is what errors call it. Throws Refusal with everything that is wrong, one
  // thing a line, each with its place: FILE:LINE: …, or FILE:LINE:COLUMN: … for text that is no JSON.
  Configuration(std::string file, std::string text);

  // The changes that store everything, an entity before what stands under it.
  Json puts() const;
  // The changes that remove what is in `entities` (as read from the host) but not here, so that after them
  // and puts() the host has this configuration and nothing else, but for what agents fill at and under the
  // paths in `filled`.
  Json dels(const Json& entities, const std::vector<std::string>& filled) const;

  std::size_t size() const { return entities_.size(); }
  // The host's complaint, which begins with a path, with the place in the file in front.
  std::string located(const std::string& complaint) const;

 private:
  void check(const std::string& path, const Json& entity, std::vector<std::string>& errors) const;
  std::string placeOf(const std::string& key) const;

  const std::string file_;
  const std::string text_;
  std::map<std::string, Json> entities_;  // by path: all attributes, and "type"
};

// The file's text for entities as the host sends them. What agents derive is left out: pins, states of lines,
// and what stands at and under the paths in `filled`.
std::string configurationText(const Json& entities, const std::vector<std::string>& filled);
// The same with all of it.
std::string wholeText(const Json& entities);

}  // namespace Ctl
