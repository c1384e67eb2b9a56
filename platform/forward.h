// The names of the classes that agents use, for headers that only point at them.
#pragma once

namespace Zel {
class ActivityManager;
class Clock;
class Dir;
class Entity;
class FdWatch;
class HandlerFault;
class Inbox;
class Name;
class NameSet;
class NotifieeBase;
class Notifier;
class PtrInterface;
class String;
class TraceHandle;
class TypeNode;
class Value;
template <class T>
class Ptr;
template <class T>
class PtrMap;
}  // namespace Zel

namespace Statedb {
class Covers;
class EntityManager;
class Mount;
class MountGroup;
class Mounter;
class Path;
}  // namespace Statedb

namespace Warden {
class AgentOptions;
class CAgent;
}  // namespace Warden

namespace Led {
struct LightSetting;
}

namespace Hardware::Led {
class LedConfig;
class LedSystemConfigDir;
}  // namespace Hardware::Led

namespace Hardware::Gpio {
class CorvelGpioLedConfig;
class CorvelGpioLedSystemConfigDir;
class CorvelPinConfig;
class GpioLedConfig;
class GpioLedSystemConfigDir;
class GpioLineInit;
class GpioLineStatus;
}  // namespace Hardware::Gpio

namespace Environment::Cooling {
class Config;
}

namespace Facts {
class Link;
class Sensor;
class SourceStatus;
class Unit;
}  // namespace Facts
