#include "platform/zel/notify/slot.h"

#include "platform/zel/core/assert.h"

namespace Zel {

void detail::slotNotNamed(const PtrInterface& owner, const char* reactor) {
  const std::string text =
      owner.fwkType().name().stdString() + "::reactors() leaves out a slot of " + reactor;
  assertionFailed("the owner names the slot", __FILE__, __LINE__, __PRETTY_FUNCTION__, text.c_str());
}

}  // namespace Zel
