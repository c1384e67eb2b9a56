#include "host/store/redis/serverprobe.h"

#include <memory>
#include <utility>

#include "host/store/redis/locator.h"
#include "platform/zel/core/printable.h"
#include "platform/zel/notify/clock.h"

namespace Host::Redis {

namespace {

constexpr std::size_t kPings = 50;

class Probe final : public Connection::Owner, public Locator::Owner {
 public:
  Probe(Loop& loop, const Url& url) : loop_(loop), url_(url) {}

  std::vector<Finding> run() {
    if (const auto* sentinels = std::get_if<SentinelAddress>(&url_.at))
      askNext(*sentinels);
    else
      connectTo(url_.at);
    loop_.run();
    return std::move(findings_);
  }

 private:
  // Each sentinel alone: all of them should name the same master.
  void askNext(const SentinelAddress& all) {
    if (answers_.size() == all.sentinels.size()) return askedAll();
    Url one = url_;
    one.at = SentinelAddress{{all.sentinels[answers_.size()]}, all.name};
    answers_.push_back({all.sentinels[answers_.size()]});
    sentinel_ = locatorOf(loop_, one, *this);
    sentinel_->find();
  }
  void onAddress(const Address& master) override {
    answers_.back().master = std::get<HostAddress>(master);
    askNext(std::get<SentinelAddress>(url_.at));
  }
  void onNoAddress(const Loss& loss) override {
    answers_.back().why = loss.text;
    askNext(std::get<SentinelAddress>(url_.at));
  }
  void askedAll() {
    findings_ = findingsIn(answers_);
    for (const SentinelAnswer& each : answers_)
      if (each.master) return connectTo(*each.master);
    loop_.stop();
  }

  void connectTo(const Address& server) {
    Url url = url_;
    url.at = server;
    reached_ = addressText(server);
    connection_ = std::make_unique<Connection>(loop_, std::move(url), *this);
    caller_ = std::make_unique<Caller>(*connection_);
    connection_->open();
  }
  void onReady() override {
    gatherFacts(*connection_, *caller_, url_, [this](const ServerFacts& facts) {
      facts_ = facts;
      ping();
    });
    connection_->flush();
  }
  void onMessage(std::string_view, std::string_view) override {}
  void onLost(const Loss& loss) override {
    findings_.push_back({Finding::Result::wrong, "server", reached_ + ": " + Zel::printable(loss.text)});
    loop_.stop();
  }

  // One after the other: the time of each is a round trip.
  void ping() {
    const double sent = Zel::System::currentTime();
    connection_->request({"PING"}, [this, sent](const Reply&) {
      facts_.pings.push_back((Zel::System::currentTime() - sent) * 1e3);
      facts_.pings.size() < kPings ? ping() : end();
    });
    connection_->flush();
  }
  void end() {
    findings_.push_back({Finding::Result::ok, "server", reached_});
    for (Finding& each : findingsIn(facts_, url_)) findings_.push_back(std::move(each));
    loop_.stop();
  }

  Loop& loop_;
  const Url url_;
  std::vector<SentinelAnswer> answers_{};
  std::unique_ptr<Locator> sentinel_{};
  std::string reached_{};
  std::unique_ptr<Connection> connection_{};
  std::unique_ptr<Caller> caller_{};
  ServerFacts facts_{};
  std::vector<Finding> findings_{};
};

}  // namespace

std::vector<Finding> probe(const Url& url) {
  Loop loop;
  return Probe(loop, url).run();
}

}  // namespace Host::Redis
