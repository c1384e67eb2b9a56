#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/torture/daemon.h"
#include "tests/torture/shim.h"

namespace Torture {

Shim::Shim(const std::string& control, const std::string& state, const std::string& record)
    : environment_{{"LD_PRELOAD", built("lib/libtorture_shim.so")},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                   {"TORTURE_CONTROL", control},
                   {"TORTURE_STATE", state},
                   {"TORTURE_RECORD", record}} {
  const int file = ::open(control.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* mapped = MAP_FAILED;
  if (::ftruncate(file, sizeof(ShimControl)) == 0)
    mapped = ::mmap(nullptr, sizeof(ShimControl), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (mapped == MAP_FAILED) std::abort();
  control_ = static_cast<ShimControl*>(mapped);
}
Shim::~Shim() { ::munmap(control_, sizeof(ShimControl)); }

void Shim::fail(std::uint32_t kinds, int error, std::uint32_t after, std::uint32_t count) {
  control_->failed = 0, control_->error = error, control_->count = count;
  control_->from = control_->steps + after, control_->kinds = kinds;
}
void Shim::heal() { control_->kinds = 0, control_->delay = 0, control_->half = 0; }

}  // namespace Torture
