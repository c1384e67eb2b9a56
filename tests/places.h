// Absolute paths of this clone and of what it built. CMake writes the functions, and no other source of the
// tests has a path of the clone in it: the compiler's cache serves every clone.
#pragma once

#include <string>

namespace Places {

std::string sourceFolder();
std::string pinlampd();
std::string pinlampctl();
std::string ledAgent();    // the library, as the host loads it
std::string testAgents();  // tests/host/plugins: agents.cpp
std::string oldAgent();    //                     oldagent.cpp
std::string alienAgent();  //                     alienagent.cpp

}  // namespace Places
