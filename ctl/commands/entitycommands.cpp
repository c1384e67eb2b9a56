#include <algorithm>
#include <map>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/objects.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

// Suggestions for a path without an entity: the nearest names under its nearest ancestor that has any.
std::string pathHint(Client& client, const std::string& path) {
  const std::string above = parentPath(path);
  const std::size_t from = above.empty() ? 0 : above.size() + 1;
  std::set<std::string> known;
  for (const Json& entity : client.read(above))
    if (const std::string each = entity.at("path"); each.size() > from)
      known.insert(each.substr(from, each.find('/', from) - from));
  if (known.empty() && !above.empty()) return pathHint(client, above);
  return hint(path.substr(from), known) + (above.empty() ? "" : ", under " + above);
}

// The entity at `path` and all under it. Throws Refusal if there are none.
Json readSome(Client& client, const std::string& path) {
  Json entities = client.read(path);
  if (entities.empty() && !path.empty())
    throw Refusal("there is no entity at '" + path + "'" + pathHint(client, path));
  return entities;
}

bool startsAt(const Json& entities, const std::string& path) {
  return !entities.empty() && entities.front().at("path") == path;
}

// Adds to each entity that shows covers the member "under": what each covered attribute has without its
// cover, null if it was never set.
void addUnder(Client& client, const std::string& path, Json& entities) {
  std::map<std::string, Json> covers;
  for (const Json& each : client.readCovers(path)) covers[each.at("path")] = each;
  if (covers.empty()) return;
  Mirror base;
  base.entitiesAre(path, client.readBase(path));
  for (Json& entity : entities) {
    const auto cover = covers.find(entity.at("path"));
    if (cover == covers.end() || cover->second.at("type") != entity.at("type")) continue;
    const auto* under = base.find(cover->first);
    for (const auto& [name, value] : cover->second.at("attributes").items())
      entity["under"][name] = under ? under->attributes.value(name, Json()) : Json();
  }
}

// The value under an attribute's cover, or nothing if it has none.
const Json* underOf(const Json& entity, const std::string& attribute) {
  const auto under = entity.find("under");
  if (under == entity.end()) return nullptr;
  const auto value = under->find(attribute);
  return value == under->end() ? nullptr : &*value;
}

std::string underText(const Json& under) { return under.is_null() ? "never set" : oneLine(under); }

void getAttribute(Context& context, const Json& entity, const std::string& attribute, bool json) {
  const Json& set = entity.at("attributes");
  if (const auto value = set.find(attribute); value != set.end()) {
    context.out << (json ? oneLine(*value) : bare(*value)) << '\n';
    if (const Json* under = underOf(entity, attribute))
      context.out << (json ? oneLine(*under) : under->is_null() ? "never set" : bare(*under)) << '\n';
    return;
  }
  const std::string type = entity.at("type");
  const auto known = context.client().attributesOf(type);
  const bool exists = std::count(known.begin(), known.end(), attribute) != 0;
  const std::string where = entity.at("path").get<std::string>() + ' ' + attribute + ": ";
  throw Refusal(where + (exists ? "never set, so it has its default"
                                : "type " + type + " has no such attribute; it has " + joined(known)));
}

void printEntity(std::ostream& out, const Json& entity) {
  out << bare(entity.at("path")) << "  " << bare(entity.at("type")) << '\n';
  for (const auto& [name, value] : entity.at("attributes").items())
    if (const Json* under = underOf(entity, name))
      out << "  " << bare(name) << " = " << oneLine(value) << "  over " << underText(*under) << '\n';
    else
      out << "  " << bare(name) << " = " << oneLine(value) << '\n';
}

// Prints what is under `path` by its next component: an entity with its type, or a number of entities.
void printMembers(std::ostream& out, const Json& entities, const std::string& path) {
  const std::size_t from = path.empty() ? 0 : path.size() + 1;
  std::map<std::string, std::size_t> below;
  Table table;
  for (const Json& entity : entities) {
    const std::string each = entity.at("path");
    if (each.size() < from) continue;
    const std::string next = upToSlash(each, from).substr(from);
    if (next.ends_with('/'))
      ++below[next];
    else
      table.add({" ", next, bare(entity.at("type"))});
  }
  for (const auto& [next, count] : below) table.add({" ", next, std::to_string(count) + " below"});
  table.print(out);
}

struct Wanted {
  std::string path, attribute;
  bool under = false;
  bool json = false;
};

