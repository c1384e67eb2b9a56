// The scripts that the server runs, each as one atomic step, and the calls of them.
//
//     const WriteOptions options{.generation = g, .uuid = uuid, .sequence = 7};
//     caller.call(writeCall("pinlamp", Durability::stored, changes, options, known), [](const Reply& reply) {
//       if (reply.refusal() == Refusal::none) take(written(reply));
//     });
//     connection.flush();
//
// A script does not roll back, so each checks everything, the ACL included, before its first change. Nothing
// of the volatile space and of covers is put into the server's append-only file.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/redis/connection.h"
#include "host/store/redis/follower.h"
#include "host/store/redis/layout.h"
#include "host/store/redis/reply.h"
#include "host/store/redis/rows.h"

namespace Host::Redis {

struct Script {
  const char* preamble;  // shared by several
  const char* text;
  bool readOnly;  // runs with EVALSHA_RO: on behalf of users that may only read
};

// A call of a script.
struct Call {
  const Script* script = nullptr;
  Words words{};             // those behind the script's hash: the count of keys, keys and arguments
  bool isRepeatable = true;  // may be carried out after later calls of the same script
  // Of a write whose values are the same when they are read from its entry in the log: its delta; else empty.
  std::string delta{};
};

// Calls scripts over a connection. Loads each at its first call, and again where the server forgot it. Calls
// are always carried out in the order of call().
//
//     Caller caller(connection);
//     caller.call(stateCall({&keys}), [](const Reply& reply) { … });
//     connection.flush();
class Caller {
 public:
  // `connection` must outlive it, and must not call back any more once this is gone.
  explicit Caller(Connection& connection) : connection_(connection) {}

  // `then` gets the reply, errors included; it may not destroy the caller. Does nothing while not connected.
  // A call that is not repeatable gets NOSCRIPT where the server forgot its script: it may be called again.
  void call(Call call, Connection::OnReply then);
  // Loads the script of a call, so that the call itself goes out at once.
  void prepare(const Call& call);
  // The connection was lost: drops the calls that wait, and loads the scripts again.
  void lost();

 private:
  struct Waiting {
    Call call;
    Connection::OnReply then;
  };

  void send(Waiting call);
  void load(const Script& script);
  void onLoaded(const Script& script, const Reply& reply);

  Connection& connection_;
  std::map<const Script*, std::string> hashes_{};
  std::size_t loading_ = 0;
  // While scripts are loaded: calls to be sent again, then those that were not sent yet.
  std::deque<Waiting> refused_{}, waiting_{};
};

// A write of many rows holds up the server for every client, so a longer batch is cut into atomic parts.
inline constexpr std::size_t kRowsPerWrite = 1000;
inline constexpr std::size_t kBytesPerWrite = 1 << 20;
// A batch that must be one step may be longer: the server is held up for some 10 us a row.
inline constexpr std::size_t kMostRows = 16'384;
// At most kRowsPerWrite rows and as many bytes each; a single row may be longer.
std::vector<Statedb::Changes> partsOf(Statedb::Changes changes);

// Identifies a claim: the epoch and the owner's uuid. Empty: there never was a claim.
using Token = std::string;

struct Claimed {
  std::string mount;
  Token token;
};
struct WriteOptions {
  // The one of the writer's mirror; empty if nothing was ever written into the space.
  std::string generation{};
  std::string newGeneration{};  // a random text, for a space without one
  std::string uuid{};
  Sequence sequence = 0;
  std::uint32_t log = 10'000;  // entries that are kept
  // Of the mounts that the batch writes under. Those of a stored batch are checked in the volatile space.
  std::vector<Claimed> claims{};
  std::vector<Statedb::Path> inTheWay{};  // where an earlier try met an entity of another type
};

// Carries out a batch. Answers {revision, generation, why it could not be announced or ""}. A refusal changes
// nothing:
//
//     GENERATION current      the space was wiped, or made, meanwhile
//     FENCED                  the write was given up, see Follower
//     CLAIMED mount token     another process holds that claim
//     TYPE path               an entity of another type, unknown to the writer: retry with it `inTheWay`
//     STORED path             a volatile row would take the place of stored ones
//
// A put of another type replaces the entity: a step of its own removes it, in the log too. A del or an unset
// of stored rows also removes the volatile ones, with an entry in the log of that space. Covers concern no
// other space, and no other space concerns them. `known` has the rows
// of the writer's mirror; those that are correct save the server work. `revision` is the one of the log of
// the written space up to which its rows are known: where only values changed since, no entity is checked.
// REQUIRES: at most kMostRows changes.
struct Known {
  const Rows& stored;
  const Rows& volatile_;
  const Rows& covers;
  Revision revision = 0;

