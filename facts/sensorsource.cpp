#include "facts/sensorsource.h"

namespace Facts {

SensorSource::SensorSource(Sink<SensorFact>& sink, Poll& poll) : sink_(sink), poll_(poll) {
  poll_.wantedIs(*this, true);
  onPoll();
}

SensorSource::~SensorSource() { poll_.wantedIs(*this, false); }

void SensorSource::onPoll() {
  const double now = Zel::System::currentTime();
  const bool busy = busy_.exchange(true);
  report(busy && now - startedAt_ > kSlow);
  if (busy) return;
  startedAt_ = now;
  worker_.run([this, sender = inbox_.sender()] {
    readOn(sender);
    busy_ = false;
  });
}

void SensorSource::readOn(const Zel::Inbox::Sender& sender) {
  try {
    SensorFacts facts = chips_.read();
    if (posted_ == facts) return;
    posted_ = facts;
    sender.post([this, facts = std::move(facts)] { factsAre(facts); });
  } catch (const SourceError& error) {
    sender.post([this, text = std::string(error.what())] { sink_.failed(text); });
  }
}

void SensorSource::factsAre(const SensorFacts& facts) {
  const bool first = !given_;
  const SensorFacts before = std::exchange(given_, facts).value_or(SensorFacts());
  for (const auto& [name, fact] : before)
    if (!facts.contains(name)) sink_.factDel(factName(name));
  for (const auto& [name, fact] : facts)
    if (const auto old = before.find(name); old == before.end() || old->second != fact)
      sink_.factIs(factName(name), fact);
  if (first) sink_.complete();
  report(false);
}

void SensorSource::report(bool slow) {
  const std::string seconds = std::to_string(static_cast<int>(kSlow)),
                    most = std::to_string(SensorChips::kMaxSensors);
  if (slow) return sink_.errorIs("the sensors did not answer for " + seconds + " s: their values are old");
  const bool full = given_ && given_->size() >= SensorChips::kMaxSensors;
  sink_.errorIs(full ? "there are " + most + " sensors or more; further ones are left out" : "");
}

}  // namespace Facts
