#include "tests/ctl/testhost.h"

#include <future>
#include <sstream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "host/rpc/changes.h"
#include "host/rpc/json.h"

namespace Ctl {

Outcome run(std::vector<std::string> arguments) {
  std::ostringstream out, err;
  const int status = runCommandLine(std::move(arguments), out, err);
  return {status, out.str(), err.str()};
}

Outcome TestHost::ctl(std::vector<std::string> arguments, const std::function<void()>& meanwhile) {
  arguments.insert(arguments.begin() + (arguments.front() == "complete"), {"--socket", socket});
  auto outcome = std::async(std::launch::async, [&] { return run(std::move(arguments)); });
  while (outcome.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    if (meanwhile) meanwhile();
    loop.runOnce();
  }
  return outcome.get();
}

void TestHost::put(const std::string& path, const char* type, const Json& attributes) {
  const Json changes{{{"op", "put"}, {"path", path}, {"type", type}, {"attributes", attributes}}};
  host.store.write(Host::changesFrom(Host::parseJson(changes.dump())), Statedb::Durability::stored);
  host.store.flush();
}

void TestHost::pinIs(const std::string& pin, unsigned value) {
  put(std::string(Paths::kPins) + '/' + pin, kPinType, {{"value", value}});
}

Json TestHost::attributes(const std::string& path) const {
  const Json entities = Json::parse(Host::entitiesText(host.store.read(path)));
  return entities.empty() ? Json() : entities[0].at("attributes");
}

}  // namespace Ctl
