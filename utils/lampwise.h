// Utilities for LED agents: what kind of device a LED belongs to, and texts of ports, link modes and colours.
//
// Stateless, and no entity is touched. No errors: a name or string that fits no rule gives 0, false or the
// empty string.
#pragma once

#include <cstdint>

#include "platform/model/led.h"
#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/string.h"

namespace Lampwise {

// The class of device that an LED's name stands for, as one bit, by the start of the name (case matters):
//
//     Ethernet 0x0001   Fan        0x0002   PowerSupply   0x0004   Status          0x0008
//     Linecard 0x0040   Fabric     0x0040   MultiFan      0x0020   MultiLineCard   0x0080
//     Active   0x0400 (0x0010 for this cell's own)                 MultiFabricCard 0x0100
//                                                                  MultiPowerSupply 0x0200
//
// 0 for every other name. This cell's own is "Active" and the cell's number without leading zeros.
ZEL_API std::uint16_t ledToDevice(Zel::Name name);

// The name without its last component: "Ethernet3/1/4" gives "Ethernet3/1". A name without a slash is
// returned as it is.
ZEL_API Zel::String portSubString(Zel::Name name);

// The rest of the line after the first "linkMode" or "linkModeForced":
// "linkModeForced100gfull" gives "100gfull". Empty where there is neither.
ZEL_API Zel::String shortenLinkMode(Zel::String linkMode);

// The value rounded to that many decimal places, halves away from zero; a negative count rounds to tens,
// hundreds and so on. Infinities and NaN stay as they are for counts from -323 to 308: beyond those the
// power of ten is zero or infinite, and the result is NaN. A value that is too large for its count becomes
// infinite.
ZEL_API double roundVal(double value, int places);

// Whether the text is exactly that of one of the eight colours.
ZEL_API bool isColorValid(Zel::String text);

// The text that the stream operator of T writes. There for Led::Color.
template <class T>
Zel::String toString(T value);
extern template ZEL_API Zel::String toString<Led::Color>(Led::Color value);

}  // namespace Lampwise
