// JSON-RPC 2.0, one message a line.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "host/rpc/json.h"

namespace Host {

enum class RpcCode {
  parse = -32700,
  invalidRequest = -32600,
  noSuchMethod = -32601,
  badParameter = -32602,
  internal = -32603,
  refused = 1,  // nothing was changed; data.errors has the reasons
  store = 2,    // the store failed; nothing was changed
};

// Bytes of one error message; longer ones are cut.
inline constexpr std::size_t kLongestError = 8192;

class RpcError : public std::runtime_error {
 public:
  // `errors`: all lines of a refusal.
  RpcError(RpcCode code, const std::string& message, std::vector<std::string> errors = {})
      : std::runtime_error(message), code_(code), errors_(std::move(errors)) {}

  RpcCode code() const { return code_; }
  const std::vector<std::string>& errors() const { return errors_; }

 private:
  RpcCode code_;
  std::vector<std::string> errors_;
};

// A refusal; its message is the first error and the number of the others. REQUIRES: !errors.empty().
RpcError refusedFor(const std::vector<std::string>& errors);

struct Request {
  Zel::Value id;
  bool answered = true;  // false for a notification: it has no id and gets no answer
  std::string method;
  Zel::Value parameters = Zel::Value::Fields{};

  // Throws RpcError if the message is no request; `id` is set if it was found before that.
  void read(Zel::Value message);
};

// Parses one line. Throws RpcError.
Zel::Value parseMessage(std::string_view line);

// Format messages. `result` and `parameters` are JSON.
std::string resultText(const Zel::Value& id, std::string_view result);
std::string errorText(const Zel::Value& id, const RpcError& error);
std::string notificationText(const char* method, std::string_view parameters);
std::string requestText(std::int64_t id, const char* method, std::string_view parameters);

}  // namespace Host
