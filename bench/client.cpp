#include "bench/client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/appliance.h"
#include "bench/measure.h"

namespace Bench {

namespace {

constexpr double kTimeout = 300;  // seconds for anything that a host is asked to do

void nap() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

std::string settingText(const Led::LightSetting& setting) {
  std::string text = R"({"flashInterval":)" + std::to_string(setting.flashInterval);
  for (std::size_t colour = 0; colour < kPins; ++colour)
    if (lights(setting, colour)) text += R"(,")" + std::string(Led::kPinColours[colour].name) + R"(":true)";
  return text + '}';
}

std::string ledPut(std::size_t led, const Led::LightSetting& setting) {
  return R"({"op":"put","path":"hardware/led/config/leds/)" + ledName(led) +
         R"(","attributes":{"lightSetting":)" + settingText(setting) + "}}";
}

Json mappingPut(std::size_t led) {
  Json attributes = {{"ready", true}};
  for (std::size_t colour = 0; colour < kPins; ++colour)
    attributes[Led::kPinColours[colour].mappedPins] = {pinName(led, colour)};
  return {{"op", "put"},
          {"path", "hardware/gpio/config/led/gpioLeds/" + ledName(led)},
          {"attributes", attributes}};
}

// None, not even 0, while the host's store is not reached.
std::optional<std::size_t> machinesOf(const Json& status) {
  if (!status.at("storeState").at("reached").get<bool>()) return std::nullopt;
  return status.at("types").value(Json::json_pointer("/Pinlamp::GpioLedStateMachine/objects"),
                                  std::size_t{0});
}

std::vector<std::string> command(const TemporaryFolder& folder, const std::string& store,
                                 const std::vector<std::string>& agents = {}) {
  const std::string build = buildFolder();
  std::vector<std::string> words = {build + "/bin/pinlampd",
                                    "--store",
                                    store == "sqlite:" ? store + folder.file("state.db") : store,
                                    "--agent",
                                    build + "/lib/libpinlamp.so",
                                    "--socket",
                                    folder.file("control.sock")};
  for (const std::string& agent : agents) words.insert(words.end(), {"--agent", agent});
  return words;
}

}  // namespace

Client::Client(const std::string& socket) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket.size() >= sizeof address.sun_path) throw std::runtime_error(socket + ": too long for a socket");
  std::memcpy(address.sun_path, socket.c_str(), socket.size());
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(socket_);
    throw std::runtime_error(socket + ": " + std::strerror(errno));
  }
}

Client::~Client() { close(socket_); }

void Client::send(std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("the host has closed the connection");
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::string_view Client::readLine() {
  for (std::size_t searched = read_;;) {
    if (const auto end = buffer_.find('\n', searched); end != std::string::npos) {
      const std::string_view line = std::string_view(buffer_).substr(read_, end - read_);
      read_ = end + 1;
      return line;
    }
    buffer_.erase(0, std::exchange(read_, 0));
    searched = buffer_.size();
    buffer_.resize(searched + 65536);
    const ssize_t got = recv(socket_, buffer_.data() + searched, 65536, 0);
    if (got <= 0) throw std::runtime_error("the host has closed the connection");
    buffer_.resize(searched + static_cast<std::size_t>(got));
  }
}

Json Client::call(const std::string& method, const Json& parameters) {
  send(Json{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", parameters}}.dump() + '\n');
  for (;;) {
    const Json answer = Json::parse(readLine());
    if (!answer.contains("id")) continue;
    if (answer.contains("error")) throw std::runtime_error(answer["error"]["message"].get<std::string>());
    return answer["result"];
  }
}

std::string setRequest(std::size_t led, const Led::LightSetting& setting) {
  return R"({"jsonrpc":"2.0","id":1,"method":"write","params":{"changes":[)" + ledPut(led, setting) + "]}}\n";
}

std::string pinPath(std::size_t led, std::size_t colour) {
  return std::string(Paths::kPins) + '/' + pinName(led, colour);
}

RunningHost::RunningHost(const std::string& store, const std::vector<std::string>& agents)
    : folder_(own_), process_(command(folder_, store, agents), folder_.file("log")) {}

RunningHost::RunningHost(const TemporaryFolder& folder, const std::string& store)
    : folder_(folder), process_(command(folder_, store), folder_.file("log")) {}

void RunningHost::fill(std::size_t leds) const {
  static constexpr std::size_t kBatch = 500;
  waitUntilDriven(0);
  Client client(socket());
  for (std::size_t begin = 0; begin < leds; begin += kBatch) {
    Json changes = Json::array();
    for (std::size_t led = begin; led < std::min(begin + kBatch, leds); ++led) {
      changes.push_back(Json::parse(ledPut(led, steady(led % kPins))));
      changes.push_back(mappingPut(led));
    }
    client.call("write", {{"changes", changes}});
  }
  waitUntilDriven(leds);
}

void RunningHost::waitUntilDriven(std::size_t leds) const {
  for (const double end = now() + kTimeout; now() < end; nap()) {
    if (!process_.running()) throw std::runtime_error("pinlampd has ended; see its log");
    try {
      Client client(socket());
      while (machinesOf(client.call("status", Json::object())) != leds) nap();
      return;
    } catch (const std::runtime_error&) {  // not listening yet
    }
  }
  throw std::runtime_error("pinlampd has not driven all LEDs in time");
}

}  // namespace Bench
