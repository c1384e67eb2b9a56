#include "tests/redis/chaos/world.h"

#include <algorithm>
#include <sstream>

#include "host/store/redis/redisstore.h"

namespace Chaos {

namespace {

constexpr std::uint64_t kTick = 2;                              // milliseconds
constexpr std::uint64_t kLongestRound = 50, kStandstill = 250;  // milliseconds
constexpr std::size_t kMostRecent = 400, kMostShown = 8, kLastEntries = 10, kLastLines = 8;

// Synced at each write: otherwise the server acknowledges what its file lacks while a sync is under way, and
// kill -9 loses it. Everybody but this program uses the default user.
constexpr const char* kConfiguration =
    "appendfsync always\nmaxmemory-policy noeviction\nuser chaos on >chaos ~* &* +@all\n";
// A lease and a timeout that pass within a round, a log that is cut often, rows that nobody may miss.
constexpr const char* kOptions = "?timeout=500ms&lease=1s&hold=5m&log=300";
// A snapshot takes many rounds.
constexpr Host::Redis::Subscribers::Portion kPortion{.paths = 4, .nanoseconds = 0};

constexpr const char* kLook = R"lua(
local last = redis.call('XREVRANGE', KEYS[2], '+', '-', 'COUNT', 1)
local tip = last[1] and string.match(last[1][1], '%d+$') or '0'
return {redis.call('HGET', KEYS[1], 'generation') or '', redis.call('HGET', KEYS[1], ARGV[1]) or '', tip,
        redis.call('XRANGE', KEYS[2], '(0-' .. ARGV[2], '+'), redis.call('HGET', KEYS[3], 'who') or ''}
)lua";

unsigned long epochOf(const std::string& token) { return token.empty() ? 0 : std::stoul(token); }
std::string ownerOf(const std::string& token) {
  return token.substr(std::min(token.size(), token.find(' ') + 1));
}
// An origin is UUID.SPACE:SEQUENCE.
bool isBy(const std::string& origin, const std::string& owner) {
  return !owner.empty() && origin.starts_with(owner.substr(0, owner.find('.')));
}

void compare(const std::string& who, const Rows& rows, const Rows& expected, const Reader& reader,
             std::vector<std::string>& differing) {
  for (const auto& [place, value] : expected) {
    const auto found = rows.find(place);
    if (found == rows.end() || found->second != value)
      differing.push_back(who + " has " + (found == rows.end() ? "nothing" : found->second) + " at " + place +
                          ", the server " + value + reader.past(place));
  }
  for (const auto& [place, value] : rows)
    if (!expected.contains(place))
      differing.push_back(who + " has " + value + " at " + place + ", the server nothing" +
                          reader.past(place));
}

Rows rowsOf(const Statedb::Table& table) {
  const History none;
  Reader reader("", none, {});
  reader.onSnapshot(table.read({}));
  return reader.rows();
}

}  // namespace

bool Process::owns(const char* mount) const {
  if (!store) return false;
  const auto claims = store->state().claims;
  return std::ranges::any_of(claims, [mount](const auto& each) { return each.mount == mount && each.isOwn; });
}

World::World(unsigned seed) : server(kConfiguration) {
  tick_.reset(new uv_timer_t);
  uv_timer_init(loop.uv(), tick_.get());
  uv_timer_start(
      tick_.get(), [](uv_timer_t*) {}, kTick, kTick);
  struct Part {
    const char* name;
    bool publishes, writes;
  };
  for (const Part& part : {Part{"one", true, true}, Part{"two", true, true}, Part{"three", false, true},
                           Part{"four", false, false}, Part{"five", false, false}}) {
    const std::string name = part.name;
    const int pid = static_cast<int>(processes.size()) + 1;
    processes.emplace_back(new Process{name, pid, part.publishes, {loop, server.at(name), server.socket()}});
    if (part.writes)
      processes.back()->writer = std::make_unique<Writer>(name, ++seed, history, part.publishes);
  }
  while (!reference.isReady()) run();
  for (const auto& each : processes) start(*each);
}

World::~World() {
  for (const auto& each : processes) kill(*each);
}

