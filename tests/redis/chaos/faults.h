// What may go wrong with the server, the network and the processes: each fault begins, lasts and is healed.
#pragma once

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/redis/chaos/world.h"

namespace Chaos {

class Faults {
 public:
  Faults(World& world, unsigned seed) : world_(world), random_(seed) {}

  // Heals what has lasted long enough, and begins another now and then. At most one fault of the server and
  // one of each process at a time.
  void act();
  // Heals everything. Call it until it returns true: a process starts only where the server answers.
  bool heal();

  // How often each fault began.
  const std::map<std::string, unsigned>& counts() const { return counts_; }

 private:
  struct Kind {
    const char* name;
    unsigned weight;
    unsigned longest;  // milliseconds
    bool isOfServer;
    void (Faults::*begin)(Process& process);
    void (Faults::*end)(Process& process);  // null: nothing to heal
  };
  struct Active {
    const Kind* kind;
    Process* process;  // null: the server
    std::uint64_t until;
  };
  static const std::vector<Kind>& kinds();

  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  bool isFree(const Kind& kind, const Process* process) const;
  void begin(const Kind& kind, Process& process);
  // Returns whether it could be healed.
  bool end(const Active& active);

  // Of the server.
  void killServer(Process&);
  void killServerAndCutItsFile(Process&);
  void killServerAndRemoveItsFile(Process&);
  void startServer(Process&);
  void stopServer(Process&);
  void continueServer(Process&);
  void wipe(Process&);
  void rewriteFile(Process&);
  void forgetScripts(Process&);
  void endSubscriptions(Process&);
  void endCommands(Process&);
  void limitOutput(Process&);
  void unlimitOutput(Process&);
  void fillMemory(Process&);
  void freeMemory(Process&);
  void wantReplicas(Process&);
  void wantNoReplicas(Process&);
  void evict(Process&);
  void evictNothing(Process&);
  void demote(Process&);
  void promote(Process&);
  void forbid(Process&);
  void allow(Process&);
  // Of a process and its network.
  void cut(Process& process);
  void hold(Process& process);
  void holdUp(Process& process);
  void holdDown(Process& process);
  void slow(Process& process);
  void trickle(Process& process);
  void cutInReply(Process& process);
  void refuse(Process& process);
  void healNetwork(Process& process);
  void killProcess(Process& process);
  void startProcess(Process& process);

  void command(const std::string& words);
  void command(const Reference::Words& words);

  World& world_;
  std::mt19937 random_;
  std::vector<Active> active_{};
  std::uint64_t next_ = 0;
  std::map<std::string, unsigned> counts_{};
};

}  // namespace Chaos
