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

std::string publishedPath(const Value& value) {
  const auto* path = value.as<std::string>();
  if (!path) throw ValueError("'publishes': found " + std::string(value.kindText()) + ", expected a path");
  if (path->empty()) throw ValueError("'publishes': a path is empty; nobody publishes the whole database");
  Zel::PathWalker::checkComponents(*path);
  return *path;
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
  for (const Value& path : boundedList(parameters, "publishes", kMostPaths))
    read.publishes.push_back(publishedPath(path));
  return read;
}

Json announcementJson(const Announcement& announcement) {
  Json agents = Json::array();
  for (const auto& agent : announcement.agents)
    agents.push_back({{"name", agent.name}, {"library", agent.library}});
  return {{"pid", announcement.pid},
          {"socket", announcement.socket},
          {"agents", std::move(agents)},
          {"publishes", announcement.publishes}};
}

void Announcements::Process::announce(Announcement announcement) {
  for (const std::string& path : announcement.publishes)
    if (const std::string why = all_.refusal(*this, path, true); !why.empty())
      throw ValueError("'publishes': '" + path + "' " + why);
  withdraw();
  announcement_ = std::move(announcement);
  for (const std::string& path : announcement_.publishes) all_.paths_.emplace(path, this);
  all_.processes_.push_back(this);
}

void Announcements::Process::withdraw() {
  for (const std::string& path : announcement_.publishes) all_.paths_.erase(path);
  std::erase(all_.processes_, this);
  announcement_ = {};
}

Announcements::Paths::const_iterator Announcements::publishedAbove(const Process& writer,
                                                                   std::string_view path) const {
  for (; !path.empty() && !paths_.empty(); path = Zel::PathWalker::above(path))
    if (const auto found = paths_.find(path); found != paths_.end() && found->second != &writer) return found;
  return paths_.end();
}

Announcements::Paths::const_iterator Announcements::publishedUnder(const Process& writer,
                                                                   std::string_view path) const {
  const std::string start = path.empty() ? std::string() : std::string(path) + '/';
  auto each = paths_.lower_bound(start);
  for (; each != paths_.end() && each->first.starts_with(start); ++each)
    if (each->second != &writer) return each;
  return paths_.end();
}

std::string Announcements::refusal(const Process& writer, std::string_view path, bool removed) const {
  if (const auto above = publishedAbove(writer, path); above != paths_.end())
    return "is under '" + above->first + "', which " + textOf(above->second->announcement()) +
           " publishes; nobody else writes there while it runs";
  if (!removed) return {};
  const auto under = publishedUnder(writer, path);
  return under == paths_.end()
             ? std::string()
             : "holds '" + under->first + "', which " + textOf(under->second->announcement()) +
                   " publishes; nobody else deletes that while it runs";
}

bool Announcements::leadsToPublished(std::string_view path) const {
  const std::string start = std::string(path) + '/';
  const auto found = paths_.lower_bound(start);
  return found != paths_.end() && found->first.starts_with(start);
}

}  // namespace Host
