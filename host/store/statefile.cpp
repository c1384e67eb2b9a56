#include "host/store/statefile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "platform/statedb/store/store.h"

namespace Host {

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kApplicationId = 0x50694C61;  // "PiLa"
constexpr std::uint32_t kVersion = 1;

[[noreturn]] void refuseErrno(const std::string& file, const std::string& what) {
  refuseStateFile(file, what + ": " + std::generic_category().message(errno));
}

// The absolute path, which SQLite can't take for a URI or a special name.
std::string resolved(const std::string& file) {
  constexpr int kLinks = 40;
  std::error_code ignored;
  fs::path path = fs::absolute(file);
  for (int i = 0; i < kLinks && fs::is_symlink(path, ignored); ++i)
    path = path.parent_path() / fs::read_symlink(path, ignored);
  return path.string();
}

void checkPlace(const std::string& file, const fs::path& path) {
  std::error_code ignored;
  if (!fs::is_directory(path.parent_path(), ignored))
    refuseStateFile(file, "the folder '" + path.parent_path().string() + "' is not there; make it first");
  if (fs::is_directory(path, ignored)) refuseStateFile(file, "is a folder; give a file");
  if (fs::exists(path, ignored) && !fs::is_regular_file(path, ignored))
    refuseStateFile(file, "is not a regular file");
}

// From the header of an SQLite file, read before SQLite opens it.
struct Header {
  std::uint32_t applicationId;
  std::uint32_t version;
  bool hasTables;
};

std::uint32_t bigEndian(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
         bytes[3];
}

std::uintmax_t sizeOf(const std::string& path) {
  std::error_code error;
  const auto size = fs::file_size(path, error);
  return error ? 0 : size;
}

// Nullopt if the file is empty.
std::optional<Header> readHeader(const std::string& file, int descriptor) {
  std::array<unsigned char, 108> bytes{};  // the file header, then the schema page's
  const ssize_t size = ::pread(descriptor, bytes.data(), bytes.size(), 0);
  if (size < 0) refuseErrno(file, "can't be read");
  if (size == 0) return std::nullopt;
  static constexpr std::string_view kMagic("SQLite format 3\0", 16);
  const std::string_view start(reinterpret_cast<const char*>(bytes.data()), kMagic.size());
  if (static_cast<std::size_t>(size) < bytes.size() || start != kMagic)
    refuseStateFile(file, "is not a database; give the file of a pinlampd, or one that is not there yet");
  constexpr unsigned char kLeaf = 13;
  const bool hasTables = bytes[100] != kLeaf || bytes[103] != 0 || bytes[104] != 0;
  return Header{bigEndian(&bytes[68]), bigEndian(&bytes[60]), hasTables};
}

// Whether the file is an SQLite database without any content.
bool isBlank(const std::string& path, const Header& header) {
  return header.applicationId == 0 && header.version == 0 && !header.hasTables &&
         sizeOf(path + "-wal") == 0 && sizeOf(path + "-journal") == 0;
}

void checkHeader(const std::string& file, const Header& header) {
  if (header.applicationId != kApplicationId)
    refuseStateFile(
        file,
        "is the database of another application; give the file of a pinlampd, or one that is not there yet");
  if (header.version > kVersion)
    refuseStateFile(file, "has format version " + std::to_string(header.version) + ", newer than " +
                              std::to_string(kVersion) +
                              ", the newest that this pinlampd reads; run a newer pinlampd");
}

// Nullopt if the file does not exist and `missing` is `fail`.
std::optional<FileLock> lockOf(const std::string& file, const std::string& path, FileLock::Missing missing) {
  try {
    if (auto lock = FileLock::tryTake(path, missing)) return lock;
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) return std::nullopt;
    refuseStateFile(file, "can't be opened: " + error.code().message());
  }
  refuseStateFile(
      file, "is in use by another process" + FileLock::holderText(path) + "; one pinlampd owns it at a time");
}

