// Replies of a Redis server, and what its refusals mean.
//
//     ReplyReader reader;
//     if (!reader.feed(bytes)) return lost(reader.error());
//     while (std::optional<Reply> reply = reader.next()) answer(*reply);
#pragma once

#include <cstdint>
#include <initializer_list>
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
// for a list in it, and kDeepest lists in each other.
class ReplyReader {
 public:
  static constexpr std::size_t kLongest = 64 << 20;
  static constexpr std::size_t kMostElements = 1 << 16;
  static constexpr std::size_t kDeepest = 7;

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

// Words of a command as the server reads them. hiredis formats them with sprintf, which took an eighth of a
// write's time.
//
//     Words words;
//     words.add("HGET");
//     words.add(key);
//     appendCommand(bytes, words);
class Words {
 public:
  Words() = default;
  Words(std::initializer_list<std::string_view> words) {
    for (const std::string_view word : words) add(word);
  }

  void add(std::string_view word) { addJoined({word}); }
  // One word of several parts.
  void addJoined(std::initializer_list<std::string_view> parts);
  void add(std::uint64_t number);
  void add(const Words& words);

  std::size_t count() const { return count_; }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_{};
  std::size_t count_ = 0;
};

// Appends a command of the words of both.
void appendCommand(std::string& bytes, const Words& words, const Words& more = {});

}  // namespace Host::Redis
