// Merges what board files say into a state database, three ways: what each file said when it was last
// applied, what it says now, and what the database has.
//
//   const BoardMerge merge(broughtFrom(entities), wanted, stateFrom(entities));
//   client.write(merge.changes());
//
// A row that has the value that its file brought, or that its file did not bring and that is not there, is
// the file's: it follows the file. Any other was set or removed by people, and stays as it is.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// The memory of board files in the state database: a directory for each file.
inline constexpr char kBoardMemory[] = "board/file";

struct BoardEntity {
  std::string type;
  Json attributes = Json::object();
  bool operator==(const BoardEntity&) const = default;
};
using BoardEntities = std::map<std::string, BoardEntity>;    // by path
using BoardVersions = std::map<std::string, BoardEntities>;  // by the file's name

// The entities of a state database, without the memory of board files.
BoardEntities stateFrom(const Json& entities);
// That memory: what each file brought. Throws Refusal if it is not as it was written.
BoardVersions broughtFrom(const Json& entities);

// A row that a board file brought. The attribute is empty for an entity that has none.
struct BoardRow {
  enum class State { brought, changed, removed };
  std::string path;
  std::string attribute;
  State state;  // since the file brought it
  Json brought;
  Json now;  // null if it was removed
};
std::vector<BoardRow> rowsOf(const BoardEntities& brought, const BoardEntities& state);

class BoardMerge {
 public:
  // The outcome for the rows of a file: "PATH", or "PATH ATTRIBUTE" for a row of an entity that stays.
  struct Outcome {
    std::vector<std::string> added, changed, removed;
    std::vector<std::string> kept;  // set or removed by people; the file has something else
  };

  // `state` must outlive this.
  BoardMerge(const BoardVersions& brought, const BoardVersions& wanted, const BoardEntities& state);

  // One batch, with the new memory. Empty if there is nothing to do.
  Json changes() const;
  // By the file's name: of each that is wanted or had brought something.
  const std::map<std::string, Outcome>& outcomes() const { return outcomes_; }

 private:
  struct Place {
    const BoardEntity* brought = nullptr;
    const BoardEntity* wanted = nullptr;
    Outcome* outcome = nullptr;  // of the file that wants it, or brought it
  };

  void merge(const std::string& path, const Place& at);
  std::optional<BoardEntity> merged(const std::string& path, const Place& at, const BoardEntity& now) const;
  void removeEmpty(const std::string& path);
  bool hasUnder(const std::string& path) const;
  void note(const std::string& path, const BoardEntity* now, const std::optional<BoardEntity>& after);
  void remember(const BoardVersions& brought, const BoardVersions& wanted);

  const BoardEntities& state_;
  std::map<std::string, Place> places_;                      // by path
  std::map<std::string, std::optional<BoardEntity>> after_;  // of these paths
  std::map<std::string, Outcome> outcomes_;
  Json memory_ = Json::array();  // its changes
};

}  // namespace Ctl
