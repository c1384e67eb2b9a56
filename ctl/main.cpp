#include <iostream>

#include "ctl/context.h"

int main(int argc, char** argv) { return Ctl::runCommandLine({argv + 1, argv + argc}, std::cout, std::cerr); }
