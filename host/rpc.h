// JSON-RPC 2.0, one message a line.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "host/json.h"

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

class RpcError : public std::runtime_error {
 public:
  RpcError(RpcCode code, const std::string& message, Json data = nullptr)
      : std::runtime_error(message), code_(code), data_(std::move(data)) {}

  RpcCode code() const { return code_; }
  const Json& data() const { return data_; }

 private:
  RpcCode code_;
  Json data_;
};

// Of a refusal: the first error stands for all of them in the message. REQUIRES: !errors.empty().
RpcError refusedFor(const std::vector<std::string>& errors);

struct Request {
  Json id;
  bool answered = true;  // false where the client wants no answer
  std::string method;
  Json parameters = Json::object();

  // Fills the request from one line. Throws RpcError where it is not one; the id is filled as far as it is
  // known then.
  void read(std::string_view line);
};

std::string resultText(const Json& id, Json result);
std::string errorText(const Json& id, const RpcError& error);
std::string notificationText(const char* method, Json parameters);

}  // namespace Host
