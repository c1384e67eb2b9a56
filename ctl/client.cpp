#include "ctl/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ctl/entityreader.h"
#include "ctl/jsontext.h"
#include "ctl/ownhost.h"
#include "ctl/processes.h"
#include "ctl/text.h"
#include "host/controlsocket.h"

namespace Ctl {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    throw UsageError("--socket '" + path + "': the path has " + std::to_string(path.size()) +
                     " bytes; a socket's path has 1 to " + std::to_string(sizeof address.sun_path - 1));
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

ConnectionLost unreachable(const std::string& path, int error) {
  std::string why = std::strerror(error);
  if (error == ENOENT) why = "there is no such socket";
  if (error == ECONNREFUSED) why = "no process listens on it";
  if (error == EAGAIN) why = "it accepts no connections";
  const std::string option = path == Host::hostSocket() ? "" : " --socket " + path;
  const std::string remedy =
      error == EACCES ? "; join the group that owns the socket, or use sudo"
      : path == Host::kSystemSocket && geteuid() != 0
          ? "; start the system's host as root, or one of your own, and name its socket: --socket PATH, or "
            "PINLAMP_SOCKET"
          : "; start the host with: pinlampd --store memory: --agent libpinlamp.so" + option;
  return ConnectionLost("can't reach pinlampd at " + path + ": " + why, remedy);
}

Refusal refusalOf(const Json& error) {
  if (const auto data = error.find("data"); data != error.end() && data->is_object())
    if (const auto lines = data->find("errors"); lines != data->end() && lines->is_array() && !lines->empty())
      return Refusal(lines->get<std::vector<std::string>>());
  return Refusal(error.value("message", error.dump()));
}

}  // namespace

Client::Client(const std::string& socketPath, std::chrono::seconds timeout)
    : name_("pinlampd at " + socketPath), timeout_(timeout) {
  const sockaddr_un address = addressOf(socketPath);
  descriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor_ < 0) throw Refusal(std::string("can't make a socket: ") + std::strerror(errno));
  limitWrites();  // and the time for connecting
  if (connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
  const int error = errno;
  close(descriptor_);
  throw unreachable(socketPath, error);
}

Client::Client(std::unique_ptr<OwnHost> host, std::string name, std::chrono::seconds timeout)
    : name_(std::move(name)), timeout_(timeout), own_(std::move(host)), descriptor_(own_->descriptor()) {
  limitWrites();
}

void Client::limitWrites() const {
  const timeval limit{timeout_.count(), 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

Client::~Client() { close(descriptor_); }

void Client::lost(const std::string& why) const { throw ConnectionLost(name_ + ' ' + why); }

void Client::send(const std::string& line) {
  for (std::size_t sent = 0; sent < line.size();) {
    const ssize_t count = ::send(descriptor_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EPIPE) return;  // what it sent before it closed the connection says why
    if (count < 0 && errno == EAGAIN)
      lost("accepted no request within " + std::to_string(timeout_.count()) + " s");
    if (count < 0) lost(std::string("dropped the connection: ") + std::strerror(errno));
    sent += static_cast<std::size_t>(count);
  }
}

void Client::waitReadable(std::chrono::seconds timeout) {
  pollfd entry{descriptor_, POLLIN, 0};
  const int ready = poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(timeout).count()));
  if (ready == 0) lost("did not answer within " + std::to_string(timeout.count()) + " s");
}

void Client::receive() {
  char chunk[65536];
  const ssize_t count = recv(descriptor_, chunk, sizeof chunk, 0);
  if (count < 0 && errno == EINTR) return;
  if (count < 0) lost(std::string("dropped the connection: ") + std::strerror(errno));
  if (count == 0) lost("closed the connection");
  std::size_t begin = buffer_.size();
  buffer_.append(chunk, static_cast<std::size_t>(count));
  for (std::size_t end; (end = buffer_.find('\n', begin)) != std::string::npos; begin = 0) {
    std::string rest = buffer_.substr(end + 1);
    buffer_.resize(end);
    takeLine(std::exchange(buffer_, std::move(rest)));
  }
  if (buffer_.size() > kLongestLine) lost("sent a message of more than 1 GiB");
}

Json Client::parsed(const std::string& line) const {
  if (tooDeepAt(line, kMessageDepth)) lost("sent a message " + tooDeep(kMessageDepth));
  Json message = Json::parse(line, nullptr, false);
  if (!message.is_object()) lost("sent an invalid message: " + line.substr(0, 60));
  return message;
}

void Client::takeLine(std::string line) {
  if (unparsed_ > 0) {
    --unparsed_;
    lines_.push_back(std::move(line));
    return;
  }
  Json message = parsed(line);
  (message.contains("method") ? notifications_ : replies_).push_back(std::move(message));
}

namespace {

// Throws Refusal if a string is not UTF-8.
std::string textOf(const std::string& method, const Json& json) {
  try {
    return json.dump();
  } catch (const Json::type_error&) {
    throw Refusal(method + ": a name or value is not UTF-8");
  }
}

}  // namespace

void Client::post(const char* method, const std::string& parameters) {
  std::string line = "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(++lastId_) + ",\"method\":\"" + method +
                     "\",\"params\":" + parameters + '}';
  if (line.size() > kMessageLimit)
    throw Refusal(std::string(method) + ": the request has " + std::to_string(line.size()) +
                  " bytes; pinlampd accepts at most " + std::to_string(kMessageLimit) + " in one; split it");
  line += '\n';
  ++unanswered_;
  send(line);
}

