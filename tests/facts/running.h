// A host's loop, and a sink that records facts.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "facts/sink.h"
#include "facts/timer.h"
#include "host/io/services.h"
#include "platform/zel/notify/activity.h"

template <class Fact>
struct Recorder final : Facts::Sink<Fact> {
  void factIs(Zel::Name name, const Fact& fact) override { facts[name.stdString()] = fact; }
  void factDel(Zel::Name name) override { removals += facts.erase(name.stdString()); }
  void complete() override { ++completions; }
  void errorIs(const std::string& text) override { error = text; }
  void failed(const std::string& text) override { failure = text; }

  std::map<std::string, Fact> facts;
  std::size_t removals = 0;
  int completions = 0;
  std::string error, failure;
};

class Running {
 public:
  Running() {
    loop.turnIs([this] { return activity.step(); });
    uv_timer_init(loop.uv(), guard.get());
    uv_timer_start(
        guard.get(), [](uv_timer_t*) {}, 1000, 1000);
  }
  // Runs the loop until the condition holds. Returns false if it does not within a minute.
  bool until(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (loop.runOnce(); !condition(); loop.runOnce()) {
      if (std::chrono::steady_clock::now() > end) return false;
      uv_run(loop.uv(), UV_RUN_ONCE);
    }
    return true;
  }

  Host::Loop loop;
  Host::UvHandle<uv_timer_t> guard{new uv_timer_t};  // so that a wait can end without an event
  Zel::ActivityManager activity;
  Host::Services services{loop, activity.external()};
  Facts::Poll poll{0.02};
};
