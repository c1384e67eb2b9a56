#include "platform/zel/entity/entity.h"

#include <algorithm>
#include <ostream>
#include <sstream>

#include "platform/zel/object/value.h"

namespace Zel {

const TypeNode& Entity::typeNode() {
  static const TypeNode type = describe("Zel::Entity");
  return type;
}

Entity::~Entity() { parentIs(nullptr); }

void Entity::parentIs(const Ptr<Entity>& parent) {
  if (parent == parent_) return;
  Entity* old = std::exchange(parent_, parent.get());
  if (parent) parent->newRef();
  const bool held = flag(kParentHeld);
  flagIs(kParentHeld, parent_ != nullptr);
  if (held) old->deleteRef();
}

void Entity::ownerIs(Entity* owner) {
  parentIs(nullptr);
  parent_ = owner;
}

const char* Entity::collectionOf(const Entity& member) const {
  for (const AttributeInfo* attribute : fwkType().storedAttributes())
    if (attribute->member && attribute->member(*this, member.name()) == &member)
      return attribute->direct ? "" : attribute->name;
  return "";
}

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

bool plain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return c != '/' && c != '%' && byte >= 0x20 && byte != 0x7F;
}

void appendEscaped(std::string& text, char c) {
  const auto byte = static_cast<unsigned char>(c);
  text += {'%', kHex[byte >> 4], kHex[byte & 15]};
}

void appendComponent(std::string& text, std::string_view name) {
  const bool dots = name == "." || name == "..";
  for (const char c : name) {
    if (plain(c) && !dots)
      text += c;
    else
      appendEscaped(text, c);
  }
}

}  // namespace

std::string Entity::path() const {
  std::string path;
  path.reserve(64);
  appendPath(path);
  return path;
}

void Entity::appendPath(std::string& path) const {
  const auto separate = [&path] {
    if (!path.empty()) path += '/';
  };
  if (parent_) {
    parent_->appendPath(path);
    if (const char* const collection = parent_->collectionOf(*this); *collection) {
      separate();
      path += collection;
    }
  }
  if (name().empty()) return;
  separate();
  appendComponent(path, name().view());
}

std::ostream& operator<<(std::ostream& out, const Entity& entity) {
  return out << '<' << entity.fwkType().name() << ' ' << entity.path() << '>';
}
std::ostream& operator<<(std::ostream& out, const Ptr<const Entity>& entity) {
  return entity ? out << *entity : out << "<null>";
}
std::ostream& operator<<(std::ostream& out, const Ptr<Entity>& entity) {
  return out << Ptr<const Entity>(entity);
}

String valueToStrepOfRawPtr(const Entity* entity) {
  if (!entity) return "null";
  std::ostringstream text;
  text << '<' << entity->fwkType().name() << ' ' << entity->path() << " at "
       << static_cast<const void*>(entity) << '>';
  return String(text.str());
}

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

bool isComponent(std::string_view name) {
  return std::ranges::all_of(name, &plain) && name != "." && name != "..";
}

std::string escapeComponent(std::string_view name) {
  std::string text;
  text.reserve(name.size());
  appendComponent(text, name);
  return text;
}

std::string unescapeComponent(std::string_view component) {
  if (isComponent(component)) return std::string(component);
  std::string name;
  name.reserve(component.size());
  for (std::size_t i = 0; i < component.size(); ++i) {
    if (component[i] != '%') {
      name += component[i];
      continue;
    }
    const int high = i + 2 < component.size() ? hexDigit(component[i + 1]) : -1;
    const int low = i + 2 < component.size() ? hexDigit(component[i + 2]) : -1;
    if (high < 0 || low < 0) break;
    name += static_cast<char>(high * 16 + low);
    i += 2;
  }
  if (escapeComponent(name) != component)
    throw ValueError(
        "'" + std::string(component) +
        "' is no component of a path; '/', '%' and control characters are written as %2F, %25, %XX");
  return name;
}

}  // namespace Zel
