// The memory of board files: what each of them brought when it was applied, so that its rows can be told from
// those that people set. `pinlampctl board apply` writes it in one batch with the rows: docs/shipping.md.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Board {

// An entity as a board file had it. Its name is the entity's path; it is in the directory of its file.
class Brought : public Zel::Described<Brought, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Brought> {
   public:
    using NotifieeOf::NotifieeOf;
  };

  static constexpr auto attributes() {
    return std::tuple{Zel::attribute::value<&Brought::entityType_>("entityType"),
                      Zel::attribute::value<&Brought::values_>("values")};
  }
  static const Zel::TypeNode& typeNode();

  explicit Brought(Zel::Name name) : Described(name) {}

 private:
  Zel::String entityType_;
  Zel::String values_;  // its attributes, as the text of a JSON object
};

}  // namespace Board
