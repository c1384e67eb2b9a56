// State files that a command makes: an image has one before its pinlampd ever runs.
#pragma once

#include "ctl/target.h"

namespace Ctl {

// Makes the file of a `sqlite:FILE` store where it is not there, and does nothing for other targets. For
// commands that fill it; others refuse a name that may be mistyped. Throws Refusal.
void makeStateFile(const Target& target);

}  // namespace Ctl
