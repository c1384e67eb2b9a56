#include "platform/zel/entity/pathwalker.h"

#include <algorithm>

#include "platform/zel/core/assert.h"
#include "platform/zel/entity/entity.h"

namespace Zel {

namespace {

std::string collectionsOf(const TypeNode& type) {
  std::string names;
  for (const AttributeInfo* attribute : type.storedAttributes())
    if (attribute->memberType) names += (names.empty() ? "" : ", ") + std::string(attribute->name);
  return names;
}

const AttributeInfo& collectionNamed(const TypeNode& type, std::string_view name) {
  const AttributeInfo* found = type.find(name);
  if (found && found->memberType) return *found;
  const std::string has = collectionsOf(type);
  throw ValueError("'" + std::string(name) + "' is no collection of " + type.name().stdString() +
                   (has.empty() ? ", which has none" : "; it has " + has));
}

}  // namespace

const AttributeInfo* directCollection(const TypeNode& type) {
  const auto& stored = type.storedAttributes();
  const auto found = std::ranges::find_if(stored, &AttributeInfo::direct);
  return found == stored.end() ? nullptr : *found;
}

void PathWalker::check(std::string_view path) {
  const auto refuse = [path](const std::string& why) {
    throw ValueError("the path '" + excerpt(path) + "' " + why);
  };
  if (path.size() > kLongest) refuse("is longer than " + std::to_string(kLongest) + " bytes");
  if (path.size() < kDeepest) return;  // most paths: too short to exceed a limit below
  if (static_cast<std::size_t>(std::ranges::count(path, '/')) >= kDeepest)
    refuse("has more than " + std::to_string(kDeepest) + " components");
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    Name::checkEscaped(path.substr(at, end - at));
    at = end + 1;
  }
}

void PathWalker::checkComponents(std::string_view path) {
  check(path);
  for (PathWalker walker(path); !walker.done();) unescapeComponent(walker.component());
}

std::string_view PathWalker::above(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view PathWalker::component() {
  ZEL_REQUIRE(!done(), path_);
  const std::size_t end = std::min(path_.find('/', at_), path_.size());
  const std::string_view text = path_.substr(at_, end - at_);
  if (text.empty() || end + 1 == path_.size())
    throw ValueError("'" + std::string(path_) +
                     "' has an empty component; a path is NAME/NAME without a slash at either end");
  at_ = end + 1;
  return text;
}

PathWalker::Step PathWalker::next(const TypeNode& type) {
  const AttributeInfo* collection = directCollection(type);
  if (!collection) {
    collection = &collectionNamed(type, component());
    if (done())
      throw ValueError("'" + std::string(collection->name) +
                       "' is a collection; a member's name must follow it");
  }
  std::string key = unescapeComponent(component());
  return {collection, std::move(key), path_.substr(0, at_ - 1)};
}

}  // namespace Zel
