#include "host/store/writeaheadlog.h"

#include <sqlite3.h>

#include <algorithm>

namespace Host {

namespace {

// The layout of the file: https://sqlite.org/fileformat.html#the_write_ahead_log
constexpr std::int64_t kHeader = 32;       // bytes
constexpr std::int64_t kFrameHeader = 24;  // bytes, before each page

sqlite3_file* fileOf(sqlite3* connection) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(connection, "main", SQLITE_FCNTL_JOURNAL_POINTER, &file);
  return file && file->pMethods ? file : nullptr;
}

}  // namespace

WriteAheadLog::WriteAheadLog(sqlite3* connection) : connection_(connection) {
  sqlite3_wal_hook(connection_, &onCommit, this);
}

int WriteAheadLog::empty() {
  const int result =
      sqlite3_wal_checkpoint_v2(connection_, "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  isKnown_ = isKnown_ || result == SQLITE_OK;
  return result;
}

int WriteAheadLog::onCommit(void* self, sqlite3* connection, const char* name, int frames) {
  constexpr int kCheckpointAt = 1000;  // SQLite's own default, which this hook replaces
  auto& log = *static_cast<WriteAheadLog*>(self);
  log.frames_ = frames;
  log.salt_ = log.header().salt;
  if (frames >= kCheckpointAt)
    sqlite3_wal_checkpoint_v2(connection, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  return SQLITE_OK;
}

WriteAheadLog::Header WriteAheadLog::header() const {
  std::array<unsigned char, kHeader> bytes{};
  sqlite3_file* const file = fileOf(connection_);
  if (!file || file->pMethods->xRead(file, bytes.data(), kHeader, 0) != SQLITE_OK) return {};
  Header header{kFrameHeader + (bytes[8] << 24 | bytes[9] << 16 | bytes[10] << 8 | bytes[11]), {}};
  std::copy_n(&bytes[16], header.salt.size(), header.salt.begin());
  return header;
}

bool WriteAheadLog::dropFailed() {
  if (!isKnown_) return false;  // frames of a host that was killed: acknowledged writes
  const Header now = header();
  if (now.frameSize == 0) return true;
  sqlite3_file* const file = fileOf(connection_);
  const std::int64_t end = kHeader + (now.salt == salt_ ? frames_ : 0) * now.frameSize;
  sqlite3_int64 size = 0;
  if (file->pMethods->xFileSize(file, &size) == SQLITE_OK && size <= end) return true;
  if (file->pMethods->xTruncate(file, end) == SQLITE_OK) return true;
  constexpr std::array<char, kFrameHeader> kNoFrame{};
  return file->pMethods->xWrite(file, kNoFrame.data(), kFrameHeader, end) == SQLITE_OK;
}

}  // namespace Host
