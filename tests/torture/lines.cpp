// The line agent on a chip in a file that another process can read: TORTURE_LINES has a byte for each line,
// its level. Levels outlive the agent, as on a chip that keeps them.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "gpio/lineagent.h"

namespace {

class Request : public Gpio::LineRequest {
 public:
  Request(std::vector<Gpio::Line> lines, const Gpio::LineValues& lit, unsigned char* levels)
      : LineRequest(std::move(lines), lit), levels_(levels) {}
  void write(const Gpio::LineValues& levels) override {
    for (std::size_t i = 0; i < lines().size(); ++i) levels_[lines()[i].place.offset] = levels[i];
  }
  void close() noexcept override {}

 private:
  unsigned char* const levels_;
};

class Chip : public Gpio::LineProvider {
 public:
  explicit Chip(const char* file) {
    struct stat status {};
    const int descriptor = file ? ::open(file, O_RDWR | O_CLOEXEC) : -1;
    if (::fstat(descriptor, &status) != 0) throw std::runtime_error("TORTURE_LINES names no file");
    size_ = static_cast<std::size_t>(status.st_size);
    levels_ = static_cast<unsigned char*>(
        ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    ::close(descriptor);
  }
  Gpio::Survey survey() const override {
    return {{{"gpiochip0", "board", std::vector<Gpio::LineInfo>(size_)}}, {}};
  }

 protected:
  std::unique_ptr<Gpio::LineRequest> take(std::vector<Gpio::Line> lines, const Gpio::LineValues& lit,
                                          const Gpio::LineValues& levels) override {
    auto request = std::make_unique<Request>(std::move(lines), lit, levels_);
    request->write(levels);
    return request;
  }

 private:
  std::size_t size_;
  unsigned char* levels_;
};

const Zel::TypeRegistration types{&Pinlamp::LineAgent::typeNode};

}  // namespace

namespace TortureLines {
ZEL_API Zel::Ptr<Pinlamp::LineAgent> agentFactory(Zel::Name name) {
  return Zel::allocate<Pinlamp::LineAgent>(name, std::make_unique<Chip>(std::getenv("TORTURE_LINES")));
}
}  // namespace TortureLines
