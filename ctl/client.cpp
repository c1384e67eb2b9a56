#include "ctl/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    takeLine(buffer_.substr(0, end));
    buffer_.erase(0, end + 1);
  }
  if (buffer_.size() > kLongestLine) lost("sent a message of more than 1 GiB");
}

void Client::takeLine(const std::string& line) {
  if (tooDeepAt(line, kMessageDepth)) lost("sent a message " + tooDeep(kMessageDepth));
  Json message = Json::parse(line, nullptr, false);
  if (!message.is_object()) lost("sent an invalid message: " + line.substr(0, 60));
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
  const std::string line = "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(++lastId_) + ",\"method\":\"" +
                           method + "\",\"params\":" + parameters + '}';
  if (line.size() > kMessageLimit)
    throw Refusal(std::string(method) + ": the request has " + std::to_string(line.size()) +
                  " bytes; pinlampd accepts at most " + std::to_string(kMessageLimit) + " in one; split it");
  ++unanswered_;
  send(line + '\n');
}

// The time is that between two pieces of an answer: a long one takes long to make.
Json Client::nextReply(std::chrono::seconds timeout, const std::function<void(std::size_t)>& arrived) {
  while (replies_.empty()) {
    waitReadable(timeout);
    receive();
    if (arrived) arrived(buffer_.size());
  }
  --unanswered_;
  Json reply = std::move(replies_.front());
  replies_.pop_front();
  return reply;
}

Json Client::reply(std::chrono::seconds timeout, const std::function<void(std::size_t)>& arrived) {
  Json reply = nextReply(timeout, arrived);
  if (const auto error = reply.find("error"); error != reply.end()) throw refusalOf(*error);
  return reply.value("result", Json());
}

Json Client::call(const char* method, const Json& parameters) {
  post(method, textOf(method, parameters));
  return reply(timeout_);
}

Json Client::read(const std::string& path, const std::function<void(std::size_t)>& arrived) {
  return readLayer("", path, arrived);
}
Json Client::readBase(const std::string& path, const std::function<void(std::size_t)>& arrived) {
  return readLayer("base", path, arrived);
}
Json Client::readCovers(const std::string& path) { return readLayer("covers", path, {}); }

Json Client::readLayer(const char* layer, const std::string& path,
                       const std::function<void(std::size_t)>& arrived) {
  Json parameters = Json::object();
  if (*layer != 0) parameters["layer"] = layer;
  if (!path.empty()) parameters["path"] = path;
  post("read", textOf("read", parameters));
  return reply(timeout_, arrived).at("entities");
}

std::vector<Client::Part> Client::partsOf(const Json& changes) {
  constexpr std::size_t kLongest = kMessageLimit - 1000;  // beside the rest of its message
  std::vector<Part> parts(1);
  for (const Json& change : changes) {
    const std::string text = textOf("write", change);
    if (parts.back().changes > 0 && parts.back().text.size() + text.size() > kLongest) parts.emplace_back();
    parts.back().text += (parts.back().changes++ == 0 ? '[' : ',') + text;
  }
  for (Part& part : parts) part.text += part.changes == 0 ? "[]" : "]";
  return parts;
}

void Client::write(const Json& changes, const Sent& sent) {
  const std::vector<Part> parts = partsOf(changes);
  if (parts.size() > 1) return sendParts(parts, sent);
  post("write", "{\"changes\":" + parts.front().text + '}');
  reply(timeout_);
}

// The host reads one part while the next is sent. A request that is refused fails the transaction, so the
// others do no harm.
void Client::sendParts(const std::vector<Part>& parts, const Sent& onSent) {
  constexpr std::chrono::seconds kCommit{120};  // of the most changes that a transaction has, on a slow disk
  std::size_t sent = 0, all = 0;
  for (const Part& part : parts) all += part.changes;
  try {
    post("begin", "{}");
    for (const Part& part : parts) {
      post("write", "{\"changes\":" + part.text + '}');
      sent += part.changes;
      while (unanswered_ > 1) reply(timeout_);
      if (onSent) onSent(sent, all);
    }
    post("commit", "{}");
    while (unanswered_ > 0) reply(kCommit);
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal&) {
    post("rollback", "{}");
    while (unanswered_ > 0) nextReply(kCommit);
    throw;
  }
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
