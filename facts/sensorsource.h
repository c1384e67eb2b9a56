// The sensors of the machine, polled on a thread of their own, because a slow bus must not delay anything
// else. The activity thread is woken where a value has changed. Activity thread only.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "facts/sensorchips.h"
#include "facts/timer.h"
#include "facts/worker.h"
#include "platform/zel/notify/inbox.h"

namespace Facts {

class SensorSource final : private Poll::Client {
 public:
  static constexpr double kSlow = 10;  // seconds; the facts are reported as old from then on

  // Reads the sensors soon, and with each poll. A poll is left out while the one before is not done.
  SensorSource(Sink<SensorFact>& sink, Poll& poll);
  ~SensorSource();

 private:
  void onPoll() override;
  void readOn(const Zel::Inbox::Sender& sender);  // on the worker's thread
  void factsAre(const SensorFacts& facts);
  void report(bool slow);

  Sink<SensorFact>& sink_;
  Poll& poll_;
  std::optional<SensorFacts> given_;  // to the sink
  std::atomic<bool> busy_ = false;
  double startedAt_ = 0;
  std::optional<SensorFacts> posted_;  // the worker's, as is the next
  SensorChips chips_;
  Zel::Inbox inbox_;
  Worker worker_;
};

}  // namespace Facts
