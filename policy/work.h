// Brings together what is to be done once a pass.
//
//     work->request();  // any number of times: onDue() runs once, later in the same pass
#pragma once

#include <cstdint>

#include "platform/zel/entity/described.h"

namespace Policy {

// Owned by those that request; the reactor on it does the work.
class Work : public Zel::Described<Work, Zel::Notifier> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Work> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onDue() {}
  };

  static constexpr auto attributes() {
    return std::tuple{Zel::attribute::value<&Work::due_, &NotifieeConst::onDue>("due", Zel::attribute::kGet)};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Policy::Work");
    return type;
  }

  void request() { set<&Work::due_>(due_ + 1); }

 private:
  std::uint32_t due_ = 0;
};

}  // namespace Policy
