#include "host/rpc.h"

#include "platform/zel/assert.h"

namespace Host {

RpcError refusedFor(const std::vector<std::string>& errors) {
  ZEL_REQUIRE(!errors.empty(), errors.size());
  const std::string more = errors.size() == 1 ? "" : " (and " + std::to_string(errors.size() - 1) + " more)";
  return {RpcCode::refused, errors.front() + more, {{"errors", errors}}};
}

namespace {

[[noreturn]] void invalid(const std::string& why) {
  throw RpcError(RpcCode::invalidRequest, "not a request: " + why);
}

Json parseLine(std::string_view line) {
  try {
    return parseJson(line);
  } catch (const Zel::ValueError& error) {
    throw RpcError(RpcCode::parse, error.what());
  }
}

}  // namespace

void Request::read(std::string_view line) {
  Json json = parseLine(line);
  if (!json.is_object()) invalid(std::string("found ") + kindText(json) + ", wanted one request a line");
  if (const auto given = json.find("id"); given != json.end()) {
    if (!given->is_string() && !given->is_number() && !given->is_null())
      invalid(std::string("'id': found ") + kindText(*given) + ", wanted a text or a number");
    id = *given;
  }
  if (json.value("jsonrpc", Json()) != "2.0") invalid("'jsonrpc' must be \"2.0\"");
  if (!json.contains("method") || !json["method"].is_string()) invalid("'method' must be a text");
  method = json["method"];
  answered = json.contains("id");
  if (json.contains("params")) parameters = std::move(json["params"]);
}

std::string resultText(const Json& id, Json result) {
  return jsonText({{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
}

std::string errorText(const Json& id, const RpcError& error) {
  Json what = {{"code", static_cast<int>(error.code())}, {"message", error.what()}};
  if (!error.data().is_null()) what["data"] = error.data();
  return jsonText({{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(what)}});
}

std::string notificationText(const char* method, Json parameters) {
  return jsonText({{"jsonrpc", "2.0"}, {"method", method}, {"params", std::move(parameters)}});
}

}  // namespace Host
