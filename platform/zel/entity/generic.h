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
  // Performs one operation on the attribute at `index`. Tries the object's class, then its bases. Returns:
  //   get      the value; of a collection, the member under the given key, or without a key all keys
  //   set      the added member, of a collection
  //   del      the removed member, of a collection
  //   iterate  all keys
  //   invoke   the procedure's result
  // Throws OperationNotSupportedException if the attribute does not allow the operation (the object is
  // unchanged), RangeException if there is no such attribute, ValueError if the arguments do not fit, and
  // what the object's own operation throws.
  static Value perform(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments = {});
  static Value perform(Notifier& object, Operation operation, std::string_view attribute,
                       Arguments arguments = {});
};

// The same for one attribute, for dispatch operations.
ZEL_API Value perform(const TypeNode& type, const AttributeInfo& attribute, Notifier& object,
                      Operation operation, Arguments arguments);

}  // namespace Zel
