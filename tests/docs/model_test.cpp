// docs/model.md is generated from the attribute tables. To regenerate it: PINLAMP_WRITE_DOCS=1 docs_test
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "platform/warden/cagent.h"
#include "platform/zel/object/type.h"
#include "tests/places.h"

namespace {

using Zel::AttributeInfo;
using Zel::TypeNode;

constexpr const char* kHead = R"(# Types, attributes and operations

Generated from the attribute tables that the accessors, the stores and the generic interface share; a test keeps this page
true. The *index* is the one that `onRawAttribute` gets; a type's own attributes follow its base's. A state database keeps
the *stored* attributes of an entity: a value or a set of names as one row, a collection as the entities under it. All
others, and all attributes of objects that are not entities, exist on live objects only.
)";

std::string join(const std::vector<std::string>& texts, const char* separator) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : separator) + text;
  return joined;
}

std::string typeText(const AttributeInfo& attribute) {
  if (attribute.kind == Zel::Kind::procedure) {
    std::vector<std::string> parameters;
    for (const auto& parameter : attribute.parameters)
      parameters.push_back((*parameter.name ? parameter.name + std::string(": ") : "") + parameter.type());
    return "(" + join(parameters, ", ") + ")";
  }
  return attribute.type ? attribute.type() : "";
}

std::string operationsText(const AttributeInfo& attribute) {
  using Zel::Operation;
  std::vector<std::string> texts;
  for (const Operation one :
       {Operation::get, Operation::set, Operation::del, Operation::iterate, Operation::invoke})
    if (Zel::allows(attribute.operations, one)) texts.emplace_back(Zel::operationText(one));
  return join(texts, ", ");
}

void print(std::ostream& out, const TypeNode& type) {
  out << "\n## " << type.name() << "\n\n";
  if (type.base()) out << "Base: " << type.base()->name() << ".\n\n";
  if (type.attributes().empty()) {
    out << "No attributes of its own.\n";
    return;
  }
  out << "| index | attribute | kind | type | operations | stored |\n|---|---|---|---|---|---|\n";
  Zel::AttributeIndex index = type.firstIndex();
  for (const AttributeInfo& attribute : type.attributes()) {
    if (attribute.kind == Zel::Kind::reserved)
      out << "| " << index << " | | reserved | | | |\n";
    else
      out << "| " << index << " | `" << attribute.name << "` | " << Zel::kindText(attribute.kind) << " | "
          << typeText(attribute) << " | " << operationsText(attribute) << " | "
          << (attribute.stored ? "yes" : "") << " |\n";
    ++index;
  }
}

void addWithBases(const TypeNode& type, std::set<const TypeNode*>& seen,
                  std::vector<const TypeNode*>& order) {
  if (type.base()) addWithBases(*type.base(), seen, order);
  if (seen.insert(&type).second) order.push_back(&type);
}

std::string modelPage() {
  std::vector<const TypeNode*> order;
  std::set<const TypeNode*> seen;
  for (const TypeNode* type : Zel::typeNodes())
    if (!type->attributes().empty()) addWithBases(*type, seen, order);
  std::ostringstream out;
  out << kHead;
  for (const TypeNode* type : order) print(out, *type);
  return out.str();
}

TEST(ModelPage, MatchesTheAttributeTables) {
  const std::string page = modelPage();
  EXPECT_NE(page.find("## Pinlamp::GpioLedStateMachine"), std::string::npos)
      << "the agent's types are registered";
  const std::string file = Places::sourceFolder() + "/docs/model.md";
  if (std::getenv("PINLAMP_WRITE_DOCS")) std::ofstream(file) << page;
  std::stringstream written;
  written << std::ifstream(file).rdbuf();
  EXPECT_EQ(written.str(), page) << "regenerate it: PINLAMP_WRITE_DOCS=1 build/dev/bin/docs_test";
}

}  // namespace
