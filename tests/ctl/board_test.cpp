#include <gmock/gmock.h>

#include <fstream>

#include "ctl/appliance.h"
#include "ctl/boardfiles.h"
#include "tests/ctl/testhost.h"
#include "tests/host/folder.h"

namespace Ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// {PATH: {"type": TYPE, ATTRIBUTE: VALUE}}; null: no file.
BoardVersions version(const Json& file) {
  if (file.is_null()) return {};
  BoardEntities entities;
  for (const auto& [path, entity] : file.items()) {
    Json attributes = entity;
    attributes.erase("type");
    entities[path] = {entity.at("type"), attributes};
  }
  return {{"f", entities}};
}

Json jsonOf(const Mirror& mirror) {
  Json all = Json::object();
  for (const auto& [path, entity] : mirror.entities()) {
    all[path] = entity.attributes;
    all[path]["type"] = entity.type;
  }
  return all;
}

Json entitiesOf(const Mirror& mirror) {
  Json all = Json::array();
  for (const auto& [path, entity] : mirror.entities())
    all.push_back({{"path", path}, {"type", entity.type}, {"attributes", entity.attributes}});
  return all;
}

bool isMemory(const Json& change) { return change.at("path").get<std::string>().starts_with("board/"); }

struct MergeCase {
  const char* what;
  const char *before, *state, *now;  // the file when it was applied last, the database, the file
  const char* after;                 // the database
  std::vector<std::string> kept{};
};

const MergeCase kCases[] = {
    {"adds", "null", "{}", R"({"e": {"type": "T", "a": 1}})", R"({"e": {"type": "T", "a": 1}})"},
    {"changes, adds and removes a row", R"({"e": {"type": "T", "a": 1, "b": 1}})",
     R"({"e": {"type": "T", "a": 1, "b": 1}})", R"({"e": {"type": "T", "a": 2, "c": 1}})",
     R"({"e": {"type": "T", "a": 2, "c": 1}})"},
    {"removes an entity", R"({"e": {"type": "T", "a": 1}})", R"({"e": {"type": "T", "a": 1}})", "{}", "{}"},
    {"removes all of a file that is gone", R"({"e": {"type": "T"}})", R"({"e": {"type": "T"}})", "null",
     "{}"},
    {"keeps what people set before",
     "null",
     R"({"e": {"type": "T", "a": 5}})",
     R"({"e": {"type": "T", "a": 1, "b": 1}})",
     R"({"e": {"type": "T", "a": 5, "b": 1}})",
     {"e a"}},
    {"keeps what people changed",
     R"({"e": {"type": "T", "a": 1}})",
     R"({"e": {"type": "T", "a": 5}})",
     R"({"e": {"type": "T", "a": 2}})",
     R"({"e": {"type": "T", "a": 5}})",
     {"e a"}},
    {"keeps what people changed where the file drops it", R"({"e": {"type": "T", "a": 1, "b": 1}})",
     R"({"e": {"type": "T", "a": 5, "b": 1}})", "{}", R"({"e": {"type": "T", "a": 5}})"},
    {"keeps what people added", R"({"e": {"type": "T"}})", R"({"e": {"type": "T"}, "e/k": {"type": "K"}})",
     "{}", R"({"e": {"type": "T"}, "e/k": {"type": "K"}})"},
    {"leaves removed what people removed",
     R"({"e": {"type": "T", "a": 1}, "g": {"type": "T", "a": 1}})",
     R"({"e": {"type": "T"}})",
     R"({"e": {"type": "T", "a": 2}, "g": {"type": "T", "a": 2}})",
     R"({"e": {"type": "T"}})",
     {"e a", "g"}},
    {"follows what people set as the file has it", R"({"e": {"type": "T", "a": 1}})",
     R"({"e": {"type": "T", "a": 2}})", R"({"e": {"type": "T", "a": 2}})", R"({"e": {"type": "T", "a": 2}})"},
    {"keeps another type",
     R"({"e": {"type": "T"}})",
     R"({"e": {"type": "U"}})",
     R"({"e": {"type": "T", "a": 1}})",
     R"({"e": {"type": "U"}})",
     {"e"}},
    {"makes an entity of another type", R"({"e": {"type": "T", "a": 1}})", R"({"e": {"type": "T", "a": 1}})",
     R"({"e": {"type": "U"}})", R"({"e": {"type": "U"}})"},
    {"removes what is below first", R"({"e": {"type": "T"}, "e/k": {"type": "K"}})",
     R"({"e": {"type": "T"}, "e/k": {"type": "K"}, "e-f": {"type": "K"}})", "{}",
     R"({"e-f": {"type": "K"}})"},
    {"makes directories again and leaves them empty", R"({"d": {"type": "Zel::Dir"}, "d/e": {"type": "T"}})",
     R"({"d": {"type": "Zel::Dir"}, "d/e": {"type": "T"}})", "null", R"({"d": {"type": "Zel::Dir"}})"},
};

