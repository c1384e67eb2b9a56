// Everything that an agent is written with.
//
//     #include "platform/pinlamp.h"
//
// The one include of an agent's source; its headers can name the classes with platform/forward.h, or take the
// parts below one by one. docs/agent.md writes an agent step by step.
#pragma once

#include "platform/cell/cell.h"
#include "platform/model/coolingconfig.h"
#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/corvelpinconfig.h"
#include "platform/model/facts.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/gpiolineinit.h"
#include "platform/model/gpiolinestatus.h"
#include "platform/model/led.h"
#include "platform/model/ledconfig.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/model/lightrequest.h"
#include "platform/model/lightrule.h"
#include "platform/model/lightstatus.h"
#include "platform/model/paths.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/mount/mount.h"
#include "platform/warden/agentoptions.h"
#include "platform/warden/cagent.h"
#include "platform/zel/zel.h"
