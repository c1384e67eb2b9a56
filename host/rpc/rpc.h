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
  refused = 1,  // nothing was changed; data.errors lists why
  store = 2,    // the store could not take it; nothing was changed
};

// Bytes of one line of an error; what quotes more than that is cut.
inline constexpr std::size_t kLongestError = 8192;

class RpcError : public std::runtime_error {
 public:
  // `errors` are all the lines of a refusal.
  RpcError(RpcCode code, const std::string& message, std::vector<std::string> errors = {})
      : std::runtime_error(message), code_(code), errors_(std::move(errors)) {}

  RpcCode code() const { return code_; }
  const std::vector<std::string>& errors() const { return errors_; }

 private:
  RpcCode code_;
  std::vector<std::string> errors_;
};

// Of a refusal: the first error stands for all of them in the message. REQUIRES: !errors.empty().
RpcError refusedFor(const std::vector<std::string>& errors);

struct Request {
  Zel::Value id;
  bool answered = true;  // false where the client wants no answer
  std::string method;
  Zel::Value parameters = Zel::Value::Fields{};

  // Fills the request from one line. Throws RpcError where it is not one; the id is filled as far as it is
  // known then.
  void read(std::string_view line);
};

// The messages themselves. `result` and `parameters` are JSON texts.
std::string resultText(const Zel::Value& id, std::string_view result);
std::string errorText(const Zel::Value& id, const RpcError& error);
std::string notificationText(const char* method, std::string_view parameters);
std::string requestText(std::int64_t id, const char* method, std::string_view parameters);

}  // namespace Host
