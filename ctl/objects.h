// Live objects of the host, through its generic interface.
#pragma once

#include <string>

#include "ctl/client.h"

namespace Ctl {

// Performs `operation` (tree, list, get, set, delete, iterate, invoke) at a path. Throws Refusal.
Json callObject(Client& client, const std::string& operation, const std::string& path,
                Json arguments = Json::array());
// A value from the command line: JSON, or a string if it is not valid JSON.
Json argumentOf(const std::string& text);

}  // namespace Ctl
