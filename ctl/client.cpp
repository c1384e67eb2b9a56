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
  const std::string remedy =
      error == EACCES
          ? "; join the group that owns the socket, or use sudo"
          : "; start the host with: pinlampd --store memory: --agent libpinlamp.so --socket " + path;
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

void Client::waitReadable(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd entry{descriptor_, POLLIN, 0};
  const int ready = poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
  if (ready == 0) lost("did not answer within " + std::to_string(timeout_.count()) + " s");
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
// Throws Refusal if a string of the request is not UTF-8.
std::string requestText(int id, const std::string& method, Json parameters) {
  try {
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(parameters)}}.dump();
  } catch (const Json::type_error&) {
    throw Refusal(method + ": a name or value is not UTF-8");
  }
}
}  // namespace

Json Client::call(const std::string& method, Json parameters) {
  const std::string line = requestText(++lastId_, method, std::move(parameters));
  if (line.size() > kMessageLimit)
    throw Refusal(method + ": the request has " + std::to_string(line.size()) +
                  " bytes; pinlampd accepts at most " + std::to_string(kMessageLimit) + " in one; split it");
  send(line + '\n');
  const auto deadline = std::chrono::steady_clock::now() + timeout_;
  while (replies_.empty()) {
    waitReadable(deadline);
    receive();
  }
  Json reply = std::move(replies_.front());
  replies_.pop_front();
  if (const auto error = reply.find("error"); error != reply.end()) throw refusalOf(*error);
  return reply.value("result", Json());
}

Json Client::read(const std::string& path) {
  Json parameters = Json::object();
  if (!path.empty()) parameters["path"] = path;
  return call("read", std::move(parameters)).at("entities");
}

void Client::write(Json changes) { call("write", {{"changes", std::move(changes)}}); }

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
