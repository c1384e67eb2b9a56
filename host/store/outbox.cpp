#include "host/store/outbox.h"

#include <algorithm>
#include <utility>

#include "host/io/connection.h"
#include "host/rpc/changes.h"
#include "host/rpc/json.h"
#include "host/rpc/rpc.h"
#include "platform/statedb/store/schema.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;

namespace {

constexpr std::size_t kChangesPerRequest = 1000;
constexpr std::size_t kLongestRequest = Lines::kLimit - 1000;  // bytes of its changes; a host takes no more

bool isStoreError(const Zel::Value& error) {
  const Zel::Value* code = error.field("code");
  const auto* number = code ? code->as<std::int64_t>() : nullptr;
  return number && *number == static_cast<int>(RpcCode::store);
}

}  // namespace

void Outbox::send() {
  const Changes changes = rows_.send();
  for (std::size_t from = 0; from < changes.size(); from += kChangesPerRequest) {
    const auto first = changes.begin() + static_cast<std::ptrdiff_t>(from);
    const std::size_t count = std::min(kChangesPerRequest, changes.size() - from);
    parts_.emplace_back(first, first + static_cast<std::ptrdiff_t>(count));
  }
  sendParts();
}

void Outbox::retry() {
  if (std::exchange(waits_, false)) sendParts();
}

void Outbox::lost() {
  parts_.clear();
  waits_ = false;
  rows_.lost();
}

// One at a time, for a part that is refused is sent again in smaller ones before the next.
void Outbox::sendParts() {
  while (!parts_.empty()) {
    const std::string text = changesText(parts_.front());
    if (text.size() <= kLongestRequest)
      return output_.request("write",
                             "{\"changes\":" + text + ",\"durability\":\"" + names_.durability + "\"}",
                             [this](const Zel::Value& reply) { onWritten(reply); });
    refusePart("is longer than " + std::to_string(kLongestRequest) + " bytes");
  }
  rows_.acknowledged();
  output_.onSent(*this);
}

void Outbox::onWritten(const Zel::Value& reply) {
  const Zel::Value* error = reply.field("error");
  if (error && isStoreError(*error)) return postpone(textField(*error, "message"));
  postponed_ = false;
  output_.onAccepted();
  if (error)
    refusePart(textField(*error, "message"));
  else
    parts_.pop_front();
  sendParts();
}

void Outbox::postpone(const std::string& why) {
  if (!std::exchange(postponed_, true))
    output_.report(std::string(" can't store what was ") + names_.what + ": " + why +
                   "; trying until it can");
  waits_ = true;
  output_.onPostponed();
}

void Outbox::refusePart(const std::string& why) {
  const Changes part = std::move(parts_.front());
  parts_.pop_front();
  if (part.size() > 1) {
    auto [first, second] = Statedb::halves(part);
    parts_.push_front(std::move(second));
    return parts_.push_front(std::move(first));
  }
  const Statedb::Row& row = part.front().row;
  const std::string place = why.starts_with(row.path.text()) ? "" : placeText(row) + ": ";
  output_.report(std::string(" refused what was ") + names_.what + ": " + place + why);
  rows_.refused(part.front());
  if (part.front().kind == Change::Kind::put && row.attribute.empty()) dropValuesOf(row.path);
}

// They follow the refused entity, and would be refused for the same reason.
void Outbox::dropValuesOf(Path path) {
  for (; !parts_.empty(); parts_.pop_front()) {
    Changes& next = parts_.front();
    const auto isOther = [&](const Change& each) { return each.row.path != path; };
    next.erase(next.begin(), std::ranges::find_if(next, isOther));
    if (!next.empty()) return;
  }
}

}  // namespace Host
