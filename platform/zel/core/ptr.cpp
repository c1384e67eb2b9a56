#include "platform/zel/core/ptr.h"

namespace Zel {

constinit bool detail::threadSafePointers = false;

PtrInterface::~PtrInterface() = default;

void PtrInterface::hasNotificationActiveIs(bool active) { flagIs(kNotificationActive, active); }

void PtrInterface::zelDoZombieReactors(bool zombie) { flagIs(kZombie, zombie); }

void PtrInterface::onZeroReferences() noexcept {
  newRef();  // so that a pointer made and dropped by the destructor does not destroy the object again
  delete this;
}

}  // namespace Zel
