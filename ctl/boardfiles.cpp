#include "ctl/boardfiles.h"

#include <algorithm>
#include <filesystem>

#include "ctl/appliance.h"
#include "ctl/sources.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

constexpr std::size_t kLongestPath = 255;  // of an entity: it is a name in the memory of board files

}  // namespace

std::string boardFaultOf(const std::string& path) {
  if (isUnder(path, Paths::kPins) || isUnder(path, Paths::kLineStatus))
    return "agents fill this; leave it out";
  if (isUnder(path, "board")) return "keeps what board files brought; leave it out";
  if (path.size() > kLongestPath)
    return "the path has " + std::to_string(path.size()) + " bytes; in a board file it has at most " +
           std::to_string(kLongestPath);
  return {};
}

namespace {

void takeEntities(BoardFile& file) {
  for (const Json& put : file.configuration->puts()) {
    const std::string path = put.at("path");
    if (const std::string fault = boardFaultOf(path); !fault.empty())
      file.errors.push_back(file.configuration->located(path + ": " + fault));
    file.entities[path] = {put.at("type"), put.at("attributes")};
  }
}

BoardFile boardFileFrom(const std::string& path) {
  BoardFile file{std::filesystem::path(path).filename()};
  try {
    file.configuration.emplace(sourcesFrom({path}));
    takeEntities(file);
  } catch (const Refusal& refusal) {
    file.errors = linesOf(refusal.what());
  }
  return file;
}

}  // namespace

std::vector<std::string> boardPathsIn(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code error;
  for (std::filesystem::directory_iterator each(folder, error), end; !error && each != end;
       each.increment(error))
    if (const std::string name = each->path().filename(); name.ends_with(".json") && name[0] != '.')
      paths.push_back(each->path());
  if (error)
    throw Refusal("can't read the folder '" + folder + "': " + error.message() +
                  "; nothing is changed; an empty folder would remove what board files brought");
  if (paths.size() > kMostBoardFiles)
    throw Refusal(folder + ": has " + std::to_string(paths.size()) + " board files, and there can be " +
                  std::to_string(kMostBoardFiles) + "; join some of them");
  std::ranges::sort(paths);
  return paths;
}

std::vector<BoardFile> boardFilesIn(const std::string& folder) {
  std::vector<BoardFile> files;
  for (const std::string& path : boardPathsIn(folder)) files.push_back(boardFileFrom(path));
  return files;
}

namespace {

// The file that each path belongs to.
using Owners = std::map<std::string, std::string>;

BoardVersions versions(const std::vector<BoardFile>& files, const BoardVersions& brought) {
  BoardVersions wanted;
  for (const BoardFile& file : files)
    if (const auto last = brought.find(file.name); !file.isRefused())
      wanted[file.name] = file.entities;
    else if (last != brought.end())
      wanted[file.name] = last->second;
  return wanted;
}

Owners ownersOf(const BoardVersions& wanted, const BoardVersions& brought) {
  Owners owners;
  for (const auto& [file, entities] : brought)
    if (const auto now = wanted.find(file); now != wanted.end())
      for (const auto& [path, entity] : entities)
        if (now->second.contains(path)) owners[path] = file;
  for (const auto& [file, entities] : wanted)
    for (const auto& [path, entity] : entities) owners.try_emplace(path, file);
  return owners;
}

// Whether it found an entity of the file that another one keeps.
bool findClashes(BoardFile& file, const Owners& owners) {
  if (file.isRefused()) return false;
  for (const auto& [path, entity] : file.entities)
    if (const std::string& owner = owners.at(path); owner != file.name)
      file.clashes.push_back(
          file.configuration->located(path + ": the entity is in " + owner + ", too, which keeps it"));
  return file.isRefused();
}

}  // namespace

// A file that is refused wants what it brought before, which may be what another took over: so again until no
// more are refused.
BoardVersions versionsOf(std::vector<BoardFile>& files, const BoardVersions& brought) {
  for (BoardFile& file : files) file.clashes.clear();
  for (bool found = true; found;) {
    const Owners owners = ownersOf(versions(files, brought), brought);
    found = false;
    for (BoardFile& file : files) found = findClashes(file, owners) || found;
  }
  return versions(files, brought);
}

bool takeError(std::vector<BoardFile>& files, const std::string& error) {
  BoardFile* nearest = nullptr;
  std::size_t longest = 0;
  for (BoardFile& file : files)
    for (const auto& [path, entity] : file.entities)
      if (!file.isRefused() && error.starts_with(path) && path.size() > longest) {
        nearest = &file;
        longest = path.size();
      }
  if (nearest) nearest->errors.push_back(nearest->configuration->located(error));
  return nearest != nullptr;
}

}  // namespace Ctl
