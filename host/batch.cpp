#include "host/batch.h"

#include <algorithm>

#include "platform/zel/dir.h"

namespace Host {

using Statedb::Change;
using Statedb::Path;
using Zel::ValueError;

namespace {

class BatchReader {
 public:
  explicit BatchReader(const BatchContext& context) : context_(context), types_(context.typeAt) {}

  void add(const RequestedChange& change) {
    if (underFailed(change.path)) return;
    try {
      checkAccess(change);
      if (change.kind == Change::Kind::put)
        put(change);
      else
        remove(change);
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

  void checkAccess(const RequestedChange& change) const {
    const bool removed = change.kind == Change::Kind::del;
    const auto why = context_.announcements.refusal(context_.writer, change.path.text(), removed);
    if (!why.empty()) throw ValueError(why);
  }

  void put(const RequestedChange& change) {
    addMounts(change.path);
    const Zel::Name present = types_.typeAt(change.path);
    if (change.existing && present.empty()) throw ValueError("there is no entity at this path");
    const Zel::Name type = typeOf(change, present);
    if (!present.empty() && type != present)
      throw ValueError("is there as a " + present.stdString() + "; delete it before putting a " +
                       type.stdString());
    if (present.empty() && type != Zel::Dir::typeNode().name() && isOnTheWay(change.path))
      throw ValueError("leads to what agents mount; put a Zel::Dir there");
    appendChanges(change, type, batch.changes);
    types_.put(change.path, type);
  }

  void remove(const RequestedChange& change) {
    if (context_.lenient && types_.typeAt(change.path).empty()) return;
    appendChanges(change, {}, batch.changes);
    if (change.kind == Change::Kind::del) types_.del(change.path);
  }

  Zel::Name typeOf(const RequestedChange& change, Zel::Name present) const {
    if (!change.type.empty()) return change.type;
    if (!present.empty()) return present;
    const Zel::Name type = Statedb::placeType(change.path, types_);
    if (type.empty()) throw ValueError("'type' is missing, and nothing is there that would tell it");
    return type;
  }

  // Whether something stands under a path that agents take for a directory until it has a row.
  bool isOnTheWay(Path path) const {
    const auto isUnder = [path](const auto& mount) { return mount.path != path && mount.path.isUnder(path); };
    return std::ranges::any_of(context_.mounts, isUnder) || context_.announcements.leadsToFilled(path.text());
  }

  void addMounts(Path path) {
    for (const auto& mount : context_.mounts) {
      if (!path.isUnder(mount.path) || !types_.typeAt(mount.path).empty()) continue;
      batch.mounts.push_back(Change::put(mount.path, mount.type, {}, {}));
      batch.changes.push_back(batch.mounts.back());
      types_.put(mount.path, mount.type);
    }
  }

  const BatchContext& context_;
  Statedb::TypesAfter types_;
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

Batch readBatch(const Zel::Value::List& changes, const BatchContext& context) {
  BatchReader reader(context);
  for (std::size_t i = 0; i < changes.size(); ++i) reader.add(readChange(changes[i], i));
  std::ranges::move(Statedb::checkChanges(reader.batch.changes, context.typeAt),
                    std::back_inserter(reader.batch.errors));
  return std::move(reader.batch);
}

}  // namespace Host
