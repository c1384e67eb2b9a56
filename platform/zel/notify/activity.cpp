#include "platform/zel/notify/activity.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/external.h"
#include "platform/zel/notify/lookahead.h"

namespace Zel {

namespace {
constexpr int kRounds = 64;  // of notifications that cause notifications, in one pass
}  // namespace

HandlerFault::HandlerFault(Name agent, std::string place, std::string text, const std::string& suspected)
    : Exception("agent '" + agent.stdString() + "', " + place + ": " + text +
                (suspected.empty() ? "" : " (" + suspected + ")")),
      agent_(agent),
      place_(std::move(place)),
      text_(std::move(text)) {}
HandlerFault::~HandlerFault() = default;

PassEnd::~PassEnd() = default;

constinit ActivityManager* ActivityManager::current_ = nullptr;
constinit Name ActivityManager::currentAgent_;

ActivityManager::ActivityManager()
    : before_(std::exchange(current_, this)),
      external_(std::make_unique<External>()),
      clock_(allocate<Clock>()) {}

ActivityManager::~ActivityManager() {
  for (ListHook* const queue : {&round_, &pending_})
    while (queue->linked()) NotifieeBase::ofPending(*queue->next()).dropMarks();
  ActivityManager** link = &current_;
  while (*link != this) link = &(*link)->before_;
  *link = before_;
}

ActivityManager& ActivityManager::makeCurrent() {
  new ActivityManager;  // becomes the current one and stays it
  return *current_;
}

namespace {

// Sets a flag for its lifetime.
class Setting {
 public:
  explicit Setting(bool& flag) : flag_(flag) { flag_ = true; }
  ~Setting() { flag_ = false; }
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;

 private:
  bool& flag_;
};

}  // namespace

double ActivityManager::step() {
  ZEL_REQUIRE(!stepping_, "in pass " << passes_);
  const Setting stepping(stepping_);
  ++passes_;
  external_->run();
  runPosted();
  if (clock_) clock_->advance(System::currentTime());
  for (int i = 0; i < kRounds && (pending_.linked() || round_.linked()); ++i) deliverRound();
  runEnds();
  return nextWakeUp();
}

double ActivityManager::nextWakeUp() const {
  if (!posted_.empty() || pending_.linked() || round_.linked() || external_->waiting())
    return System::currentTime();
  return clock_ ? clock_->nextWakeUp() : Clock::kNever;
}

std::string ActivityManager::suspect() const {
  return suspect_.pass == passes_ && suspect_.delivery == deliveries_ ? suspect_.text : "";
}

void ActivityManager::post(std::function<void()> task) { posted_.push_back(std::move(task)); }

void ActivityManager::runPosted() {
  for (std::size_t count = posted_.size(); count != 0; --count) {
    const auto task = std::move(posted_.front());
    posted_.pop_front();
    task();
  }
}

// Those that are there now: one that is added meanwhile runs from the next pass on.
void ActivityManager::runEnds() {
  for (std::size_t i = 0, count = ends_.size(); i < count; ++i)
    if (ends_[i]) ends_[i]->onPassEnd();
  std::erase(ends_, nullptr);
}

// Returns after how many deliveries to do so again: many where none of the next reactors had use for it.
unsigned ActivityManager::lookAhead() {
  Lookahead next;
  ListHook* hook = round_.next();
  for (unsigned i = 0; i < Lookahead::kAtOnce && hook != &round_; ++i, hook = hook->next())
    next.add(NotifieeBase::ofPending(*hook));
  return next.run() ? Lookahead::kAtOnce : 16 * Lookahead::kAtOnce;
}

void ActivityManager::deliverRound() {
  round_.takeAllOf(pending_);
  for (unsigned ahead = 0; round_.linked(); --ahead) {
    if (ahead == 0) ahead = lookAhead();
    auto& notifiee = NotifieeBase::ofPending(*round_.next());
    static_cast<PendingHook&>(notifiee).leave();
    if (!notifiee.mayBeNotified()) {
      notifiee.dropMarks();
      continue;
    }
    ++deliveries_;
    const Ptr<NotifieeBase> kept(&notifiee);
    runHandler(notifiee, notifiee.notifierBase(), [&] { notifiee.deliver(round_); });
  }
}

void ActivityManager::passEndIs(PassEnd& end) {
  if (std::ranges::find(ends_, &end) == ends_.end()) ends_.push_back(&end);
}
void ActivityManager::passEndDel(PassEnd& end) {
  std::ranges::replace(ends_, &end, static_cast<PassEnd*>(nullptr));
}

namespace {

// "reactor TYPE of <TYPE PATH>", for a message.
std::string describe(const NotifieeBase& notifiee, const Notifier* watched) {
  std::ostringstream text;
  text << "reactor " << notifiee.fwkType().name();
  if (const std::string path = watched ? watched->path() : ""; !path.empty())
    text << " of <" << watched->fwkType().name() << ' ' << path << '>';
  return text.str();
}

}  // namespace

void agentFailed(Name agent, const std::string& place) {
  std::string text = "an exception of no known type";
  try {
    throw;
  } catch (const std::exception& error) {
    text = error.what();
  } catch (...) {
  }
  std::throw_with_nested(HandlerFault(agent, place, text, activityManager().suspect()));
}

void handlerFailed(const NotifieeBase& notifiee, const Notifier* watched) {
  agentFailed(notifiee.agent(), describe(notifiee, watched));
}

}  // namespace Zel
