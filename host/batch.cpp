#include "host/batch.h"

#include <algorithm>

namespace Host {

using Statedb::Change;
using Statedb::isUnder;
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
      batch.errors.push_back(change.path + ": " + error.what());
    }
  }

  Batch batch;

 private:
  // What goes wrong under an entity that could not be made says nothing new.
  bool underFailed(const std::string& path) const {
    return std::ranges::any_of(failed_, [&](const std::string& each) { return isUnder(path, each); });
  }

  void put(const RequestedChange& change) {
    addMounts(change.path);
    const std::string present = types_.typeAt(change.path);
    if (change.existing && present.empty()) throw ValueError("there is no entity at this path");
    const std::string type = typeOf(change, present);
    if (!present.empty() && type != present)
      throw ValueError("is there as a " + present + "; delete it before putting a " + type);
    appendChanges(change, type, batch.changes);
    types_.put(change.path, type);
  }

  void del(const RequestedChange& change) {
    if (lenient_ && types_.typeAt(change.path).empty()) return;
    appendChanges(change, {}, batch.changes);
    types_.del(change.path);
  }

  std::string typeOf(const RequestedChange& change, const std::string& present) const {
    if (!change.type.empty()) return change.type;
    if (!present.empty()) return present;
    const std::string type = Statedb::placeType(change.path, types_);
    if (type.empty()) throw ValueError("'type' is missing, and nothing is there that would tell it");
    return type;
  }

  void addMounts(const std::string& path) {
    for (const auto& mount : mounts_) {
      if (!isUnder(path, mount.path) || !types_.typeAt(mount.path).empty()) continue;
      batch.mounts.push_back(Change::put(mount.path, mount.type, "", {}));
      batch.changes.push_back(batch.mounts.back());
      types_.put(mount.path, mount.type);
    }
  }

  Statedb::TypesAfter types_;
  const Mounts& mounts_;
  const bool lenient_;
  std::vector<std::string> failed_;
};

RequestedChange readChange(const Json& change, std::size_t position) {
  try {
    return requestedChange(change);
  } catch (const ValueError& error) {
    throw ValueError("'changes'[" + std::to_string(position) + "]: " + error.what());
  }
}

}  // namespace

Batch readBatch(const Json& changes, const Statedb::TypeAt& typeAt, const Mounts& mounts, bool lenient) {
  BatchReader reader(typeAt, mounts, lenient);
  for (std::size_t i = 0; i < changes.size(); ++i) reader.add(readChange(changes[i], i));
  std::ranges::move(Statedb::checkChanges(reader.batch.changes, typeAt),
                    std::back_inserter(reader.batch.errors));
  return std::move(reader.batch);
}

}  // namespace Host