TEST(BoardMerge, FollowsTheFileAndKeepsWhatPeopleSet) {
  for (const MergeCase& each : kCases) {
    const BoardVersions before = version(Json::parse(each.before)), now = version(Json::parse(each.now));
    Mirror mirror;
    const BoardVersions start = version(Json::parse(each.state));
    for (const auto& [path, entity] : start.at("f"))
      mirror.changesAre(Json::array(
          {Json{{"op", "put"}, {"path", path}, {"type", entity.type}, {"attributes", entity.attributes}}}));
    // The memory that the version before left.
    const BoardEntities empty;
    for (const Json& change : BoardMerge({}, before, empty).changes())
      if (isMemory(change)) mirror.changesAre(Json::array({change}));
    const Json entities = entitiesOf(mirror);
    ASSERT_EQ(broughtFrom(entities), before) << each.what;
    const BoardEntities state = stateFrom(entities);
    const BoardMerge merge(before, now, state);
    mirror.changesAre(merge.changes());
    EXPECT_EQ(broughtFrom(entitiesOf(mirror)), now) << each.what;
    mirror.entitiesAre("board", Json::array());
    EXPECT_EQ(jsonOf(mirror), Json::parse(each.after)) << each.what;
    EXPECT_EQ(merge.outcomes().at("f").kept, each.kept) << each.what;
    const BoardEntities after = stateFrom(entitiesOf(mirror));
    EXPECT_EQ(BoardMerge(now, now, after).changes(), Json::array())
        << each.what << ", and a second time nothing";
  }
}

class BoardFiles : public TestHost, public testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directory(board);
    std::ofstream(board + '/' + name) << text;
  }
  Outcome ctlBoard(std::vector<std::string> words) {
    words.insert(words.begin(), "board");
    words.insert(words.end(), {"--folder", board});
    return ctl(words);
  }
  Json setting(const std::string& led) const {
    const Json all = attributes(ledPath(led));
    return all.is_null() ? all : all.value("lightSetting", Json());
  }

  const std::string board = folder.at("board.d");
};

std::string ledLine(const std::string& led, const std::string& colour) {
  return Json(ledPath(led)).dump() + R"(: {"type": "Hardware::Led::LedConfig", "lightSetting": {")" + colour +
         "\": true}}";
}

TEST_F(BoardFiles, AFileThatIsWrongStaysAtItsLastVersionAndStopsNoOther) {
  write("a.json", "{" + ledLine("Fan1", "green") + "}");
  write("b.json", "{" + ledLine("Fan2", "green") + "}");
  EXPECT_EQ(ctlBoard({"apply"}).err, "");
  EXPECT_EQ(setting("Fan1"), Json({{"green", true}}));
  const std::pair<std::string, std::string> cases[] = {
      {"{" + ledLine("Fan2", "red") + ",\n}", "b.json:2:1: syntax error"},
      {"{" + ledLine("Fan2", "red") + ",\n" + ledLine("Fan3", "purple") + "}",
       "b.json:2: hardware/led/config/leds/Fan3 lightSetting: "},
      {"{\n" + ledLine("Fan1", "red") + "}",
       "b.json:2: hardware/led/config/leds/Fan1: the entity is in a.json, too, which keeps it"},
      {R"({"hardware/corvel/gpio/config/p": {"type": "Zel::Dir"}})", "config/p: agents fill this"},
      {"{\"" + std::string(256, 'x') + R"(": {"type": "Zel::Dir"}})", "the path has 256 bytes"},
  };
  for (const auto& [text, error] : cases) {
    write("a.json", "{" + ledLine("Fan1", "yellow") + "}");
    write("b.json", text);
    const Outcome refused = ctlBoard({"apply"});
    EXPECT_EQ(refused.status, 1) << text;
    EXPECT_THAT(refused.err, HasSubstr(error));
    EXPECT_EQ(setting("Fan1"), Json({{"yellow", true}}));
    EXPECT_EQ(setting("Fan2"), Json({{"green", true}})) << text;
    EXPECT_EQ(run({"check", board}).status, 1);
    EXPECT_THAT(ctlBoard({"status"}).out, HasSubstr("; 1 rows, 0 changed"));
    write("a.json", "{" + ledLine("Fan1", "green") + "}");
    EXPECT_EQ(ctlBoard({"apply"}).status, 1);
  }
}

