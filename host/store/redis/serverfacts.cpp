#include "host/store/redis/serverfacts.h"

#include <charconv>
#include <memory>
#include <utility>

#include "host/store/redis/layout.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/printable.h"

namespace Host::Redis {

namespace {

using Statedb::Durability;

// ARGV: for each command, the count of its words, then these. The server checks the user's ACL without
// running anything; unlike ACL DRYRUN this needs no right of an administrator.
constexpr const char* kRightsScript = R"lua(
local answers, at = {}, 1
while at <= #ARGV do
  local known, may = pcall(redis.acl_check_cmd, unpack(ARGV, at + 1, at + ARGV[at]))
  answers[#answers + 1] = not known and 'unknown' or may and 'yes' or 'no'
  at = at + ARGV[at] + 1
end
return answers
)lua";
constexpr Script kRights{"", kRightsScript, true};

Call rightsCall(const std::vector<std::vector<std::string>>& commands) {
  Call call{.script = &kRights, .words = {"0"}};
  for (const auto& words : commands) {
    call.words.add(words.size());
    for (const std::string& word : words) call.words.add(word);
  }
  return call;
}

ServerFacts::May mayIn(const Reply& answer) {
  return answer.text == "yes"  ? ServerFacts::May::yes
         : answer.text == "no" ? ServerFacts::May::no
                               : ServerFacts::May::noCommand;
}

// Everything that is asked for, until the last answer.
class Gathering : public std::enable_shared_from_this<Gathering> {
 public:
  Gathering(Connection& connection, Caller& caller, const Url& url,
            std::function<void(const ServerFacts&)> then)
      : connection_(connection), caller_(caller), prefix_(url.prefix), then_(std::move(then)) {}

  void begin() {
    request(
        {"INFO"}, [this](const Reply& reply) { facts_.info.values = infoIn(reply.text); },
        &facts_.info.refused);
    request(
        {"CONFIG", "GET", "appendonly", "appendfsync", "save", "client-output-buffer-limit", "min-replicas-*",
         "protected-mode", "bind", "port", "stop-writes-on-bgsave-error"},
        [this](const Reply& reply) { takeConfig(reply); }, &facts_.config.refused);
    request({"ACL", "WHOAMI"}, [this](const Reply& reply) { facts_.user = reply.text; });
    askRights();
    askDirectories();
    askSpace(Durability::stored, facts_.stored);
    askSpace(Durability::volatile_, facts_.volatile_);
    askSpace(Durability::cover, facts_.covers);
  }

 private:
  // Calls `take` with an answer, or notes an error.
  template <class Take>
  Connection::OnReply answered(Take take, std::string* refused) {
    ++open_;
    return [self = shared_from_this(), take, refused](const Reply& reply) {
      if (reply.kind != Reply::Kind::error)
        take(reply);
      else if (refused)
        *refused = Zel::printable(reply.text.substr(0, kLongestRefusal));
      if (--self->open_ == 0) self->then_(self->facts_);
    };
  }
  template <class Take>
  void request(const Words& words, Take take, std::string* refused = nullptr) {
    connection_.request(words, answered(std::move(take), refused));
  }
  template <class Take>
  void call(Call what, Take take, std::string* refused) {
    caller_.call(std::move(what), answered(std::move(take), refused));
  }

  void takeConfig(const Reply& reply) {
    for (std::size_t i = 0; i + 1 < reply.list.size(); i += 2)
      facts_.config.values[reply[i].text] = reply[i + 1].text;
  }

  void askRights() {
    std::vector<std::vector<std::string>> commands;
    for (Need& each : needsOf(prefix_)) {
      std::string text;
      for (const std::string& word : each.words) text += (text.empty() ? "" : " ") + word;
      facts_.rights.push_back({each.role, std::move(text)});
      commands.push_back(std::move(each.words));
    }
    call(
        rightsCall(commands), [this](const Reply& reply) { takeRights(reply); }, &facts_.scriptsRefused);
  }
  void takeRights(const Reply& reply) {
    for (std::size_t i = 0; i < facts_.rights.size(); ++i) facts_.rights[i].may = mayIn(reply[i]);
  }

  void askDirectories() {
    const Keys keys(prefix_, Durability::stored);
    request({"ZRANGEBYLEX", keys.directories(), "-", "+", "LIMIT", "0", std::to_string(kMostDirectories)},
            [this](const Reply& reply) { takeDirectories(reply); });
  }
  void takeDirectories(const Reply& reply) {
    const Keys keys(prefix_, Durability::stored);
    std::vector<std::vector<std::string>> commands;
    for (const Reply& each : reply.list) {
      facts_.directories.push_back({each.text});
      commands.push_back({"HSET", keys.directory(each.text), "x", "x"});
    }
    if (commands.empty()) return;
    const auto take = [this](const Reply& rights) {
      for (std::size_t i = 0; i < facts_.directories.size(); ++i)
        facts_.directories[i].mayWrite = mayIn(rights[i]) == ServerFacts::May::yes;
    };
    call(rightsCall(commands), take, nullptr);
    connection_.flush();
  }

