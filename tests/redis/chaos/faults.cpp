#include "tests/redis/chaos/faults.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace Chaos {

namespace {
constexpr std::uint64_t kLongestPause = 250;  // milliseconds between two beginnings

}  // namespace

const std::vector<Faults::Kind>& Faults::kinds() {
  static const std::vector<Kind> all{
      {"server killed", 4, 400, true, &Faults::killServer, &Faults::startServer},
      {"server killed, file cut", 2, 400, true, &Faults::killServerAndCutItsFile, &Faults::startServer},
      {"server killed, file removed", 1, 400, true, &Faults::killServerAndRemoveItsFile,
       &Faults::startServer},
      {"server stopped", 4, 1500, true, &Faults::stopServer, &Faults::continueServer},
      {"FLUSHALL", 2, 0, true, &Faults::wipe, nullptr},
      {"BGREWRITEAOF", 2, 0, true, &Faults::rewriteFile, nullptr},
      {"SCRIPT FLUSH", 1, 0, true, &Faults::forgetScripts, nullptr},
      {"CLIENT KILL pubsub", 2, 0, true, &Faults::endSubscriptions, nullptr},
      {"CLIENT KILL normal", 2, 0, true, &Faults::endCommands, nullptr},
      {"output limit", 2, 800, true, &Faults::limitOutput, &Faults::unlimitOutput},
      {"out of memory", 2, 800, true, &Faults::fillMemory, &Faults::freeMemory},
      {"too few replicas", 1, 800, true, &Faults::wantReplicas, &Faults::wantNoReplicas},
      {"eviction", 1, 800, true, &Faults::evict, &Faults::evictNothing},
      {"a replica for a while", 2, 800, true, &Faults::demote, &Faults::promote},
      {"no permission", 1, 800, true, &Faults::forbid, &Faults::allow},
      {"cut", 6, 0, false, &Faults::cut, nullptr},
      {"both directions held", 3, 1500, false, &Faults::hold, &Faults::healNetwork},
      {"requests held", 4, 1500, false, &Faults::holdUp, &Faults::healNetwork},
      {"answers held", 4, 1500, false, &Faults::holdDown, &Faults::healNetwork},
      {"slow", 4, 800, false, &Faults::slow, &Faults::healNetwork},
      {"trickle", 2, 400, false, &Faults::trickle, &Faults::healNetwork},
      {"cut within an answer", 3, 200, false, &Faults::cutInReply, &Faults::healNetwork},
      {"connections refused", 2, 600, false, &Faults::refuse, &Faults::healNetwork},
      {"process killed", 3, 1500, false, &Faults::killProcess, &Faults::startProcess},
  };
  return all;
}

void Faults::act() {
  const std::uint64_t at = now();
  std::erase_if(active_, [&](const Active& each) { return each.until <= at && end(each); });
  if (at < next_) return;
  next_ = at + below(kLongestPause);
  unsigned sum = 0;
  for (const Kind& each : kinds()) sum += each.weight;
  std::uint64_t chosen = below(sum);
  for (const Kind& each : kinds()) {
    if (chosen < each.weight) return begin(each, *world_.processes[below(world_.processes.size())]);
    chosen -= each.weight;
  }
}

bool Faults::heal() {
  std::erase_if(active_, [&](const Active& each) { return end(each); });
  return active_.empty();
}

bool Faults::isFree(const Kind& kind, const Process* process) const {
  return std::ranges::none_of(active_, [&](const Active& each) {
    return kind.isOfServer ? each.kind->isOfServer : each.process == process;
  });
}

void Faults::begin(const Kind& kind, Process& process) {
  Process* const of = kind.isOfServer ? nullptr : &process;
  if (!isFree(kind, of) || (kind.isOfServer && !world_.reference.isReady())) return;
  ++counts_[kind.name];
  world_.log("-- " + std::string(kind.name) + (of ? ": " + of->name : ""));
  (this->*kind.begin)(process);
  if (kind.end) active_.push_back({&kind, of, now() + below(kind.longest)});
}

// A process starts where the server has carried out everything that its predecessor had sent.
bool Faults::end(const Active& active) {
  if (active.kind->end == &Faults::startProcess && (!world_.isServerUp || !world_.reference.isReady()))
    return false;
  Process& process = active.process ? *active.process : *world_.processes[0];
  (this->*active.kind->end)(process);
  world_.log("   ended: " + std::string(active.kind->name) + (active.process ? ": " + process.name : ""));
  return true;
}

void Faults::command(const std::string& words) {
  std::istringstream in(words);
  command(Reference::Words(std::istream_iterator<std::string>(in), {}));
}
void Faults::command(const Reference::Words& words) {
  world_.reference.isReady();  // notices a connection that the server has ended
  const auto answer = world_.reference(words);
  if (!answer || answer->type == REDIS_REPLY_ERROR)
    world_.fault("'" + words.back() + "': " + (answer ? answer->str : "no answer"));
}

