// Reads a path from a socket, a file or an agent: NAME/NAME/…, each component escaped by escapeComponent().
//
//     PathWalker::checkComponents(text);  // if it comes from outside
//     const TypeNode* type = &Dir::typeNode();
//     for (PathWalker walker(text); !walker.done();) {
//       const auto step = walker.next(*type);
//       entity = step.collection->member(*entity, Name(step.key));
//       …
//
// Interns no names.
#pragma once

#include <string>
#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/object/type.h"

namespace Zel {

class ZEL_API PathWalker {
 public:
  static constexpr std::size_t kLongest = 4096;  // bytes
  static constexpr std::size_t kDeepest = 64;    // components

  // Throws ValueError if the path or one of its components exceeds its limits.
  static void check(std::string_view path);
  // The same, and if a component is empty or wrongly escaped. The empty path has no components.
  static void checkComponents(std::string_view path);
  // The path without its last component; empty if there is only one.
  static std::string_view above(std::string_view path);

  // `path` must outlive the walker. Checks no limits: agents' own paths have none.
  explicit PathWalker(std::string_view path) : path_(path) {}

  bool done() const { return at_ >= path_.size(); }
  // The next component, still escaped. Throws ValueError if it is empty. REQUIRES: !done().
  std::string_view component();

  // A step from an entity to a member of one of its collections.
  struct Step {
    const AttributeInfo* collection;
    std::string key;        // the member's name, unescaped
    std::string_view path;  // as far as it was read
  };
  // Reads the step from an entity of that type: NAME in a directory, COLLECTION/NAME elsewhere. Throws
  // ValueError if a component is empty or wrongly escaped, the type has no such collection, or no key follows
  // it. REQUIRES: !done().
  Step next(const TypeNode& type);

 private:
  std::string_view path_;
  std::size_t at_ = 0;
};

// A directory's collection of entries; null for other types.
ZEL_API const AttributeInfo* directCollection(const TypeNode& type);

}  // namespace Zel