TEST_F(BoardFiles, ARowMovesFromOneFileToAnother) {
  write("a.json", "{" + ledLine("Fan1", "green") + "," + ledLine("Fan2", "green") + "}");
  EXPECT_EQ(ctlBoard({"apply"}).status, 0);
  write("a.json", "{" + ledLine("Fan1", "green") + "}");
  write("b.json", "{" + ledLine("Fan2", "red") + "}");
  EXPECT_EQ(ctlBoard({"apply"}).err, "");
  EXPECT_EQ(setting("Fan2"), Json({{"red", true}}));
}

TEST_F(BoardFiles, StatusTellsWhatPeopleDidWithTheRows) {
  write("a.json", "{" + ledLine("Fan1", "green") + "," + ledLine("Fan2", "green") + "," +
                      ledLine("Fan3", "green") + "," + ledLine("Fan4", "red") + "}");
  const Json dry = Json::parse(ctlBoard({"apply", "--dry-run", "--json"}).out);
  EXPECT_EQ(dry.at("written"), false);
  EXPECT_EQ(dry.at("files")[0].at("added").size(), 4U);
  EXPECT_TRUE(setting("Fan1").is_null());
  EXPECT_EQ(ctlBoard({"apply"}).out, "a.json: new; 4 added\n");
  ctl({"led", "set", "Fan1", "red"});
  ctl({"del", ledPath("Fan2")});
  EXPECT_EQ(ctlBoard({"status"}).out,
            "a.json: unchanged; 4 rows, 2 changed or removed since\n"
            "  changed hardware/led/config/leds/Fan1 lightSetting: {\"green\": true}, now {\"red\": true}\n"
            "  removed hardware/led/config/leds/Fan2 lightSetting: {\"green\": true}\n");
  EXPECT_EQ(ctlBoard({"apply"}).out, "a.json: unchanged\n");
  std::filesystem::remove(board + "/a.json");
  const Json rows = Json::parse(ctlBoard({"status", "--json"}).out).at("files")[0];
  EXPECT_EQ(rows.at("state"), "gone");
  EXPECT_EQ(rows.at("rows")[0].at("state"), "changed");
  EXPECT_THAT(ctlBoard({"apply"}).out, HasSubstr("a.json: gone; 2 removed"));
  EXPECT_TRUE(setting("Fan4").is_null());
  EXPECT_FALSE(setting("Fan1").is_null());
  std::filesystem::remove(board);
  EXPECT_THAT(ctlBoard({"apply"}).err, HasSubstr("nothing is changed"));
}

TEST_F(BoardFiles, AnotherHostThatAppliesTheSameFilesIsNoError) {
  write("a.json", "{" + ledLine("Fan1", "green") + "}");
  ctlBoard({"apply"});
  std::filesystem::remove(board + "/a.json");
  bool isDone = false;
  host.store.reads.clear();
  // Between the read and the write of this one the other one has removed the rows.
  const Outcome late = ctl({"board", "apply", "--folder", board}, [&] {
    if (isDone || std::ranges::count(host.store.reads, "") == 0) return;
    isDone = true;
    host.store.write({Statedb::Change::del("board/file/a.json"), Statedb::Change::del(ledPath("Fan1"))},
                     Statedb::Durability::stored);
  });
  EXPECT_TRUE(isDone);
  EXPECT_EQ(late.err, "");
  EXPECT_EQ(late.status, 0);
}

}  // namespace
}  // namespace Ctl