// The server -----------------------------------------------------------------------------------------------

void Faults::killServer(Process&) {
  world_.isServerUp = false;
  world_.server.end(SIGKILL);
  ++world_.history.volatile_;
}

// An older file: the tail is gone, from behind a transaction. Cut within one, Redis 7.0 leaves half of it in
// the file, and carries it out at the next start. Of the files' names the longest and greatest is the last.
void Faults::killServerAndCutItsFile(Process& process) {
  killServer(process);
  ++world_.history.stored;
  std::string last;
  for (const auto& file : std::filesystem::directory_iterator(world_.server.at("appendonlydir")))
    if (const std::string name = file.path(); name.ends_with(".incr.aof"))
      last = std::max(last, name,
                      [](auto& a, auto& b) { return std::pair(a.size(), a) < std::pair(b.size(), b); });
  const std::string content = contentOf(last), mark = "\r\nEXEC\r\n";
  const std::size_t found = content.rfind(mark, content.size() * (50 + below(50)) / 100);
  std::filesystem::resize_file(last, found == std::string::npos ? 0 : found + mark.size());
}

void Faults::killServerAndRemoveItsFile(Process& process) {
  killServer(process);
  ++world_.history.stored;
  std::filesystem::remove_all(world_.server.at("appendonlydir"));
}

void Faults::startServer(Process&) {
  world_.server.start();
  world_.isServerUp = true;
  world_.forgetClaim();
}

void Faults::stopServer(Process&) {
  world_.isServerUp = false;
  world_.server.signal(SIGSTOP);
}

void Faults::continueServer(Process&) {
  world_.server.signal(SIGCONT);
  world_.isServerUp = true;
}

void Faults::wipe(Process&) {
  command("FLUSHALL");
  ++world_.history.stored;
  ++world_.history.volatile_;
  world_.forgetClaim();
}

void Faults::rewriteFile(Process&) { world_.reference({"BGREWRITEAOF"}); }  // refused while another one runs
void Faults::forgetScripts(Process&) { command("SCRIPT FLUSH"); }
void Faults::endSubscriptions(Process&) { command("CLIENT KILL TYPE pubsub"); }
void Faults::endCommands(Process&) { command("CLIENT KILL TYPE normal SKIPME yes"); }
void Faults::limitOutput(Process& process) {
  process.proxy.down.isHeld = true;
  command({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 4096 0 0 normal 65536 0 0"});
}
void Faults::unlimitOutput(Process&) {
  command({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 32mb 8mb 60 normal 0 0 0"});
  for (const auto& each : world_.processes) each->proxy.down.isHeld = false;
}
void Faults::fillMemory(Process&) { command("CONFIG SET maxmemory 1"); }
void Faults::freeMemory(Process&) { command("CONFIG SET maxmemory 0"); }
void Faults::wantReplicas(Process&) { command("CONFIG SET min-replicas-to-write 1"); }
void Faults::wantNoReplicas(Process&) { command("CONFIG SET min-replicas-to-write 0"); }
void Faults::evict(Process&) { command("CONFIG SET maxmemory-policy allkeys-lru"); }
void Faults::evictNothing(Process&) { command("CONFIG SET maxmemory-policy noeviction"); }
// Of a master that does not exist; promoted, it has another replication id.
void Faults::demote(Process&) { command("REPLICAOF 127.0.0.1 1"); }
void Faults::promote(Process&) { command("REPLICAOF NO ONE"); }
void Faults::forbid(Process&) { command("ACL SETUSER default -evalsha -subscribe"); }
void Faults::allow(Process&) { command("ACL SETUSER default +@all"); }

// A process and its network --------------------------------------------------------------------------------

void Faults::cut(Process& process) { process.proxy.cut(); }
void Faults::hold(Process& process) { process.proxy.up.isHeld = process.proxy.down.isHeld = true; }
void Faults::holdUp(Process& process) { process.proxy.up.isHeld = true; }
void Faults::holdDown(Process& process) { process.proxy.down.isHeld = true; }
void Faults::slow(Process& process) {
  process.proxy.up.delay = below(50);
  process.proxy.down.delay = below(50);
}
void Faults::trickle(Process& process) { process.proxy.down.most = process.proxy.up.most = 1 + below(40); }
void Faults::cutInReply(Process& process) {
  (below(2) == 0 ? process.proxy.down : process.proxy.up).endsInChunk = true;
}
void Faults::refuse(Process& process) {
  process.proxy.refuses = true;
  process.proxy.cut();
}
void Faults::healNetwork(Process& process) {
  process.proxy.up = process.proxy.down = {};
  process.proxy.refuses = false;
}
void Faults::killProcess(Process& process) { world_.kill(process); }
void Faults::startProcess(Process& process) { world_.start(process); }

}  // namespace Chaos
