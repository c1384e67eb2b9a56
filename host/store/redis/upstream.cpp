#include "host/store/redis/upstream.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>

#include "host/io/timer.h"
#include "host/store/redis/locator.h"
#include "host/store/redis/servercheck.h"
#include "host/store/redis/serverfacts.h"
#include "host/store/redis/space.h"
#include "platform/zel/core/assert.h"

namespace Host::Redis {

using Statedb::Durability;

namespace {

constexpr std::uint64_t kCheckEvery = 1000;  // milliseconds
constexpr std::size_t kMostWarnings = 100;   // different ones; later ones are dropped

// One of the two connections.
struct End final : Connection::Owner {
  std::function<void()> whenReady{};
  std::function<void(std::string_view channel, std::string_view payload)> take{};
  std::function<void(const Loss&)> whenLost{};

  void onReady() override { whenReady(); }
  void onMessage(std::string_view channel, std::string_view payload) override { take(channel, payload); }
  void onLost(const Loss& loss) override { whenLost(loss); }
};
struct Ends {
  End commandsEnd{}, subscriptionEnd{};
};

// Of the server's INFO.
std::string runIdIn(std::string_view info) {
  constexpr std::string_view kField = "\nrun_id:";
  const std::size_t at = info.find(kField);
  if (at == std::string_view::npos) return "";
  const std::string_view rest = info.substr(at + kField.size());
  return std::string(rest.substr(0, rest.find_first_of("\r\n")));
}

}  // namespace

struct Upstream::State_ final : private Ends, public Line, private Locator::Owner {
  State_(Loop& theLoop, const Url& theUrl, Upstream::Owner& theOwner)
      : Line(theLoop, theUrl, commandsEnd, subscriptionEnd),
        owner(theOwner),
        locator(locatorOf(loop, url, *this)),
        beginning(loop, [this] { locator->find(); }),
        checking(loop, [this] { check(); }),
        ending(loop, [this] { end(); }) {
    const auto whenLost = [this](const Loss& its) { lose(its); };
    commandsEnd.whenReady = [this] { identifyCommands(); };
    commandsEnd.take = [](std::string_view, std::string_view) {};
    commandsEnd.whenLost = whenLost;
    subscriptionEnd.whenReady = [this] { identifySubscription(); };
    subscriptionEnd.take = [this](std::string_view channel, std::string_view payload) {
      for (Space* each : spaces)
        if (channel == each->keys().channel()) each->onMessage(payload);
      onStep();
    };
    subscriptionEnd.whenLost = whenLost;
    beginning.startIn(0);
  }

  // Connecting.
  void onAddress(const Address& at) override {
    for (Connection* each : {&commands, &subscription}) {
      each->addressIs(at);
      each->open();
    }
  }
  void onNoAddress(const Loss& its) override { lose(its); }

  void identifyCommands() {
    caller.call(stateCall({}), [this](const Reply& reply) {
      if (reply.kind == Reply::Kind::error) return lose(lossOf(reply));
      const ServerState state = serverState(reply);
      if (isFit(state)) identified(commandsTo, state.runId);
    });
    commands.flush();
  }
  void identifySubscription() {
    subscription.request({"INFO", "server"}, [this](const Reply& reply) {
      if (reply.kind == Reply::Kind::error) return lose(lossOf(reply));
      identified(subscriptionTo, runIdIn(reply.text));
    });
    subscription.flush();
  }
  void identified(std::string& server, const std::string& runId) {
    server = runId;
    if (commandsTo.empty() || subscriptionTo.empty()) return;
    if (commandsTo != subscriptionTo)
      return lose({Loss::Kind::unfit, Refusal::none,
                   "two connections to this address lead to two servers; name the master itself, not a load "
                   "balancer"});
    for (Space* each : spaces) each->onConnected();
    checking.startIn(kCheckEvery, kCheckEvery);
    onStep();
  }
  bool isFit(const ServerState& state) override {
    if (state.role != "master")
      lose({Loss::Kind::unfit, Refusal::readOnly, refusalText(Refusal::readOnly)});
    else if (state.policy != "noeviction")
      lose({Loss::Kind::unfit, Refusal::none,
            "the server's maxmemory-policy is '" + state.policy +
                "', which deletes rows when memory is short; set 'maxmemory-policy noeviction'"});
    return !loss;
  }

