// Light settings as people write them.
//
//     const Led::LightSetting alarm = Led::settingFrom("red flash 0.5");
#pragma once

#include <string_view>

#include "platform/model/led.h"
#include "platform/zel/core/export.h"

namespace Led {

// From colours, or "off" alone, then "flash SECONDS" where it shall flash. Throws ValueError, whose text says
// what would be right.
ZEL_API LightSetting settingFrom(std::string_view words);

}  // namespace Led
