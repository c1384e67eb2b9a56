// The paths of the LED model in the state database.
#pragma once

namespace Paths {

// The LEDs' settings: Hardware::Led::LedSystemConfigDir.
inline constexpr char kLeds[] = "hardware/led/config";
inline constexpr char kInitialLeds[] = "hardware/led/configInit";
// Requests and rules for LEDs, directories of Hardware::Led::LightRequest and LightRule, and the policy
// agent's reports on them: directories of LightStatus, and of LedClaims by LED.
inline constexpr char kRequests[] = "hardware/led/request";
inline constexpr char kRules[] = "hardware/led/rule";
inline constexpr char kRequestStatus[] = "hardware/led/requestStatus";
inline constexpr char kRuleStatus[] = "hardware/led/ruleStatus";
inline constexpr char kClaims[] = "hardware/led/claims";
// A LightRequest whose `skip` has the LEDs that no lamp test may light.
inline constexpr char kLampTest[] = "hardware/led/lampTest";
// The mapping from LEDs to pins: Hardware::Gpio::GpioLedSystemConfigDir. Above it a directory.
inline constexpr char kMappings[] = "hardware/gpio/config/led";
inline constexpr char kGpio[] = "hardware/gpio/config";
// Directories by the pins' names: Hardware::Gpio::CorvelPinConfig, GpioLineInit and GpioLineStatus.
inline constexpr char kPins[] = "hardware/corvel/gpio/config";
inline constexpr char kWirings[] = "hardware/corvel/gpio/init";
inline constexpr char kLineStatus[] = "hardware/corvel/gpio/status";
// Mounted by LED agents beside the LEDs.
inline constexpr char kFans[] = "hardware/fanController/config";
inline constexpr char kCooling[] = "environment/cooling/config";  // Environment::Cooling::Config

// The facts about the machine, which the facts agent fills: directories by kind, platform/model/facts.h.
inline constexpr char kFacts[] = "facts";

}  // namespace Paths
