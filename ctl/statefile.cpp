#include "ctl/statefile.h"

#include <filesystem>

#include "ctl/ownhost.h"

namespace Ctl {

void makeStateFile(const Target& target) {
  constexpr std::string_view kFile = "sqlite:";
  std::error_code ignored;
  if (!target.store.starts_with(kFile) || std::filesystem::exists(target.store.substr(kFile.size()), ignored))
    return;
  Client(std::make_unique<OwnHost>(target.store, target.types), target.name()).call("status");
}

}  // namespace Ctl
