// A pinlampd process, and clients of its control socket.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "bench/child.h"
#include "platform/model/led.h"
#include "platform/model/paths.h"

namespace Bench {

using Json = nlohmann::json;

// A blocking connection. Throws std::runtime_error if it breaks.
class Client {
 public:
  explicit Client(const std::string& socket);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // `text` is one or more lines, each with its newline.
  void send(std::string_view text);
  // Without its newline; valid until the next call.
  std::string_view readLine();
  // Sends a request and returns its result. Throws std::runtime_error with the host's message.
  Json call(const std::string& method, const Json& parameters);

 private:
  int socket_;
  std::string buffer_;
  std::size_t read_ = 0;  // bytes of `buffer_` that were consumed
};

// The request line that sets an LED.
std::string setRequest(std::size_t led, const Led::LightSetting& setting);
std::string pinPath(std::size_t led, std::size_t colour);

class RunningHost {
 public:
  // Starts pinlampd with the LED agent, and other agents' libraries. `store` is "memory:", or "sqlite:" for a
  // file in the host's own folder.
  explicit RunningHost(const std::string& store, const std::vector<std::string>& agents = {});
  // Uses the file of a host that was stopped.
  RunningHost(const TemporaryFolder& folder, const std::string& store);

  // Adds steady LEDs with their mappings, and waits until all are driven.
  void fill(std::size_t leds) const;
  void waitUntilDriven(std::size_t leds) const;
  void stop() { process_.stop(); }

  std::string socket() const { return folder_.file("control.sock"); }
  const Child& process() const { return process_; }

 private:
  const TemporaryFolder own_;
  const TemporaryFolder& folder_;
  Child process_;
};

}  // namespace Bench
