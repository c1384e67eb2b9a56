#include "facts/factsagent.h"

#include <stdexcept>

#include "platform/model/paths.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/entity/dir.h"

namespace Pinlamp {

namespace {

constexpr unsigned kTrouble = 0;  // always logged

const Zel::TraceHandle& traceHandle() {
  static const Zel::TraceHandle handle("PinlampFacts", false);
  return handle;
}

void report(const std::string& text) {
  Zel::traceRecord(traceHandle(), kTrouble, "FactsAgent", __LINE__, "report",
                   [&](std::ostream& out) { out << text; });
}

}  // namespace

FactsAgent::Options FactsAgent::Options::read(const Warden::AgentOptions& options) {
  Options read;
  read.sources = options.words("sources", {"links", "sensors", "units"});
  read.poll = options.number("poll", read.poll, 0.1, 3600);
  return read;
}

const Zel::TypeNode& FactsAgent::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::FactsAgent");
  return type;
}

FactsAgent::FactsAgent(Zel::Name name, Options options) : Described(name), options_(std::move(options)) {}

FactsAgent::~FactsAgent() = default;

void FactsAgent::doInit() {
  if (Zel::TraceFacility& facility = Zel::TraceFacility::named("PinlampFacts"); facility.mask() == 0)
    facility.maskIs(1U << kTrouble);
  const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
  group->doMount({Paths::kFacts, "Zel::Dir", "we"});
  group->doClose(false, "", 0.0);
}

void FactsAgent::doMountsComplete(Statedb::MountStatus status,
                                  const Zel::Ptr<Statedb::EntityManager>& manager) {
  if (status != Statedb::mountSuccess_) throw std::runtime_error("the facts agent's mount failed");
  const auto facts = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(Paths::kFacts));
  poll_.emplace(options_.poll);
  keep(links_, *facts, [this](auto& sink) { return std::make_unique<Facts::LinkSource>(sink, *poll_); });
  keep(sensors_, *facts, [this](auto& sink) { return std::make_unique<Facts::SensorSource>(sink, *poll_); });
  keep(units_, *facts, [](auto& sink) { return std::make_unique<Facts::UnitSource>(sink); });
}

// A source that is not wanted leaves nothing of an earlier run.
template <class Fact, class Source, class Make>
void FactsAgent::keep(std::optional<Facts::Kept<Fact, Source>>& kept, Zel::Dir& facts, Make make) {
  const char* const name = Facts::Published<Fact>::kSource;
  if (options_.sources.contains(name)) {
    kept.emplace(facts, make, &report);
    return;
  }
  Facts::Directory<Fact>(facts, &report, &report).complete();
  Facts::entryOf<Zel::Dir>(facts, "source")->entryDel(name);
}

}  // namespace Pinlamp
