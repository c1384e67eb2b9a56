// Keeps the rows of a failed commit out of SQLite's write-ahead log.
//
// A commit writes its frames into the log and then syncs it. If the sync fails, SQLite reports an error and
// forgets the frames, but they stay in the file until the next commit overwrites them. A process that starts
// before that takes them for committed.
//
//     WriteAheadLog log(connection);
//     if (sqlite3_exec(connection, "COMMIT", …) != SQLITE_OK && !log.dropFailed()) warn();
#pragma once

#include <array>
#include <cstdint>

struct sqlite3;

namespace Host {

class WriteAheadLog {
 public:
  // `connection` is in write-ahead mode and locks its file exclusively; it must outlive the log. Takes over
  // the automatic checkpoints.
  explicit WriteAheadLog(sqlite3* connection);
  WriteAheadLog(const WriteAheadLog&) = delete;
  WriteAheadLog& operator=(const WriteAheadLog&) = delete;

  // Empties the log, so that its length is known. Returns an SQLite result code. Until it has succeeded once,
  // nothing may be written.
  int empty();
  bool isKnown() const { return isKnown_; }
  // Removes the frames of a transaction that was rolled back after its commit failed. Returns false if the
  // file can't be changed: then they may come back.
  bool dropFailed();

 private:
  using Salt = std::array<unsigned char, 8>;
  struct Header {
    std::int64_t frameSize;  // bytes; 0: there is no header
    Salt salt;               // changes when SQLite starts the log again from its beginning
  };

  static int onCommit(void* self, sqlite3* connection, const char* name, int frames);
  Header header() const;

  sqlite3* const connection_;
  bool isKnown_ = false;
  std::int64_t frames_ = 0;  // committed
  Salt salt_{};              // with them
};

}  // namespace Host
