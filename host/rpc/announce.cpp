#include "host/rpc/announce.h"

#include <algorithm>
#include <utility>

#include "platform/zel/entity/pathwalker.h"

namespace Host {

using Zel::Value;
using Zel::ValueError;

namespace {

constexpr std::size_t kMostAgents = 64;
constexpr std::size_t kMostPaths = 64;
constexpr std::size_t kLongestFile = 4096;  // bytes of a library's or a socket's path

const Value::List& boundedList(const Value& value, const char* name, std::size_t limit) {
  const Value::List& list = listField(value, name);
  if (list.size() > limit)
    throw ValueError("'" + std::string(name) + "' has more than " + std::to_string(limit) + " entries");
  return list;
}

std::int64_t pidField(const Value& value) {
  const Value* field = value.field("pid");
  const auto* pid = field ? field->as<std::int64_t>() : nullptr;
  if (!pid || *pid <= 0 || *pid > INT32_MAX) throw ValueError("'pid': expected the number of a process");
  return *pid;
}

std::string announcedPath(const Value& value, const std::string& name) {
  const auto* path = value.as<std::string>();
  if (!path) throw ValueError("'" + name + "': found " + value.kindText() + ", expected a path");
  if (path->empty())
    throw ValueError("'" + name + "': a path is empty; nobody " + name + " the whole database");
  Zel::PathWalker::checkComponents(*path);
  return *path;
}

std::vector<std::string> announcedPaths(const Value& parameters, const char* name) {
  std::vector<std::string> paths;
  for (const Value& path : boundedList(parameters, name, kMostPaths))
    paths.push_back(announcedPath(path, name));
  return paths;
}

std::string textOf(const Announcement& announcement) {
  return "process " + std::to_string(announcement.pid) + " ('" + announcement.socket + "')";
}

}  // namespace

Announcement announcementFrom(const Value& parameters) {
  Announcement read{.pid = pidField(parameters),
                    .socket = boundedText(parameters, "socket", kLongestFile, Needed::yes)};
  for (const Value& agent : boundedList(parameters, "agents", kMostAgents)) {
    expectFields(agent, {"name", "library"});
    read.agents.push_back({boundedText(agent, "name", Zel::Name::kLongest, Needed::yes),
                           boundedText(agent, "library", kLongestFile, Needed::yes)});
  }
  read.publishes = announcedPaths(parameters, "publishes");
  if (parameters.field("ends")) read.ends = announcedPaths(parameters, "ends");
  for (const std::string& path : read.ends)
    if (std::ranges::find(read.publishes, path) == read.publishes.end())
      throw ValueError("'ends': '" + path + "' is not among 'publishes'");
  if (parameters.field("covers")) read.covers = announcedPaths(parameters, "covers");
  return read;
}

Json announcementJson(const Announcement& announcement) {
  Json agents = Json::array();
  for (const auto& agent : announcement.agents)
    agents.push_back({{"name", agent.name}, {"library", agent.library}});
  Json json = {{"pid", announcement.pid},
               {"socket", announcement.socket},
               {"agents", std::move(agents)},
               {"publishes", announcement.publishes}};
  if (!announcement.ends.empty()) json["ends"] = announcement.ends;
  if (!announcement.covers.empty()) json["covers"] = announcement.covers;
  return json;
}

void Announcements::Process::announce(Announcement announcement) {
  for (const std::string& path : announcement.publishes)
    if (const std::string why = all_.conflict(*this, path); !why.empty())
      throw ValueError("'publishes': '" + path + "' " + why);
  for (const std::string& path : announcement.covers)
    if (const std::string why = all_.conflict(*this, path); !why.empty())
      throw ValueError("'covers': '" + path + "' " + why);
  withdraw();
  announcement_ = std::move(announcement);
  for (const std::string& path : announcement_.publishes) all_.paths_.emplace(path, this);
  for (const std::string& path : announcement_.covers) all_.covered_.emplace(path, this);
  all_.processes_.push_back(this);
  ++all_.changes_;
}

void Announcements::Process::withdraw() {
  for (const std::string& path : announcement_.publishes) all_.paths_.erase(path);
  for (const std::string& path : announcement_.covers) all_.covered_.erase(path);
  if (std::erase(all_.processes_, this) > 0) ++all_.changes_;
  announcement_ = {};
}

Announcements::Paths::const_iterator Announcements::above(const Paths& paths, const Process& writer,
                                                          std::string_view path) {
  for (; !path.empty() && !paths.empty(); path = Zel::PathWalker::above(path))
    if (const auto found = paths.find(path); found != paths.end() && found->second != &writer) return found;
  return paths.end();
}

Announcements::Paths::const_iterator Announcements::under(const Paths& paths, const Process& writer,
                                                          std::string_view path) {
  const std::string start = path.empty() ? std::string() : std::string(path) + '/';
  auto each = paths.lower_bound(start);
  for (; each != paths.end() && each->first.starts_with(start); ++each)
    if (each->second != &writer) return each;
  return paths.end();
}

std::string Announcements::conflict(const Process& writer, std::string_view path) const {
  if (const std::string why = refusal(writer, path, true); !why.empty()) return why;
  auto other = above(covered_, writer, path);
  if (other == covered_.end()) other = under(covered_, writer, path);
  if (other == covered_.end()) return {};
  return "is at, above or under '" + other->first + "', which " + textOf(other->second->announcement()) +
         " covers; nobody else publishes or covers there while it runs";
}

std::string Announcements::coverRefusal(const Process& writer, std::string_view path) const {
  for (; !path.empty(); path = Zel::PathWalker::above(path))
    if (const auto found = covered_.find(path); found != covered_.end() && found->second == &writer)
      return {};
  return "is not under a path that this process announced to cover";
}

std::string Announcements::refusal(const Process& writer, std::string_view path, bool removed) const {
  if (const auto found = above(paths_, writer, path); found != paths_.end())
    return "is under '" + found->first + "', which " + textOf(found->second->announcement()) +
           " publishes; nobody else writes there while it runs";
  if (!removed) return {};
  const auto found = under(paths_, writer, path);
  return found == paths_.end()
             ? std::string()
             : "holds '" + found->first + "', which " + textOf(found->second->announcement()) +
                   " publishes; nobody else deletes that while it runs";
}

bool Announcements::leadsToPublished(std::string_view path) const {
  const std::string start = std::string(path) + '/';
  const auto found = paths_.lower_bound(start);
  return found != paths_.end() && found->first.starts_with(start);
}

}  // namespace Host
