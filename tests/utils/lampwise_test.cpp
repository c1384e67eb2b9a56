#include "utils/lampwise.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/cell/cell.h"

namespace {

TEST(Lampwise, LedToDeviceGoesByHowTheNameStarts) {
  const std::pair<int, std::vector<const char*>> cases[] = {
      {0, {"", "Eth", "Fa", "ethernet1", "Multi", "Chassis", "xFan", "LineCard1"}},
      {0x1, {"Ethernet3/1"}},
      {0x2, {"Fan1", "FanTray"}},
      {0x4, {"PowerSupply2", "PowerSupplyMulti"}},
      {0x8, {"Status"}},
      {0x10, {"Active7"}},
      {0x400, {"Active", "Active07", "Active71", "Active6"}},
      {0x40, {"Linecard4", "FabricCard"}},
      {0x20, {"MultiFan"}},
      {0x80, {"MultiLineCard"}},
      {0x100, {"MultiFabricCard2"}},
      {0x200, {"MultiPowerSupply1"}}};
  Cell::cellIdIs(7);
  for (const auto& [device, names] : cases)
    for (const char* name : names) EXPECT_EQ(Lampwise::ledToDevice(name), device) << name;
  Cell::cellIdIs(1);
}

TEST(Lampwise, PortSubStringAndShortenLinkModeCutNames) {
  using Cases = std::vector<std::pair<const char*, Zel::String>>;
  const Cases ports{
      {"Ethernet3/1", "Ethernet3"}, {"a/1/4", "a/1"}, {"Ethernet5", "Ethernet5"}, {"E1/", "E1"}, {"/1", ""}};
  for (const auto& [port, cut] : ports) EXPECT_EQ(Lampwise::portSubString(port), cut) << port;
  const Cases modes{{"linkModeForced100gfull", "100gfull"},
                    {"linkModeAutoneg", "Autoneg"},
                    {"linkModeForced", ""},
                    {"xlinkModeUnknown", "Unknown"},
                    {"linkmodeAutoneg", ""},
                    {"a\nlinkMode40g\nfull", "40g"},
                    {"linkModeForcedAlinkModeForcedB", "AlinkModeForcedB"},
                    {"linkModeForce\rd", "Force"}};
  for (const auto& [mode, cut] : modes) EXPECT_EQ(Lampwise::shortenLinkMode(mode), cut) << mode;
  const std::string much(1'000'000, 'x');
  EXPECT_EQ(Lampwise::shortenLinkMode(much + "linkMode" + much), Zel::String(much));
}

TEST(Lampwise, RoundValRoundsHalvesAwayFromZero) {
  const std::tuple<double, int, double> cases[] = {{3.14159, 2, 3.14}, {2.5, 0, 3.0},
                                                   {-2.5, 0, -3.0},    {1250.0, -2, 1300.0},
                                                   {0.0, 5, 0.0},      {-INFINITY, -1, -INFINITY}};
  for (const auto& [value, places, rounded] : cases)
    EXPECT_EQ(Lampwise::roundVal(value, places), rounded) << value;
  EXPECT_TRUE(std::isnan(Lampwise::roundVal(NAN, 1)));
}

TEST(Lampwise, AColorIsValidExactlyAsItPrints) {
  for (unsigned color = 0; color < Led::kColourCount; ++color)
    EXPECT_TRUE(Lampwise::isColorValid(Lampwise::toString(static_cast<Led::Color>(color)))) << color;
  EXPECT_EQ(Lampwise::toString(Led::Color::green), Zel::String("green"));
  for (const char* text : {"", "Green", "green ", "gree", "8"})
    EXPECT_FALSE(Lampwise::isColorValid(text)) << text;
}

}  // namespace
