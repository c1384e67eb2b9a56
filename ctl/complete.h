// Shell completion.
#pragma once

#include <string>
#include <vector>

#include "ctl/context.h"

namespace Ctl {

// Prints the candidates for the last word, one per line. `words` is the command line up to the cursor,
// without the program's name. A candidate that ends in '/' is incomplete; ":files" stands for file names.
// Without a host, omits the names that only the host knows. Returns the exit status.
int printCandidates(const CLI::App& app, const Completions& completions, Context& context,
                    const std::vector<std::string>& words);

}  // namespace Ctl
