// Type descriptors, the registry of types, and typed allocation.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/ptr.h"
#include "platform/zel/object/attribute.h"

namespace Zel {

class Dir;
class Entity;

// How many objects of one type there are. The numbers are exact on the activity thread.
class ZEL_API AllocTrackTypeInfo {
 public:
  static void trackAllocation(const TypeNode& type, std::size_t size);
  static void trackDeallocation(const TypeNode& type, std::size_t size);

  std::size_t objects() const { return objects_; }  // now
  std::size_t bytes() const { return bytes_; }      // now, by sizeof
  std::size_t total() const { return total_; }      // ever

 private:
  std::size_t objects_ = 0;
  std::size_t bytes_ = 0;
  std::size_t total_ = 0;
};

// Describes one class: qualified name, base, table of attributes, factory. A function-local static in the
// class's library; alive while that library is loaded.
class ZEL_API TypeNode {
 public:
  using NewForDir = Ptr<Entity> (*)(const Name& name, Dir* dir);
  // Performs `operation` on the attribute at `index` of `object`, which is of the type or derived from it.
  // Only sets `handled` to false if the index is outside the type's own range.
  using Dispatch = Value (*)(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments,
                             bool& handled);

  TypeNode(const char* name, const TypeNode* base, std::vector<AttributeInfo> attributes,
           Dispatch dispatchOperation, NewForDir newForDir);
  TypeNode(const TypeNode&) = delete;
  TypeNode& operator=(const TypeNode&) = delete;

  // Qualified, such as "Hardware::Led::LedConfig".
  Name name() const { return name_; }
  // Null for the outermost class.
  const TypeNode* base() const { return base_; }
  bool isA(const TypeNode& other) const;
  // Makes an entity of this type by name; null if directories can't hold the type.
  NewForDir newEntityForDir() const { return newEntityForDir_; }
  Dispatch dispatch() const { return dispatch_; }

  // The type's own attributes; the first has index firstIndex().
  const std::vector<AttributeInfo>& attributes() const { return attributes_; }
  AttributeIndex firstIndex() const { return firstIndex_; }
  AttributeIndex endIndex() const { return firstIndex_ + static_cast<AttributeIndex>(attributes_.size()); }
  // The attributes that stores hold, the bases' first.
  const std::vector<const AttributeInfo*>& storedAttributes() const { return stored_; }
  // The attribute at an index of this type or of a base. REQUIRES: index < endIndex().
  const AttributeInfo& attribute(AttributeIndex index) const;
  // The index of the published attribute of that name, the type's own before its base's; endIndex() if there
  // is none.
  AttributeIndex indexOf(std::string_view name) const;
  // The attribute of that name; null if there is none. The second compares numbers, not strings.
  const AttributeInfo* find(std::string_view name) const;
  const AttributeInfo* find(const Name& name) const;

  const AllocTrackTypeInfo& allocations() const { return allocations_; }

 private:
  friend class AllocTrackTypeInfo;

  const Name name_;
  const TypeNode* const base_;
  const std::vector<AttributeInfo> attributes_;
  const std::vector<const AttributeInfo*> stored_;
  const AttributeIndex firstIndex_;
  const Dispatch dispatch_;
  const NewForDir newEntityForDir_;
  mutable AllocTrackTypeInfo allocations_;
};

// Registers a descriptor under its name. A second descriptor of that name is a bug and aborts the process.
ZEL_API void typeNodeIs(const TypeNode& type);
// Unregisters it; ignores an unknown descriptor.
ZEL_API void typeNodeDel(const TypeNode& type);
// Null if no type of that name is registered.
ZEL_API const TypeNode* typeNode(const Name& name);
// Every registered type, by name.
ZEL_API std::vector<const TypeNode*> typeNodes();

// Registers types in the order given; unregisters them in reverse order at its end. A static object in a
// library, so that its types come and go with it.
class ZEL_API TypeRegistration {
 public:
  TypeRegistration(std::initializer_list<const TypeNode& (*)()> types);
  ~TypeRegistration();
  TypeRegistration(const TypeRegistration&) = delete;
  TypeRegistration& operator=(const TypeRegistration&) = delete;

 private:
  std::vector<const TypeNode*> types_;
};

// The framework's allocator; memory is aligned to 8 bytes. Any thread.
ZEL_API void* fwkAllocate(std::size_t size);
ZEL_API void fwkDeallocate(void* memory, std::size_t size) noexcept;
// Bytes in huge pages, which the allocator maps itself; all other memory comes from operator new.
ZEL_API std::size_t fwkHugeBytes();

// Makes a T: counts it, allocates, constructs, enables its notifications. If the constructor throws, frees
// and uncounts it and rethrows.
template <class T, class... Args>
Ptr<T> allocate(Args&&... args) {
  static_assert(alignof(T) <= 8);
  const TypeNode& type = T::typeNode();
  AllocTrackTypeInfo::trackAllocation(type, sizeof(T));
  void* memory = nullptr;
  T* object = nullptr;
  try {
    memory = fwkAllocate(sizeof(T));
    object = ::new (memory) T(std::forward<Args>(args)...);
  } catch (...) {
    if (memory) fwkDeallocate(memory, sizeof(T));
    AllocTrackTypeInfo::trackDeallocation(type, sizeof(T));
    throw;
  }
  auto pointer = Ptr<T>::adopt(object);
  PtrInterface& base = *object;  // T may name slots of reactors that are not defined here
  base.hasNotificationActiveIs(true);
  return pointer;
}

// CRTP layer between a class and its base: adds the descriptor and an operator delete that uncounts.
// T declares `static const TypeNode& typeNode();`.
template <class T, class Base>
class Typed : public Base {
 public:
  using Base::Base;

  const TypeNode& fwkType() const override { return T::typeNode(); }

  static void operator delete(void* memory, std::size_t size) {
    AllocTrackTypeInfo::trackDeallocation(T::typeNode(), size);
    fwkDeallocate(memory, size);
  }

 protected:
  ~Typed() override = default;
};

// The same for a class without attributes, such as a concrete reactor. T::kTypeName is its name.
template <class T, class Base>
class Reactor : public Typed<T, Base> {
 public:
  using Typed<T, Base>::Typed;
  static const TypeNode& typeNode() {
    static const TypeNode type(T::kTypeName, nullptr, {}, nullptr, nullptr);
    return type;
  }
};

}  // namespace Zel
