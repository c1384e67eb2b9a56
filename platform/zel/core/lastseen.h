// A memo of one entry: look-ups often repeat the key before.
//
//     LastSeen<std::string, Path> parent;
//     if (const Path* known = parent.find(text)) return *known;
//     return parent.keep(text, look(text));
#pragma once

#include <utility>

namespace Zel {

template <class Key, class Value>
class LastSeen {
 public:
  // Null where `key` is not the one that was kept last.
  template <class K>
  const Value* find(const K& key) const {
    return kept_ && key_ == key ? &value_ : nullptr;
  }
  template <class K>
  const Value& keep(const K& key, Value value) {
    kept_ = false;  // where assigning throws
    key_ = key;
    value_ = std::move(value);
    kept_ = true;
    return value_;
  }

 private:
  Key key_{};
  Value value_{};
  bool kept_ = false;
};

}  // namespace Zel
