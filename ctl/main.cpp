#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <iostream>

#include "ctl/context.h"

namespace {

// Blocks of at least so many bytes, such as long messages, are mapped. The allocator would raise this after
// the first of them, and then merge all free blocks of the heap whenever one is freed.
constexpr int kLargeBlock = 256 * 1024;

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
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  return Ctl::runCommandLine({argv + 1, argv + argc}, std::cout, std::cerr);
}