  void askSpace(Durability durability, ServerFacts::Space& space) {
    const auto take = [&space](const Reply& reply) {
      try {
        const LogPage page = logPage(reply);
        space.generation = page.generation;
        space.tip = page.tip;
        if (!page.entries.empty()) space.first = page.entries.front().revision;
      } catch (const Zel::ValueError& error) {
        space.refused = Zel::printable(error.what());
      }
    };
    call(logCall(Keys(prefix_, durability), 0, 1), take, &space.refused);
  }

  static constexpr std::size_t kLongestRefusal = 200;

  Connection& connection_;
  Caller& caller_;
  const std::string prefix_;
  const std::function<void(const ServerFacts&)> then_;
  ServerFacts facts_{};
  std::size_t open_ = 0;  // answers that are awaited
};

}  // namespace

std::vector<Need> needsOf(std::string_view prefix) {
  const Keys s(prefix, Durability::stored), v(prefix, Durability::volatile_), c(prefix, Durability::cover);
  std::vector<Need> needs;
  const auto add = [&](Role role, std::vector<std::string> words) {
    needs.push_back({role, std::move(words)});
  };
  add(Role::reader, {"PING"});
  add(Role::reader, {"INFO"});
  add(Role::reader, {"SCRIPT", "LOAD", "x"});
  add(Role::reader, {"EVALSHA_RO", "x", "0"});
  for (const Keys* each : {&v, &c}) {
    add(Role::reader, {"HGETALL", each->meta()});
    add(Role::reader, {"HMGET", each->claim("x"), "x"});
  }
  for (const Keys* each : {&s, &v, &c}) {
    add(Role::reader, {"SUBSCRIBE", each->channel()});
    for (const char* command : {"HGET", "HMGET"}) add(Role::reader, {command, each->meta(), "x"});
    for (const char* command : {"XRANGE", "XREVRANGE"}) add(Role::reader, {command, each->log(), "-", "+"});
    add(Role::reader, {"ZRANGEBYLEX", each->directories(), "-", "+"});
    add(Role::reader, {"HSCAN", each->directory("x"), "0"});
  }
  for (const Role role : {Role::writer, Role::publisher}) {
    const Keys& own = role == Role::writer ? s : v;
    add(role, {"EVALSHA", "x", "0"});
    add(role, {"TIME"});
    add(role, {"HGETALL", own.meta()});
    add(role, {"HSET", own.meta(), "x", "x"});
    for (const char* command : {"HDEL", "HEXISTS"}) add(role, {command, own.meta(), "x"});
    for (const char* command : {"EXISTS", "UNLINK"}) add(role, {command, own.log()});
    add(role, {"ZADD", own.directories(), "0", "x"});
    add(role, {"ZRANGE", own.directories(), "0", "0"});
    add(role, {"ZSCORE", own.directories(), "x"});
    for (const Keys* each : {&s, &v}) {
      // A stored del or unset takes volatile values along.
      if (role == Role::publisher && each == &s) continue;
      add(role, {"XADD", each->log(), "*", "x", "x"});
      add(role, {"XTRIM", each->log(), "MAXLEN", "1"});
      add(role, {"ZREM", each->directories(), "x"});
      add(role, {"PUBLISH", each->channel(), "x"});
    }
  }
  add(Role::publisher, {"DEL", v.meta()});
  return needs;
}

std::map<std::string, std::string, std::less<>> infoIn(std::string_view text) {
  std::map<std::string, std::string, std::less<>> values;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find("\r\n"), text.size());
    const std::string_view line = text.substr(0, end);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos)
      values.emplace(std::string(line.substr(0, colon)), std::string(line.substr(colon + 1)));
    text.remove_prefix(std::min(end + 2, text.size()));
  }
  return values;
}

std::optional<std::string> ServerFacts::Values::operator[](std::string_view name) const {
  const auto found = values.find(name);
  return found == values.end() ? std::nullopt : std::optional(found->second);
}

std::uint64_t ServerFacts::Values::number(std::string_view name) const {
  return Reply{Reply::Kind::text, 0, (*this)[name].value_or(""), {}}.unsignedNumber();
}

void gatherFacts(Connection& connection, Caller& caller, const Url& url,
                 std::function<void(const ServerFacts& facts)> then) {
  std::make_shared<Gathering>(connection, caller, url, std::move(then))->begin();
}

}  // namespace Host::Redis
