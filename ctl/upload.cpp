#include "ctl/upload.h"

#include <algorithm>
#include <utility>

#include "ctl/text.h"

namespace Ctl {

void Upload::add(const Configuration::Entry& entry) {
  constexpr std::size_t kPart = std::size_t{100} << 10, kPut = 60;  // bytes; the second beside the texts
  if (hasGivenUp_ || refusal_) return;
  part_.push_back(&entry);
  bytes_ += entry.first.size() + entry.second.type.size() + entry.second.attributes.size() + kPut;
  if (bytes_ < kPart) return;
  try {
    send();
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal&) {
    refusal_ = std::current_exception();
  }
}

bool Upload::finish() {
  if (refusal_) std::rethrow_exception(refusal_);
  if (transfer_) send();
  if (!transfer_) return false;
  transfer_->commit();
  return true;
}

// Sorted, so that an entity comes before those under it, and the host finds neighbours together.
void Upload::send() {
  std::ranges::sort(part_, {}, [](const auto* entry) -> const std::string& { return entry->first; });
  if (isLate()) return giveUp();
  if (!transfer_) transfer_.emplace(connect_(), "", onSent_);
  Client::Batch batch;
  for (const auto* entry : std::exchange(part_, {})) {
    batch.add(Configuration::putOf(*entry));
    for (std::string path = parentPath(entry->first); !path.empty() && above_.insert(path).second;)
      path = parentPath(path);
  }
  bytes_ = 0;
  transfer_->send(batch);
}

bool Upload::isLate() const {
  return std::ranges::any_of(part_, [this](const auto* entry) { return above_.contains(entry->first); });
}

void Upload::giveUp() {
  hasGivenUp_ = true;
  if (auto transfer = std::exchange(transfer_, std::nullopt)) transfer->rollback();
}

}  // namespace Ctl
