// Shell completion.
#pragma once

#include <string>
#include <vector>

#include "ctl/context.h"

namespace Ctl {

// Prints the candidates for the last of the words, one a line; the words are the command line up to the
// cursor, without the program's name. A candidate that ends in '/' may go on. Where files are meant it prints
// the one line
// ":files". Names that only the host knows are left out while there is none. Returns the exit status.
int printCandidates(const CLI::App& app, const Completions& completions, Context& context,
                    const std::vector<std::string>& words);

}  // namespace Ctl
