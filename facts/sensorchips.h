// The sensors of the kernel's hwmon chips, by libsensors.
//
// libsensors keeps its state in the process: there may be one SensorChips at a time, on one thread at a time.
// Reading may block for as long as a bus of sensors is slow.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "facts/sink.h"

namespace Facts {

// By "CHIP.SENSOR".
using SensorFacts = std::map<std::string, SensorFact>;

class SensorChips {
 public:
  static constexpr std::size_t kMaxSensors = 1024;  // further ones are left out

  SensorChips() = default;
  ~SensorChips();
  SensorChips(const SensorChips&) = delete;
  SensorChips& operator=(const SensorChips&) = delete;

  // Reads all sensors; looks for chips first where one came or went. Throws SourceError where libsensors
  // does not work.
  SensorFacts read();

 private:
  using Folder = std::vector<std::pair<std::string, unsigned long>>;  // names and inodes

  static Folder chipsNow();
  void open();
  void close();

  Folder chips_;
  bool open_ = false;
};

}  // namespace Facts
