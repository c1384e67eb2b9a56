// Light settings as people write them.
//
//     entityManager.showLocally(led, "lightSetting", Led::settingFrom("red flash 0.5"));
#pragma once

#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/object/value.h"

namespace Led {

// The value of a light setting: from colours or "off" alone, then "flash SECONDS" if it is to flash. Throws
// ValueError, whose text says what would be right.
ZEL_API Zel::Value settingFrom(std::string_view words);

}  // namespace Led
