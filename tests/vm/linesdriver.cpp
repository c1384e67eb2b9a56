// Holds GPIO lines for lines.sh: requests them, then executes commands from standard input, one per line.
//   linesdriver CONSUMER FIRST CHIP LINE[:low][:off]...
//     FIRST         the lines' first values, a digit for each
//   Commands: set VALUES, release, end. The answer to each is "ok" or the error.
#include <iostream>
#include <sstream>

#include "gpio/libgpiodprovider.h"

namespace {

Gpio::LineValues valuesOf(const std::string& digits) {
  Gpio::LineValues values;
  for (std::size_t i = 0; i < digits.size(); ++i) values[i] = digits[i] == '1';
  return values;
}

Gpio::Line lineOf(const Gpio::Survey& survey, const std::string& chip, const std::string& word) {
  std::istringstream parts(word);
  std::string name;
  std::getline(parts, name, ':');
  Gpio::Line line{survey.find(chip, name)};
  for (std::string flag; std::getline(parts, flag, ':');) {
    if (flag == "low") line.activeLow = true;
    if (flag == "off") line.onExit = Gpio::LineExit::off;
  }
  return line;
}

template <typename Action>
bool answer(Action&& action) {
  try {
    action();
    std::cout << "ok" << std::endl;
    return true;
  } catch (const Gpio::LineError& error) {
    std::cout << error.what() << std::endl;
    return false;
  }
}

void execute(Gpio::LineRequest& request) {
  for (std::string command, values; std::cin >> command && command != "end";) {
    if (command == "set") {
      std::cin >> values;
      answer([&] { request.set(valuesOf(values)); });
    } else {
      answer([&] { request.release(); });
    }
  }
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> args(words, words + count);
  if (args.size() < 5) {
    std::cerr << "usage: linesdriver CONSUMER FIRST CHIP LINE[:low][:off]...\n";
    return 2;
  }
  Gpio::LibgpiodProvider provider(args[1]);
  std::unique_ptr<Gpio::LineRequest> request;
  const bool taken = answer([&] {
    const Gpio::Survey survey = provider.survey();
    std::vector<Gpio::Line> lines;
    for (std::size_t i = 4; i < args.size(); ++i) lines.push_back(lineOf(survey, args[3], args[i]));
    request = provider.request(lines, valuesOf(args[2]));
  });
  if (taken) execute(*request);
  return taken ? 0 : 3;
}
