// Board files: configuration files that an appliance's maker ships in a folder. docs/shipping.md.
//
//   std::vector<BoardFile> files = boardFilesIn("/etc/pinlamp/board.d");
//   const BoardVersions wanted = versionsOf(files, brought);   // of those that are right
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/boardmerge.h"
#include "ctl/configuration.h"

namespace Ctl {

inline constexpr char kBoardFolder[] = "/etc/pinlamp/board.d";

struct BoardFile {
  std::string name;                              // without the folder
  std::optional<Configuration> configuration{};  // absent if it can't be read
  BoardEntities entities{};
  std::vector<std::string> errors{};   // its own: "FILE:LINE: PATH: reason"
  std::vector<std::string> clashes{};  // with other files, as versionsOf() found them

  bool isRefused() const { return !errors.empty() || !clashes.empty(); }
};

// At most this many files in a folder.
inline constexpr std::size_t kMostBoardFiles = 256;

// Why a board file can't have an entity at the path; empty if it can.
std::string boardFaultOf(const std::string& path);
// The paths of a folder's board files, sorted: those named *.json, but for hidden ones. Throws Refusal if the
// folder can't be read or has too many.
std::vector<std::string> boardPathsIn(const std::string& folder);
// Reads them. A file that is wrong has errors; the others are as if it were not there.
std::vector<BoardFile> boardFilesIn(const std::string& folder);

// The version of each file that is wanted: its entities, or if it is refused, what it brought last. Of files
// that have an entity in common one keeps it: the one that brought it, or the first by name; the others are
// refused.
BoardVersions versionsOf(std::vector<BoardFile>& files, const BoardVersions& brought);

// Adds a host's error, which begins with a path, to the file that has the path. Returns false if none has it.
bool takeError(std::vector<BoardFile>& files, const std::string& error);

}  // namespace Ctl
