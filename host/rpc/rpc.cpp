#include "host/rpc/rpc.h"

#include "platform/zel/core/assert.h"

namespace Host {

RpcError refusedFor(const std::vector<std::string>& errors) {
  ZEL_REQUIRE(!errors.empty(), errors.size());
  const std::string more = errors.size() == 1 ? "" : " (and " + std::to_string(errors.size() - 1) + " more)";
  return {RpcCode::refused, errors.front() + more, errors};
}

namespace {

[[noreturn]] void invalid(const std::string& why) {
  throw RpcError(RpcCode::invalidRequest, "not a request: " + why);
}

bool isId(const Zel::Value& value) {
  return value.isNull() || value.as<std::string>() || value.as<std::int64_t>() || value.as<double>();
}

}  // namespace

Zel::Value parseMessage(std::string_view line) {
  try {
    return parseJson(line);
  } catch (const Zel::ValueError& error) {
    throw RpcError(RpcCode::parse, error.what());
  }
}

void Request::read(Zel::Value message) {
  auto* fields = message.as<Zel::Value::Fields>();
  if (!fields) invalid(std::string("found ") + message.kindText() + ", expected a request");
  const auto* given = message.field("id");
  if (given && !isId(*given))
    invalid(std::string("'id': found ") + given->kindText() + ", expected a string or a number");
  if (given) id = *given;
  const auto* version = message.field("jsonrpc");
  if (!version || *version != "2.0") invalid("'jsonrpc' must be \"2.0\"");
  const auto* called = message.field("method");
  if (!called || !called->as<std::string>()) invalid("'method' must be a string");
  method = *called->as<std::string>();
  answered = given != nullptr;
  for (auto& [name, value] : *fields)
    if (name == "params") parameters = std::move(value);
}

std::string resultText(const Zel::Value& id, std::string_view result) {
  std::string text = "{\"id\":";
  appendJson(text, id);
  text += ",\"jsonrpc\":\"2.0\",\"result\":";
  text += result;
  return text + '}';
}

std::string errorText(const Zel::Value& id, const RpcError& error) {
  Json what = {{"code", static_cast<int>(error.code())},
               {"message", Zel::excerpt(error.what(), kLongestError)}};
  for (const std::string& each : error.errors())
    what["data"]["errors"].push_back(Zel::excerpt(each, kLongestError));
  return "{\"error\":" + jsonText(what) + ",\"id\":" + jsonText(id) + ",\"jsonrpc\":\"2.0\"}";
}

std::string notificationText(const char* method, std::string_view parameters) {
  std::string text = "{\"jsonrpc\":\"2.0\",\"method\":\"";
  text += method;
  text += "\",\"params\":";
  text += parameters;
  return text + '}';
}

std::string requestText(std::int64_t id, const char* method, std::string_view parameters) {
  std::string text = "{\"id\":" + std::to_string(id) + ",\"jsonrpc\":\"2.0\",\"method\":\"" + method;
  text += "\",\"params\":";
  text += parameters;
  return text + '}';
}

}  // namespace Host
