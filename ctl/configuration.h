// The configuration file: {PATH: {"type": TYPE, ATTRIBUTE: VALUE, …}, …}, written with one entity per line.
//
//   const Configuration wanted(std::vector<Configuration::Source>{{"leds.json", text}});
//   const Json entities = client.readBase("");
//   client.write(wanted.puts());
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ctl/client.h"
#include "ctl/entityreader.h"

namespace Ctl {

// How loading changes what the host has: paths, sorted.
struct Differences {
  std::vector<std::string> added;
  std::vector<std::string> changed;
  std::vector<std::string> removed;
};

class Configuration {
 public:
  // A file's text, and its name in errors.
  struct Source {
    std::string file;
    std::string text;
  };
  struct Entity {
    std::string type;
    std::string attributes;  // the text of an object
    const Source* source;

    Json json() const { return Json::parse(attributes); }
  };
  using Entry = std::pair<const std::string, Entity>;  // with its path
  // Called with each entity once it is read, in the order of the files, until there is an error. The entry
  // stays where it is as long as the configuration is there.
  using OnEntity = std::function<void(const Entry&)>;

  // Parses files that are loaded together. Throws Refusal with all errors, one per line: FILE:LINE: …, or
  // FILE:LINE:COLUMN: … for a JSON syntax error. An entity that two files have is an error.
  explicit Configuration(std::vector<Source> sources, const OnEntity& onEntity = {});
  Configuration(Configuration&&) = default;
  Configuration(const Configuration&) = delete;  // entities point to sources

  // The change that stores an entity, as text.
  static std::string putOf(const Entry& entry);
  // Those of all entities, each before those under it.
  Json puts() const;
  void addPuts(Client::Batch& batch) const;
  // The changes that remove what `entities` (as read from the host) has and this configuration lacks, at and
  // under the paths of this configuration; anywhere if it is empty. After them and puts() the host has
  // exactly this configuration there, except at and under the paths in `filled`, which agents fill.
  Json dels(const Json& entities, const std::vector<std::string>& filled) const;
  // What `dels` and puts() would do to `entities`.
  Differences differences(const Json& entities, const Json& dels) const;

  std::size_t size() const { return entities_.size(); }
  // Prefixes an error of the host, which begins with a path, with the path's position in its file.
  std::string located(const std::string& error) const;

 private:
  class Reader;

  void read(const Source& source, std::vector<std::string>& errors, const OnEntity& onEntity);
  // Null, with an error, if it is no entity or there twice.
  const Entry* add(std::string path, Entity entity, const std::string& fault,
                   std::vector<std::string>& errors);
  // Whether this configuration decides what is at the path.
  bool covers(std::string path) const;
  const Entity* find(const std::string& path) const;

  std::vector<Source> sources_;
  std::map<std::string, Entity> entities_;  // by path
};

// Makes a file's text of the entities in the answers to `read`.
class ConfigurationWriter : public EntityReader {
 public:
  // Leaves out what agents fill: pins, line status, and everything at and under the paths in `filled`.
  explicit ConfigurationWriter(std::vector<std::string> filled) : filled_(std::move(filled)), all_(false) {}
  // Of all entities.
  ConfigurationWriter() = default;

  // Whether there was any entity, left out or not.
  bool hasSeen() const { return hasSeen_; }
  std::string text();

 private:
  void entity(std::string path, const std::string& type, const std::string& members) override;

  const std::vector<std::string> filled_{};
  const bool all_ = true;
  bool hasSeen_ = false;
  std::vector<std::pair<std::string, std::string>> lines_;  // by path
};

}  // namespace Ctl
