#include "tests/redis/chaos/reference.h"

#include <algorithm>
#include <set>

namespace Chaos {

namespace {
// A server that is not stopped answers; a busy machine may let it wait.
constexpr timeval kPatience{20, 0};

std::string textOf(const redisReply* reply) {
  return reply && (reply->type == REDIS_REPLY_STRING || reply->type == REDIS_REPLY_STATUS)
             ? std::string(reply->str, reply->len)
             : std::string();
}
}  // namespace

std::vector<std::string> wordsOf(const redisReply* reply) {
  std::vector<std::string> words;
  if (reply && reply->type == REDIS_REPLY_ARRAY)
    for (std::size_t i = 0; i < reply->elements; ++i) words.push_back(textOf(reply->element[i]));
  return words;
}

bool Reference::connect() {
  if (context_ && context_->err == 0) return true;
  context_.reset(redisConnectUnixWithTimeout(socket_.c_str(), kPatience));
  if (!context_ || context_->err != 0) return false;
  redisSetTimeout(context_.get(), kPatience);
  return text({"AUTH", "chaos", "chaos"}) == "OK";
}

bool Reference::isReady() { return text({"PING"}) == "PONG"; }

Reference::Answer Reference::operator()(const Words& words) {
  if (words[0] != "AUTH" && !connect()) return nullptr;
  std::vector<const char*> texts;
  std::vector<std::size_t> sizes;
  for (const std::string& each : words) {
    texts.push_back(each.data());
    sizes.push_back(each.size());
  }
  return Answer(static_cast<redisReply*>(
      redisCommandArgv(context_.get(), static_cast<int>(words.size()), texts.data(), sizes.data())));
}

std::string Reference::text(const Words& words) { return textOf((*this)(words).get()); }

Rows Reference::rows(const std::string& space, std::vector<std::string>& differing) {
  const std::string prefix = "{pinlamp}:" + space + ":";
  const auto listed = wordsOf((*this)({"ZRANGE", prefix + "dirs", "0", "-1"}).get());
  const auto keys = wordsOf((*this)({"KEYS", prefix + "d:*"}).get());
  std::set<std::string> directories;
  for (const std::string& key : keys) directories.insert(key.substr(prefix.size() + 2));
  if (directories != std::set<std::string>(listed.begin(), listed.end()))
    differing.push_back(prefix + "dirs lists " + std::to_string(listed.size()) +
                        " directories, and there are " + std::to_string(directories.size()));
  Rows rows;
  for (const std::string& directory : directories) {
    const auto fields = wordsOf((*this)({"HGETALL", prefix + "d:" + directory}).get());
    for (std::size_t i = 0; i + 1 < fields.size(); i += 2) {
      std::string place = fields[i];
      const std::size_t slash = place.find('/');
      const bool isEntity = slash == std::string::npos;
      if (!isEntity) place[slash] = '\t';
      const std::string& value = fields[i + 1];
      rows[directory.empty() ? place : directory + "/" + place] =
          isEntity ? value.substr(0, value.find('\t')) : value;
    }
  }
  return rows;
}

Rows Reference::merged(std::vector<std::string>& differing) {
  Rows over = rows("v", differing);
  over.merge(rows("s", differing));
  const Rows covers = rows("c", differing);
  for (const auto& [place, value] : covers) {
    const std::string path = place.substr(0, place.find('\t'));
    const auto entity = over.find(path);
    if (entity != over.end() && entity->second == covers.at(path)) over[place] = value;
  }
  return over;
}

}  // namespace Chaos
