#include "ctl/remarks.h"

#include "ctl/text.h"

namespace Ctl {

void noteUndriven(Context& context, const std::vector<Lamp>& lamps) {
  std::vector<std::string> unmapped, unready;
  for (const Lamp& lamp : lamps) {
    if (!lamp.mapped) unmapped.push_back(lamp.name);
    if (lamp.mapped && !lamp.ready) unready.push_back(lamp.name);
  }
  if (!unmapped.empty()) note(context, "no mapping, so no pins: " + firstOf(unmapped));
  if (!unready.empty()) note(context, "mapping not ready, so not driven: " + firstOf(unready));
}

}  // namespace Ctl
