#include "platform/zel/core/ptr.h"

namespace Zel {

constinit bool detail::threadSafePointers = false;

PtrInterface::~PtrInterface() = default;

void PtrInterface::hasNotificationActiveIs(bool active) { flagIs(kNotificationActive, active); }

void PtrInterface::zelDoZombieReactors(bool zombie) { flagIs(kZombie, zombie); }

void PtrInterface::onZeroReferences() {
  newRef();  // so that a pointer to this object made and dropped while it is taken apart does not end it
             // twice
  delete this;
}

}  // namespace Zel
