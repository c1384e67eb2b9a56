// Random operations on live objects through the socket, and the same on a model: of the LEDs, their
// attributes, their machines and their pins. The host must refuse what the model refuses, and change nothing.
#include <set>

#include "tests/torture/board.h"

namespace Torture {

namespace {

constexpr unsigned kModelLeds = 8;
const std::string kDir = "hardware/led/config";
const std::string kMachines = "agent/configReactor/gpioLedStateMachine";

struct Led {
  Json setting = {{"green", false}, {"red", false}};
  std::map<std::string, std::string> texts{{"ledAttribute", ""}, {"theme", ""}, {"currentMode", ""}};
  std::set<std::string> modes{};
};

class ObjectsRun {
 public:
  explicit ObjectsRun(Round& round)
      : round_(round),
        board_(round, kModelLeds),
        host_(round, "host", {"--store", "memory:", "--agent", "libpinlamp.so", "--allow-object-writes"}) {
    host_.waitReady();
    client_.emplace(host_.socket());
    client_->call("write", batch(board_.mappings()));
  }

  void operator()() {
    for (int i = 0; i < 3000 && !round_.isOver(); ++i) {
      act();
      if (i % 20 == 0) compare();
    }
    compare();
    host_.stop();
  }

 private:
  using Operation = void (ObjectsRun::*)();

  // The answer must be a result if `isGood`, else a refusal.
  Json operate(const char* operation, const std::string& path, bool isGood,
               const Json& arguments = Json::array()) {
    const Json answer =
        client_->answer("object", {{"operation", operation}, {"path", path}, {"arguments", arguments}});
    round_.note(std::string(operation) + " " + path.substr(0, 200) + " " + arguments.dump().substr(0, 200));
    ++round_.count(isGood ? "operations" : "operations that must be refused");
    if (answer.contains("result") != isGood)
      throw Failure(std::string(operation) + " " + path + " " + arguments.dump() + " must be " +
                    (isGood ? "carried out" : "refused") + ": " + answer.dump());
    return isGood ? answer["result"]["value"] : Json();
  }

  std::string randomName() { return "L" + std::to_string(round_.random.below(kModelLeds)); }
  std::string randomText() {
    static constexpr const char* kTexts[] = {"", "x", "day", "a/b", "100%", "née", ".."};
    return round_.random.among(kTexts);
  }
  static std::string led(const std::string& name) { return kDir + "/leds/" + name; }

  void act() {
    static constexpr Operation kOperations[] = {
        &ObjectsRun::create, &ObjectsRun::remove,  &ObjectsRun::light,
        &ObjectsRun::light,  &ObjectsRun::setText, &ObjectsRun::setModes,
        &ObjectsRun::get,    &ObjectsRun::spoil,   &ObjectsRun::invoke};
    (this->*kOperations[round_.random.below(std::size(kOperations))])();
  }

