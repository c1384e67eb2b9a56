// Reading paths, as texts from a socket, a file or an agent: NAME/NAME/…, each component escaped as
// escapeComponent() does.
//
//     PathWalker::checkComponents(text);  // a text from outside
//     const TypeNode* type = &Dir::typeNode();
//     for (PathWalker walker(text); !walker.done();) {
//       const auto step = walker.next(*type);
//       entity = step.collection->member(*entity, Name(step.key));
//       …
//
// Nothing here interns a name.
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

  // Throws ValueError if a text exceeds the limits of paths, or one of its components that of names.
  static void check(std::string_view path);
  // The same, and if a component is empty or wrongly escaped. The empty path has no components.
  static void checkComponents(std::string_view path);
  // The path without its last component; empty above a single one.
  static std::string_view above(std::string_view path);

  // `path` must outlive the walker. Its limits are not checked: paths that agents make have none.
  explicit PathWalker(std::string_view path) : path_(path) {}

  bool done() const { return at_ >= path_.size(); }
  // The next component as it is written. Throws ValueError if it is empty. REQUIRES: !done().
  std::string_view component();

  // From an entity to a member of one of its collections.
  struct Step {
    const AttributeInfo* collection;
    std::string key;        // the member's name, no longer escaped
    std::string_view path;  // as far as it was read
  };
  // The step from an entity of that type: a directory's entries stand right under it, a member of another
  // collection under the collection's name. Throws ValueError if a component is empty or wrongly escaped, the
  // type has no such collection, or no key follows it. REQUIRES: !done().
  Step next(const TypeNode& type);

 private:
  std::string_view path_;
  std::size_t at_ = 0;
};

// The collection of a directory, whose members stand right under it; null for other types.
ZEL_API const AttributeInfo* directCollection(const TypeNode& type);

}  // namespace Zel
