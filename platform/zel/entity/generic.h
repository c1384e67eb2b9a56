// The generic interface: every published attribute of any object, by name.
#pragma once

#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/attribute.h"
#include "platform/zel/object/type.h"

namespace Zel {

class ZEL_API GenericIf {
 public:
  // Performs one operation on the attribute at `index`: asks the object's own class first, and its bases in
  // turn where the index is outside the class's range. A get returns the value (of a collection: the member
  // under the key that is given, or the list of the keys); a set or delete the member made or removed, where
  // there is one; iterate the list of the keys; an invocation what the procedure returns. Throws
  // OperationNotSupportedException where the attribute does not allow the operation (the object is left as it
  // was), RangeException where there is no such attribute, ValueError where the arguments do not fit, and
  // what the object's own operation throws.
  static Value perform(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments = {});
  static Value perform(Notifier& object, Operation operation, std::string_view attribute,
                       Arguments arguments = {});
};

// The same for one attribute, for dispatch operations.
ZEL_API Value perform(const TypeNode& type, const AttributeInfo& attribute, Notifier& object,
                      Operation operation, Arguments arguments);

}  // namespace Zel