// Removes the journals of an earlier database: SQLite would apply them to the new one.
void clearBeside(const std::string& file, const std::string& path) {
  if (sizeOf(path + "-wal") != 0)
    refuseStateFile(file, "has no content, but '" + path +
                              "-wal' holds changes that belong to it; put the file back, or remove that one");
  for (const char* suffix : {"-wal", "-shm", "-journal"}) ::unlink((path + suffix).c_str());
}

void makeDatabase(const std::string& file, const std::string& path) {
  sqlite3* raw = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> connection(raw, &sqlite3_close_v2);
  const std::string sql = "PRAGMA journal_mode = MEMORY; PRAGMA synchronous = FULL; " + stateFileSchema();
  if (result != SQLITE_OK || sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    refuseStateFile(file, std::string("can't be made: ") + sqlite3_errmsg(raw));
}

void syncFolder(const std::string& file, const std::string& path) {
  const std::string folder = fs::path(path).parent_path().string();
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0 || ::fsync(descriptor) != 0) refuseErrno(file, "its folder can't be synced");
  ::close(descriptor);
}

// Gives the new file the owner, group and mode of the empty file that it replaces, as far as permitted.
void takeAccess(int from, int to) {
  struct stat status {};
  if (::fstat(from, &status) != 0) return;
  static_cast<void>(::fchown(to, status.st_uid, status.st_gid) == 0);
  static_cast<void>(::fchmod(to, status.st_mode & 07777) == 0);
}

void build(const std::string& file, const std::string& path, const std::string& made, const FileLock& lock,
           const FileLock* before) {
  clearBeside(file, path);
  if (::ftruncate(lock.descriptor(), 0) != 0) refuseErrno(file, "can't be made");
  if (before) takeAccess(before->descriptor(), lock.descriptor());
  makeDatabase(file, made);
  if (::fsync(lock.descriptor()) != 0) refuseErrno(file, "can't be synced");
  if (::rename(made.c_str(), path.c_str()) != 0) refuseErrno(file, "can't be made");
  syncFolder(file, path);
}

// Creates the file, replacing the empty one that the caller has locked as `before`, if any. Nullopt if
// another process created it meanwhile.
std::optional<FileLock> make(const std::string& file, const std::string& path, const FileLock* before) {
  const std::string made = path + ".new";
  auto lock = lockOf(file, made, FileLock::Missing::make);
  try {
    if (before || !fs::exists(path)) {
      build(file, path, made, *lock, before);
      return lock;
    }
  } catch (...) {
    ::unlink(made.c_str());
    throw;
  }
  ::unlink(made.c_str());
  return std::nullopt;
}

FileLock own(const std::string& file, const std::string& path) {
  checkPlace(file, path);
  for (;;) {
    auto lock = lockOf(file, path, FileLock::Missing::fail);
    const auto header = lock ? readHeader(file, lock->descriptor()) : std::nullopt;
    if (header && !isBlank(path, *header)) {
      checkHeader(file, *header);
      return std::move(*lock);
    }
    if (auto made = make(file, path, lock ? &*lock : nullptr)) return std::move(*made);
  }
}

}  // namespace

void refuseStateFile(const std::string& file, const std::string& why) {
  throw Statedb::StoreError("store file '" + file + "': " + why);
}

std::string stateFileSchema() {
  return "BEGIN IMMEDIATE; PRAGMA application_id = " + std::to_string(kApplicationId) +
         "; PRAGMA user_version = " + std::to_string(kVersion) +
         "; CREATE TABLE rows(path TEXT NOT NULL, attribute TEXT NOT NULL, type TEXT NOT NULL, value TEXT "
         "NOT "
         "NULL, PRIMARY KEY(path, attribute)) WITHOUT ROWID; COMMIT";
}

StateFile::StateFile(const std::string& file) : path_(resolved(file)), lock_(own(file, path_)) {}

}  // namespace Host
