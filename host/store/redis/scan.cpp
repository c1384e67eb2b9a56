#include "host/store/redis/scan.h"

#include <algorithm>
#include <utility>

#include "platform/zel/core/exception.h"

namespace Host::Redis {

void Scan::start(Rows& rows) {
  rows_ = &rows;
  directories_.clear();
  after_ = "-";
  isListing_ = isListed_ = false;
  reading_ = 0;
  count_ = kLeastFields * 8;
  proceed();
}

void Scan::proceed() {
  for (; reading_ < kWindow && !directories_.empty(); directories_.pop_front()) {
    ++reading_;
    read(directories_.front(), "0");
  }
  if (directories_.empty() && !isListed_) list();
  connection_.flush();
  if (isListed_ && directories_.empty() && reading_ == 0) owner_.onScanned();
}

void Scan::list() {
  if (std::exchange(isListing_, true)) return;
  connection_.request(
      {"ZRANGEBYLEX", keys_.directories(), after_, "+", "LIMIT", "0", std::to_string(kDirectories)},
      [this](const Reply& reply) { onListed(reply); });
}

void Scan::onListed(const Reply& reply) {
  if (isFailed(reply)) return;
  isListing_ = false;
  isListed_ = reply.list.size() < kDirectories;
  for (const Reply& each : reply.list) directories_.push_back(each.text);
  if (!reply.list.empty()) after_ = "(" + reply.list.back().text;
  proceed();
}

void Scan::read(const std::string& directory, const std::string& cursor) {
  connection_.request({"HSCAN", keys_.directory(directory), cursor, "COUNT", std::to_string(count_)},
                      [this, directory](const Reply& reply) { onPage(directory, reply); });
}

void Scan::onPage(const std::string& directory, const Reply& reply) {
  if (isFailed(reply)) return;
  const std::string& cursor = reply[0].text;
  const bool isLast = cursor == "0" || cursor.empty();
  if (!isLast) read(directory, cursor);
  connection_.flush();  // the server reads the next page while this one is taken
  take(directory, reply[1]);
  if (isLast) --reading_;
  proceed();
}

void Scan::take(const std::string& directory, const Reply& fields) {
  std::size_t bytes = 0;
  const Directory at(directory);
  for (std::size_t i = 0; i + 1 < fields.list.size(); i += 2) {
    const std::string &field = fields[i].text, &text = fields[i + 1].text;
    bytes += field.size() + text.size();
    try {
      rows_->scanned(at, field, text);
    } catch (const Zel::ValueError& error) {
      owner_.onUnreadable("the field '" + field.substr(0, 200) + "' of the hash '" +
                          keys_.directory(directory).substr(0, 200) + "': " + error.what());
    }
  }
  adapt(fields.list.size() / 2, bytes);
}

// A small hash comes whole, whatever the COUNT.
void Scan::adapt(std::size_t fields, std::size_t bytes) {
  if (bytes > kPageBytes) count_ = std::max(kLeastFields, count_ / 2);
  if (bytes < kPageBytes / 2 && fields >= count_) count_ = std::min(kMostFields, count_ * 2);
}

bool Scan::isFailed(const Reply& reply) {
  if (reply.kind != Reply::Kind::error) return false;
  owner_.onScanFailed(reply);
  return true;
}

}  // namespace Host::Redis
