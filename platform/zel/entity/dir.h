// Directories: entities that hold named entries of any entity type.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Zel {

class ZEL_API Dir : public Described<Dir, Entity> {
 public:
  class NotifieeConst : public NotifieeOf<Dir> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onEntry(Name) {}
    virtual void onEntryzelImmediate() { declineImmediate(); }
    virtual void onEntry() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{
        attribute::children<&Dir::entries_, N, &N::onEntry, &N::onEntryzelImmediate, &N::onEntry>("entries")};
  }
  static const TypeNode& typeNode();

  explicit Dir(Name name) : Described(name) {}

  // The entries; walking them tolerates removals.
  const PtrMap<Entity>& entries() const { return entries_; }
  // Null where there is none.
  Ptr<Entity> entityRef(Name name) const { return entries_.find(name); }
  // Creates an entry of a registered type and returns it. An entry that is there already is kept and
  // returned, whatever its type; one of another type is named by a fault that comes of it. Throws
  // RangeException where the type is unknown or is not made in directories.
  Ptr<Entity> entryIs(Name name, String typeName);
  // Puts an entity that was made elsewhere under its own name; one of that name that was there leaves.
  void entryIs(const Ptr<Entity>& entity) { childIs<&Dir::entries_>(entity); }
  // Returns the entry that left; null where there was none.
  Ptr<Entity> entryDel(Name name) { return childDel<&Dir::entries_>(name); }

 protected:
  ~Dir() override;

 private:
  PtrMap<Entity> entries_;
};

}  // namespace Zel
