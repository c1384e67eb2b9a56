// Writes trace records and the host's messages to a file, pipe, terminal or socket without ever blocking.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace Host {

// A record that a full pipe does not take is dropped. The number of dropped records is written before the
// next record that is taken. Any thread may write.
class TraceOutput {
 public:
  // Appends to a file, made with mode 0600 if it is missing. A pipe needs no reader yet. Throws StartError if
  // it can't be opened.
  static TraceOutput appendingTo(const std::string& file);
  // Writes to a descriptor that others may share: its flags stay as they are. Not closed.
  static TraceOutput sharing(int descriptor);
  // Of the standard error stream; lives as long as the process.
  static TraceOutput& standardError();
  TraceOutput(TraceOutput&& other) noexcept;
  TraceOutput& operator=(TraceOutput&&) = delete;
  ~TraceOutput();

  // Adds the line end. A record goes out at once, in one piece where the descriptor takes it whole.
  void write(std::string_view record);

 private:
  enum class Kind { blocking, nonBlocking, socket };
  enum class Outcome { written, full, failed };

  TraceOutput(int descriptor, Kind kind, bool isOwn) : descriptor_(descriptor), kind_(kind), isOwn_(isOwn) {}
  Outcome drain();
  long put();
  void reportDropped();

  int descriptor_;
  const Kind kind_;
  const bool isOwn_;
  std::mutex mutex_{};
  std::string pending_{};  // the rest of one line
  std::size_t dropped_ = 0;
};

}  // namespace Host
