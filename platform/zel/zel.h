// The entity framework, whole.
#pragma once

#include "platform/zel/activity.h"
#include "platform/zel/assert.h"
#include "platform/zel/clock.h"
#include "platform/zel/described.h"
#include "platform/zel/dir.h"
#include "platform/zel/entity.h"
#include "platform/zel/exception.h"
#include "platform/zel/generic.h"
#include "platform/zel/keyed.h"
#include "platform/zel/name.h"
#include "platform/zel/notifier.h"
#include "platform/zel/ptr.h"
#include "platform/zel/string.h"
#include "platform/zel/trace.h"
#include "platform/zel/type.h"
#include "platform/zel/value.h"
