// Changes for subscribers, by the layer that they follow. Both are the same until a cover makes a difference,
// which most databases never see: until then they are kept once.
//
//     LayeredChanges changes;
//     changes.both([&](Changes& each) { each.push_back(change); });
//     changes.apart([&](Changes& effective, Changes& base) { effective.push_back(cover); });
//     notify(changes.of(subscriber.layer()));
//
// Activity thread only.
#pragma once

#include <optional>

#include "platform/statedb/store/row.h"

namespace Host::Redis {

class LayeredChanges {
 public:
  bool empty() const { return effective_.empty() && (!base_ || base_->empty()); }
  const Statedb::Changes& of(Statedb::Layer layer) const {
    return layer == Statedb::Layer::base && base_ ? *base_ : effective_;
  }

  // Calls `append` with the changes of each layer; it appends the same to all.
  template <class Append>
  void both(Append&& append) {
    append(effective_);
    if (base_) append(*base_);
  }
  // Calls `append` with the changes of the effective layer and those of the base.
  template <class Append>
  void apart(Append&& append) {
    if (!base_) base_ = effective_;
    append(effective_, *base_);
  }

 private:
  Statedb::Changes effective_{};
  std::optional<Statedb::Changes> base_{};  // nothing: the same
};

}  // namespace Host::Redis
