#include "policy/lane.h"

#include "utils/lampwise.h"

namespace Policy {

Zel::Name portOf(Zel::Name led) {
  constexpr std::uint16_t kPort = 0x0001;  // of Lampwise::ledToDevice
  if (Lampwise::ledToDevice(led) != kPort) return {};
  const Zel::Name port(Lampwise::portSubString(led));
  return port == led ? Zel::Name() : port;
}

}  // namespace Policy