  const Rows& of(Statedb::Durability space) const {
    return space == Statedb::Durability::stored      ? stored
           : space == Statedb::Durability::volatile_ ? volatile_
                                                     : covers;
  }
};
Call writeCall(std::string_view prefix, Statedb::Durability space, const Statedb::Changes& changes,
               const WriteOptions& options, const Known& known);
struct Written {
  Revision revision = 0;
  std::string generation;
  std::string unannounced;  // why nobody was notified: readers find the entry a second later
};
Written written(const Reply& reply);

// A reader asks for the state of every space first, and then once a second: in one call, most of which is
// what they have in common.
Call stateCall(const std::vector<const Keys*>& spaces);
// The same of one space. The server refuses writes of `uuid` up to that sequence from then on; only this
// needs the right to write.
Call fenceCall(const Keys& keys, std::string_view uuid, Sequence fence);
struct ServerState {
  State state;
  std::string runId;
  std::string role;    // "master"
  std::string policy;  // maxmemory_policy
};
// `space`: its place in the call.
ServerState serverState(const Reply& reply, std::size_t space = 0);

// The entries after a revision, at most `count`, and fewer where they are long, with generation and tip of
// the same moment. The page points into the reply. Throws Zel::ValueError where an id in the reply is not
// 0-REVISION.
Call logCall(const Keys& keys, Revision after, std::size_t count);
// Bytes of a page's deltas; a single entry may be longer.
inline constexpr std::size_t kBytesPerPage = 64 << 10;
LogPage logPage(const Reply& reply);

// A claim of a mount, in the volatile space or in that of covers. Only its owner writes there: every write
// carries the token.
struct Claim {
  std::string generation{};  // of the space
  Token token{};             // empty: there never was one
  std::uint64_t beat = 0;    // grows as long as the owner lives; 0: nobody published anything since a sweep
  std::string who{};         // for people
  std::string synced{};  // the timeline for which the owner has published everything, and by which revision
  bool isFree() const { return token.empty() || token.ends_with(' '); }
};
// All that there are, or kMostClaims of them. One whose mount is beyond the limits of paths is left out.
inline constexpr std::size_t kMostClaims = 1000;
struct ClaimList {
  std::string generation{};
  std::map<std::string, Claim, std::less<>> claims{};  // by mount
};
Call claimsCall(const Keys& keys);
ClaimList claimsOf(const Reply& reply);

// Each of these answers the claim as it is afterwards, and changes nothing where it is no longer the one that
// was seen: token and heartbeat of `seen`, or the token.
//
// Takes the claim; see isOwnedBy(). `newGeneration` is for a space without one.
Call takeCall(const Keys& keys, std::string_view mount, const Claim& seen, std::string_view uuid,
              std::string_view who, std::string_view newGeneration);
Call beatCall(const Keys& keys, std::string_view mount, const Token& token, std::string_view synced);
Call releaseCall(const Keys& keys, std::string_view mount, const Token& token);
// Removes all rows of the space at and under the mount, with an entry in the log where there were any, and
// makes the claim free, without a heartbeat. The entry's origin is "UUID:0", and no write's.
Call sweepCall(const Keys& keys, std::string_view mount, const Claim& seen, std::string_view uuid,
               std::uint32_t log);
Claim claim(const Reply& reply);
bool isOwnedBy(const Claim& claim, std::string_view uuid);

}  // namespace Host::Redis
