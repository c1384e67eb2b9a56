#include "ctl/configuration.h"

#include <gmock/gmock.h>

#include "ctl/appliance.h"
#include "tests/support.h"

namespace Ctl {
namespace {

using testing::HasSubstr;

std::string refusalOf(const std::string& text) {
  return Support::errorOf<Refusal>([&] { return Configuration("f.json", text).puts(); });
}

TEST(Configuration, ErrorsNameThePosition) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "f.json:1:1: "},
      {"{\n  \"a\": {,}\n}", "f.json:2:9: syntax error"},
      {"{\"a\": {\"type\": \"T\"}", "f.json:1:20: "},
      {"[]", "f.json:1: found array, expected {PATH: "},
      {"{\n\"a\": 1}", "f.json:2: a: found number, expected {"},
      {"{\n\n\"a\": {\"value\": 1}}", "f.json:3: a: \"type\" is missing"},
      {"{\"a\":\n 1e999}", "f.json:2:2: the number is out of range: "},
      {"{\"a\": {\"type\": 5}}", "f.json:1: a: \"type\" is missing or not a string"},
      {"{\"a\": {\"type\": \"T\"}, \"a\": {\"type\": \"U\"}}", "f.json: duplicate key \"a\""}};
  for (const auto& [text, expected] : cases) EXPECT_THAT(refusalOf(text), HasSubstr(expected)) << text;
  const std::string deep = "{\"[{\\\"\":\n" + std::string(300'000, '[');
  EXPECT_EQ(refusalOf(deep), "f.json:2:64: nested deeper than 64 levels");
  EXPECT_EQ(refusalOf("{\"a\": 1, \"b\": {}, \"c\": {\"type\": \"T\"}}").find("c:"), std::string::npos);
}

TEST(Configuration, DumpOmitsWhatAgentsFillUnlessAsked) {
  const auto at = [](const std::string& path) {
    return Json{{"path", path}, {"type", kPinType}, {"attributes", {{"value", 1}}}};
  };
  const Json filled = {at(std::string(Paths::kPins) + "/p"), at(std::string(Paths::kLineStatus) + "/p"),
                       at("led/a/b")};
  EXPECT_EQ(configurationText(filled, {"led/a"}), "{\n}\n");
  EXPECT_THAT(wholeText(filled), HasSubstr("\"value\": 1"));
}

TEST(Configuration, ReplaceDeletesNoMoreThanItMust) {
  const Configuration wanted(
      "f", R"({"a": {"type": "D"}, "a/kept": {"type": "T", "v": 2}, "a/other": {"type": "U"},
                                      "a/less": {"type": "T"}})");
  const Json found = Json::parse(R"([
    {"path": "a", "type": "D", "attributes": {}},
    {"path": "a/filled", "type": "D", "attributes": {}},
    {"path": "a/filled/p", "type": "D", "attributes": {}},
    {"path": "a/gone", "type": "D", "attributes": {}},
    {"path": "a/gone/under", "type": "T", "attributes": {}},
    {"path": "a/kept", "type": "T", "attributes": {"v": 1}},
    {"path": "a/less", "type": "T", "attributes": {"v": 1}},
    {"path": "a/other", "type": "T", "attributes": {}},
    {"path": "above", "type": "D", "attributes": {}},
    {"path": "hardware/corvel/gpio/config/p", "type": "P", "attributes": {}}])");
  std::vector<std::string> gone;
  for (const Json& change : wanted.dels(found, {"a/filled", "above/filled"}))
    gone.push_back(change.at("path"));
  EXPECT_THAT(gone, testing::ElementsAre("a/gone", "a/less", "a/other"));
}

TEST(Configuration, HostErrorsGetTheirLine) {
  const Configuration configuration("f.json", "{\n\"a\": {\"type\": \"D\"},\n\"a/b\": {\"type\": \"T\"}}");
  EXPECT_EQ(configuration.located("a/b value: too big"), "f.json:3: a/b value: too big");
  EXPECT_EQ(configuration.located("what?"), "f.json: what?");
}

}  // namespace
}  // namespace Ctl
