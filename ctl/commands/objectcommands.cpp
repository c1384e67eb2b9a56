// object: live objects of the running host, by name.
#include <ostream>

#include "ctl/context.h"
#include "ctl/jsontext.h"
#include "ctl/objects.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

// The whole answer: {"value", "omitted"}.
Json answerOf(Client& client, const std::string& operation, const std::string& path,
              Json arguments = Json::array()) {
  return client.call("object",
                     {{"operation", operation}, {"path", path}, {"arguments", std::move(arguments)}});
}

}  // namespace

Json callObject(Client& client, const std::string& operation, const std::string& path, Json arguments) {
  return answerOf(client, operation, path, std::move(arguments)).at("value");
}

Json argumentOf(const std::string& text) {
  if (tooDeepAt(text, kInputDepth)) throw Refusal("the value is " + tooDeep(kInputDepth));
  Json value = Json::parse(text, nullptr, false);
  return value.is_discarded() ? Json(text) : value;
}

namespace {

// Prints what the host omitted from an answer. Returns whether it omitted anything.
bool printOmitted(std::ostream& out, const Json& answer, std::size_t indent) {
  const Json omitted = answer.value("omitted", Json::object());
  for (const auto& [attribute, count] : omitted.items())
    out << std::string(indent, ' ') << "and " << count << " more in " << attribute << '\n';
  return !omitted.empty();
}

// Returns whether the host omitted anything.
bool printTree(std::ostream& out, const Json& node, const std::string& above, std::size_t depth) {
  const std::string path = node.at("path");
  const std::string own = above.empty() ? path : path.substr(above.size() + 1);
  out << std::string(depth * 2, ' ') << bare(own) << "  " << bare(node.at("type"))
      << (node.contains("seen") ? "  (above)" : "") << '\n';
  bool cut = false;
  for (const Json& member : node.value("members", Json::array()))
    cut |= printTree(out, member, path, depth + 1);
  return printOmitted(out, node, depth * 2 + 2) || cut;
}

void showTree(Context& context, const std::string& path, bool json) {
  const Json node = callObject(context.host("object"), "tree", path);
  if (json)
    printJson(context.out, node);
  else if (printTree(context.out, node, "", 0))
    context.out << "The answer was truncated; give the path of an object in the tree to see more of it.\n";
}

// The keys in an answer, and those that the host omitted.
std::size_t keyCount(const Json& answer) {
  std::size_t count = answer.at("value").size();
  const Json omitted = answer.value("omitted", Json::object());
  for (const Json& each : omitted) count += each.get<std::size_t>();
  return count;
}

// The value of an attribute that is neither an object nor a collection.
std::string objectText(Client& client, const std::string& path, const Json& attribute) {
  const std::string kind = attribute.at("kind");
  if (kind == "collection" || kind == "names")
    return std::to_string(keyCount(answerOf(client, "iterate", path))) + " of " + bare(attribute.at("type"));
  if (kind == "procedure" || kind == "member") return bare(attribute.at("type"));
  const Json value = callObject(client, "get", path);
  if (kind == "pointer") return value.is_null() ? "null" : bare(attribute.at("type"));
  return oneLine(value);
}

// Prints an object's attributes with their values, and its next wake-up; only its type if it has no
// attributes.
void printObject(Context& context, const std::string& path, const Json& object) {
  Table table;
  const Json listing = context.host("object").call("object", {{"operation", "list"}, {"path", path}});
  const Json& attributes = listing.at("value");
  if (attributes.empty()) context.out << bare(object.at("type")) << '\n';
  for (const Json& attribute : attributes) {
    const std::string name = attribute.at("name");
    std::vector<std::string> operations;
    for (const Json& operation : attribute.at("operations")) operations.push_back(operation);
    table.add({name, bare(attribute.at("kind")),
               objectText(context.host("object"), path + '/' + name, attribute), joined(operations, " ")});
  }
  table.print(context.out);
  printOmitted(context.out, listing, 0);
  if (object.contains("wakesIn"))
    context.out << "wakes in " << shortNumber(object.at("wakesIn").get<double>()) << " s\n";
}

bool isObject(const Json& value) { return value.is_object() && value.contains("type"); }

void getObject(Context& context, const std::string& path, bool json) {
  const Json answer = answerOf(context.host("object"), "get", path);
  const Json& value = answer.at("value");
  if (json)
    printJson(context.out, value);
  else if (isObject(value))
    printObject(context, path, value);
  else if (value.is_array())
    for (const Json& each : value) context.out << bare(each) << '\n';
  else
    context.out << bare(value) << '\n';
  const Json omitted = answer.value("omitted", Json::object());
  for (const auto& [attribute, count] : omitted.items())
    note(context, count.dump() + " more in " + attribute + " are not shown");
}

void printResult(Context& context, const Json& value, bool json) {
  if (json)
    printJson(context.out, value);
  else if (!value.is_null())
    context.out << oneLine(value) << '\n';
}

Json argumentsOf(const std::vector<std::string>& texts) {
  Json arguments = Json::array();
  for (const std::string& text : texts) arguments.push_back(argumentOf(text));
  return arguments;
}

struct ObjectOptions {
  std::string path;
  std::string procedure;
  std::vector<std::string> values;
  bool json = false;
};

// PATH is required unless `given->path` has a default.
Command addObjectCommand(Command& object, const std::shared_ptr<ObjectOptions>& given, const char* name,
                         const char* description, const char* example) {
  Command command = object.add(name, description, example);
  command.argument("PATH", given->path, "The object or attribute")
      .completes(Completes::object)
      .required(given->path.empty());
  command.jsonFlag(given->json);
  return command;
}

void addObjectTree(Command& object, Context& context) {
  const auto given = std::make_shared<ObjectOptions>();
  given->path = "agent";
  addObjectCommand(object, given, "tree", "Lists the objects under an object, with their types",
                   "pinlampctl object tree agent/configReactor")
      .runs([&context, given] { showTree(context, given->path, given->json); });
}

void addObjectGet(Command& object, Context& context) {
  const auto given = std::make_shared<ObjectOptions>();
  Command command =
      addObjectCommand(object, given, "get", "Prints an attribute, or all attributes of an object",
                       "pinlampctl object get agent/configReactor/gpioLedStateMachine/Status/flashingState");
  command.runs([&context, given] { getObject(context, given->path, given->json); });
}

void addObjectSet(Command& object, Context& context) {
  const auto given = std::make_shared<ObjectOptions>();
  Command command = addObjectCommand(
      object, given, "set", "Sets an attribute, or creates a member of a collection, if the host allows it",
      "pinlampctl object set agent/configReactor/gpioLedStateMachine/Status/flashingState true");
  command.argument("VALUE", given->values, "JSON, a bare string, or the name or path of an object");
  command.runs([&context, given] {
    printResult(context, callObject(context.host("object"), "set", given->path, argumentsOf(given->values)),
                given->json);
  });
}

void addObjectDel(Command& object, Context& context) {
  const auto given = std::make_shared<ObjectOptions>();
  Command command =
      addObjectCommand(object, given, "del", "Deletes an attribute or a member, if the host allows it",
                       "pinlampctl object del agent/configReactor/gpioLedStateMachine/Status");
  command.runs([&context, given] {
    printResult(context, callObject(context.host("object"), "delete", given->path), given->json);
  });
}

void addObjectCall(Command& object, Context& context) {
  const auto given = std::make_shared<ObjectOptions>();
  Command command = addObjectCommand(
      object, given, "call", "Invokes a procedure of an object, if the host allows it",
      "pinlampctl object call agent/configReactor/gpioLedStateMachine/Status handleCorvelGpioGreen Status 1");
  command.argument("PROCEDURE", given->procedure, "The procedure").completes(Completes::procedure).required();
  command.argument("ARGUMENT", given->values, "JSON, a bare string, or the name or path of an object");
  command.runs([&context, given] {
    const std::string path = given->path + '/' + given->procedure;
    printResult(context, callObject(context.host("object"), "invoke", path, argumentsOf(given->values)),
                given->json);
  });
}

}  // namespace

void addObjectCommands(Command& app, Context& context) {
  Command object =
      app.addGroup("object",
                   "Inspects live objects of the host by name, and changes them if it was started with "
                   "--allow-object-writes",
                   "pinlampctl object tree");
  addObjectTree(object, context);
  addObjectGet(object, context);
  addObjectSet(object, context);
  addObjectDel(object, context);
  addObjectCall(object, context);
}

}  // namespace Ctl
