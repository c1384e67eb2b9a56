// Lanes of ports: "Ethernet49/1" is one of "Ethernet49".
#pragma once

#include "platform/zel/core/name.h"

namespace Policy {

// The port that a lane belongs to, by its LED's name; empty where the name is no lane.
Zel::Name portOf(Zel::Name led);

}  // namespace Policy
