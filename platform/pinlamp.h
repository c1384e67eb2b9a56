// Everything that an agent is written with.
//
//     #include "platform/pinlamp.h"
//
// The one include of an agent's source; its headers can name the classes with platform/forward.h, or take the
// parts below one by one. docs/agent.md writes an agent step by step.
#pragma once

#include "platform/cell/cell.h"
#include "platform/model/environment.h"
#include "platform/model/hardwaregpio.h"
#include "platform/model/hardwareled.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/mount/mount.h"
#include "platform/warden/cagent.h"
#include "platform/zel/zel.h"
