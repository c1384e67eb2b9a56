#include "ctl/configuration.h"

#include <gmock/gmock.h>

#include "ctl/appliance.h"
#include "tests/support.h"

namespace Ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Sources = std::vector<Configuration::Source>;

std::string refusalOf(const std::string& text) {
  return Support::errorOf<Refusal>([&] { return Configuration(Sources{{"f.json", text}}).puts(); });
}

TEST(Configuration, ErrorsNameThePosition) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "f.json:1:1: "},
      {"{\n  \"a\": {,}\n}", "f.json:2:9: syntax error"},
      {"{\"a\": {\"type\": \"T\"}", "f.json:1:20: "},
      {"[]", "f.json:1: found array, expected {PATH: "},
      {"{\n\"a\": 1}", "f.json:2: a: found number, expected {"},
      {"{\n\n\"a\": {\"value\": 1}}", "f.json:3: a: \"type\" is missing"},
      {"{\"a\":\n 1e999}", "f.json:2:2: the number 1e999 is out of range"},
      {"{\"a\": {\"type\": 5}}", "f.json:1: a: \"type\" is missing or not a string"},
      {"{\"a\": {\"type\": {\"b\": [{}]}, \"c\": 1}}", "f.json:1: a: \"type\" is missing or not a string"},
      {"{\"a\": [{\"type\": \"T\"}]}", "f.json:1: a: found array, expected {"},
      {"{\"a\": {\"type\": \"T\", \"b\": [{\"c\": 1, \"c\": 2}]}}", "f.json: duplicate key \"c\""},
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
  const std::string answer = Json{{"id", 1}, {"result", {{"entities", filled}}}}.dump();
  ConfigurationWriter some({"led/a"}), all;
  EXPECT_TRUE(some.read(answer));
  EXPECT_TRUE(some.hasSeen());
  EXPECT_EQ(some.text(), "{\n}\n");
  EXPECT_TRUE(all.read(answer));
  EXPECT_THAT(all.text(), HasSubstr("\"hardware/corvel/gpio/config/p\": {\"type\": \"" +
                                    std::string(kPinType) + "\", \"value\": 1},\n"));
  EXPECT_FALSE(all.read(R"({"error": {"message": "no"}, "id": 1})"));
}

TEST(Configuration, ReplaceDeletesNoMoreThanItMust) {
  const Configuration wanted(Sources{{"f", R"({"a": {"type": "D"}, "a/kept": {"type": "T", "v": 2},
                                        "a/other": {"type": "U"}})"},
                                     {"g", R"({"a/less": {"type": "T"}, "a/same/new": {"type": "T"}})"}});
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
    {"path": "ab/beside", "type": "D", "attributes": {}},
    {"path": "hardware/corvel/gpio/config/p", "type": "P", "attributes": {}}])");
  const Json dels = wanted.dels(found, {"a/filled", "above/filled"});
  std::vector<std::string> gone;
  for (const Json& change : dels) gone.push_back(change.at("path"));
  EXPECT_THAT(gone, ElementsAre("a/gone", "a/less", "a/other"));
  const Differences all = wanted.differences(found, dels);
  EXPECT_THAT(all.added, ElementsAre("a/same/new"));
  EXPECT_THAT(all.changed, ElementsAre("a/kept", "a/less", "a/other"));
  EXPECT_THAT(all.removed, ElementsAre("a/gone", "a/gone/under"));
  EXPECT_EQ(Configuration(Sources{{"f", "{}"}}).dels(found, {"a/filled", "above/filled"}).size(), 5U);
}

TEST(Configuration, HostErrorsGetTheirLine) {
  const Configuration configuration(
      Sources{{"f.json", "{\n\"a\": {\"type\": \"D\"}}"}, {"g.json", "{\n\n\"a/b\": {\"type\": \"T\"}}"}});
  EXPECT_EQ(configuration.located("a/b value: too big"), "g.json:3: a/b value: too big");
  EXPECT_EQ(configuration.located("what?"), "f.json: what?");
  const auto twice = [] {
    Configuration(Sources{{"f", "{\"a\": {\"type\": \"T\"}}"}, {"g", "{\"a\": {\"type\": \"T\"}}"}});
  };
  EXPECT_EQ(Support::errorOf<Refusal>(twice), "g:1: a: the entity is in f:1, too; keep one");
}

}  // namespace
}  // namespace Ctl
