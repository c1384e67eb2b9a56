#include "host/store/redis/sentinel.h"

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "platform/zel/core/assert.h"
#include "platform/zel/core/printable.h"

namespace Host::Redis {

namespace {

constexpr std::size_t kLongestMaster = 253;  // a DNS name's
constexpr std::size_t kLongestError = 200;   // of a sentinel's error
constexpr std::size_t kLongestName = 64;     // of a master's name in a message
constexpr std::size_t kMostNames = 8;

// Nothing where the reply is no address.
std::optional<HostAddress> addressIn(const Reply& reply) {
  const std::string& host = reply[0].text;
  const std::uint64_t port = reply[1].unsignedNumber();
  if (host.empty() || host.size() > kLongestMaster || port == 0 || port > 65'535) return std::nullopt;
  return HostAddress{host, static_cast<std::uint16_t>(port)};
}

Loss refusedBy(const Reply& error) {
  const Refusal refusal = error.refusal();
  const std::string text = Zel::printable(error.text.substr(0, kLongestError));
  if (text.starts_with("ERR unknown command"))
    return {Loss::Kind::refused, refusal, "it is a server, not a sentinel, whose usual port is 26379"};
  return {Loss::Kind::refused, refusal, std::string(refusalText(refusal)) + " (" + text + ")"};
}

// The names in a reply to SENTINEL MASTERS: a list of masters, each a list of names and values.
std::vector<std::string> namesIn(const Reply& masters) {
  std::vector<std::string> names;
  for (const Reply& master : masters.list)
    for (std::size_t i = 0; i + 1 < master.list.size(); i += 2)
      if (master[i].text == "name")
        names.push_back("'" + Zel::printable(master[i + 1].text.substr(0, kLongestName)) + "'");
  std::ranges::sort(names);
  return names;
}

std::string namesText(const std::vector<std::string>& texts, std::size_t most) {
  std::string all;
  for (std::size_t i = 0; i < std::min(texts.size(), most); ++i) all += (i ? ", " : "") + texts[i];
  return all + (texts.size() > most ? ", …" : "");
}

std::string unknownText(const Reply& masters) {
  if (masters.kind == Reply::Kind::error) return "it knows no master of that name";
  const std::vector<std::string> names = namesIn(masters);
  if (names.empty())
    return "it knows no master; write 'sentinel monitor NAME HOST PORT QUORUM' into its file";
  return "it knows no master of that name, but " + namesText(names, kMostNames) +
         "; correct the name in the URL";
}

// Sentinels that failed for the same reason are named together.
struct Reason {
  std::string text;
  std::string sentinels;
};
void addReason(std::vector<Reason>& reasons, const std::string& text, const std::string& sentinel) {
  const auto found = std::ranges::find(reasons, text, &Reason::text);
  if (found == reasons.end())
    reasons.push_back({text, sentinel});
  else
    found->sentinels += ", " + sentinel;
}
std::string reasonsText(const std::vector<Reason>& reasons) {
  std::string text;
  for (const Reason& each : reasons) text += " (" + each.sentinels + ": " + each.text + ")";
  return text;
}

// Whether there was an answer, which says more than silence.
bool isAnswer(const Loss& loss) {
  return loss.kind == Loss::Kind::refused || loss.kind == Loss::Kind::invalid ||
         loss.kind == Loss::Kind::password;
}

}  // namespace

Sentinels::Sentinels(Loop& loop, Url url, Locator::Owner& owner)
    : loop_(loop),
      url_(std::move(url)),
      owner_(owner),
      backOff_(std::random_device{}()),
      later_(loop, [this] { find(); }) {
  ZEL_REQUIRE(std::holds_alternative<SentinelAddress>(url_.at),
              "no sentinels in '" << addressText(url_.at) << "'");
  for (const HostAddress& at : std::get<SentinelAddress>(url_.at).sentinels) sentinels_.push_back({at});
}

void Sentinels::proved() {
  isProved_ = true;
  backOff_.reset();
}

void Sentinels::findLater() {
  connection_.reset();
  later_.startIn(backOff_.next());
}

void Sentinels::find() {
  later_.stop();
  connection_.reset();
  if (!std::exchange(isProved_, true))
    std::rotate(sentinels_.begin(), sentinels_.begin() + 1, sentinels_.end());
  tried_ = 0;
  tryNext();
}

void Sentinels::tryNext() {
  Url url = url_;
  url.at = asked().at;
  if (!asked().wantsPassword) url.user = url.passwordFile = "";
  connection_.reset(new Connection(loop_, std::move(url), *this));
  connection_->open();
}

void Sentinels::onReady() {
  connection_->request({"SENTINEL", "GET-MASTER-ADDR-BY-NAME", std::get<SentinelAddress>(url_.at).name},
                       [this](const Reply& reply) { onAnswer(reply); });
  connection_->flush();
}

void Sentinels::onAnswer(const Reply& reply) {
  if (reply.kind == Reply::Kind::error) return onLost(refusedBy(reply));
  if (reply.kind == Reply::Kind::null) {
    connection_->request({"SENTINEL", "MASTERS"}, [this](const Reply& masters) {
      fail({Loss::Kind::refused, Refusal::other, unknownText(masters)});
    });
    return connection_->flush();
  }
  const std::optional<HostAddress> master = addressIn(reply);
  if (!master) return fail({Loss::Kind::invalid, Refusal::none, "what it answers is no address"});
  std::rotate(sentinels_.begin(), sentinels_.begin() + static_cast<std::ptrdiff_t>(tried_), sentinels_.end());
  isProved_ = false;
  connection_.reset();
  owner_.onAddress(*master);
}

// A sentinel that wants a password gets the URL's. After any failure it is asked without it again.
void Sentinels::onLost(const Loss& loss) {
  const bool wantedIt = std::exchange(asked().wantsPassword, false);
  const bool wantsIt = loss.refusal == Refusal::noAuth && !wantedIt && !url_.passwordFile.empty();
  if (!wantsIt) return fail(loss);
  asked().wantsPassword = true;
  tryNext();
}

void Sentinels::fail(Loss loss) {
  asked().loss = std::move(loss);
  if (++tried_ < sentinels_.size()) return tryNext();
  connection_.reset();
  end();
}

void Sentinels::end() {
  std::vector<Reason> reasons;
  for (const Sentinel& each : sentinels_) addReason(reasons, each.loss.text, addressText(each.at));
  const auto answered = std::ranges::find_if(sentinels_, isAnswer, &Sentinel::loss);
  Loss loss = (answered == sentinels_.end() ? sentinels_.front() : *answered).loss;
  if (sentinels_.size() > 1) loss.text = "no sentinel names the master" + reasonsText(reasons);
  owner_.onNoAddress(loss);
}

}  // namespace Host::Redis
