#include <fcntl.h>
#include <unistd.h>

#include <iostream>

#include "ctl/context.h"

namespace {

// Keeps the numbers of closed standard streams from the connection, which would be read and written as such.
// Writing to a closed standard output still fails.
void reserveStandardStreams() {
  while (true) {
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor > STDERR_FILENO) close(descriptor);
    if (descriptor < 0 || descriptor > STDERR_FILENO) return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  reserveStandardStreams();
  return Ctl::runCommandLine({argv + 1, argv + argc}, std::cout, std::cerr);
}