void World::start(Process& process) {
  process.reader =
      std::make_unique<Reader>(process.name, history, [this](const std::string& what) { fault(what); });
  const auto report = [this, name = process.name](const std::string& text) {
    log(name + text.substr(std::min(text.size(), text.find(": "))));
  };
  process.store = std::make_unique<Host::Redis::RedisStore>(
      loop, "redis-unix:" + server.at(process.name) + kOptions, report, kPortion);
  process.store->subscribe({}, *process.reader);
  if (process.publishes)
    process.store->announce({.pid = process.pid,
                             .agents = {{process.name, "chaos"}},
                             .publishes = {kPins},
                             .covers = {kCovered}});
  if (process.writer) process.writer->starts(*process.store);
}

void World::kill(Process& process) {
  process.proxy.cut();
  process.store = nullptr;
  if (process.writer) process.writer->ended();
}

void World::run() {
  const std::uint64_t before = std::exchange(ranAt_, now());
  watched_ += std::min(ranAt_ - before, kLongestRound);
  if (ranAt_ - before > kStandstill)
    log("(the last round took " + std::to_string(ranAt_ - before) +
        " ms: this process or the server had to wait)");
  uv_run(loop.uv(), UV_RUN_ONCE);
  loop.runOnce();  // throws what a callback threw
  for (const auto& each : processes) {
    each->proxy.pump();
    if (each->store) each->store->flush();
    if (each->writer) each->writer->poll();
  }
}

void World::watchClaim() {
  const std::string tip = std::to_string(seen_ ? seen_->tip : 0);
  const auto answer =
      reference({"EVAL", kLook, "3", "{pinlamp}:v:meta", "{pinlamp}:v:log",
                 "{pinlamp}:v:claim:" + std::string(kPins), "claim:" + std::string(kPins), tip});
  if (!answer || answer->type != REDIS_REPLY_ARRAY) return;
  const auto words = wordsOf(answer.get());
  const Seen now{words[0], words[1], words[4], std::stoul(words[2])};
  if (!seen_ || seen_->generation != now.generation || seen_->token != now.token)
    log("   claim '" + now.token + "' of " + now.who + " at revision " + words[2] + " of generation " +
        now.generation);
  if (seen_ && seen_->generation == now.generation && seen_->tip <= now.tip)
    checkWriters(now, answer->element[3]);
  seen_ = now;
}

// Between two looks, the former owner wrote and then the next one, nobody else.
void World::checkWriters(const Seen& now, const redisReply* entries) {
  const unsigned long before = epochOf(seen_->token), after = epochOf(now.token);
  if (after > before) takeOvers += after - before;
  bool isNext = false;
  for (std::size_t i = 0; i < entries->elements && (after == before || after == before + 1); ++i) {
    const auto words = wordsOf(entries->element[i]->element[1]);
    const std::string &origin = words[1], &delta = words[3];
    if (delta.find("@" + std::string(kPins) + "\n") == std::string::npos) continue;
    isNext = isNext || !isBy(origin, ownerOf(seen_->token));
    if (isNext && !isBy(origin, ownerOf(now.token)))
      fault("the pins were written by " + origin + " while their claim went from '" + seen_->token +
            "' to '" + now.token + "'");
  }
}

Process* World::ownerOfPins(std::vector<std::string>& differing) {
  Process* owner = nullptr;
  unsigned count = 0;
  for (const auto& each : processes) {
    if (!each->owns(kPins)) continue;
    owner = each.get();
    ++count;
  }
  if (count != 1) differing.push_back(std::to_string(count) + " processes own the pins");
  return count == 1 ? owner : nullptr;
}

void World::compareReaders(std::vector<std::string>& differing) {
  const Rows expected = reference.merged(differing);
  for (const auto& each : processes) {
    compare("reader " + each->name, each->reader->rows(), expected, *each->reader, differing);
    if (const auto* table = each->store->table())
      compare("the table of " + each->name, rowsOf(*table), expected, *each->reader, differing);
  }
}

// The server has the covers of the process that holds their claim, and none where nobody does.
void World::compareCovers(std::vector<std::string>& differing) {
  Rows expected;
  for (const auto& each : processes)
    if (each->owns(kCovered)) expected = each->writer->covers();
  const Rows covers = reference.rows("c", differing);
  for (const auto& [place, value] : expected)
    if (const auto found = covers.find(place); found == covers.end() || found->second != value)
      differing.push_back("the server has " + (found == covers.end() ? "no cover" : found->second) + " at " +
                          place + ", the process that covers put " + value);
  for (const auto& [place, value] : covers)
    if (!expected.contains(place))
      differing.push_back("the server has the cover " + value + " at " + place +
                          ", the process that covers none");
}

