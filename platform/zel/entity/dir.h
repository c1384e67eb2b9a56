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

  explicit Dir(const Name& name) : Described(name) {}

  // Entries may be removed during a walk.
  const PtrMap<Entity>& entries() const { return entries_; }
  // Null if there is none.
  Ptr<Entity> entityRef(const Name& name) const { return entries_.find(name); }
  // Creates an entry of a registered type and returns it. Returns an existing entry of that name, whatever
  // its type; a type mismatch is noted for the message of a fault that follows. Throws RangeException if the
  // type is unknown or directories can't hold it.
  Ptr<Entity> entryIs(const Name& name, String typeName);
  // Adds an existing entity under its own name, replacing another of that name.
  void entryIs(const Ptr<Entity>& entity) { childIs<&Dir::entries_>(entity); }
  // Returns the removed entry; null if there was none.
  Ptr<Entity> entryDel(const Name& name) { return childDel<&Dir::entries_>(name); }

 protected:
  ~Dir() override;

 private:
  PtrMap<Entity> entries_;
};

}  // namespace Zel
