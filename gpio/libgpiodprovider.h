// The lines of the kernel's GPIO character devices, through libgpiod (libgpiod.h).
#pragma once

#include <string>

#include "gpio/lineprovider.h"

namespace Gpio {

class LibgpiodProvider : public LineProvider {
 public:
  // `consumer` is what others see as the holder of the lines; the kernel keeps its first 31 characters.
  explicit LibgpiodProvider(std::string consumer);
  ~LibgpiodProvider() override;

  Survey survey() const override;

 protected:
  std::unique_ptr<LineRequest> take(std::vector<Line> lines, const LineValues& lit,
                                    const LineValues& levels) override;

 private:
  std::string consumer_;
};

}  // namespace Gpio