  void create() {
    const std::string name = randomName();
    operate("set", led(name), !leds_.contains(name));
    if (leds_.try_emplace(name).second) pins_[name] = 0;
  }
  void remove() {
    const std::string name = randomName();
    operate("delete", led(name), leds_.contains(name));
    leds_.erase(name);
  }
  void light() {
    const std::string name = randomName();
    const bool green = round_.random.chance(50), red = round_.random.chance(50);
    const Json setting{{"green", green}, {"red", red}};
    operate("set", led(name) + "/lightSetting", leds_.contains(name), Json::array({setting}));
    if (!leds_.contains(name)) return;
    leds_[name].setting = setting;
    pins_[name] = (green ? 1U : 0U) + (red ? 2U : 0U);
  }
  void setText() {
    static constexpr const char* kAttributes[] = {"ledAttribute", "theme", "currentMode"};
    const std::string name = randomName(), attribute = round_.random.among(kAttributes), text = randomText();
    operate("set", led(name) + "/" + attribute, leds_.contains(name), Json::array({text}));
    if (leds_.contains(name)) leds_[name].texts[attribute] = text;
  }
  void setModes() {
    const std::string name = randomName();
    std::set<std::string> modes;
    for (auto count = round_.random.below(4); count > 0; --count)
      modes.insert("m" + std::to_string(round_.random.below(5)));
    operate("set", led(name) + "/mode", leds_.contains(name), Json::array({modes}));
    if (leds_.contains(name)) leds_[name].modes = modes;
  }
  void get() {
    const std::string name = randomName();
    operate("get", led(name), leds_.contains(name));
    operate("tree", round_.random.chance(50) ? kDir : "agent", true);
    operate("list", kMachines, true);
    operate("iterate", led(name) + "/mode", leds_.contains(name));
  }
  // The machine applies its setting once more, or looks for what it needs; nothing changes by it.
  void invoke() {
    const std::string name = randomName();
    operate("invoke", kMachines + "/" + name + "/handleHwLedConfig", leds_.contains(name));
    operate("invoke", "agent/configReactor/createDriver", true, Json::array({name}));
  }
  void spoil() {
    struct Case {
      const char* operation;
      std::string path;
      Json arguments;
    };
    const std::string name = randomName();
    const Case cases[] = {
        {"set", led(name) + "/lightSetting", Json::array({{{"green", "yes"}}})},
        {"set", led(name) + "/lightSetting", Json::array({{{"flashInterval", -1}}})},
        {"set", led(name) + "/lightSetting", Json::array({7})},
        {"set", led(name) + "/theme", Json::array({std::string(256, 'n')})},
        {"set", led(name) + "/colour", Json::array({"red"})},
        {"set", led(name) + "/name", Json::array({"other"})},
        {"set", led(name) + "/mode", Json::array({Json::array({std::string(256, 'm')})})},
        {"delete", led(name) + "/theme", Json::array()},
        {"iterate", led(name) + "/theme", Json::array()},
        {"invoke", led(name) + "/theme", Json::array()},
        {"invoke", "agent/doInit", Json::array()},
        {"invoke", "agent/configReactor/createDriver", Json::array({1, 2, 3})},
        {"get", led(name) + "//theme", Json::array()},
        {"get", std::string(5000, 'p'), Json::array()},
        {"set", kMachines + "/" + name + "/clock", Json::array({nullptr})},
        {"set", kDir + "/leds", Json::array({name, name})},
        {"grow", led(name), Json::array()},
    };
    const Case& chosen = round_.random.among(cases);
    operate(chosen.operation, chosen.path, false, chosen.arguments);
  }

  void compare() {
    std::set<std::string> names;
    for (const auto& [name, model] : leds_) names.insert(name), compare(name, model);
    expect("iterate", kDir + "/leds", names);
    expect("iterate", kMachines, names);
    const Rows rows = client_->rows(kPins);
    for (const auto& [name, colours] : pins_) {
      const std::string path = std::string(kPins) + "/" + name;
      const unsigned found = rows.at(path + "-green").at("value").get<unsigned>() +
                             2 * rows.at(path + "-red").at("value").get<unsigned>();
      if (found != colours)
        throw Failure("the pins of " + name + " show " + std::to_string(found) + ", expected " +
                      std::to_string(colours));
    }
    ++round_.count("comparisons");
  }
  void compare(const std::string& name, const Led& model) {
    const Json setting = operate("get", led(name) + "/lightSetting", true);
    for (const auto& [colour, value] : model.setting.items())
      if (setting.value(colour, false) != value)
        throw Failure(name + " is set to " + setting.dump() + ", expected " + model.setting.dump());
    for (const auto& [attribute, text] : model.texts)
      if (const Json found = operate("get", led(name) + "/" + attribute, true); found != text)
        throw Failure(name + " " + attribute + " is " + found.dump() + ", expected '" + text + "'");
    expect("iterate", led(name) + "/mode", model.modes);
  }
  void expect(const char* operation, const std::string& path, const std::set<std::string>& expected) {
    const Json found = operate(operation, path, true);
    if (found.get<std::set<std::string>>() != expected)
      throw Failure(path + " has " + found.dump() + ", expected " + Json(expected).dump());
  }

  Round& round_;
  Board board_;
  Daemon host_;
  std::optional<Client> client_{};
  std::map<std::string, Led> leds_{};
  std::map<std::string, unsigned> pins_{};  // what they show; they outlive their LED's configuration
};

}  // namespace

void objectsRound(Round& round) {
  ObjectsRun run(round);
  run();
}

}  // namespace Torture