void getEntity(Context& context, const Wanted& given) {
  const auto& [path, attribute, under, json] = given;
  Json entities = readSome(context.client(), path);
  if (under) addUnder(context.client(), path, entities);
  const bool here = startsAt(entities, path);
  if (!attribute.empty() && !here)
    throw Refusal("there is no entity at '" + path + "', only under it; see: pinlampctl get " + path);
  if (!attribute.empty()) return getAttribute(context, entities.front(), attribute, json);
  if (json) return printJson(context.out, entities);
  if (here)
    printEntity(context.out, entities.front());
  else
    context.out << bare(path) << (path.empty() ? "" : "\n");
  printMembers(context.out, entities, path);
}

struct AttributeSetting {
  std::string path, attribute, value, type;
  bool json = false;
};

void setAttribute(Context& context, const AttributeSetting& given) {
  Json change{
      {"op", "put"}, {"path", given.path}, {"attributes", {{given.attribute, argumentOf(given.value)}}}};
  if (given.type.empty()) {
    readSome(context.client(), given.path);
    change["existing"] = true;
  } else {
    change["type"] = given.type;
  }
  context.client().write(Json::array({change}));
  if (given.json) printJson(context.out, Json::array({context.client().read(given.path).at(0)}));
}

void deleteEntities(Context& context, const std::vector<std::string>& paths, bool json) {
  Json changes = Json::array(), deleted = Json::array();
  for (const std::string& path : paths) {
    for (Json& entity : readSome(context.client(), path)) deleted.push_back(std::move(entity));
    changes.push_back({{"op", "del"}, {"path", path}});
  }
  context.client().write(changes);
  if (json) printJson(context.out, deleted);
}

void listTypes(Context& context, bool json) {
  const Json all = context.client().types();
  if (json) {
    printJson(context.out, all);
    return;
  }
  for (const Json& type : all) {
    const Json base = type.value("base", Json());
    context.out << bare(type.at("name")) << (base.is_string() && base != "" ? " : " + bare(base) : "")
                << '\n';
    Table table;
    for (const Json& attribute : type.at("attributes"))
      table.add({" ", attribute.at("name"), bare(attribute.value("kind", Json(""))),
                 bare(attribute.value("type", Json(""))), attribute.value("stored", false) ? "stored" : ""});
    table.print(context.out);
  }
}

void addEntityGet(Command& app, Context& context) {
  const auto given = std::make_shared<Wanted>();
  Command command = app.add("get", "Shows an entity, its attributes and what is under it",
                            "pinlampctl get hardware/led/config/leds/Ethernet3%2F1 lightSetting");
  command.argument("PATH", given->path, "The entity, a '/' in its name written as %2F (default: all)")
      .completes(Completes::path);
  command.argument("ATTRIBUTE", given->attribute, "Only this attribute's value")
      .completes(Completes::attribute);
  command.flag("--under", given->under, "Also what is under a cover: what would show without it");
  command.jsonFlag(given->json);
  command.runs([&context, given] { getEntity(context, *given); });
}

void addEntitySet(Command& app, Context& context) {
  const auto given = std::make_shared<AttributeSetting>();
  Command command = app.add("set", "Sets an attribute of an entity",
                            "pinlampctl set hardware/led/config/leds/Status lightSetting '{\"red\": true}'");
  command.argument("PATH", given->path, "The entity").completes(Completes::path).required();
  command.argument("ATTRIBUTE", given->attribute, "The attribute").completes(Completes::attribute).required();
  command.argument("VALUE", given->value, "JSON, or a bare string").required();
  command.argument("--type", given->type, "Create the entity, of this type, if it does not exist")
      .completes(Completes::type);
  command.jsonFlag(given->json);
  command.runs([&context, given] { setAttribute(context, *given); });
}

void addEntityDel(Command& app, Context& context) {
  struct Arguments {
    std::vector<std::string> paths;
    bool json = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = app.add("del", "Deletes entities and everything under them",
                            "pinlampctl del hardware/led/config/leds/Beacon");
  command.argument("PATH", given->paths, "The entities").completes(Completes::path).required();
  command.jsonFlag(given->json);
  command.runs([&context, given] { deleteEntities(context, given->paths, given->json); });
}

void addTypesCommand(Command& app, Context& context) {
  const auto json = std::make_shared<bool>(false);
  Command command = app.add("types", "Lists the entity types and their attributes", "pinlampctl types");
  command.jsonFlag(*json);
  command.runs([&context, json] { listTypes(context, *json); });
}

}  // namespace

void addEntityCommands(Command& app, Context& context) {
  addEntityGet(app, context);
  addEntitySet(app, context);
  addEntityDel(app, context);
  addTypesCommand(app, context);
}

}  // namespace Ctl
