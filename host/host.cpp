#include "host/host.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "host/io/log.h"
#include "host/io/starterror.h"
#include "host/store/stores.h"

namespace Host {

Host::Host(const Options& options)
    : services_(loop_, activity_.external()),
      store_(makeStore(options.store, loop_,
                       [this](const std::string& text) { activity_.post([this, text] { report(text); }); })),
      listener_(options.client
                    ? nullptr
                    : std::make_unique<Listener>(loop_, options.socket,
                                                 [this](const std::string& text) { report(text); })),
      manager_(Zel::allocate<Statedb::EntityManager>(*store_)),
      served_{.store = *store_,
              .manager = *manager_,
              .objects = {[this] { return roots(); }, [this] { return manager_->root(); },
                          options.allowObjectWrites ? Objects::Access::writable : Objects::Access::readOnly},
              .report = [this](const std::string& text) { report(text); }} {
  manager_->reportIs([this](const std::string& text) { report(text); });
  isQuiet_ = options.client && !store_->isReached();
  try {
    for (const std::string& library : options.types) types_.emplace_back(library);
    loadAgents(options.agents);
    control_ = makeControl(options);
    if (options.whenLost && !store_->state().canBeLost)
      throw StartError("--when-lost: the state database " + store_->url() +
                       " is kept by this process and can't be lost; leave the option out");
    if (options.whenLost)
      whenLost_.emplace(loop_, *options.whenLost, *manager_,
                        [this](const std::string& text) { report(text); });
  } catch (...) {
    shutDown();
    throw;
  }
}

Host::~Host() {
  serviceManager_.notify("STOPPING=1");
  shutDown();
}

void Host::shutDown() {
  signals_.clear();
  watchdog_.reset();
  whenLost_.reset();
  control_.reset();
  manager_->stop();
  for (auto plugin = plugins_.rbegin(); plugin != plugins_.rend(); ++plugin) (*plugin)->dropAgent();
  manager_ = nullptr;
  while (!plugins_.empty()) plugins_.pop_back();
  types_.clear();
}

std::unique_ptr<Control> Host::makeControl(const Options& options) {
  if (options.client) return std::make_unique<Control>(loop_, *options.client, served_);
  return std::make_unique<Control>(loop_, *listener_, served_, ClientLimits::ofProcess(options.maxClients));
}

void Host::loadAgents(const std::vector<AgentOption>& options) {
  for (const AgentOption& option : options) plugins_.push_back(std::make_unique<Plugin>(option));
  for (const auto& plugin : plugins_) plugin->start(manager_);
  announce();
}

void Host::announce() {
  const auto isWritten = [](const auto& mount) { return mount.mode != "r"; };
  const auto written = std::ranges::count_if(manager_->mounts(), isWritten);
  if (announced_ == std::pair(written, served_.announcements.changes())) return;
  Announcement own{.pid = ::getpid(),
                   .socket = listener_ ? std::filesystem::absolute(listener_->path()).string() : ""};
  for (const auto& plugin : plugins_) own.agents.push_back({plugin->name().stdString(), plugin->library()});
  for (const auto& mount : manager_->mounts()) {
    if (Statedb::Mount::publishes(mount.mode)) own.publishes.push_back(mount.path.text());
    if (mount.mode == "we") own.ends.push_back(mount.path.text());
    if (mount.mode == "c") own.covers.push_back(mount.path.text());
  }
  try {
    served_.self.announce(own);
  } catch (const Zel::ValueError& error) {
    report(std::string("own agents: ") + error.what());
  }
  for (const auto* each : served_.announcements.processes())
    if (each != &served_.self)  // what clients cover through this host
      own.covers.insert(own.covers.end(), each->announcement().covers.begin(),
                        each->announcement().covers.end());
  store_->announce(own);
  announced_ = {written, served_.announcements.changes()};
}

std::vector<Objects::Root> Host::roots() const {
  std::vector<Objects::Root> roots;
  for (const auto& plugin : plugins_) roots.push_back({plugin->name().stdString(), plugin->agent()});
  return roots;
}

void Host::report(const std::string& text) {
  served_.lastRefusal = text;
  if (!isQuiet_) log(Priority::warning, text);
}

void Host::run() {
  for (const int signal : {SIGTERM, SIGINT}) signals_.push_back(stopOn(signal));
  pingWatchdog();
  loop_.turnIs([this] { return turn(); });
  loop_.run();
}

void Host::abandon() { listener_.reset(); }

// Executes requests, delivers their writes to the agents, and publishes the results before the answers go.
double Host::turn() {
  control_->serve();
  control_->commit();
  activity_.step();
  announce();
  control_->commit();
  control_->send();
  followStore();
  return wakeUps_.next(activity_);
}

void Host::followStore() {
  const bool isReached = store_->isReached();
  if (whenLost_) whenLost_->check(isReached);
  if (!ready_) sayWhenReady(store_->state().claims);
  if (isReached) isQuiet_ = false;
  showStatus(isReached);
}

void Host::showStatus(bool isReached) {
  if (std::exchange(isServing_, ready_ && isReached) && isServing_) return;
  if (isServing_)
    serviceManager_.statusIs("Serving, with the state database " + store_->url());
  else if (ready_)
    serviceManager_.statusIs("The state database is lost, LEDs keep their settings: " +
                             store_->state().reason);
  else
    serviceManager_.statusIs("Waiting for the state database " + store_->url() + ": " +
                             store_->state().reason);
}

// A standby is ready although its mounts wait.
void Host::sayWhenReady(const std::vector<Statedb::StoreState::Claim>& claims) {
  ready_ = std::ranges::all_of(manager_->mounts(), [&](const Statedb::EntityManager::MountInfo& mount) {
    return mount.complete || std::ranges::any_of(claims, [&](const auto& claim) {
             return !claim.isOfCovers && !claim.isOwn && !claim.who.empty() &&
                    mount.path.isUnder(Statedb::Path(claim.mount));
           });
  });
  if (ready_) serviceManager_.notify("READY=1");
}

UvHandle<uv_signal_t> Host::stopOn(int signal) {
  UvHandle<uv_signal_t> handle(new uv_signal_t);
  uv_signal_init(loop_.uv(), handle.get());
  handle->data = &loop_;
  uv_signal_start(
      handle.get(), [](uv_signal_t* caught, int) { static_cast<Loop*>(caught->data)->stop(); }, signal);
  return handle;
}

void Host::pingWatchdog() {
  const auto interval = serviceManager_.watchdogInterval();
  if (!interval) return;
  watchdog_.reset(new uv_timer_t);
  uv_timer_init(loop_.uv(), watchdog_.get());
  watchdog_->data = this;
  const auto ping = [](uv_timer_t* timer) {
    static_cast<Host*>(timer->data)->serviceManager_.notifyWatchdog();
  };
  uv_timer_start(watchdog_.get(), ping, *interval, *interval);
}

}  // namespace Host
