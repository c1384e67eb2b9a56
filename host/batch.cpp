#include "host/batch.h"

#include <algorithm>

namespace Host {

using Statedb::Change;
using Statedb::Path;
using Zel::ValueError;

namespace {

using Mounts = std::vector<Statedb::EntityManager::MountInfo>;

class BatchReader {
 public:
  BatchReader(const Statedb::TypeAt& typeAt, const Mounts& mounts, bool lenient)
      : types_(typeAt), mounts_(mounts), lenient_(lenient) {}

  void add(const RequestedChange& change) {
    if (underFailed(change.path)) return;
    try {
      if (change.kind == Change::Kind::put)
        put(change);
      else
        del(change);
    } catch (const ValueError& error) {
      failed_.push_back(change.path);
      batch.errors.push_back(change.path.text() + ": " + error.what());
    }
  }

  Batch batch;

 private:
  // What goes wrong under an entity that could not be made says nothing new.
  bool underFailed(Path path) const {
    return std::ranges::any_of(failed_, [&](Path each) { return path.isUnder(each); });
  }

  void put(const RequestedChange& change) {
    addMounts(change.path);
    const Zel::Name present = types_.typeAt(change.path);
    if (change.existing && present.empty()) throw ValueError("there is no entity at this path");
    const Zel::Name type = typeOf(change, present);
    if (!present.empty() && type != present)
      throw ValueError("is there as a " + present.stdString() + "; delete it before putting a " +
                       type.stdString());
    appendChanges(change, type, batch.changes);
    types_.put(change.path, type);
  }

  void del(const RequestedChange& change) {
    if (lenient_ && types_.typeAt(change.path).empty()) return;
    appendChanges(change, {}, batch.changes);
    types_.del(change.path);
  }

  Zel::Name typeOf(const RequestedChange& change, Zel::Name present) const {
    if (!change.type.empty()) return change.type;
    if (!present.empty()) return present;
    const Zel::Name type = Statedb::placeType(change.path, types_);
    if (type.empty()) throw ValueError("'type' is missing, and nothing is there that would tell it");
    return type;
  }

  void addMounts(Path path) {
    for (const auto& mount : mounts_) {
      if (!path.isUnder(mount.path) || !types_.typeAt(mount.path).empty()) continue;
      batch.mounts.push_back(Change::put(mount.path, mount.type, {}, {}));
      batch.changes.push_back(batch.mounts.back());
      types_.put(mount.path, mount.type);
    }
  }

  Statedb::TypesAfter types_;
  const Mounts& mounts_;
  const bool lenient_;
  std::vector<Path> failed_;
};

RequestedChange readChange(const Zel::Value& change, std::size_t position) {
  try {
    return requestedChange(change);
  } catch (const ValueError& error) {
    throw ValueError("'changes'[" + std::to_string(position) + "]: " + error.what());
  }
}

}  // namespace

Batch readBatch(const Zel::Value::List& changes, const Statedb::TypeAt& typeAt, const Mounts& mounts,
                bool lenient) {
  BatchReader reader(typeAt, mounts, lenient);
  for (std::size_t i = 0; i < changes.size(); ++i) reader.add(readChange(changes[i], i));
  std::ranges::move(Statedb::checkChanges(reader.batch.changes, typeAt),
                    std::back_inserter(reader.batch.errors));
  return std::move(reader.batch);
}

}  // namespace Host
