#include "tests/ctl/fakehost.h"

#include <sstream>

#include "ctl/context.h"
#include "ctl/text.h"
#include "tests/host/client.h"

namespace Ctl {

namespace {

void sendLine(int connection, const Json& message) {
  const std::string line = message.dump() + '\n';
  static_cast<void>(send(connection, line.data(), line.size(), MSG_NOSIGNAL));
}

}  // namespace

FakeHost::FakeHost() {
  const sockaddr_un address = addressOf(socket_);
  listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_, 4) != 0)
    throw std::runtime_error("can't listen at " + socket_);
  thread_ = std::thread([this] { serve(); });
}

FakeHost::~FakeHost() {
  shutdown(listener_, SHUT_RDWR);
  thread_.join();
  close(listener_);
}

void FakeHost::serve() {
  for (int connection; (connection = accept(listener_, nullptr, nullptr)) >= 0;) {
    serveConnection(connection);
    const std::lock_guard guard(lock_);
    watches_.clear();
    connection_ = -1;
    close(connection);
  }
}

void FakeHost::serveConnection(int connection) {
  std::string buffer;
  char chunk[4096];
  for (ssize_t count; (count = recv(connection, chunk, sizeof chunk, 0)) > 0;) {
    buffer.append(chunk, static_cast<std::size_t>(count));
    for (std::size_t end; (end = buffer.find('\n')) != std::string::npos; buffer.erase(0, end + 1)) {
      const Json request = Json::parse(buffer.substr(0, end));
      const std::lock_guard guard(lock_);
      connection_ = connection;
      if (onCall) onCall(request.at("method"));
      Json reply = answer(request.at("method"), request.at("params"));
      reply["id"] = request.at("id");
      sendLine(connection, reply);
    }
  }
}

Json FakeHost::answer(const std::string& method, const Json& parameters) {
  if (method == "write") return write(parameters.at("changes"));
  if (method == "read") return {{"result", {{"entities", read(parameters.value("path", ""))}}}};
  if (method == "watch") {
    watches_.push_back(parameters.value("path", ""));
    return {{"result", {{"watch", watches_.size()}, {"entities", read(watches_.back())}}}};
  }
  if (method == "types")
    return Json::parse(R"({"result": {"types": [{"name": "Hardware::Led::LedConfig",
                           "attributes": [{"name": "lightSetting"}, {"name": "theme"}]}]}})");
  if (method == "trace") return {{"result", {{"facilities", {{"Pinlamp", parameters.value("levels", "")}}}}}};
  if (answers) return {{"result", answers(method, parameters)}};
  if (method == "status") return {{"result", {{"mounts", Json::array()}, {"processes", Json::array()}}}};
  return {{"error", {{"code", -32601}, {"message", "no method " + method}}}};
}

Json FakeHost::read(const std::string& path) const {
  Json found = Json::array();
  for (const auto& [each, entity] : entities_)
    if (isUnder(each, path)) found.push_back(entity);
  return found;
}

Json FakeHost::write(const Json& changes) {
  if (!refusal_.empty()) {
    const auto lines = std::exchange(refusal_, {});
    return {{"error", {{"code", 1}, {"message", lines.front()}, {"data", {{"errors", lines}}}}}};
  }
  if (onWrite) onWrite(changes);
  for (const Json& change : changes) store(change);
  return {{"result", {{"written", changes.size()}}}};
}

void FakeHost::store(const Json& change) {
  const std::string path = change.at("path");
  if (change.at("op") == "del") {
    std::erase_if(entities_, [&](const auto& entry) { return isUnder(entry.first, path); });
    return;
  }
  Json& entity =
      entities_.try_emplace(path, Json{{"path", path}, {"type", ""}, {"attributes", Json::object()}})
          .first->second;
  if (change.contains("type")) entity["type"] = change["type"];
  entity["attributes"].update(change.value("attributes", Json::object()));
  for (std::size_t i = 0; i < watches_.size(); ++i)
    if (isUnder(path, watches_[i]))
      sendLine(connection_, {{"method", "changed"}, {"params", {{"watch", i + 1}, {"changes", {change}}}}});
}

void FakeHost::put(const std::string& path, const std::string& type, const Json& attributes) {
  const std::lock_guard guard(lock_);
  store({{"op", "put"}, {"path", path}, {"type", type}, {"attributes", attributes}});
}

Json FakeHost::attributes(const std::string& path) const {
  const std::lock_guard guard(lock_);
  const auto found = entities_.find(path);
  return found == entities_.end() ? Json() : found->second.at("attributes");
}

std::size_t FakeHost::size() const {
  const std::lock_guard guard(lock_);
  return entities_.size();
}

void FakeHost::refuse(std::vector<std::string> lines) {
  const std::lock_guard guard(lock_);
  refusal_ = std::move(lines);
}

Outcome run(std::vector<std::string> arguments) {
  std::ostringstream out, err;
  const int status = runCommandLine(std::move(arguments), out, err);
  return {status, out.str(), err.str()};
}

Outcome run(const FakeHost& host, std::vector<std::string> arguments) {
  if (arguments.front() == "complete")
    arguments.insert(arguments.begin() + 1, {"--socket", host.socket()});
  else
    arguments.insert(arguments.begin(), {"--socket", host.socket()});
  return run(std::move(arguments));
}

}  // namespace Ctl
