// A source with its directory: makes the source, and makes another after it has failed.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "facts/directory.h"
#include "facts/timer.h"

namespace Facts {

// Activity thread only.
template <class Fact, class Source>
class Kept {
 public:
  using Make = std::function<std::unique_ptr<Source>(Sink<Fact>&)>;

  static constexpr double kRetry = 30;  // seconds

  // `make` may throw SourceError, which counts as a failure. `report` is called with each error once.
  Kept(Zel::Dir& facts, Make make, std::function<void(const std::string&)> report)
      : make_(std::move(make)),
        directory_(facts, std::move(report), [this](const std::string&) { timer_->timeMinIs(0); }),
        timer_(Zel::allocate<Timer>([this] { turn(); })) {
    start();
  }
  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;

 private:
  // A source can't be ended by its own call of failed(): that is done in the next pass.
  void turn() {
    if (!source_) return start();
    source_ = nullptr;
    timer_->timeMinIs(Zel::System::currentTime() + kRetry);
  }
  void start() {
    try {
      source_ = make_(directory_);
    } catch (const SourceError& error) {
      directory_.failed(error.what());
      timer_->timeMinIs(Zel::System::currentTime() + kRetry);
    }
  }

  const Make make_;
  Directory<Fact> directory_;
  const Zel::Ptr<Timer> timer_;
  std::unique_ptr<Source> source_;
};

}  // namespace Facts