// The time is that between two pieces of an answer: a long one takes long to make.
Json Client::nextReply(std::chrono::seconds timeout) {
  while (replies_.empty()) {
    waitReadable(timeout);
    receive();
  }
  --unanswered_;
  Json reply = std::move(replies_.front());
  replies_.pop_front();
  return reply;
}

Json Client::reply(std::chrono::seconds timeout) {
  Json reply = nextReply(timeout);
  if (const auto error = reply.find("error"); error != reply.end()) throw refusalOf(*error);
  return reply.value("result", Json());
}

Json Client::call(const char* method, const Json& parameters) {
  post(method, textOf(method, parameters));
  return reply(timeout_);
}

namespace {

// `layer`: empty for the effective rows.
std::string readParameters(const char* layer, const std::string& path) {
  Json parameters = Json::object();
  if (*layer != 0) parameters["layer"] = layer;
  if (!path.empty()) parameters["path"] = path;
  return textOf("read", parameters);
}

}  // namespace

Json Client::read(const std::string& path) { return readLayer("", path); }
Json Client::readBase(const std::string& path) { return readLayer("base", path); }
Json Client::readCovers(const std::string& path) { return readLayer("covers", path); }

Json Client::readLayer(const char* layer, const std::string& path) {
  post("read", readParameters(layer, path));
  return reply(timeout_).at("entities");
}

void Client::readBase(const std::vector<std::string>& paths, EntityReader& reader,
                      const std::function<void(std::size_t bytes)>& arrived) {
  for (const std::string& path : paths) post("read", readParameters("base", path));
  unanswered_ -= paths.size();
  unparsed_ += paths.size();
  for (std::size_t i = 0; i < paths.size(); ++i) receiveEntities(reader, arrived);
}

void Client::receiveEntities(EntityReader& reader, const std::function<void(std::size_t bytes)>& arrived) {
  while (lines_.empty()) {
    waitReadable(timeout_);
    receive();
    if (arrived) arrived(buffer_.size());
  }
  std::string line = std::move(lines_.front());
  lines_.pop_front();
  if (reader.read(line)) return;
  const Json answer = parsed(line);
  if (const auto error = answer.find("error"); error != answer.end()) throw refusalOf(*error);
  lost("sent an unexpected answer");
}

void Client::Batch::add(const std::string& change) {
  if (parts_.empty() || parts_.back().text.size() + change.size() > kPart) parts_.emplace_back();
  Part& part = parts_.back();
  part.text += part.changes++ == 0 ? '[' : ',';
  part.text += change;
}

namespace {

// The member of the parameters; without it a write is stored.
constexpr char kVolatile[] = R"("durability":"volatile")";

Client::Batch batchOf(const Json& changes) {
  Client::Batch batch;
  for (const Json& change : changes) batch.add(textOf("write", change));
  return batch;
}

}  // namespace

void Client::write(const Json& changes, const Sent& sent) { write(batchOf(changes), "", sent); }
void Client::write(const Batch& batch, const Sent& sent) { write(batch, "", sent); }
void Client::writeVolatile(const Json& changes) { write(batchOf(changes), kVolatile, {}); }

void Client::write(const Batch& batch, const std::string& durability, const Sent& sent) {
  if (batch.parts_.size() > 1) {
    Transfer transfer(*this, durability, sent);
    transfer.send(batch);
    return transfer.commit();
  }
  post("write", "{\"changes\":" + (batch.parts_.empty() ? "[" : batch.parts_.front().text) + ']' +
                    (durability.empty() ? "" : ',' + durability) + '}');
  reply(timeout_);
}

namespace {
constexpr std::chrono::seconds kCommit{120};  // of the most changes that a transaction has, on a slow disk
}  // namespace

// A request that is refused fails the transaction, so those that were sent after it do no harm.
template <class Step>
void Client::Transfer::refusable(Step step) {
  try {
    step();
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal&) {
    rollback();
    throw;
  }
}

void Client::Transfer::send(const Batch& batch) {
  for (const Batch::Part& part : batch.parts_) refusable([&] { send(part); });
}

void Client::Transfer::send(const Batch::Part& part) {
  if (!std::exchange(isBegun_, true)) client_.post("begin", '{' + durability_ + '}');
  client_.post("write", "{\"changes\":" + part.text + "]}");
  sent_ += part.changes;
  while (client_.unanswered_ > 1) client_.reply(client_.timeout_);
  if (onSent_) onSent_(sent_, false);
}

void Client::Transfer::commit() {
  refusable([&] {
    client_.post("commit", "{}");
    if (onSent_) onSent_(sent_, true);
    while (client_.unanswered_ > 0) client_.reply(kCommit);
  });
}

void Client::Transfer::rollback() {
  if (!std::exchange(isBegun_, false)) return;
  client_.post("rollback", "{}");
  while (client_.unanswered_ > 0) client_.nextReply(kCommit);
}

std::vector<std::string> Client::filled() { return filledPaths(call("status")); }

Json Client::types() { return call("types").at("types"); }

std::vector<std::string> Client::attributesOf(const std::string& typeName) {
  std::vector<std::string> names;
  for (const Json& type : types()) {
    if (type.at("name") != typeName) continue;
    for (const Json& attribute : type.at("attributes")) names.push_back(attribute.at("name"));
  }
  return names;
}

std::optional<Json> Client::notification() {
  if (notifications_.empty()) return std::nullopt;
  Json oldest = std::move(notifications_.front());
  notifications_.pop_front();
  return oldest;
}

}  // namespace Ctl
