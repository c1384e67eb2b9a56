#include "platform/zel/entity/generic.h"

#include <string>

#include "platform/zel/core/exception.h"
#include "platform/zel/entity/described.h"

namespace Zel {

namespace {

std::string operationTexts(Operations operations) {
  std::string texts;
  for (const Operation one :
       {Operation::get, Operation::set, Operation::del, Operation::iterate, Operation::invoke})
    if (allows(operations, one)) texts += (texts.empty() ? "" : ", ") + std::string(operationText(one));
  return texts.empty() ? "nothing" : texts;
}

}  // namespace

Value perform(const TypeNode& type, const AttributeInfo& attribute, Notifier& object, Operation operation,
              Arguments arguments) {
  if (attribute.kind == Kind::reserved) return {};
  if (!allows(attribute.operations, operation))
    throwOperationNotSupportedException(String(
        "operation " + std::string(operationText(operation)) + " is not supported on '" + attribute.name +
        "' of " + type.name().stdString() + "; it allows " + operationTexts(attribute.operations)));
  switch (operation) {
    case Operation::get:
      return attribute.get(object, arguments);
    case Operation::set:
      return attribute.set(object, arguments);
    case Operation::del:
      return attribute.del(object, arguments);
    case Operation::invoke:
      return attribute.invoke(object, arguments);
    case Operation::iterate:
      break;
  }
  return detail::nameList(attribute.keys(object));
}

Value GenericIf::perform(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments) {
  for (const TypeNode* type = &object.fwkType(); type; type = type->base()) {
    bool handled = false;
    if (!type->dispatch()) continue;
    Value result = type->dispatch()(object, operation, index, arguments, handled);
    if (handled) return result;
  }
  throwRangeException(
      ("no attribute has index " + std::to_string(index) + " in " + object.fwkType().name().stdString())
          .c_str());
}

Value GenericIf::perform(Notifier& object, Operation operation, std::string_view attribute,
                         Arguments arguments) {
  const TypeNode& type = object.fwkType();
  const AttributeIndex index = type.indexOf(attribute);
  if (index == type.endIndex()) {
    std::string text =
        "'" + std::string(attribute) + "' is no attribute of " + type.name().stdString() + "; it has";
    const char* separator = " ";
    for (AttributeIndex i = 0; i < type.endIndex(); ++i)
      if (const auto& each = type.attribute(i); each.kind != Kind::reserved)
        text += std::exchange(separator, ", ") + std::string(each.name);
    throwRangeException(text.c_str());
  }
  return perform(object, operation, index, arguments);
}

namespace detail {

const Value& argument(Arguments arguments, std::size_t index) {
  if (index >= arguments.size()) throw ValueError("argument " + std::to_string(index + 1) + " is missing");
  return arguments[index];
}

void expectArguments(Arguments arguments, std::size_t count) {
  if (arguments.size() != count)
    throw ValueError("found " + std::to_string(arguments.size()) + " arguments, expected " +
                     std::to_string(count));
}

Value nameList(const std::vector<Name>& names) {
  Value::List list;
  list.reserve(names.size());
  for (const Name& name : names) list.emplace_back(name.view());
  return list;
}

}  // namespace detail

}  // namespace Zel