bool World::isSettled(std::vector<std::string>& differing) {
  if (!isServerUp || !reference.isReady()) differing.push_back("the server does not answer");
  for (const auto& each : processes) {
    const Statedb::StoreState state = each->store->state();
    if (!state.isReached) differing.push_back(each->name + " does not reach the server: " + state.reason);
    if (each->writer && !each->writer->isIdle()) differing.push_back(each->name + " waits for a ticket");
    if (each->writer && !each->writer->isProbed())
      differing.push_back(each->name + " " + each->writer->whyNotProbed());
  }
  if (!differing.empty()) return false;
  Process* owner = ownerOfPins(differing);
  if (owner) owner->writer->verifyPins(reference.rows("v", differing), differing);
  if (differing.empty()) compareCovers(differing);
  if (differing.empty()) compareReaders(differing);
  return differing.empty();
}

void World::verify() {
  std::vector<std::string> differing;
  const Rows stored = reference.rows("s", differing), published = reference.rows("v", differing);
  for (const auto& each : processes) {
    if (!each->writer) continue;
    each->writer->verify(stored, differing);
    for (const auto& other : processes) each->writer->verifyUnseen(*other->reader, differing);
  }
  for (const auto& each : processes) each->reader->settled(stored, published);
  for (const std::string& each : differing) fault(each);
}

void World::log(const std::string& text) {
  recent.push_back(timeText() + "  " + text);
  if (recent.size() > kMostRecent) recent.pop_front();
}

void World::fault(const std::string& what) {
  if (faults.size() >= kMostShown) return;
  faults.push_back(timeText() + "  " + what);
  log("!! " + what);
}

std::string World::stateOf(const Process& process) const {
  if (!process.store) return process.name + " does not run";
  const Statedb::StoreState state = process.store->state();
  std::string text = process.name + (state.isReached ? " reaches the server" : ": " + state.reason);
  for (const auto& each : state.claims)
    text += "; '" + each.mount + "' is " + (each.isOwn ? "its own" : "that of " + each.who) +
            (each.isOrphan ? ", an orphan" : "");
  if (process.writer && !process.writer->isIdle()) text += "; waits for a ticket";
  return text;
}

// The claim of a mount, and the end of its space's log.
void World::appendSpace(const char* space, const char* mount, std::vector<std::string>& lines) {
  const std::string prefix = std::string("{pinlamp}:") + space + ":";
  std::string claim = "the server's claim of '" + std::string(mount) + "': '" +
                      reference.text({"HGET", prefix + "meta", "claim:" + std::string(mount)}) +
                      "' of generation " + reference.text({"HGET", prefix + "meta", "generation"});
  for (const std::string& each : wordsOf(reference({"HGETALL", prefix + "claim:" + mount}).get()))
    claim += " " + each;
  lines.push_back(claim);
  const auto entries =
      reference({"XREVRANGE", prefix + "log", "+", "-", "COUNT", std::to_string(kLastEntries)});
  for (std::size_t i = entries ? entries->elements : 0; i-- > 0;) {
    std::string text = "entry " + wordsOf(entries->element[i])[0];
    for (const std::string& each : wordsOf(entries->element[i]->element[1]))
      text += " " + each.substr(0, 150);
    std::ranges::replace(text, '\n', ' ');
    lines.push_back(text);
  }
}

std::vector<std::string> World::lastStates() {
  std::vector<std::string> lines;
  for (const auto& each : processes) lines.push_back(stateOf(*each));
  if (!isServerUp || !reference.isReady()) {
    lines.push_back("the server does not answer");
  } else {
    appendSpace("v", kPins, lines);
    appendSpace("c", kCovered, lines);
  }
  std::istringstream log(contentOf(server.at("log")));
  std::deque<std::string> tail;
  for (std::string line; std::getline(log, line);) {
    tail.push_back("redis: " + line.substr(0, 150));
    if (tail.size() > kLastLines) tail.pop_front();
  }
  lines.insert(lines.end(), tail.begin(), tail.end());
  return lines;
}

}  // namespace Chaos
