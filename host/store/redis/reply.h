// Replies of a Redis server, and what its refusals mean.
//
//     ReplyReader reader;
//     if (!reader.feed(bytes)) return lost(reader.error());
//     while (std::optional<Reply> reply = reader.next()) answer(*reply);
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct redisReader;

namespace Host::Redis {

// Why a server did not carry out a command. It changed nothing then.
enum class Refusal : std::uint8_t {
  none,
  loading,      // it reads its file; wait
  noAuth,       // it wants a password
  wrongPass,    // the user or the password is wrong
  noPerm,       // the user may not do this
  outOfMemory,  // maxmemory is reached
  readOnly,     // it is a replica
  misconf,      // it can't write its file: the disk is full or broken
  noReplicas,   // too few replicas keep up (min-replicas-to-write)
  masterDown,   // it is a replica without a master
  noScript,     // the script must be loaded again
  busy,         // another script runs too long
  generation,   // the space was wiped, or made, since
  fenced,       // the write is one that was given up
  claimed,      // the claim belongs to another
  otherType,    // an entity of another type is in the way; the text after the word is its path
  notStored,    // a volatile row would take the place of stored ones
  other,
};
const char* refusalText(Refusal refusal);

struct Reply {
  enum class Kind : std::uint8_t { null, integer, text, list, error };
  Kind kind = Kind::null;
  std::int64_t number = 0;
  std::string text{};  // of an error, with the word that it begins with
  std::vector<Reply> list{};

  Refusal refusal() const;
  // An element of a list; a null reply where there is none.
  const Reply& operator[](std::size_t index) const;
  // Of an integer, or of a text that is one; 0 where it is neither.
  std::uint64_t unsignedNumber() const;
};

// Splits the bytes that arrive into replies, with hiredis. Limits: kLongest bytes for a reply, kMostElements
// for a list in it, and the depth that hiredis allows (7).
class ReplyReader {
 public:
  static constexpr std::size_t kLongest = 64 << 20;
  static constexpr std::size_t kMostElements = 1 << 16;

  ReplyReader();
  ~ReplyReader();
  ReplyReader(ReplyReader&&) noexcept;

  // Returns false where the bytes are not the protocol, or beyond the limits; see error() then.
  bool feed(std::string_view bytes);
  // Returns nothing where no reply is complete, or after the last good one before an error; see error().
  std::optional<Reply> next();
  const std::string& error() const { return error_; }

 private:
  struct Free {
    void operator()(redisReader* reader) const;
  };

  std::unique_ptr<redisReader, Free> reader_;
  std::size_t fed_ = 0;  // since the last complete reply
  std::string error_;
};

// Appends a command as the server reads it.
void appendCommand(std::string& bytes, const std::vector<std::string_view>& words);

}  // namespace Host::Redis