  // While it stands.
  void askState(Space& space) override { asking.push_back(&space); }
  void flush() {
    if (const auto asked = std::exchange(asking, {}); !asked.empty()) askStates(asked);
    commands.flush();
  }
  void askStates(const std::vector<Space*>& asked) {
    std::vector<const Keys*> keys;
    for (const Space* each : asked) keys.push_back(&each->keys());
    caller.call(stateCall(keys), [this, asked](const Reply& reply) {
      if (reply.kind == Reply::Kind::error) return lose(lossOf(reply));
      for (std::size_t i = 0; i < asked.size(); ++i) asked[i]->onState(serverState(reply, i));
    });
  }
  void onStep() override {
    flush();
    subscription.flush();
    if (reached || loss || !isFollowed()) return;
    reached = true;
    locator->proved();
    owner.onReached();
    if (!std::exchange(isChecked, true)) checkServer();
    flush();
  }
  // Once a process: what a restricted user may not ask is an entry in the server's log of refusals.
  void checkServer() {
    gatherFacts(commands, caller, url, [this](ServerFacts facts) {
      // The first write that can't be announced reports this itself.
      std::erase_if(facts.rights, [](const auto& each) { return each.command.starts_with("PUBLISH "); });
      const std::string wrong = wrongText(findingsIn(facts, url));
      if (!wrong.empty()) warn(wrong + "; pinlampctl store check tells more");
    });
  }
  bool isFollowed() const {
    return std::ranges::all_of(spaces, [](const Space* each) { return each->isReached(); });
  }
  void check() {
    for (Space* each : spaces) each->check();
    subscription.request({"PING"}, [this](const Reply& reply) {
      if (reply.kind == Reply::Kind::error) lose(lossOf(reply));
    });
    onStep();
  }
  void warn(const std::string& text) override {
    if (warned.size() < kMostWarnings && warned.insert(text).second) owner.onWarning(text);
  }
  Known known() const override { return {stored.rows(), volatile_.rows(), covers.rows()}; }

  // Its end. A connection may be lost while a space is at work, so the spaces get to know it from the loop.
  void lose(Loss its) override {
    if (loss) return;
    loss = std::move(its);
    ending.startIn(0);
  }
  void end() {
    const Loss its = *std::exchange(loss, std::nullopt);
    commands.close();
    subscription.close();
    caller.lost();
    asking.clear();
    checking.stop();
    commandsTo.clear();
    subscriptionTo.clear();
    reached = false;
    for (Space* each : spaces) each->onDisconnected();
    locator->findLater();
    owner.onLost(its);
  }

  Space& of(Durability space) { return *spaces[static_cast<std::size_t>(space)]; }

  Upstream::Owner& owner;
  const std::unique_ptr<Locator> locator;
  Space stored{*this, Durability::stored, owner}, volatile_{*this, Durability::volatile_, owner},
      covers{*this, Durability::cover, owner};
  const std::array<Space*, 3> spaces{&stored, &volatile_, &covers};  // by Durability
  std::vector<Space*> asking{};                                      // for their states
  Timer beginning, checking, ending;
  std::optional<Loss> loss{};                  // that is not notified of yet
  std::string commandsTo{}, subscriptionTo{};  // the servers' run ids
  bool reached = false;
  bool isChecked = false;
  std::set<std::string> warned{};
};

Upstream::Upstream(Loop& loop, const Url& url, Owner& owner)
    : state_(std::make_unique<State_>(loop, url, owner)) {}
Upstream::~Upstream() = default;

bool Upstream::isReached() const { return state_->reached; }
const Rows& Upstream::rows(Durability space) const { return state_->of(space).rows(); }
State Upstream::state(Durability space) const { return state_->of(space).state(); }
const std::string& Upstream::server() const { return state_->commandsTo; }
const std::string& Upstream::uuid() const { return state_->uuid; }

WriteId Upstream::write(Durability space, const Statedb::Changes& changes, std::vector<Claimed> claims) {
  ZEL_REQUIRE(isReached(), "a write of " << changes.size() << " rows without a connection");
  return {space, state_->of(space).write(changes, std::move(claims))};
}
std::size_t Upstream::underWay() const {
  std::size_t count = 0;
  for (const Space* each : state_->spaces) count += each->underWay();
  return count;
}
void Upstream::acceptWiped(Durability space) {
  state_->of(space).acceptWiped();
  flush();
}
void Upstream::call(Call call, Connection::OnReply then) {
  if (isReached()) state_->caller.call(std::move(call), std::move(then));
}
void Upstream::prepare(const Call& call) {
  if (isReached()) state_->caller.prepare(call);
}
void Upstream::flush() { state_->flush(); }

}  // namespace Host::Redis
