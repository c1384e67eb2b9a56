#include "ctl/context.h"

#include <ostream>

#include "platform/zel/core/printable.h"

namespace Ctl {

Client& Context::client() {
  if (!client_) client_ = target.connect();
  return *client_;
}

Client& Context::host(const std::string& command) {
  if (!target.hasHost())
    throw UsageError(command + " works on a running pinlampd: leave out --store, and give its --socket");
  return client();
}

void note(Context& context, const std::string& text) {
  context.err << "note: " << Zel::printable(text) << '\n';
}

}  // namespace Ctl
