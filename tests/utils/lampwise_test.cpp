#include "utils/lampwise.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/cell/cell.h"

namespace {

TEST(Lampwise, LedToDeviceGoesByHowTheNameStarts) {
  const struct {
    const char* name;
    unsigned device;
  } cases[] = {
      {"", 0},
      {"Ethernet3/1", 1},
      {"Fan1", 2},
      {"FanTray", 2},
      {"PowerSupply2", 4},
      {"Status", 8},
      {"Active7", 16},
      {"Active", 1024},
      {"Active07", 1024},
      {"Active71", 1024},
      {"Linecard4", 64},
      {"Fabric1", 64},
      {"MultiFan", 32},
      {"MultiLineCard", 128},
      {"Fa", 0},
      {"ethernet1", 0},
      {"Multi", 0},
      {"MultiFabricCard2", 256},
      {"Chassis", 0},
      {"xFan", 0},
      {"Active6", 1024},
      {"MultiPowerSupply1", 512},
      {"LineCard1", 0},
      {"Eth", 0},
      {"FabricCard", 64},
      {"PowerSupplyMulti", 4},
  };
  Cell::cellIdIs(7);
  for (const auto& [name, device] : cases) EXPECT_EQ(Lampwise::ledToDevice(name), device) << name;
  Cell::cellIdIs(1);
  EXPECT_EQ(Lampwise::ledToDevice("Active1"), 16);
}

TEST(Lampwise, PortSubStringAndShortenLinkModeCutNames) {
  const struct {
    Zel::String (*cut)(const char*);
    const char* text;
    const char* expected;
  } cases[] = {
      {[](const char* t) { return Lampwise::portSubString(t); }, "Ethernet3/1", "Ethernet3"},
      {[](const char* t) { return Lampwise::portSubString(t); }, "Ethernet3/1/4", "Ethernet3/1"},
      {[](const char* t) { return Lampwise::portSubString(t); }, "Ethernet5", "Ethernet5"},
      {[](const char* t) { return Lampwise::portSubString(t); }, "Ethernet1/", "Ethernet1"},
      {[](const char* t) { return Lampwise::portSubString(t); }, "/1", ""},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "linkModeForced100gfull", "100gfull"},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "linkModeAutoneg", "Autoneg"},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "linkModeForced", ""},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "xlinkModeUnknown", "Unknown"},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "linkmodeAutoneg", ""},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "a\nlinkMode40g\nfull", "40g"},
      {[](const char* t) { return Lampwise::shortenLinkMode(t); }, "linkModeForcedAlinkModeForcedB",
       "AlinkModeForcedB"},
  };
  for (const auto& [cut, text, expected] : cases) EXPECT_EQ(cut(text), Zel::String(expected)) << text;
}

TEST(Lampwise, RoundValRoundsHalvesAwayFromZero) {
  const double infinity = std::numeric_limits<double>::infinity();
  const struct {
    double value;
    int places;
    double expected;
  } cases[] = {{3.14159, 2, 3.14}, {2.5, 0, 3.0},    {-2.5, 0, -3.0},         {1234.0, -2, 1200.0},
               {0.0, 5, 0.0},      {1250, -2, 1300}, {infinity, 2, infinity}, {-infinity, -1, -infinity}};
  for (const auto& [value, places, expected] : cases)
    EXPECT_EQ(Lampwise::roundVal(value, places), expected) << value << " to " << places;
  EXPECT_TRUE(std::isnan(Lampwise::roundVal(std::nan(""), 1)));
}

TEST(Lampwise, AColorIsValidExactlyAsItPrints) {
  for (unsigned color = 0; color < Led::kColors; ++color)
    EXPECT_TRUE(Lampwise::isColorValid(Lampwise::toString(static_cast<Led::Color>(color)))) << color;
  EXPECT_EQ(Lampwise::toString(Led::Color::green), Zel::String("green"));
  for (const char* text : {"", "Green", "green ", "gree", "8"})
    EXPECT_FALSE(Lampwise::isColorValid(text)) << text;
}

}  // namespace
